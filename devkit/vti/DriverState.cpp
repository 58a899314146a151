#include "DriverState.h"

#include <cstddef>

namespace Vti {

namespace {

/// When so many calls are recorded, the older half is dropped.
constexpr std::size_t kMaxCalls = 100'000;

}  // namespace

Driver &TheDriver() {
    static Driver driver;
    return driver;
}

std::mutex &Lock() {
    static std::mutex lock;
    return lock;
}

HandleTable &OpenHandles() {
    static HandleTable handles;
    return handles;
}

void Reset() {
    const std::lock_guard<std::mutex> guard(Lock());
    const int openHandles = TheDriver().openHandles;
    TheDriver() = Driver();
    TheDriver().openHandles = openHandles;
}

void RecordCall(const char *operation, const std::string &arguments) {
    std::vector<std::string> &calls = TheDriver().calls;
    if (calls.size() >= kMaxCalls)
        calls.erase(calls.begin(), calls.begin() + kMaxCalls / 2);
    calls.push_back(std::string(operation) + "(" + arguments + ")");
    if (TheDriver().onCall)
        TheDriver().onCall(TheDriver(), std::string(calls.back()));
}

const Fault *NextFault(const char *operation) {
    const auto found = TheDriver().faults.find(operation);
    if (found == TheDriver().faults.end())
        return nullptr;
    Fault &fault = found->second;
    if (fault.after > 0) {
        --fault.after;
        return nullptr;
    }
    if (fault.remaining == 0)
        return nullptr;
    if (fault.remaining > 0)
        --fault.remaining;
    ++fault.met;
    return &fault;
}

void Trace(int32_t level, const char *source, const char *file, int32_t line, const char *text) {
    vti_trace_handler handler = nullptr;
    {
        const std::lock_guard<std::mutex> guard(Lock());
        if (level <= TheDriver().traceLevel)
            handler = TheDriver().traceHandler;
    }
    // Outside the lock: the handler may call back into the library.
    if (handler != nullptr)
        (void)handler(level, source, file, line, text);
}

}  // namespace Vti
