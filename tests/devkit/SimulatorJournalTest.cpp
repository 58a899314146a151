#include "Journal.h"

#include <thread>

#include <gtest/gtest.h>

#include "ArgumentText.h"

using namespace Simulator;

namespace {

const void *Pointer(std::uintptr_t value) {
    return reinterpret_cast<const void *>(value);
}

}  // namespace

TEST(Journal, KeepsTheOrderOfCalls) {
    Journal journal;
    journal.Add("one", "");
    journal.Add("two", "1, 2");
    journal.Add("one", "");
    EXPECT_EQ(journal.Names(), (std::vector<std::string>{"one", "two", "one"}));
    EXPECT_EQ(journal.Entries()[1].arguments, "1, 2");
    EXPECT_EQ(journal.Entries()[1].thread, GetCurrentThreadId());
}

TEST(Journal, CountsByName) {
    Journal journal;
    journal.Add("one", "");
    journal.Add("two", "");
    journal.Add("one", "");
    EXPECT_EQ(journal.Count("one"), 2U);
    EXPECT_EQ(journal.Count("three"), 0U);
}

TEST(Journal, IsEmptyAfterTake) {
    Journal journal;
    journal.Add("one", "");
    EXPECT_EQ(journal.Take().size(), 1U);
    EXPECT_TRUE(journal.Take().empty());
    EXPECT_EQ(journal.Count("one"), 0U);
}

TEST(Journal, PrintsALineForEachCall) {
    Journal journal;
    journal.Add("one", "1, \"x\"");
    EXPECT_EQ(journal.Text(), std::to_string(GetCurrentThreadId()) + ": one(1, \"x\")\n");
}

TEST(Journal, IgnoresMutedFunctions) {
    Journal journal;
    EXPECT_TRUE(journal.Wants("one"));
    journal.Mute("one");
    EXPECT_FALSE(journal.Wants("one"));
    EXPECT_TRUE(journal.Wants("two"));
}

TEST(Journal, IgnoresEverythingOnceAllIsMuted) {
    Journal journal;
    journal.MuteAll();
    EXPECT_FALSE(journal.Wants("one"));
    EXPECT_FALSE(journal.Wants("two"));
}

TEST(Journal, LosesNothingOfManyThreads) {
    Journal journal;
    const auto fill = [&journal](const char *name) {
        for (int i = 0; i < 5000; ++i)
            journal.Add(name, std::to_string(i));
    };
    std::thread first(fill, "first");
    std::thread second(fill, "second");
    first.join();
    second.join();
    EXPECT_EQ(journal.Count("first"), 5000U);
    EXPECT_EQ(journal.Count("second"), 5000U);
}

TEST(ArgumentText, PrintsTextsNumbersAndPointers) {
    EXPECT_EQ(ArgumentText(L"wide \u00e4", "narrow", 17, -1, DWORD{4000000000}),
              "\"wide \xc3\xa4\", \"narrow\", 17, -1, 4000000000");
    EXPECT_EQ(ArgumentText(Pointer(0xabc0), static_cast<HANDLE>(nullptr)), "0xabc0, null");
    EXPECT_EQ(ArgumentText(), "");
}

TEST(ArgumentText, PrintsMissingTextsAndResourceNumbers) {
    const LPCSTR number = MAKEINTRESOURCEA(7);
    EXPECT_EQ(ArgumentText(static_cast<LPCWSTR>(nullptr), number), "null, #7");
}

TEST(ArgumentText, NamesThePredefinedKeys) {
    EXPECT_EQ(ArgumentText(HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER), "HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER");
    EXPECT_EQ(ArgumentText(reinterpret_cast<HKEY>(std::uintptr_t{0x40})), "0x40");
}

TEST(ArgumentText, DoesNotReadWhatTheCallWillFill) {
    wchar_t buffer[1] = {L'x'};  // not terminated
    EXPECT_EQ(ArgumentText(static_cast<wchar_t *>(buffer)).substr(0, 2), "0x");
}

TEST(ArgumentText, TruncatesLongTexts) {
    const std::wstring text(5000, L'x');
    EXPECT_EQ(ArgumentText(text.c_str()).size(), 262U);
}
