#include "UserdataArguments.h"

#include <cstring>

#include "SLB3.h"

namespace {

bool IsUserdataTypeNamed(const char *name, const char *wanted) {
    return name && (name == wanted || std::strcmp(name, wanted) == 0);
}

/// The object that the instance holds, as the wanted type.
void *ResolveUserdataInstance(const SLB3::SlbInstance &instance, const char *typeName) {
    if (!instance.resolve)
        return nullptr;
    const SLB3::SlbInstanceView view{&instance, &instance + 1};
    void *const object = instance.resolve(&view);
    if (!object || IsUserdataTypeNamed(instance.typeName, typeName))
        return object;  // cppcheck-suppress returnDanglingLifetime; it does not lie in the view
    if (!instance.bases)
        return nullptr;
    for (const SLB3::SlbBaseEntry *base = instance.bases; base->marker != 0; ++base)
        if (IsUserdataTypeNamed(base->name, typeName))
            return base->convert ? base->convert(object) : nullptr;
    return nullptr;
}

}  // namespace

void *GetUserdataArg(lua_State *L, int index, const char *typeName) {
    const auto *instance = static_cast<const SLB3::SlbInstance *>(lua_touserdata(L, index));
    // Another library's userdata may be shorter than the record; a light userdata has no length.
    if (!instance || lua_rawlen(L, index) < sizeof(SLB3::SlbInstance))
        return nullptr;

    const bool isConst = (instance->flags & SLB3::SlbInstance::kConstFlags) == SLB3::SlbInstance::kConstFlags;
    const int top = lua_gettop(L);
    void *const object = ResolveUserdataInstance(*instance, typeName);
    lua_settop(L, top);  // the binder's functions may have used the stack
    return isConst ? nullptr : object;
}

VtaCore::CDom *GetDomArg(lua_State *L) {
    return static_cast<VtaCore::CDom *>(GetUserdataArg(L, 1, kDomTypeName));
}

VtaCore::CZipOutputStream *GetZipArg(lua_State *L, int index) {
    return static_cast<VtaCore::CZipOutputStream *>(GetUserdataArg(L, index, kZipTypeName));
}

const DriverHandleBlock *GetDriverHandleArg(lua_State *L, int index) {
    const void *const block = luaL_testudata(L, index, kDriverHandleTypeName);
    if (!block || lua_rawlen(L, index) < sizeof(DriverHandleBlock))
        return nullptr;
    return static_cast<const DriverHandleBlock *>(block);
}
