// The enumeration key of an orphan that nothing else could remove.
#include <algorithm>
#include <string>
#include <vector>

#include "RemovalFixture.h"
#include "WindowsDriverInstaller/RegistryTree.h"

namespace {

using Lines = std::vector<std::string>;

constexpr wchar_t kRootDevices[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root";
constexpr wchar_t kOrphanKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";

const std::string kScanning =
    R"( cleanup_registry: Scanning for registry key SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP)";
const std::string kFound = R"( cleanup_registry: Found SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP key)";
const std::string kNothing = "     cleanup_registry: no matches found";
const std::string kDeleted = "     cleanup_registry: successfuly deleted";
const std::string kKept = "     cleanup_registry: failed to delete";

/// An orphan that stays, with a key of three devices; the first of them has keys below it.
class RegistryCleanUp : public RemovalFixture {
protected:
    RegistryCleanUp() {
        RemoveDrivers();
        PutOrphan();
        registry().PutKey(HKEY_LOCAL_MACHINE, std::wstring(kRootDevices) + L"\\OTHER\\0000");
        registry().PutDword(HKEY_LOCAL_MACHINE, Below(L"0001"), L"Capabilities", 1);
        registry().PutText(HKEY_LOCAL_MACHINE, Below(L"0001\\Device Parameters\\Wdf"), L"", L"text");
        registry().PutKey(HKEY_LOCAL_MACHINE, Below(L"0002"));
        registry().PutKey(HKEY_LOCAL_MACHINE, Below(L"0003"));
    }

    Simulator::RegistrySandbox &registry() { return simulation().GetRegistry(); }
    static std::wstring Below(const std::wstring &name) { return std::wstring(kOrphanKey) + L"\\" + name; }
    bool Has(const std::wstring &path) { return registry().HasKey(HKEY_LOCAL_MACHINE, path); }

    /// The lines of the clean-up. Whatever comes of it, the removal succeeds and leaves no key open.
    Lines CleanUp() {
        const Removal removal = Uninstall();
        EXPECT_TRUE(removal.result);
        EXPECT_EQ(removal.events, Lines{});
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kKey), 0U);
        Lines lines = removal.ThreadLog();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), " HrCleanupOrphans: orphan scan needs reboot (4:0)"), 1);
        std::erase_if(lines, [](const std::string &line) { return line.find("cleanup_registry:") == line.npos; });
        return lines;
    }
};

TEST_F(RegistryCleanUp, DeletesTheKeyWithAllBelowItAndNoOther) {
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
    EXPECT_TRUE(Has(std::wstring(kRootDevices) + L"\\OTHER\\0000"));
}

TEST_F(RegistryCleanUp, DeletesAKeyWithNothingBelowIt) {
    registry().Remove(HKEY_LOCAL_MACHINE, kOrphanKey);
    registry().PutKey(HKEY_LOCAL_MACHINE, kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
    EXPECT_EQ(Calls({"RegEnumKeyExW"}), Lines{}) << "the first deletion did it";
}

TEST_F(RegistryCleanUp, FindsNothingWhereThereIsNoKey) {
    registry().Remove(HKEY_LOCAL_MACHINE, kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kNothing}));
    EXPECT_EQ(Calls({"SetNamedSecurityInfoW", "RegDeleteKeyW"}), Lines{});
}

TEST_F(RegistryCleanUp, FindsNothingInAKeyThatCannotBeOpened) {
    const auto plan = simulation().GetFaults().FailNth("RegOpenKeyExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kNothing}));
    EXPECT_TRUE(Has(kOrphanKey));
}

TEST_F(RegistryCleanUp, OpensTheKeyForReading) {
    (void)CleanUp();
    EXPECT_EQ(Calls({"RegOpenKeyExW"}).front(),
              R"(RegOpenKeyExW(HKEY_LOCAL_MACHINE, "SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP", 0, )" +
                  std::to_string(KEY_READ) + ", *)");
}

TEST_F(RegistryCleanUp, TakesTheKeyBeforeItDeletes) {
    (void)CleanUp();
    const Lines calls = NamesOfCalls({"SetNamedSecurityInfoW", "RegDeleteKeyW"});
    ASSERT_GT(calls.size(), 1U);
    EXPECT_EQ(calls.front(), "SetNamedSecurityInfoW");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "SetNamedSecurityInfoW"), 1);
}

TEST_F(RegistryCleanUp, TriesADeletionBeforeItLooksBelow) {
    (void)CleanUp();
    Lines calls = Calls({"RegDeleteKeyW"});
    const std::string key = R"(RegDeleteKeyW(HKEY_LOCAL_MACHINE, "SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP)";
    EXPECT_EQ(calls, (Lines{key + "\")", key + R"(\0001"))", key + R"(\0001\Device Parameters"))",
                            key + R"(\0001\Device Parameters\Wdf"))", key + R"(\0001\Device Parameters"))",
                            key + R"(\0001"))", key + R"(\0002"))", key + R"(\0003"))", key + "\")"}));
}

TEST_F(RegistryCleanUp, FailsAtASubkeyThatStaysAndLeavesThoseBehindIt) {
    simulation().GetSecurity().ForbidDeletion(Below(L"0002"));
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_FALSE(Has(Below(L"0001")));
    EXPECT_TRUE(Has(Below(L"0002")));
    EXPECT_TRUE(Has(Below(L"0003")));
}

TEST_F(RegistryCleanUp, FailsAtASubkeyFurtherDown) {
    simulation().GetSecurity().ForbidDeletion(Below(L"0001\\Device Parameters\\Wdf"));
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(Has(Below(L"0001\\Device Parameters\\Wdf")));
    EXPECT_TRUE(Has(Below(L"0002")));
}

TEST_F(RegistryCleanUp, RestoresThePathWhereASubkeyStays) {
    simulation().GetSecurity().ForbidDeletion(Below(L"0001\\Device Parameters\\Wdf"));
    std::wstring path = kOrphanKey;
    EXPECT_EQ(DeleteRegistryTree(path), 1);
    EXPECT_EQ(path, kOrphanKey);
    EXPECT_EQ(Calls({"RegDeleteKeyW"}).back(),
              R"(RegDeleteKeyW(HKEY_LOCAL_MACHINE, "SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP"))")
        << "tried again when the subkeys are through";
}

TEST_F(RegistryCleanUp, FailsWhereTheKeyItselfStays) {
    simulation().GetSecurity().ForbidDeletion(kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(Has(kOrphanKey));
    EXPECT_FALSE(Has(Below(L"0001")));
    EXPECT_FALSE(Has(Below(L"0003")));
}

TEST_F(RegistryCleanUp, FailsWhereSubkeysCannotBeEnumerated) {
    const auto plan = simulation().GetFaults().FailNth("RegEnumKeyExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(Has(Below(L"0001")));
}

TEST_F(RegistryCleanUp, FailsWhereTheKeyCannotBeOpenedForItsSubkeys) {
    const auto plan = simulation().GetFaults().FailNth("RegOpenKeyExW", 2, ERROR_ACCESS_DENIED);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(Has(Below(L"0001")));
}

TEST_F(RegistryCleanUp, TakesAKeyThatVanishesForDeleted) {
    simulation().GetSecurity().ForbidDeletion(kOrphanKey, ERROR_KEY_DELETED);
    const auto plan = simulation().GetFaults().FailNth("RegOpenKeyExW", 2, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
}

TEST_F(RegistryCleanUp, DeletesALockedKeyOnceItIsTaken) {
    simulation().GetSecurity().ProtectKey(kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
}

TEST_F(RegistryCleanUp, TriesTheDeletionAlsoOfAKeyThatItCannotTake) {
    simulation().GetSecurity().ProtectKey(kOrphanKey);
    simulation().GetSecurity().WithholdPrivilege(Simulator::kTakeOwnership);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_EQ(Calls({"RegDeleteKeyW"}).size(), 8U) << "four keys on the way down, and again on the way up";
    EXPECT_TRUE(Has(Below(L"0001")));
}

}  // namespace
