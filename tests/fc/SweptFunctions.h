// The functions of SLB.filter, what each accepts, and what it may return.
#pragma once

#include <string>
#include <vector>

#include <lua.hpp>

#include "SweepValues.h"

struct SweptFunction {
    const char *name;
    /// A usual call's arguments, by the names of their values.
    std::vector<const char *> usual;
    /// A letter for each argument that is checked, in the order of the checks: see ArgumentRule in the .cpp.
    const char *takes;
    /// A letter for each result, or alternatives separated by a bar: see IsRight in the .cpp.
    const char *results;
    /// Its relative frequency among the random calls.
    unsigned weight;
    /// The call starts threads, and is slow, unless it is refused.
    bool startsThreads = false;
};

/// All of them, in no order.
[[nodiscard]] const std::vector<SweptFunction> &SweptFunctions();

/// What a call should do, as far as its arguments determine it.
struct SweptExpectation {
    std::string error;          ///< Part of the message of the error that it raises; empty if it raises none.
    bool badArguments = false;  ///< An argument is wrong, whether that raises an error or not.
};

/// @param kinds  of the arguments, which are the topmost values of the stack.
[[nodiscard]] SweptExpectation ExpectCall(const SweptFunction &function, lua_State *L,
                                          const std::vector<AgentKind> &kinds);

/// The results are the topmost values of the stack.
/// @return what is wrong with them; empty if nothing is.
/// @param lastArgument  index of a copy of the call's last argument; 0 if it had none.
[[nodiscard]] std::string ComplaintAbout(const SweptFunction &function, lua_State *L, int results, int lastArgument,
                                         const SweptExpectation &expected);
