// The userdata that holds a native object. Its payload is one word, the object's address.
#include "slb3_control.h"

#include <new>

namespace SLB3 {
namespace {

struct Instance {
    SlbInstance head;
    void *object;
};
static_assert(offsetof(Instance, object) == sizeof(SlbInstance));

void *Resolve(const SlbInstanceView *view) {
    return *static_cast<void *const *>(view->payload);
}

/// __tostring; its upvalue is the name of the metatable.
int ToString(lua_State *state) {
    const char *metatable = lua_tostring(state, lua_upvalueindex(1));
    const auto *instance = static_cast<const Instance *>(luaL_checkudata(state, 1, metatable));
    if (instance->object != nullptr)
        lua_pushfstring(state, "%s: %p", instance->head.typeName, instance->object);
    else
        lua_pushfstring(state, "%s: gone", instance->head.typeName);
    return 1;
}

/// Pushes the metatable of the type.
void PushMetatable(lua_State *state, const char *typeName) {
    const char *name = lua_pushfstring(state, "SLB3:%s", typeName);
    if (luaL_newmetatable(state, name)) {
        lua_pushvalue(state, -2);
        lua_pushcclosure(state, &ToString, 1);
        lua_setfield(state, -2, "__tostring");
    }
    lua_remove(state, -2);
}

}  // namespace

void Control::PushInstance(lua_State *state, const char *typeName, void *object, bool isConst,
                           const SlbBaseEntry *bases) {
    luaL_checkstack(state, 5, "SLB3: no room for an instance");
    void *block = lua_newuserdata(state, sizeof(Instance));
    const std::uint32_t flags = isConst ? SlbInstance::kConstFlags : 0;
    new (block) Instance{SlbInstance{flags, typeName, &Resolve, bases}, object};
    PushMetatable(state, typeName);
    lua_setmetatable(state, -2);
}

void Control::ForgetObject(lua_State *state, int index) {
    auto *instance = static_cast<Instance *>(lua_touserdata(state, index));
    if (instance == nullptr || lua_rawlen(state, index) != sizeof(Instance) || instance->head.resolve != &Resolve)
        luaL_error(state, "SLB3: not an instance");
    else
        instance->object = nullptr;
}

}  // namespace SLB3
