#include "DriverTexts.h"

#include <algorithm>
#include <charconv>

namespace {

struct SilentStep {
    std::string_view call;
    const char *step;
};
/// Calls in steps that leave no line in the log.
constexpr SilentStep kSilentSteps[] = {
    {"CoCreateInstance(CLSID_CNetCfg)", "GettingInetCfg"},
    {"INetCfg::Initialize", "GettingInetCfg"},
    {"INetCfg::QueryInterface(IID_INetCfgLock)", "GettingNetworkConfigLock"},
    {"INetCfgLock::AcquireWriteLock", "GettingNetworkConfigLock"},
    {"INetCfg::Uninitialize", "ReleasingInetCfg"},
    {"INetCfgLock::ReleaseWriteLock", "ReleasingNetworkConfigLock"},
};

}  // namespace

std::optional<StepLine> ParseStepLine(std::string_view line) {
    constexpr std::string_view tail = "s max";
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    if (line.starts_with('<'))
        return StepLine{false, std::string(line.substr(1)), 0};
    const std::size_t dot = line.find(". ");
    if (!line.starts_with('>') || dot == line.npos || !line.ends_with(tail))
        return std::nullopt;
    StepLine step{true, std::string(line.substr(1, dot - 1)), 0};
    const char *const end = line.data() + line.size() - tail.size();
    const std::from_chars_result read = std::from_chars(line.data() + dot + 2, end, step.limit);
    return read.ec == std::errc() && read.ptr == end ? std::optional(step) : std::nullopt;
}

std::optional<DriverFailure> ParseFailure(std::string_view text) {
    const std::size_t bar = text.find('|');
    const std::size_t open = text.rfind('(');
    if (bar == text.npos || open == text.npos || open < bar || !text.ends_with(')'))
        return std::nullopt;
    std::string_view code = text.substr(open + 1, text.size() - open - 2);
    if (code.starts_with("0x"))
        code.remove_prefix(2);
    DriverFailure failure{.call = std::string(text.substr(0, bar))};
    const std::from_chars_result read = std::from_chars(code.data(), code.data() + code.size(), failure.code, 16);
    if (read.ec != std::errc() || read.ptr != code.data() + code.size())
        return std::nullopt;
    for (const SilentStep &silent : kSilentSteps)
        if (failure.call == silent.call)
            failure.step = silent.step;
    return failure;
}

std::string_view TakeUntil(std::string_view &text, char mark) {
    const std::string_view part = text.substr(0, text.find(mark));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return part;
}
