// Runs Lua code for the program.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <lua.hpp>

/// The exit status of the program after an error in a script.
constexpr int kScriptFailed = 1;

struct Script {
    std::string name;     ///< For messages, UTF-8.
    std::string content;  ///< The content of the file, possibly with a byte order mark or a shebang line.
    std::vector<std::string> arguments;
};

/// Runs the script with its arguments; prints an error to standard error with a traceback.
/// @param error  receives the error, if there is one.
/// @return the status for the program: what the script returns, if that is a whole number from 0 to 255; 0 for nothing
///   and true; kScriptFailed for false, after an error, and for anything else, with a message.
[[nodiscard]] int RunScript(lua_State *L, const Script &script, std::string &error);

/// What a script has given to os.exit; 0 before.
[[nodiscard]] int ExitStatus();

/// Replaces os.exit by a function that accepts the same values as results of scripts. Raises Lua errors.
void UseCheckedExit(lua_State *L);

/// Reads lines from standard input and runs each; prints the values of expressions, and errors. Ends with the input, or
/// on an interruption.
void RunPrompt(lua_State *L);

/// Calls the function on top of the stack, which takes the argument as a light userdata and returns one value.
/// @return true with the value on the stack; false after an error, which is reported.
/// @param error  receives the error, if not null.
[[nodiscard]] bool CallReporting(lua_State *L, const void *argument, std::string *error = nullptr);
