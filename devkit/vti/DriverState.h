// What all operations of the stand-in share: the handles given out, the record of calls, the faults.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "vti_control.h"

namespace Vti {

constexpr int32_t kInvalidHandle = -10001;
constexpr int32_t kOutOfRange = -10002;
constexpr int32_t kInvalidRequest = -10003;

/// The result of an operation; the text counts only if the status is not 0.
struct Outcome {
    int32_t status = 0;
    std::string error;
};

/// The last error of each open handle. A handle's value is never reused, so that a closed one stays recognisable.
using HandleTable = std::map<vti_handle_t *, std::string>;

/// Guarded by Lock(), like everything below.
HandleTable &OpenHandles();

/// Adds a call to Driver::calls.
void RecordCall(const char *operation, const std::string &arguments);

/// The fault that this call of the operation meets, counted down; null if it should do its work.
const Fault *NextFault(const char *operation);

/// Takes the lock, records the call, and does the work unless the handle is not open or a fault is due.
/// @param work  called with the driver, under the lock; returns an Outcome.
/// @return the status; its text is kept as the handle's last error.
template <typename Work>
int32_t Perform(const char *operation, vti_handle_t *handle, const std::string &arguments, Work &&work) {
    const std::lock_guard<std::mutex> guard(Lock());
    RecordCall(operation, arguments);
    const auto open = OpenHandles().find(handle);
    if (open == OpenHandles().end())
        return kInvalidHandle;
    if (const Fault *fault = NextFault(operation)) {
        open->second = fault->error;
        return fault->status;
    }
    Outcome outcome = std::forward<Work>(work)(TheDriver());
    if (outcome.status != 0)
        open->second = std::move(outcome.error);
    return outcome.status;
}

}  // namespace Vti
