#include "AdapterDevices.h"

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>
#include <winioctl.h>
#include <ntddndis.h>

#include "SimulatorNetworkSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr wchar_t kNode[] = L"PCI\\1";

/// One adapter, whose device is tested.
class SimulatedAdapterDevices : public SimulatedNetwork {
protected:
    SimulatedAdapterDevices() {
        network.PutAdapter({.id = L"pci\\card",
                            .bindName = L"{one}",
                            .pnpDevNodeId = kNode,
                            .mac = {1, 2, 3, 4, 5, 6},
                            .frames = 0x1'0000'0002});
    }
    static HANDLE Open(const wchar_t *path = L"\\\\.\\{ONE}") {
        return CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    }
    struct Answer {
        DWORD error = ERROR_SUCCESS;
        DWORD used = 0;
        std::array<BYTE, 16> bytes{};

        template <class T>
        [[nodiscard]] T As() const {
            T value{};
            std::memcpy(&value, bytes.data(), sizeof value);
            return value;
        }
    };
    static Answer Query(HANDLE device, ULONG id, DWORD size = 16, DWORD code = IOCTL_NDIS_QUERY_GLOBAL_STATS) {
        Answer answer;
        if (!DeviceIoControl(device, code, &id, sizeof id, answer.bytes.data(), size, &answer.used, nullptr))
            answer.error = GetLastError();
        return answer;
    }
    /// A query through a new handle.
    static Answer Ask(ULONG id, DWORD size = 16, DWORD code = IOCTL_NDIS_QUERY_GLOBAL_STATS) {
        const HANDLE device = Open();
        const Answer answer = Query(device, id, size, code);
        EXPECT_TRUE(CloseHandle(device));
        return answer;
    }
    static constexpr DWORD kSuccess = ERROR_SUCCESS;
};

}  // namespace

TEST_F(SimulatedAdapterDevices, AreOpenedByTheBindNameAndCounted) {
    const std::size_t before = Count(Kind::kHandle);
    const HANDLE device = Open();
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    EXPECT_EQ(Count(Kind::kHandle), before + 1);
    const HANDLE second = Open();
    EXPECT_NE(second, device);
    EXPECT_TRUE(CloseHandle(second));
    EXPECT_TRUE(CloseHandle(device));
    EXPECT_EQ(Count(Kind::kHandle), before);
    EXPECT_FALSE(CloseHandle(device)) << "a second time";
    EXPECT_EQ(Query(device, OID_GEN_RCV_OK).error, static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(SimulatedAdapterDevices, MayRefuseToBeOpened) {
    network.ChangeAdapter(kNode, [](NetworkAdapter &adapter) { adapter.openError = ERROR_ACCESS_DENIED; });
    EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(Open(L"\\\\.\\{none}"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(SimulatedAdapterDevices, DoNotAffectFilesAndOtherHandles) {
    std::array<wchar_t, MAX_PATH> path{};
    GetModuleFileNameW(nullptr, path.data(), MAX_PATH);
    const HANDLE file = Open(path.data());
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_NE(Query(file, OID_GEN_RCV_OK).error, kSuccess);
    LARGE_INTEGER size{};
    EXPECT_TRUE(GetFileSizeEx(file, &size));
    EXPECT_GT(size.QuadPart, 0);
    EXPECT_TRUE(CloseHandle(file));
}

TEST_F(SimulatedAdapterDevices, ReportTheAddress) {
    const Answer answer = Ask(OID_802_3_CURRENT_ADDRESS);
    EXPECT_EQ(answer.error, kSuccess);
    EXPECT_EQ(answer.used, 6U);
    EXPECT_EQ(std::memcmp(answer.bytes.data(), "\1\2\3\4\5\6\0", 7), 0);
    EXPECT_EQ(Ask(OID_802_3_CURRENT_ADDRESS, 5).error, static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
}

TEST_F(SimulatedAdapterDevices, ReportWhetherTheyAreConnected) {
    EXPECT_EQ(Ask(OID_GEN_MEDIA_CONNECT_STATUS, 4).As<DWORD>(), 0U);
    network.ChangeAdapter(kNode, [](NetworkAdapter &adapter) { adapter.mediaStatus = 1; });
    const Answer disconnected = Ask(OID_GEN_MEDIA_CONNECT_STATUS, 4);
    EXPECT_EQ(disconnected.used, 4U);
    EXPECT_EQ(disconnected.As<DWORD>(), 1U);
    network.ChangeAdapter(kNode, [](NetworkAdapter &adapter) { adapter.mediaStatus.reset(); });
    const Answer unknown = Ask(OID_GEN_MEDIA_CONNECT_STATUS, 4);
    EXPECT_EQ(unknown.error, static_cast<DWORD>(ERROR_GEN_FAILURE));
    EXPECT_EQ(unknown.used, 0U);
}

TEST_F(SimulatedAdapterDevices, ReportTheFramesInAsManyBytesAsTheAdapterHas) {
    EXPECT_EQ(Ask(OID_GEN_RCV_OK, 8).As<std::uint64_t>(), 0x1'0000'0002U);
    EXPECT_EQ(Ask(OID_GEN_RCV_OK, 4).As<std::uint64_t>(), 2U) << "the lower half";
    network.ChangeAdapter(kNode, [](NetworkAdapter &adapter) { adapter.framesSize = 4; });
    const Answer narrow = Ask(OID_GEN_RCV_OK, 8);
    EXPECT_EQ(narrow.used, 4U);
    EXPECT_EQ(narrow.As<std::uint64_t>(), 2U);
    EXPECT_EQ(Ask(OID_GEN_RCV_OK, 3).error, static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    network.ChangeAdapter(kNode, [](NetworkAdapter &adapter) { adapter.frames.reset(); });
    EXPECT_EQ(Ask(OID_GEN_RCV_OK, 8).error, static_cast<DWORD>(ERROR_GEN_FAILURE));
}

TEST_F(SimulatedAdapterDevices, SupportNoOtherQueries) {
    EXPECT_EQ(Ask(OID_GEN_SUPPORTED_LIST).error, static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(Ask(OID_GEN_RCV_OK, 8, FSCTL_GET_COMPRESSION).error, static_cast<DWORD>(ERROR_INVALID_FUNCTION));
    const HANDLE device = Open();
    DWORD used = 0;
    EXPECT_FALSE(DeviceIoControl(device, IOCTL_NDIS_QUERY_GLOBAL_STATS, nullptr, 0, &used, 4, &used, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    network.RemoveAdapter(kNode);
    EXPECT_EQ(Query(device, OID_GEN_RCV_OK).error, static_cast<DWORD>(ERROR_DEVICE_REMOVED));
    EXPECT_TRUE(CloseHandle(device));
}

TEST_F(SimulatedAdapterDevices, FailAsPlannedAndAreInTheJournal) {
    (void)journal().Take();
    (void)faults().FailNth("CreateFileW", 1, ERROR_SHARING_VIOLATION);
    (void)faults().FailNth("DeviceIoControl", 1, ERROR_CRC);
    EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(Ask(OID_GEN_RCV_OK).error, static_cast<DWORD>(ERROR_CRC));
    EXPECT_EQ(journal().Names(),
              (std::vector<std::string>{"CreateFileW", "CreateFileW", "DeviceIoControl", "CloseHandle"}));
}
