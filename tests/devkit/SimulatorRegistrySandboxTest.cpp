#include "RegistrySandbox.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <wx/buffer.h>
#include <wx/string.h>
#include <wx/msw/registry.h>

using namespace Simulator;

namespace {

constexpr wchar_t kTestKey[] = L"SOFTWARE\\fc-devkit test of the sandbox";

UniqueKey Open(HKEY root, const wchar_t *path) {
    HKEY key = nullptr;
    return UniqueKey(RegOpenKeyExW(root, path, 0, KEY_READ, &key) == ERROR_SUCCESS ? key : nullptr);
}

LSTATUS StatusOfOpening(HKEY root, const wchar_t *path) {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(root, path, 0, KEY_READ, &key);
    const UniqueKey owner(status == ERROR_SUCCESS ? key : nullptr);
    return status;
}

std::unique_ptr<RegistrySandbox> MakeSandbox() {
    return std::make_unique<RegistrySandbox>();
}

}  // namespace

TEST(RegistrySandbox, HidesTheRealKeys) {
    ASSERT_EQ(StatusOfOpening(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft"), ERROR_SUCCESS);
    ASSERT_EQ(StatusOfOpening(HKEY_CURRENT_USER, L"Software"), ERROR_SUCCESS);
    const auto sandbox = MakeSandbox();
    EXPECT_EQ(StatusOfOpening(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(StatusOfOpening(HKEY_CURRENT_USER, L"Software"), ERROR_FILE_NOT_FOUND);
}

TEST(RegistrySandbox, ShowsTheRealKeysAgainWhenItEnds) {
    MakeSandbox().reset();
    EXPECT_EQ(StatusOfOpening(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft"), ERROR_SUCCESS);
    EXPECT_EQ(StatusOfOpening(HKEY_CURRENT_USER, L"Software"), ERROR_SUCCESS);
}

TEST(RegistrySandbox, KeepsWhatIsWrittenOutOfTheRealRegistry) {
    const UniqueKey realMachine = Open(HKEY_LOCAL_MACHINE, L"SOFTWARE");
    const UniqueKey realUser = Open(HKEY_CURRENT_USER, L"Software");
    ASSERT_TRUE(realMachine && realUser);
    const wchar_t *name = kTestKey + std::size(L"SOFTWARE\\") - 1;
    {
        const auto sandbox = MakeSandbox();
        for (const HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
            HKEY key = nullptr;
            ASSERT_EQ(RegCreateKeyExW(root, kTestKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
                      ERROR_SUCCESS);
            const UniqueKey owner(key);
            const DWORD value = 17;
            ASSERT_EQ(RegSetValueExW(key, L"value", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&value), sizeof value),
                      ERROR_SUCCESS);
            EXPECT_EQ(sandbox->Dword(root, kTestKey, L"value"), 17U);
        }
        EXPECT_EQ(StatusOfOpening(realMachine.get(), name), ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(StatusOfOpening(realUser.get(), name), ERROR_FILE_NOT_FOUND);
    }
    EXPECT_EQ(StatusOfOpening(HKEY_LOCAL_MACHINE, kTestKey), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(StatusOfOpening(HKEY_CURRENT_USER, kTestKey), ERROR_FILE_NOT_FOUND);
}

TEST(RegistrySandbox, KeepsTheTwoRootsApart) {
    const auto sandbox = MakeSandbox();
    sandbox->PutDword(HKEY_LOCAL_MACHINE, L"A", L"x", 1);
    EXPECT_TRUE(sandbox->HasKey(HKEY_LOCAL_MACHINE, L"A"));
    EXPECT_FALSE(sandbox->HasKey(HKEY_CURRENT_USER, L"A"));
}

TEST(RegistrySandbox, LeavesNothingBehind) {
    const UniqueKey software = Open(HKEY_CURRENT_USER, L"Software");
    ASSERT_TRUE(software);
    auto sandbox = MakeSandbox();
    sandbox->PutText(HKEY_LOCAL_MACHINE, L"A\\B\\C", L"x", L"y");
    const std::wstring path = sandbox->RealPath();
    EXPECT_EQ(StatusOfOpening(software.get(), (path + L"\\machine\\A\\B\\C").c_str()), ERROR_SUCCESS);
    sandbox.reset();
    EXPECT_EQ(StatusOfOpening(software.get(), path.c_str()), ERROR_FILE_NOT_FOUND);
}

TEST(RegistrySandbox, RemovesWhatKilledProcessesHaveLeftAndNoTreeOfOthers) {
    const UniqueKey software = Open(HKEY_CURRENT_USER, L"Software");
    ASSERT_TRUE(software);
    // Ids of processes are multiples of four.
    const std::wstring left = L"fc-devkit\\4294967294-1";
    const std::wstring others = L"fc-devkit\\" + std::to_wstring(GetCurrentProcessId()) + L"-other";
    for (const std::wstring &path : {left + L"\\machine\\A", others}) {
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyW(software.get(), path.c_str(), &key), ERROR_SUCCESS);
        RegCloseKey(key);
    }
    const auto sandbox = MakeSandbox();
    EXPECT_EQ(StatusOfOpening(software.get(), left.c_str()), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(StatusOfOpening(software.get(), others.c_str()), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyW(software.get(), others.c_str()), ERROR_SUCCESS);
}

TEST(RegistrySandbox, IsCreatedWhileOtherProcessesDeleteTheSharedParent) {
    const UniqueKey software = Open(HKEY_CURRENT_USER, L"Software");
    ASSERT_TRUE(software);
    std::atomic<bool> done = false;
    // It can be deleted while no other test program has its sandbox there.
    std::thread others([&] {
        while (!done)
            (void)RegDeleteKeyW(software.get(), L"fc-devkit");
    });
    for (int i = 0; i < 300; ++i)
        EXPECT_NO_THROW((void)MakeSandbox());
    done = true;
    others.join();
}

TEST(RegistrySandbox, IsFreshEachTime) {
    auto sandbox = MakeSandbox();
    sandbox->PutKey(HKEY_LOCAL_MACHINE, L"A");
    sandbox.reset();
    sandbox = MakeSandbox();
    EXPECT_FALSE(sandbox->HasKey(HKEY_LOCAL_MACHINE, L"A"));
    EXPECT_EQ(sandbox->Tree(HKEY_LOCAL_MACHINE), "[]\n");
}

TEST(RegistrySandbox, ReturnsItsValuesThroughTheRealFunctions) {
    const auto sandbox = MakeSandbox();
    sandbox->PutText(HKEY_LOCAL_MACHINE, L"A", L"text", L"abc", REG_EXPAND_SZ);
    wchar_t text[8] = L"";
    DWORD size = sizeof text;
    DWORD type = 0;
    ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"A", L"text", RRF_RT_ANY | RRF_NOEXPAND, &type, text, &size),
              ERROR_SUCCESS);
    EXPECT_STREQ(text, L"abc");
    EXPECT_EQ(type, static_cast<DWORD>(REG_EXPAND_SZ));
    EXPECT_EQ(size, 8U);
}

TEST(RegistrySandbox, KeepsAnUnterminatedText) {
    const auto sandbox = MakeSandbox();
    std::vector<std::uint8_t> bytes{'7', 0, 0, 0};
    bytes.resize(2);  // the memory after it stays zero
    sandbox->PutBytes(HKEY_LOCAL_MACHINE, L"A", L"text", REG_SZ, bytes);
    const UniqueKey key = Open(HKEY_LOCAL_MACHINE, L"A");
    DWORD size = 0;
    ASSERT_EQ(RegQueryValueExW(key.get(), L"text", nullptr, nullptr, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 2U);
}

TEST(RegistrySandbox, AppliesToWx) {
    const auto sandbox = MakeSandbox();
    wxRegKey key(wxRegKey::HKLM, "SOFTWARE\\Product");
    ASSERT_TRUE(key.Create());
    EXPECT_TRUE(key.SetValue("Name", wxString("value")));
    EXPECT_EQ(sandbox->Text(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Product", L"Name"), L"value");
}

TEST(RegistrySandbox, ReadsNoValueOfAnotherType) {
    const auto sandbox = MakeSandbox();
    sandbox->PutDword(HKEY_LOCAL_MACHINE, L"A", L"number", 5);
    sandbox->PutText(HKEY_LOCAL_MACHINE, L"A", L"text", L"");
    EXPECT_EQ(sandbox->Text(HKEY_LOCAL_MACHINE, L"A", L"number"), std::nullopt);
    EXPECT_EQ(sandbox->Dword(HKEY_LOCAL_MACHINE, L"A", L"text"), std::nullopt);
    EXPECT_EQ(sandbox->Text(HKEY_LOCAL_MACHINE, L"A", L"text"), L"");
    EXPECT_EQ(sandbox->Dword(HKEY_LOCAL_MACHINE, L"A", L"missing"), std::nullopt);
    EXPECT_EQ(sandbox->Dword(HKEY_LOCAL_MACHINE, L"missing", L"number"), std::nullopt);
}

TEST(RegistrySandbox, PrintsATreeSorted) {
    const auto sandbox = MakeSandbox();
    sandbox->PutText(HKEY_LOCAL_MACHINE, L"B\\Sub", L"", L"default");
    sandbox->PutDword(HKEY_LOCAL_MACHINE, L"B", L"n", 17);
    sandbox->PutText(HKEY_LOCAL_MACHINE, L"B", L"e", L"%x%", REG_EXPAND_SZ);
    sandbox->PutBytes(HKEY_LOCAL_MACHINE, L"B", L"b", REG_BINARY, {1, 2, 255});
    sandbox->PutTexts(HKEY_LOCAL_MACHINE, L"A", L"list", {L"a", L"b"});
    EXPECT_EQ(sandbox->Tree(HKEY_LOCAL_MACHINE),
              "[]\n"
              "[A]\n"
              "\"list\" type 7: 61 00 00 00 62 00 00 00 00 00\n"
              "[B]\n"
              "\"b\" type 3: 01 02 ff\n"
              "\"e\" expandable \"%x%\"\n"
              "\"n\" dword 17\n"
              "[B\\Sub]\n"
              "\"\" text \"default\"\n");
    EXPECT_EQ(sandbox->Tree(HKEY_LOCAL_MACHINE, L"B\\Sub"), "[B\\Sub]\n\"\" text \"default\"\n");
    EXPECT_EQ(sandbox->Tree(HKEY_LOCAL_MACHINE, L"C"), "");
}

TEST(RegistrySandbox, RemovesATree) {
    const auto sandbox = MakeSandbox();
    sandbox->PutDword(HKEY_LOCAL_MACHINE, L"A\\B", L"n", 17);
    sandbox->Remove(HKEY_LOCAL_MACHINE, L"A");
    sandbox->Remove(HKEY_LOCAL_MACHINE, L"A");
    EXPECT_EQ(sandbox->Tree(HKEY_LOCAL_MACHINE), "[]\n");
}

TEST(RegistrySandbox, AppliesToAConnectionToThisMachine) {
    const auto sandbox = MakeSandbox();
    sandbox->PutKey(HKEY_LOCAL_MACHINE, L"A");
    HKEY machine = nullptr;
    ASSERT_EQ(RegConnectRegistryW(nullptr, HKEY_LOCAL_MACHINE, &machine), ERROR_SUCCESS);
    const UniqueKey owner(machine);
    EXPECT_EQ(StatusOfOpening(machine, L"A"), ERROR_SUCCESS);
}

TEST(RegistrySandbox, RemovesLinksButNotTheirTargets) {
    const auto sandbox = MakeSandbox();
    sandbox->PutDword(HKEY_LOCAL_MACHINE, L"outside\\below", L"number", 7);
    const std::string outside = sandbox->Tree(HKEY_LOCAL_MACHINE, L"outside");
    sandbox->PutKey(HKEY_LOCAL_MACHINE, L"tree\\a");
    sandbox->PutLink(HKEY_LOCAL_MACHINE, L"tree\\a\\link", L"outside");
    ASSERT_TRUE(sandbox->HasKey(HKEY_LOCAL_MACHINE, L"tree\\a\\link\\below")) << "it leads there";
    sandbox->Remove(HKEY_LOCAL_MACHINE, L"tree");
    EXPECT_FALSE(sandbox->HasKey(HKEY_LOCAL_MACHINE, L"tree"));
    EXPECT_EQ(sandbox->Tree(HKEY_LOCAL_MACHINE, L"outside"), outside);
}

TEST(RegistrySandbox, ShowsALinkAsALink) {
    const auto sandbox = MakeSandbox();
    sandbox->PutKey(HKEY_LOCAL_MACHINE, L"outside\\below");
    sandbox->PutLink(HKEY_LOCAL_MACHINE, L"tree\\link", L"outside");
    const std::string tree = sandbox->Tree(HKEY_LOCAL_MACHINE, L"tree");
    EXPECT_TRUE(tree.starts_with("[tree]\n[tree\\link] -> \\R")) << tree;
    EXPECT_TRUE(tree.ends_with("\\outside\n")) << tree;
}

TEST(RegistrySandbox, SupportsNamesWithZeros) {
    using namespace std::string_literals;
    const auto sandbox = MakeSandbox();
    for (const std::wstring &name : {L"\0a"s, L"b\0c"s})
        sandbox->PutKeyNamed(HKEY_LOCAL_MACHINE, L"tree", name);
    EXPECT_EQ(sandbox->Tree(HKEY_LOCAL_MACHINE, L"tree"), "[tree]\n[tree\\\\0a]\n[tree\\b\\0c]\n");
    sandbox->Remove(HKEY_LOCAL_MACHINE, L"tree");
    EXPECT_FALSE(sandbox->HasKey(HKEY_LOCAL_MACHINE, L"tree"));
}
