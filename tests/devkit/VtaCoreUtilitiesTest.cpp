// The core library's free functions.
#include <cstdarg>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "vta_core_control.h"

namespace {

using namespace VtaCore;

constexpr unsigned kRoom = 1000;

/// The system's own error text, to compare LocalizedMsg with.
wxString SystemText(DWORD id) {
    wchar_t text[kRoom];
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, id, 0,
                                        text, kRoom, nullptr);
    return {text, length};
}

/// The system library that holds the texts of the system's errors.
HINSTANCE MessageModule() {
    for (const wchar_t *name : {L"kernel32.dll", L"kernelbase.dll"}) {
        const HMODULE module = GetModuleHandleW(name);
        if (!LocalizedMsg(ERROR_FILE_NOT_FOUND, kRoom, module).empty())
            return module;
    }
    return nullptr;
}

TEST(LocalizedMessage, IsTheTextOfTheModulesMessageTable) {
    const HINSTANCE module = MessageModule();
    ASSERT_NE(module, nullptr);
    const wxString expected = SystemText(ERROR_FILE_NOT_FOUND);
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(LocalizedMsg(ERROR_FILE_NOT_FOUND, kRoom, module), expected);
}

TEST(LocalizedMessage, TakesItsInserts) {
    const HINSTANCE module = MessageModule();
    ASSERT_NE(module, nullptr);
    wxString expected = SystemText(ERROR_BAD_EXE_FORMAT);
    ASSERT_EQ(expected.Replace("%1", L"pr\u00FCfung.exe"), 1u);
    EXPECT_EQ(LocalizedMsg(ERROR_BAD_EXE_FORMAT, kRoom, module, L"pr\u00FCfung.exe"), expected);
}

TEST(LocalizedMessage, IsEmptyWhenThereIsNone) {
    const HINSTANCE module = MessageModule();
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(LocalizedMsg(0xE7654321, kRoom, module), "");
    EXPECT_EQ(LocalizedMsg(1, kRoom, GetModuleHandleW(L"vta_core.dll")), "") << "a module without a table";
}

TEST(LocalizedMessage, IsEmptyWithoutABuffer) {
    const HINSTANCE module = MessageModule();
    ASSERT_NE(module, nullptr);
    const auto length = static_cast<unsigned>(SystemText(ERROR_FILE_NOT_FOUND).length());
    EXPECT_EQ(LocalizedMsg(ERROR_FILE_NOT_FOUND, 0, module), "");
    EXPECT_EQ(LocalizedMsg(ERROR_FILE_NOT_FOUND, length, module), "") << "no room for the end mark";
    EXPECT_NE(LocalizedMsg(ERROR_FILE_NOT_FOUND, length + 1, module), "");
    EXPECT_NE(LocalizedMsg(ERROR_FILE_NOT_FOUND, UINT_MAX, module), "") << "more room than the system takes";
}

TEST(TickCount, IsTheSystems) {
    const DWORD before = GetTickCount();
    const unsigned ticks = SystemTickCount();
    EXPECT_LE(ticks - before, GetTickCount() - before);
}

TEST(GuidText, IsInBracesAndUpperCase) {
    const GUID guid = {0x4d36e972, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
    EXPECT_EQ(toString(guid), "{4D36E972-E325-11CE-BFC1-08002BE10318}");
    EXPECT_EQ(toString(GUID{}), "{00000000-0000-0000-0000-000000000000}");
}

TEST(HexText, HasTwoLowerCaseDigitsForEachByte) {
    const unsigned char bytes[] = {0x00, 0x01, 0x7F, 0x80, 0xAB, 0xFF};
    EXPECT_EQ(toHexString(bytes, sizeof bytes), "00017f80abff");
    EXPECT_EQ(toHexString(nullptr, 0), "");
}

int Print(char *buffer, std::size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vsnprintf_safe(buffer, size, format, arguments);
    va_end(arguments);
    return result;
}

TEST(SafePrint, ReturnsTheLengthOfATextThatFits) {
    char buffer[8] = "???????";
    EXPECT_EQ(Print(buffer, sizeof buffer, "%s-%d", "abc", 123), 7);
    EXPECT_STREQ(buffer, "abc-123");
    EXPECT_EQ(Print(buffer, sizeof buffer, "%s", ""), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(SafePrint, TruncatesAndTerminatesATextThatDoesNotFit) {
    char buffer[9] = "????????";
    EXPECT_EQ(Print(buffer, 8, "%s", "12345678"), -1) << "one character too long";
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(Print(buffer, 1, "%d", 7), -1);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(buffer[8], '\0') << "nothing behind the room was written";
}

TEST(SafePrint, DoesNothingWithoutABuffer) {
    char buffer[2] = "x";
    EXPECT_EQ(Print(buffer, 0, "%d", 1), -1);
    EXPECT_STREQ(buffer, "x");
    EXPECT_EQ(Print(nullptr, 10, "%d", 1), -1);
}

TEST(ProfilerWords, AreExportedUnderTheirPlainNames) {
    const HMODULE module = GetModuleHandleW(L"vta_core.dll");
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(reinterpret_cast<void *>(GetProcAddress(module, "profiler_blockfilter")),
              const_cast<unsigned *>(&profiler_blockfilter));
    EXPECT_EQ(reinterpret_cast<void *>(GetProcAddress(module, "profiler_running")),
              const_cast<unsigned *>(&profiler_running));
    profiler_running = 1;
    EXPECT_EQ(profiler_running, 1u);
    profiler_running = 0;
}

TEST(LiveObjects, CountsTheObjectsOfTheLibrary) {
    const int before = Control::LiveObjects();
    {
        wxString text;
        const Control::Dom dom;
        const CLogGrabber grabber(text, false, false);
        EXPECT_EQ(Control::LiveObjects(), before + 2);
    }
    EXPECT_EQ(Control::LiveObjects(), before);
}

}  // namespace
