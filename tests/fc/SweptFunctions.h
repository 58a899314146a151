// The functions of SLB.filter, what each takes, and what it may answer.
#pragma once

#include <string>
#include <vector>

#include <lua.hpp>

#include "SweepValues.h"

struct SweptFunction {
    const char *name;
    /// A usual call's arguments, by the names of their values.
    std::vector<const char *> usual;
    /// A letter for each argument that is looked at, in the order in which they are: see ArgumentRule in the .cpp.
    const char *takes;
    /// A letter for each result, or such letters divided by a bar: see IsRight in the .cpp.
    const char *results;
    /// How often it is called among the random calls, relative to the others.
    unsigned weight;
    /// The call starts threads, and takes long, unless it is refused.
    bool startsThreads = false;
};

/// All of them, in no order.
[[nodiscard]] const std::vector<SweptFunction> &SweptFunctions();

/// What a call is to do, as far as its arguments tell.
struct SweptExpectation {
    std::string error;          ///< Occurs in the message of the error that it raises; empty if it raises none.
    bool badArguments = false;  ///< Something is wrong with an argument, whether that raises an error or not.
};

/// @param kinds  of the arguments, which are the topmost values of the stack.
[[nodiscard]] SweptExpectation ExpectCall(const SweptFunction &function, lua_State *L,
                                          const std::vector<AgentKind> &kinds);

/// The results are the topmost values of the stack. @return what is wrong with them, if anything is.
/// @param lastArgument  index of a copy of the call's last argument; 0 if it had none.
[[nodiscard]] std::string ComplaintAbout(const SweptFunction &function, lua_State *L, int results, int lastArgument,
                                         const SweptExpectation &expected);
