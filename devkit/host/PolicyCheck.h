// Checks policies and configuration files of system health before anybody uses them: what the module takes of each, by
// its own word, and what it would do with it.
#pragma once

#include <string>
#include <vector>

#include "Json.h"

struct Options;

enum class CheckedKind { Policy, Config };

struct CheckRequest {
    CheckedKind kind;
    std::vector<std::string> texts;
    bool wantsEffects = true;  ///< Also what the module would do, which takes longer.
};

/// Asks the module, in a process of its own.
/// @param error  says why, when the result is null.
/// @return an array with an answer for each text: see lua/check/check.lua.
JsonPtr CheckTexts(const CheckRequest &request, std::string &error);

/// What --check-policy and --check-config print.
/// @param answer  one of CheckTexts.
std::string AnswerText(const std::string &file, const cJSON *answer);

/// Checks the file of --check-policy or --check-config, and prints the answer.
/// @param error  says why it can't be checked, when nothing is printed.
/// @return whether there is nothing to complain about, neither of the file nor of the check.
bool CheckFile(const Options &options, std::string &error);
