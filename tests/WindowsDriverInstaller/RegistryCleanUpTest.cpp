// The enumeration key of an orphan that nothing else could remove.
#include <algorithm>
#include <string>
#include <vector>

#include "RemovalFixture.h"
#include "WindowsFunctions.h"
#include "WindowsDriverInstaller/cleanup/RegistryTree.h"

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

/// An orphan that cannot be removed, with a key of three devices; the first of them has subkeys.
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

    static std::string Utf8Key() { return Simulator::Utf8(kOrphanKey); }
    /// The keys opened for deletion, each as the parent key and its name.
    Lines DeletionsTried() {
        const std::string begin = "RegOpenKeyExW(";
        const std::string end = ", 8, " + std::to_string(DELETE) + ", *)";
        Lines keys;
        for (const std::string &call : Calls({"RegOpenKeyExW"}))
            if (call.ends_with(end))
                keys.push_back(call.substr(begin.size(), call.size() - begin.size() - end.size()));
        return keys;
    }
    /// The lines of the clean-up. Whatever its result, the removal succeeds and leaves no key open.
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

TEST_F(RegistryCleanUp, DeletesTheKeyWithAllSubkeysAndNoOther) {
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
    EXPECT_TRUE(Has(std::wstring(kRootDevices) + L"\\OTHER\\0000"));
}

TEST_F(RegistryCleanUp, DeletesAKeyWithoutSubkeys) {
    registry().Remove(HKEY_LOCAL_MACHINE, kOrphanKey);
    registry().PutKey(HKEY_LOCAL_MACHINE, kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
    EXPECT_EQ(Calls({"RegEnumKeyExW"}), Lines{}) << "the first deletion did it";
}

TEST_F(RegistryCleanUp, FindsNothingWithoutAKey) {
    registry().Remove(HKEY_LOCAL_MACHINE, kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kNothing}));
    EXPECT_EQ(Calls({"SetNamedSecurityInfoW", "NtDeleteKey"}), Lines{});
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

TEST_F(RegistryCleanUp, TakesOwnershipBeforeItDeletes) {
    (void)CleanUp();
    const Lines calls = NamesOfCalls({"SetNamedSecurityInfoW", "NtDeleteKey"});
    ASSERT_GT(calls.size(), 1U);
    EXPECT_EQ(calls.front(), "SetNamedSecurityInfoW");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "SetNamedSecurityInfoW"), 1);
}

TEST_F(RegistryCleanUp, TriesADeletionBeforeItEnumeratesSubkeys) {
    (void)CleanUp();
    EXPECT_EQ(DeletionsTried(),
              (Lines{"HKEY_LOCAL_MACHINE, \"" + Utf8Key() + '"', "*, \"0001\"", "*, \"Device Parameters\"",
                     "*, \"Wdf\"", "*, \"Device Parameters\"", "*, \"0001\"", "*, \"0002\"", "*, \"0003\"",
                     "HKEY_LOCAL_MACHINE, \"" + Utf8Key() + '"'}));
}

TEST_F(RegistryCleanUp, OpensEveryKeyOfTheTreeWithoutFollowingLinks) {
    (void)CleanUp();
    Lines calls = Calls({"RegOpenKeyExW"});
    calls.erase(calls.begin());  // whether the key exists
    for (const std::string &call : calls)
        EXPECT_NE(call.find("\", " + std::to_string(REG_OPTION_OPEN_LINK) + ", "), call.npos) << call;
}

TEST_F(RegistryCleanUp, StopsAtASubkeyThatCannotBeDeleted) {
    simulation().GetSecurity().ForbidDeletion(Below(L"0002"));
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_FALSE(Has(Below(L"0001")));
    EXPECT_TRUE(Has(Below(L"0002")));
    EXPECT_TRUE(Has(Below(L"0003")));
}

TEST_F(RegistryCleanUp, StopsAtASubkeyFurtherDown) {
    simulation().GetSecurity().ForbidDeletion(Below(L"0001\\Device Parameters\\Wdf"));
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(Has(Below(L"0001\\Device Parameters\\Wdf")));
    EXPECT_TRUE(Has(Below(L"0002")));
}

TEST_F(RegistryCleanUp, TellsOneForATreeOfWhichSomethingStaysAndZeroForOneThatIsGone) {
    simulation().GetSecurity().ForbidDeletion(Below(L"0001\\Device Parameters\\Wdf"));
    EXPECT_EQ(DeleteRegistryTree(kOrphanKey), 1);
    EXPECT_TRUE(Has(Below(L"0002"))) << "those after it are kept";
    EXPECT_EQ(DeleteRegistryTree(Below(L"0002")), 0);
    EXPECT_FALSE(Has(Below(L"0002")));
    EXPECT_EQ(DeleteRegistryTree(Below(L"0002")), 0) << "one that was never there counts as gone";
}

TEST_F(RegistryCleanUp, FailsWhenTheKeyItselfCannotBeDeleted) {
    simulation().GetSecurity().ForbidDeletion(kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(Has(kOrphanKey));
    EXPECT_FALSE(Has(Below(L"0001")));
    EXPECT_FALSE(Has(Below(L"0003")));
}

TEST_F(RegistryCleanUp, FailsWhenSubkeysCannotBeEnumerated) {
    const auto plan = simulation().GetFaults().FailNth("RegEnumKeyExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(Has(Below(L"0001")));
}

TEST_F(RegistryCleanUp, FailsWhenTheKeyCannotBeOpenedForItsSubkeys) {
    const auto plan = simulation().GetFaults().FailNth("RegOpenKeyExW", 3, ERROR_ACCESS_DENIED);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Has(Below(L"0001")));
}

/// The system tells subkeys that are gone when they are to be deleted.
class EndlessSubkeys : public RegistryCleanUp {
protected:
    /// @param name  of the n-th answer, n from 0.
    /// @return how many were asked for.
    template <typename Name>
    unsigned Asked(Name name) {
        unsigned asked = 0;
        simulation().Functions().Put<Simulator::System::RegEnumKeyExW>(
            [&asked, name](const auto &, HKEY, DWORD, wchar_t *buffer, DWORD *length, auto...) -> LSTATUS {
                const std::wstring told = name(asked++);
                std::copy_n(told.c_str(), told.size() + 1, buffer);
                *length = static_cast<DWORD>(told.size());
                return ERROR_SUCCESS;
            });
        EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
        EXPECT_TRUE(Has(Below(L"0001")));
        return asked;
    }
};

TEST_F(EndlessSubkeys, TheSameNameIsTriedElevenTimes) {
    EXPECT_EQ(Asked([](unsigned) { return std::wstring(L"gone"); }), 11U);
}

TEST_F(EndlessSubkeys, AnEmptyNameEndsTheDeletion) {
    EXPECT_EQ(Asked([](unsigned) { return std::wstring(); }), 1U);
}

TEST_F(RegistryCleanUp, TreatsAKeyThatVanishesAsDeleted) {
    simulation().GetSecurity().ForbidDeletion(kOrphanKey, ERROR_KEY_DELETED);
    const auto plan = simulation().GetFaults().FailNth("RegOpenKeyExW", 3, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
}

TEST_F(RegistryCleanUp, DeletesALockedKeyAfterTakingOwnership) {
    simulation().GetSecurity().ProtectKey(kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
}

TEST_F(RegistryCleanUp, TriesToDeleteAKeyEvenWithoutOwnership) {
    simulation().GetSecurity().ProtectKey(kOrphanKey);
    simulation().GetSecurity().WithholdPrivilege(Simulator::kTakeOwnership);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_EQ(DeletionsTried().size(), 8U) << "four keys on the way down, and again on the way up";
    EXPECT_TRUE(Has(Below(L"0001")));
}

// --- what anybody may have created below a key left open to everyone ---

constexpr wchar_t kOutside[] = L"SOFTWARE\\Outside";

class PlantedKeys : public RegistryCleanUp {
protected:
    PlantedKeys() {
        registry().PutDword(HKEY_LOCAL_MACHINE, std::wstring(kOutside) + L"\\kept\\below", L"number", 7);
        registry().PutText(HKEY_LOCAL_MACHINE, kOutside, L"text", L"kept");
        outside = Outside();
    }
    std::string Outside() { return registry().Tree(HKEY_LOCAL_MACHINE, kOutside); }

    std::string outside;
};

TEST_F(PlantedKeys, ALinkIsDeletedButNotItsTarget) {
    registry().PutLink(HKEY_LOCAL_MACHINE, Below(L"0002\\link"), kOutside);
    ASSERT_TRUE(Has(Below(L"0002\\link\\kept\\below"))) << "the link works";
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_EQ(Outside(), outside);
    EXPECT_FALSE(Has(kOrphanKey));
}

TEST_F(PlantedKeys, ALinkInPlaceOfADeviceIsDeletedButNotItsTarget) {
    registry().Remove(HKEY_LOCAL_MACHINE, Below(L"0001"));
    registry().PutLink(HKEY_LOCAL_MACHINE, Below(L"0001"), kOutside);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_EQ(Outside(), outside);
    EXPECT_FALSE(Has(kOrphanKey));
}

TEST_F(PlantedKeys, ADanglingLinkIsDeleted) {
    registry().PutLink(HKEY_LOCAL_MACHINE, Below(L"0001\\link"), L"SOFTWARE\\Nowhere");
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
}

TEST_F(PlantedKeys, ALinkToTheKeyItselfIsDeleted) {
    registry().PutLink(HKEY_LOCAL_MACHINE, Below(L"0001\\link"), kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kDeleted}));
    EXPECT_FALSE(Has(kOrphanKey));
}

TEST_F(PlantedKeys, ANameWithAZeroInItStaysWithItsParentKeys) {
    using namespace std::string_literals;
    for (const std::wstring &name : {L"\0"s, L"\0name"s, L"na\0me"s, L"0001\0"s, L"name\0"s}) {
        SCOPED_TRACE(Simulator::Utf8(name));
        registry().Remove(HKEY_LOCAL_MACHINE, kOrphanKey);
        registry().PutKeyNamed(HKEY_LOCAL_MACHINE, Below(L"0001"), name);
        const std::string before = registry().Tree(HKEY_LOCAL_MACHINE, kOrphanKey);
        ASSERT_NE(before.find("\\0"), before.npos);
        EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
        EXPECT_EQ(registry().Tree(HKEY_LOCAL_MACHINE, kOrphanKey), before);
    }
}

TEST_F(PlantedKeys, ANameWithAZeroInItIsNotMistakenForTheShorterOne) {
    using namespace std::string_literals;
    registry().Remove(HKEY_LOCAL_MACHINE, kOrphanKey);
    registry().PutKeyNamed(HKEY_LOCAL_MACHINE, Below(L"0001"), L"a\0"s);
    registry().PutDword(HKEY_LOCAL_MACHINE, Below(L"0001\\a\\below"), L"number", 7);
    // A system that enumerates the longer of the two first.
    simulation().Functions().Put<Simulator::System::RegEnumKeyExW>(
        [](const auto &next, HKEY key, DWORD index, LPWSTR name, LPDWORD length, auto... rest) {
            const DWORD room = *length;
            const LSTATUS status = next(key, index, name, length, rest...);
            if (status != ERROR_SUCCESS || std::wstring(name, *length) != L"a")
                return status;
            *length = room;
            if (next(key, index + 1, name, length, rest...) == ERROR_SUCCESS)
                return LSTATUS{ERROR_SUCCESS};
            *length = room;
            return next(key, index, name, length, rest...);
        });
    const std::string before = registry().Tree(HKEY_LOCAL_MACHINE, kOrphanKey);
    EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, kKept}));
    EXPECT_EQ(registry().Tree(HKEY_LOCAL_MACHINE, kOrphanKey), before);
}

TEST_F(PlantedKeys, ATreeOf512LevelsIsDeletedAndADeeperOneStays) {
    for (const int levels : {512, 513}) {
        SCOPED_TRACE(levels);
        registry().Remove(HKEY_LOCAL_MACHINE, kOrphanKey);
        std::wstring path = kOrphanKey;
        for (int level = 1; level < levels; ++level)
            path += L"\\k";
        registry().PutKey(HKEY_LOCAL_MACHINE, path);
        EXPECT_EQ(CleanUp(), (Lines{kScanning, kFound, levels == 512 ? kDeleted : kKept}));
        EXPECT_EQ(Has(path), levels != 512);
    }
}

}  // namespace
