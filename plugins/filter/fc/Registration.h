// How functions come into the table SLB.filter.
#pragma once

#include <new>

#include <lua.hpp>

#include "CallWrappers.h"
#include "SLB3.h"
#include "SignatureRecords.h"

constexpr const char *kFilterTableName = "SLB.filter";

/// Registers a Lua function that reads its own arguments.
inline void RegisterDirect(lua_State *L, SLB3::Table &table, const char *name, lua_CFunction function) {
    lua_pushcclosure(L, function, 0);
    table.rawSet(name);
}

constexpr lua_CFunction RegistrationWrapperOf(IntFromVoid) {
    return CallIntVoid;
}
constexpr lua_CFunction RegistrationWrapperOf(BoolFromBool) {
    return CallBoolBool;
}
constexpr lua_CFunction RegistrationWrapperOf(BoolFromStr) {
    return CallBoolStr;
}
constexpr lua_CFunction RegistrationWrapperOf(BoolFromStrStr) {
    return CallBoolStrStr;
}
constexpr lua_CFunction RegistrationWrapperOf(BoolFromDomStrStr) {
    return CallBoolDomStrStr;
}

/// Registers a plain native function behind the wrapper of its type.
template <typename Function>
void RegisterBound(lua_State *L, SLB3::Table &table, const char *name, Function function) {
    static_assert(sizeof(function) == 8);
    new (lua_newuserdata(L, sizeof(function))) Function(function);
    SLB3::internal::PushInfoUpvalue(L, SignatureRecord(function));
    lua_pushcclosure(L, RegistrationWrapperOf(function), 2);
    table.rawSet(name);
}
