// Parts of the removal on the real system: registry, INF files, security of keys. What would change the machine runs
// only in a private Wine prefix.
#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>
#include <setupapi.h>

#include "LogCollector.h"
#include "ModuleFixture.h"
#include "NativeKeys.h"
#include "SecurityFunctions.h"
#include "UniqueHandle.h"
#include "WindowsDriverInstaller/cleanup/RegistryTree.h"
#include "WindowsDriverInstaller/cleanup/TakeOwnership.h"
#include "slb3_control.h"
#include "vta_core_control.h"

namespace {

using Simulator::UniqueKey;

bool IsUnderWine() {
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

std::wstring KeyOfThisProgram() {
    return L"Software\\fc-devkit-test-" + std::to_wstring(GetCurrentProcessId());
}

UniqueKey MakeKey(const std::wstring &path, DWORD options = 0) {
    HKEY key = nullptr;
    const LSTATUS status =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, options, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    EXPECT_EQ(status, ERROR_SUCCESS);
    return UniqueKey(key);
}

bool HasKey(const std::wstring &path) {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key);
    const UniqueKey owned(status == ERROR_SUCCESS ? key : nullptr);
    return status != ERROR_FILE_NOT_FOUND;
}

// --- trees of keys ---

class RealRegistryTree : public testing::Test {
protected:
    ~RealRegistryTree() override {
        HKEY software = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software", 0, KEY_READ, &software) == ERROR_SUCCESS)
            (void)Simulator::DeleteBelow(UniqueKey(software).get(), root.substr(std::size(L"Software")));
    }

    const std::wstring root = KeyOfThisProgram();
};

TEST_F(RealRegistryTree, IsDeletedWithAllSubkeysAndWithoutItsSiblings) {
    for (const wchar_t *branch : {L"tree\\a\\b\\c", L"tree\\a\\d", L"tree\\e", L"tree-too", L"other\\tree"})
        (void)MakeKey(root + L"\\" + branch);
    const UniqueKey withValue = MakeKey(root + L"\\tree\\a\\b");
    const DWORD number = 1;
    EXPECT_EQ(RegSetValueExW(withValue.get(), L"name", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&number), 4), 0);
    EXPECT_EQ(DeleteRegistryTree(root + L"\\tree"), 0);
    EXPECT_FALSE(HasKey(root + L"\\tree"));
    EXPECT_TRUE(HasKey(root + L"\\tree-too"));
    EXPECT_TRUE(HasKey(root + L"\\other\\tree"));
}

TEST_F(RealRegistryTree, IsDeletedEvenIfThePathEndsInABackslash) {
    (void)MakeKey(root + L"\\tree\\a\\b");
    EXPECT_EQ(DeleteRegistryTree(root + L"\\tree\\"), 0);
    EXPECT_FALSE(HasKey(root + L"\\tree"));
}

TEST_F(RealRegistryTree, IsDeletedHoweverLongItsPathsAre) {
    std::wstring deepest = root;
    for (int i = 0; i < 8; ++i)
        deepest += L"\\" + std::wstring(200, static_cast<wchar_t>(L'a' + i));
    deepest += L"\\" + std::wstring(255, L'z');  // the longest possible name
    ASSERT_GT(deepest.size(), 1800U);
    (void)MakeKey(deepest);
    ASSERT_TRUE(HasKey(deepest));
    EXPECT_EQ(DeleteRegistryTree(root), 0);
    EXPECT_FALSE(HasKey(root));
}

TEST_F(RealRegistryTree, IsDeletedWithHundredsOfSubkeys) {
    for (int i = 0; i < 300; ++i)
        (void)MakeKey(root + L"\\tree\\" + std::to_wstring(i));
    EXPECT_EQ(DeleteRegistryTree(root + L"\\tree"), 0);
    EXPECT_FALSE(HasKey(root + L"\\tree"));
}

TEST_F(RealRegistryTree, CountsAsDeletedIfItNeverExisted) {
    EXPECT_EQ(DeleteRegistryTree(root + L"\\missing\\below it"), 0);
}

TEST_F(RealRegistryTree, IsDeletedWithItsLinksButWithoutTheirTargets) {
    (void)MakeKey(root + L"\\outside\\kept\\below");
    (void)MakeKey(root + L"\\tree\\a");
    for (const std::wstring name : {L"outside", L"nowhere", L"tree"}) {
        const UniqueKey link = MakeKey(root + L"\\tree\\a\\to-" + name, REG_OPTION_CREATE_LINK);
        const std::wstring full = L"\\Registry\\Machine\\" + root + L"\\" + name;
        ASSERT_EQ(
            RegSetValueExW(link.get(), L"SymbolicLinkValue", 0, REG_LINK, reinterpret_cast<const BYTE *>(full.c_str()),
                           static_cast<DWORD>(full.size() * sizeof(wchar_t))),
            ERROR_SUCCESS);
    }
    ASSERT_TRUE(HasKey(root + L"\\tree\\a\\to-outside\\kept\\below"));
    EXPECT_EQ(DeleteRegistryTree(root + L"\\tree"), 0);
    EXPECT_FALSE(HasKey(root + L"\\tree"));
    EXPECT_TRUE(HasKey(root + L"\\outside\\kept\\below"));
}

TEST_F(RealRegistryTree, CannotBeDeletedIfANameContainsAZero) {
    using namespace std::string_literals;
    const UniqueKey parent = MakeKey(root + L"\\tree\\a");
    for (const std::wstring &name : {L"\0name"s, L"na\0me"s}) {
        (void)Simulator::CreateBelow(parent.get(), name);
        EXPECT_EQ(DeleteRegistryTree(root + L"\\tree"), 1);
        EXPECT_NE(Simulator::OpenBelow(parent.get(), name, KEY_READ), nullptr);
        EXPECT_EQ(Simulator::DeleteBelow(parent.get(), name), 0);
    }
}

// --- locked keys ---

struct FreeLocal {
    void operator()(void *memory) const { (void)LocalFree(memory); }
};
using LocalMemory = std::unique_ptr<void, FreeLocal>;

LocalMemory MakeSid(const wchar_t *text) {
    PSID sid = nullptr;
    EXPECT_TRUE(ConvertStringSidToSidW(text, &sid));
    return LocalMemory(sid);
}

std::wstring SidText(PSID sid) {
    wchar_t *text = nullptr;
    EXPECT_TRUE(ConvertSidToStringSidW(sid, &text));
    const LocalMemory owned(text);
    return text;
}

Simulator::UniqueHandle OpenToken(DWORD access) {
    const Simulator::InsideSimulator inside;
    HANDLE token = nullptr;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), access, &token));
    return Simulator::UniqueHandle(token);
}

LUID TakeOwnershipPrivilege() {
    LUID privilege{};
    EXPECT_TRUE(LookupPrivilegeValueW(nullptr, Simulator::kTakeOwnership, &privilege));
    return privilege;
}

bool IsTakeOwnershipEnabled() {
    PRIVILEGE_SET wanted{1, PRIVILEGE_SET_ALL_NECESSARY, {{TakeOwnershipPrivilege(), 0}}};
    BOOL enabled = FALSE;
    EXPECT_TRUE(PrivilegeCheck(OpenToken(TOKEN_QUERY).get(), &wanted, &enabled));
    return enabled != FALSE;
}

void DisableTakeOwnership() {
    TOKEN_PRIVILEGES wanted{1, {{TakeOwnershipPrivilege(), 0}}};
    EXPECT_TRUE(AdjustTokenPrivileges(OpenToken(TOKEN_ADJUST_PRIVILEGES).get(), FALSE, &wanted, sizeof wanted, nullptr,
                                      nullptr));
}

/// The SID of the user who runs this program.
std::wstring UserSid() {
    alignas(TOKEN_USER) std::byte memory[256];
    DWORD size = 0;
    EXPECT_TRUE(GetTokenInformation(OpenToken(TOKEN_QUERY).get(), TokenUser, memory, sizeof memory, &size));
    return SidText(reinterpret_cast<TOKEN_USER *>(memory)->User.Sid);
}

/// A real key, and a count of what taking ownership of it leaves behind.
class RealKey : public testing::Test {
protected:
    RealKey() {
        (void)MakeKey(path + L"\\below");
        (void)simulation.Attach(GetModuleHandleW(nullptr));
    }
    ~RealKey() override {
        SECURITY_DESCRIPTOR open{};
        EXPECT_TRUE(InitializeSecurityDescriptor(&open, SECURITY_DESCRIPTOR_REVISION));
        EXPECT_TRUE(SetSecurityDescriptorDacl(&open, TRUE, nullptr, FALSE));
        (void)RegSetKeySecurity(opened.get(), DACL_SECURITY_INFORMATION, &open);  // a deleted one needs no reset
        (void)RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
    }

    void SetOwner(const std::wstring &sid) {
        const LocalMemory owner = MakeSid(sid.c_str());
        ASSERT_EQ(SetNamedSecurityInfoW(name.data(), SE_REGISTRY_KEY, OWNER_SECURITY_INFORMATION, owner.get(), nullptr,
                                        nullptr, nullptr),
                  static_cast<DWORD>(ERROR_SUCCESS));
    }
    /// Gives the key to the system, and grants nobody else more than these rights.
    void Lock(DWORD rights) {
        SetOwner(Simulator::Sid::kSystem);
        const LocalMemory everyone = MakeSid(Simulator::Sid::kEveryone);
        alignas(DWORD) std::byte memory[256];
        auto *const list = reinterpret_cast<ACL *>(memory);
        ASSERT_TRUE(InitializeAcl(list, sizeof memory, ACL_REVISION));
        ASSERT_TRUE(AddAccessAllowedAce(list, ACL_REVISION, rights, everyone.get()));
        ASSERT_EQ(SetNamedSecurityInfoW(name.data(), SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, list,
                                        nullptr),
                  static_cast<DWORD>(ERROR_SUCCESS));
    }
    [[nodiscard]] LSTATUS Open(REGSAM access) const {
        HKEY key = nullptr;
        const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key);
        const UniqueKey owned(status == ERROR_SUCCESS ? key : nullptr);
        return status;
    }
    /// @return what it logs.
    std::vector<std::string> Take(std::wstring objectName) {
        std::vector<std::string> lines;
        const auto before = simulation.GetBalance().Take();
        TakeOwnership([&lines](const wxString &line) { lines.push_back(line.utf8_string()); }, objectName.data());
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, simulation.GetBalance().Take()))
            EXPECT_EQ(item.kind, std::string(Simulator::Kind::kBlock)) << "left by " << item.function;
        return lines;
    }
    /// Such as "S-1-5-18; S-1-1-0 all": the owner, and the rights in the key's own access list.
    std::wstring Security() {
        PSID owner = nullptr;
        ACL *list = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        const DWORD error =
            GetNamedSecurityInfoW(name.data(), SE_REGISTRY_KEY, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                  &owner, nullptr, &list, nullptr, &descriptor);
        const LocalMemory owned(descriptor);
        if (error != ERROR_SUCCESS)
            return L"error " + std::to_wstring(error);
        std::wstring text = SidText(owner);
        void *found = nullptr;
        for (DWORD i = 0; list != nullptr && GetAce(list, i, &found); ++i) {
            auto *entry = static_cast<ACCESS_ALLOWED_ACE *>(found);
            if ((entry->Header.AceFlags & (INHERITED_ACE | INHERIT_ONLY_ACE)) != 0)
                continue;
            const bool isAll = entry->Mask == GENERIC_ALL || (entry->Mask & KEY_ALL_ACCESS) == KEY_ALL_ACCESS;
            text += L"; " + SidText(&entry->SidStart) + (isAll ? L" all" : L" some");
        }
        return text;
    }

    const std::wstring path = KeyOfThisProgram() + L"-locked";
    std::wstring name = L"MACHINE\\" + path;
    const UniqueKey opened = MakeKey(path);
    Simulator::Simulation simulation{{.registry = false,
                                      .folders = false,
                                      .machine = false,
                                      .services = false,
                                      .security = false,
                                      .setup = false,
                                      .network = false}};
};

TEST_F(RealKey, IsOpenedToEveryoneAndKeepsItsOwner) {
    SetOwner(UserSid());
    EXPECT_EQ(Take(name), std::vector<std::string>{});
    EXPECT_EQ(Security(), UserSid() + L"; S-1-1-0 all; S-1-5-32-544 all");
    EXPECT_FALSE(IsTakeOwnershipEnabled());
}

TEST_F(RealKey, IsTakenFromTheSystemWhenItsAccessListIsLocked) {
    if (!IsUnderWine())
        GTEST_SKIP() << "only Wine lets a program give its keys to the system";
    Lock(WRITE_OWNER);  // Wine's privilege does not grant this right
    ASSERT_EQ(Open(KEY_READ), ERROR_ACCESS_DENIED);
    ASSERT_EQ(Open(WRITE_DAC), ERROR_ACCESS_DENIED);
    ASSERT_FALSE(IsTakeOwnershipEnabled());
    std::vector<bool> enabledAtOwner;
    std::vector<bool> enabledAtList;
    simulation.Functions().Put<Simulator::System::SetNamedSecurityInfoW>(
        [&](const auto &next, wchar_t *object, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID owner, PSID group,
            ACL *list, ACL *audit) {
            (what == OWNER_SECURITY_INFORMATION ? enabledAtOwner : enabledAtList).push_back(IsTakeOwnershipEnabled());
            return next(object, type, what, owner, group, list, audit);
        });
    EXPECT_EQ(Take(name), std::vector<std::string>{});
    EXPECT_EQ(enabledAtOwner, std::vector<bool>{true}) << "Windows would refuse it otherwise";
    EXPECT_EQ(enabledAtList, (std::vector<bool>{false, false})) << "before it, and no longer after it";
    EXPECT_EQ(Security(), L"S-1-5-32-544; S-1-1-0 all; S-1-5-32-544 all");
    EXPECT_FALSE(IsTakeOwnershipEnabled()) << "no longer";
    EXPECT_EQ(DeleteRegistryTree(path), 0);
    EXPECT_FALSE(HasKey(path));
}

TEST_F(RealKey, StaysLockedWhenItsOwnerCannotBeSet) {
    if (!IsUnderWine())
        GTEST_SKIP() << "elsewhere the privilege allows setting the owner";
    Lock(0);
    EXPECT_EQ(Take(name), std::vector<std::string>{"TakeOwnership: Could not set owner. Error: 5"});
    EXPECT_TRUE(IsTakeOwnershipEnabled()) << "nothing is undone";
    DisableTakeOwnership();
    EXPECT_EQ(DeleteRegistryTree(path), 1);
    EXPECT_TRUE(HasKey(path));
}

TEST_F(RealKey, IsReportedWhenItIsMissing) {
    EXPECT_EQ(Take(name + L"-too"),
              std::vector<std::string>{"TakeOwnership: First SetNamedSecurityInfo call failed: 2"});
}

// --- INF files ---

/// Shared for reading, but not for deletion.
class FileInUse {
public:
    explicit FileInUse(const std::filesystem::path &file)
        : m_handle(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr)) {
        EXPECT_NE(m_handle, INVALID_HANDLE_VALUE);
    }
    ~FileInUse() { CloseHandle(m_handle); }
    FileInUse(const FileInUse &) = delete;
    FileInUse &operator=(const FileInUse &) = delete;

private:
    HANDLE m_handle;
};

/// What the system should do with files at the next boot; restored at the end.
class PendingOperations {
public:
    PendingOperations() : m_before(Read()) {}
    ~PendingOperations() {
        if (m_before.empty())
            (void)RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue);
        else
            (void)RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue, REG_MULTI_SZ, m_before.data(),
                                  static_cast<DWORD>(m_before.size() * sizeof(wchar_t)));
    }
    PendingOperations(const PendingOperations &) = delete;
    PendingOperations &operator=(const PendingOperations &) = delete;

    /// The value unchanged, zeros included; empty if there is none.
    static std::wstring Read() {
        DWORD bytes = 0;
        if (RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_MULTI_SZ, nullptr, nullptr, &bytes) !=
            ERROR_SUCCESS)
            return {};
        std::wstring value(bytes / sizeof(wchar_t), L'\0');
        EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_MULTI_SZ, nullptr, value.data(), &bytes),
                  ERROR_SUCCESS);
        value.resize(bytes / sizeof(wchar_t));
        return value;
    }

private:
    static constexpr wchar_t kKey[] = L"System\\CurrentControlSet\\Control\\Session Manager";
    static constexpr wchar_t kValue[] = L"PendingFileRenameOperations";
    const std::wstring m_before;
};

/// The removal with the system's own folders and setup library. No system gives a file of its own this name.
class RealInf : public ModuleFixture {
protected:
    /// @param setup  simulate the setup library.
    explicit RealInf(bool setup = false)
        : ModuleFixture({.registry = false, .folders = false, .machine = false, .security = false, .setup = setup}) {
        simulation().GetClock().Step(Simulator::Clock::AutoAdvance::Sleeps);
        simulation().Attach(GetModuleHandleW(L"vta_core.dll"), {"GetTickCount"});
        SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
        lua_setglobal(lua, "dom");
    }
    ~RealInf() override {
        for (const std::filesystem::path &file : {inf, pnf, cat}) {
            std::error_code ignored;
            std::filesystem::remove(file, ignored);
        }
    }

    void SetUp() override {
        if (!IsUnderWine())
            GTEST_SKIP() << "would work on the INF files of this machine";
    }

    void Put(const std::string &content) {
        std::filesystem::create_directories(cat.parent_path());
        for (const std::filesystem::path &file : {inf, pnf, cat}) {
            std::ofstream(file, std::ios::binary) << content;
            ASSERT_TRUE(exists(file));
        }
    }
    /// Makes the setup library install the file like a driver's.
    void Copy(const std::string &content) {
        const std::filesystem::path source = std::filesystem::temp_directory_path() / inf.filename();
        std::ofstream(source, std::ios::binary) << content;
        std::filesystem::remove(inf);  // otherwise the copy would have another name
        wchar_t copied[MAX_PATH] = L"";
        EXPECT_TRUE(SetupCopyOEMInfW(source.c_str(), nullptr, SPOST_PATH, 0, copied, MAX_PATH, nullptr, nullptr));
        std::filesystem::remove(source);
        ASSERT_EQ(copied, inf);
    }
    /// Makes the setup library uninstall the file, without the module.
    /// @return what the module should log about that result.
    std::string Ask() const {
        const bool done = SetupUninstallOEMInfW(inf.filename().c_str(), SUOI_FORCEDELETE, nullptr) != FALSE;
        const DWORD error = GetLastError();
        std::ostringstream text;
        text << "  SetupUninstallOEMInf('oemfcdevkit.inf') ";
        if (done)
            text << "succeeded";
        else
            text << "returned 0x" << std::hex << error;
        return text.str();
    }
    /// The thread's log of a removal that succeeds.
    std::vector<std::string> Uninstall() {
        EXPECT_EQ(lua.Eval("SLB.filter.UninstallDriver(dom, 'C:\\\\ndis\\\\', 'C:\\\\wfp\\\\')"), "true");
        wxLog::FlushActive();
        std::vector<std::string> lines;
        for (const LogLine &line : log.Take())
            lines.push_back(line.text);
        return lines;
    }
    static std::string InfNaming(const char *driver) {
        std::string content = "[Version]\r\nSignature=\"$Windows NT$\"\r\n";
        for (int i = 0; i < 10; ++i)
            content += std::string("Driver = ") + driver + ".sys\r\n";
        return content + "; the end of it\r\n";
    }
    static bool Has(const std::vector<std::string> &lines, const std::string &line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    static std::filesystem::path WindowsFolder() {
        wchar_t folder[MAX_PATH] = L"";
        EXPECT_NE(GetWindowsDirectoryW(folder, MAX_PATH), 0U);
        return folder;
    }
    const std::filesystem::path inf = WindowsFolder() / L"inf" / L"oemfcdevkit.inf";
    const std::filesystem::path pnf = WindowsFolder() / L"inf" / L"oemfcdevkit.pnf";
    const std::filesystem::path cat =
        WindowsFolder() / L"system32" / L"CatRoot" / L"{F750E6C3-38EE-11D1-85E5-00C04FC295EE}" / L"oemfcdevkit.cat";
    VtaCore::Control::Dom dom;
    LogCollector log;
};

TEST_F(RealInf, IsRemovedByTheSetupLibrary) {
    Copy(InfNaming("qbimvta"));
    const std::vector<std::string> lines = Uninstall();
    EXPECT_TRUE(Has(lines, "  Matched 'qbimvta' in file '" + inf.string() + "'. Deleting this inf+pnf+cat."));
    EXPECT_TRUE(Has(lines, "  SetupUninstallOEMInf('oemfcdevkit.inf') succeeded"));
    EXPECT_FALSE(exists(inf));
}

// Wine 8 deletes it. Wine 10 finds no such package in its driver store, and keeps the file.
TEST_F(RealInf, IsRemovedOrKeptAsTheSetupLibraryDecidesIfItWasCopiedAnotherWay) {
    Put(InfNaming("qbimvta"));
    const std::string answer = Ask();
    const bool stays = exists(inf);
    EXPECT_TRUE(answer.ends_with(stays ? "returned 0x2" : "succeeded")) << answer;
    Put(InfNaming("qbimvta"));
    EXPECT_TRUE(Has(Uninstall(), answer));
    EXPECT_EQ(exists(inf), stays);
}

TEST_F(RealInf, IsKeptIfItBelongsToAnotherDriver) {
    Put(InfNaming("another"));
    (void)Uninstall();
    EXPECT_TRUE(exists(inf));
    EXPECT_TRUE(exists(pnf));
    EXPECT_TRUE(exists(cat));
}

// Wine 8 reports that it is in use. Wine 10 removes the package from its driver store, reports success, and no longer
// knows the file.
TEST_F(RealInf, IsKeptWhenTheSetupLibraryCannotDeleteIt) {
    Copy(InfNaming("qbimvta"));
    std::string answer;
    {
        const FileInUse inUse(inf);
        answer = Ask();
        EXPECT_TRUE(Ask().ends_with(answer.ends_with("succeeded") ? "returned 0x2" : "returned 0x20")) << answer;
    }
    Copy(InfNaming("qbimvta"));
    const FileInUse inUse(inf);
    EXPECT_TRUE(Has(Uninstall(), answer));
    EXPECT_TRUE(exists(inf));
}

class RealInfByHand : public RealInf {
protected:
    RealInfByHand() : RealInf(true) { simulation().GetSetup().Lack("SetupUninstallOEMInfW"); }
};

TEST_F(RealInfByHand, IsDeletedWithItsPnfAndItsCatalogue) {
    Put(InfNaming("qbimwfp"));
    ASSERT_TRUE(SetFileAttributesW(inf.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_TRUE(Has(Uninstall(), "  Matched 'qbimwfp' in file '" + inf.string() + "'. Deleting this inf+pnf+cat."));
    EXPECT_FALSE(exists(inf));
    EXPECT_FALSE(exists(pnf));
    EXPECT_FALSE(exists(cat));
}

TEST_F(RealInfByHand, IsPostponedToTheNextBootWhenItIsInUse) {
    Put(InfNaming("qbimvta"));
    const PendingOperations pending;
    const FileInUse inUse(inf);
    (void)Uninstall();
    EXPECT_TRUE(exists(inf));
    EXPECT_FALSE(exists(pnf));
    EXPECT_FALSE(exists(cat));
    EXPECT_NE(PendingOperations::Read().find(L"\\oemfcdevkit.inf"), std::wstring::npos);
}

}  // namespace
