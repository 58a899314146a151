#include "AdapterDevices.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>
#include <winioctl.h>
#include <ntddndis.h>

#include "AnyCase.h"
#include "FunctionSet.h"
#include "NetworkConfiguration.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace System {

SIMULATOR_FUNCTION(DeviceIoControl, "KERNEL32.dll", ReturnsZero);

}  // namespace System

namespace {

constexpr std::wstring_view kPrefix = L"\\\\.\\";

/// Never reused, and different from the system's handles, whose low bits are clear.
HANDLE NewDeviceHandle() {
    static std::atomic<std::uintptr_t> last{0x4E440001};
    return reinterpret_cast<HANDLE>(last += 4);
}

using Bytes = std::vector<BYTE>;

template <class T>
std::optional<Bytes> BytesOf(const std::optional<T> &value, std::size_t size) {
    if (!value)
        return std::nullopt;
    const auto *first = reinterpret_cast<const BYTE *>(&*value);  // the lowest first
    return Bytes(first, first + size);
}

struct Buffer {
    void *data;
    DWORD size;
    DWORD *used;
};

DWORD Answer(const NetworkAdapter &adapter, ULONG id, const Buffer &output) {
    std::optional<Bytes> answer;
    if (id == OID_802_3_CURRENT_ADDRESS)
        answer = adapter.mac;
    else if (id == OID_GEN_MEDIA_CONNECT_STATUS)
        answer = BytesOf(adapter.mediaStatus, sizeof(DWORD));
    else if (id == OID_GEN_RCV_OK)
        answer = BytesOf(adapter.frames, output.size < adapter.framesSize ? sizeof(DWORD) : adapter.framesSize);
    else
        return ERROR_NOT_SUPPORTED;
    if (!answer)
        return ERROR_GEN_FAILURE;
    if (output.size < answer->size())
        return ERROR_INSUFFICIENT_BUFFER;
    std::copy(answer->begin(), answer->end(), static_cast<BYTE *>(output.data));
    *output.used = static_cast<DWORD>(answer->size());
    return ERROR_SUCCESS;
}

/// The open handles. Any thread.
class AdapterDevices {
public:
    explicit AdapterDevices(std::shared_ptr<NetworkConfiguration> network) : m_network(std::move(network)) {}

    /// @return empty if the path is not an adapter's; INVALID_HANDLE_VALUE, with the last error, if it can't be opened.
    std::optional<HANDLE> Open(const wchar_t *path) {
        if (path == nullptr || !std::wstring_view(path).starts_with(kPrefix))
            return std::nullopt;
        const std::wstring name = path + kPrefix.size();
        unsigned key = 0;
        const DWORD error = m_network->Use([&](const NetworkState &state) -> DWORD {
            for (const NetworkComponent &component : state.components) {
                if (!component.adapter || !SameInAnyCase(component.adapter->bindName, name))
                    continue;
                key = component.key;
                return component.adapter->openError;
            }
            return ERROR_FILE_NOT_FOUND;
        });
        if (key == 0)
            return std::nullopt;
        if (error != ERROR_SUCCESS) {
            SetLastError(error);
            return INVALID_HANDLE_VALUE;
        }
        const LockGuard guard(m_lock);
        const HANDLE handle = NewDeviceHandle();
        m_open.emplace(handle, key);
        return handle;
    }
    [[nodiscard]] bool Has(HANDLE handle) const {
        const LockGuard guard(m_lock);
        return m_open.count(handle) != 0;
    }
    /// @return false if the handle is not one of these.
    bool Close(HANDLE handle) {
        const LockGuard guard(m_lock);
        return m_open.erase(handle) != 0;
    }
    /// @param handle  one of these.
    DWORD Query(HANDLE handle, DWORD code, const void *input, DWORD inputSize, const Buffer &output) {
        ULONG id = 0;
        if (code != IOCTL_NDIS_QUERY_GLOBAL_STATS)
            return ERROR_INVALID_FUNCTION;
        if (input == nullptr || inputSize < sizeof id || output.used == nullptr ||
            (output.data == nullptr && output.size != 0))
            return ERROR_INVALID_PARAMETER;
        std::memcpy(&id, input, sizeof id);
        const unsigned key = KeyOf(handle);
        return m_network->Use([&](NetworkState &state) -> DWORD {
            const NetworkComponent *component = ComponentWithKey(state, key);
            return component == nullptr ? ERROR_DEVICE_REMOVED : Answer(*component->adapter, id, output);
        });
    }

private:
    [[nodiscard]] unsigned KeyOf(HANDLE handle) const {
        const LockGuard guard(m_lock);
        const auto found = m_open.find(handle);
        return found == m_open.end() ? 0 : found->second;
    }

    const std::shared_ptr<NetworkConfiguration> m_network;
    mutable Lock m_lock;
    std::map<HANDLE, unsigned> m_open;  ///< The adapters' components.
};

}  // namespace

void InstallAdapterDevices(FunctionSet &functions, const std::shared_ptr<NetworkConfiguration> &network) {
    const auto devices = std::make_shared<AdapterDevices>(network);
    functions.Put<System::CreateFileW>([devices](const auto &next, const wchar_t *path, auto... rest) -> HANDLE {
        const std::optional<HANDLE> opened = devices->Open(path);
        return opened ? *opened : next(path, rest...);
    });
    functions.Put<System::DeviceIoControl>([devices](const auto &next, HANDLE handle, DWORD code, void *input,
                                                     DWORD inputSize, void *output, DWORD outputSize, DWORD *used,
                                                     OVERLAPPED *overlapped) -> BOOL {
        if (!devices->Has(handle))
            return next(handle, code, input, inputSize, output, outputSize, used, overlapped);
        const DWORD error = devices->Query(handle, code, input, inputSize, {output, outputSize, used});
        if (error != ERROR_SUCCESS)
            SetLastError(error);
        return error == ERROR_SUCCESS;
    });
    functions.Put<System::CloseHandle>(
        [devices](const auto &next, HANDLE handle) -> BOOL { return devices->Close(handle) || next(handle); });
}

}  // namespace Simulator
