// SLB3, the agent's Lua binder, as far as this module needs it: named tables, the description of
// bound functions, and the record in which the binder keeps a native object on the Lua side.
#pragma once

#include <cstddef>
#include <cstdint>

#include <lua.hpp>

#ifdef SLB3_BUILD
#define SLB3_API __declspec(dllexport)
#else
#define SLB3_API __declspec(dllimport)
#endif

namespace SLB3 {

/// Access to a Lua table. No more thread-safe than the Lua state.
class SLB3_API Table {
public:
    /// Stores the value on top of the Lua stack under the key, and pops it; without metamethods. Raises a Lua error if
    /// Lua has no memory.
    void rawSet(const char *key);

protected:
    explicit Table(lua_State *state) : m_state(state) {}

    lua_State *m_state;  ///< First member: its offset is fixed by the binder.
    int m_table = 0;     ///< Reference of the table in the Lua registry.
};

/// A table with a dotted name below the globals, such as "SLB.filter", created if it is missing. Destroying the object
/// releases the access; the table itself stays.
class SLB3_API Namespace : public Table {
public:
    /// @param name  names separated by dots. A value that is not a table raises the Lua error
    ///   "SLB3: 'NAME' is not a table", without calling metamethods.
    Namespace(lua_State *state, const char *name);
    ~Namespace();

    Namespace(const Namespace &) = delete;
    Namespace &operator=(const Namespace &) = delete;
};

/// What the binder knows about a type that occurs in a bound function. The order of the virtual functions is fixed by
/// the binder, and it has no virtual destructor.
class BaseInfo {
public:
    virtual int kind() const = 0;
    virtual const char *name() const = 0;
    /// Number of parameters of a function type, -1 for any other type.
    virtual int parameterCount() const = 0;
    /// Record of a function type's result, null for any other type.
    virtual const BaseInfo *returnType() const = 0;
    /// Records of a function type's parameters, null for any other type.
    virtual const BaseInfo *const *parameters() const = 0;

protected:
    ~BaseInfo() = default;
};

/// The record of the type T; a module specialises it for the types of its bound functions.
template <typename T>
class Info;

/// The two words that a `SlbInstance::resolve` function is given.
struct SlbInstanceView {
    const void *instance;
    const void *payload;
};

/// One base class of a bound class; an array of these ends with an entry whose marker is zero.
struct SlbBaseEntry {
    const char *name;
    std::uintptr_t marker;
    /// @param object  address of the object as first resolved.
    void *(*convert)(void *object);
};
static_assert(sizeof(SlbBaseEntry) == 24);
static_assert(offsetof(SlbBaseEntry, marker) == 8);
static_assert(offsetof(SlbBaseEntry, convert) == 16);

/// The userdata record of a bound native object. Its payload, the binder's own storage, follows.
struct SlbInstance {
    /// Both set: the object is held as const.
    static constexpr std::uint32_t kConstFlags = 3;

    std::uint32_t flags;
    const char *typeName;
    /// Returns the object's address, or null if the object is gone.
    void *(*resolve)(const SlbInstanceView *view);
    const SlbBaseEntry *bases;
};
static_assert(sizeof(SlbInstance) == 32);
static_assert(offsetof(SlbInstance, flags) == 0);
static_assert(offsetof(SlbInstance, typeName) == 8);
static_assert(offsetof(SlbInstance, resolve) == 16);
static_assert(offsetof(SlbInstance, bases) == 24);

namespace internal {

/// Pushes one value that stands for the signature record of a bound function.
SLB3_API void PushInfoUpvalue(lua_State *state, const BaseInfo *info);

}  // namespace internal

}  // namespace SLB3
