// Which driver an INF file belongs to, on files of every kind that end where memory ends.
#include "WindowsDriverInstaller/cleanup/InfScan.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "SeededRandom.h"

namespace {

using Bytes = std::span<const std::byte>;

constexpr std::size_t kPage = 4096;
constexpr std::size_t kCapacity = 1024 * 1024;
constexpr std::size_t kLetters = 7;  // of a name

/// Memory between two inaccessible pages, with a file at its very end.
class GuardedFile {
public:
    GuardedFile()
        : m_pages(static_cast<std::byte *>(
              VirtualAlloc(nullptr, kCapacity + 2 * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_NOACCESS))) {
        DWORD before = 0;
        if (!m_pages || !VirtualProtect(m_pages + kPage, kCapacity, PAGE_READWRITE, &before))
            throw std::bad_alloc();
    }
    ~GuardedFile() { VirtualFree(m_pages, 0, MEM_RELEASE); }
    GuardedFile(const GuardedFile &) = delete;
    GuardedFile &operator=(const GuardedFile &) = delete;

    /// Copies the file to the end of the memory.
    Bytes Put(Bytes file) {
        std::byte *const begin = m_pages + kPage + kCapacity - file.size();
        if (!file.empty())
            std::memcpy(begin, file.data(), file.size());
        return {begin, file.size()};
    }

private:
    std::byte *m_pages;
};

const char *Vta(char) {
    return "qbimvta";
}
const char *Wfp(char) {
    return "qbimwfp";
}
const wchar_t *Vta(wchar_t) {
    return L"qbimvta";
}
const wchar_t *Wfp(wchar_t) {
    return L"qbimwfp";
}
bool Equal(const char *text, const char *name) {
    return _strnicmp(text, name, kLetters) == 0;
}
bool Equal(const wchar_t *text, const wchar_t *name) {
    return _wcsnicmp(text, name, kLetters) == 0;
}

/// The rule, character by character.
template <typename Character>
const wchar_t *ScanSlowly(Bytes file) {
    int vta = 0;
    int wfp = 0;
    for (std::size_t at = 0; at + 8 * sizeof(Character) < file.size(); at += sizeof(Character)) {
        Character text[kLetters];
        std::memcpy(text, file.data() + at, sizeof(text));
        if (text[0] != 'q')
            continue;
        if (Equal(text, Vta(Character())) && ++vta == 10)
            return L"qbimvta";
        if (Equal(text, Wfp(Character())) && ++wfp == 10)
            return L"qbimwfp";
    }
    return nullptr;
}

std::string Told(const wchar_t *driver) {
    if (!driver)
        return "none";
    const std::wstring wide = driver;
    return {wide.begin(), wide.end()};
}

template <typename CharacterType>
class InfScan : public testing::Test {
protected:
    using Character = CharacterType;
    using Text = std::basic_string<Character>;
    static constexpr std::size_t kWidth = sizeof(Character);

    static const wchar_t *Scan(Bytes file) {
        if constexpr (kWidth == 1)
            return ScanInfForDriver8Bit(file);
        else
            return ScanInfForDriver16Bit(file);
    }
    /// The driver named in the text, followed by some bytes of the next character.
    std::string Named(const Text &text, std::size_t moreBytes = 0) {
        std::string bytes(text.size() * kWidth + moreBytes, '\0');
        std::memcpy(bytes.data(), text.data(), text.size() * kWidth);
        return Told(Scan(m_file.Put(std::as_bytes(std::span(bytes)))));
    }
    static Text Wide(const char *text) { return {text, text + std::strlen(text)}; }
    /// The texts one after the other, each followed by a space.
    static Text Times(int times, const Text &text) {
        Text all;
        for (int i = 0; i < times; ++i)
            all += text + Character(' ');
        return all;
    }
    static Text Times(int times, const char *text) { return Times(times, Wide(text)); }
    /// Padding that keeps the text before it clear of the end.
    static Text End() { return Text(8, Character(' ')); }

    GuardedFile m_file;
};

struct WidthNames {
    template <typename Character>
    static std::string GetName(int) {
        return sizeof(Character) == 1 ? "8Bit" : "16Bit";
    }
};
using Widths = testing::Types<char, wchar_t>;
TYPED_TEST_SUITE(InfScan, Widths, WidthNames);

TYPED_TEST(InfScan, MatchesTenNamesButNotNine) {
    for (const char *const name : {"qbimvta", "qbimwfp"}) {
        EXPECT_EQ(this->Named(this->Times(9, name) + this->End()), "none");
        EXPECT_EQ(this->Named(this->Times(10, name) + this->End()), name);
        EXPECT_EQ(this->Named(this->Times(11, name) + this->End()), name);
        EXPECT_EQ(this->Named(this->Times(1000, name) + this->End()), name);
    }
}

TYPED_TEST(InfScan, CountsEachFileSeparately) {
    EXPECT_EQ(this->Named(this->Times(9, "qbimvta") + this->End()), "none");
    EXPECT_EQ(this->Named(this->Times(9, "qbimvta") + this->End()), "none");
}

TYPED_TEST(InfScan, CountsEachDriverSeparately) {
    EXPECT_EQ(this->Named(this->Times(5, "qbimvta qbimwfp") + this->End()), "none");
    EXPECT_EQ(this->Named(this->Times(9, "qbimvta qbimwfp") + this->End()), "none");
    EXPECT_EQ(this->Named(this->Times(9, "qbimvta qbimwfp") + this->Times(1, "qbimwfp") + this->End()), "qbimwfp");
}

TYPED_TEST(InfScan, ReturnsTheDriverThatReachesTenNamesFirst) {
    EXPECT_EQ(this->Named(this->Times(10, "qbimvta") + this->Times(20, "qbimwfp") + this->End()), "qbimvta");
    EXPECT_EQ(this->Named(this->Times(10, "qbimwfp") + this->Times(20, "qbimvta") + this->End()), "qbimwfp");
    EXPECT_EQ(this->Named(this->Times(10, "qbimvta qbimwfp") + this->End()), "qbimvta");
    EXPECT_EQ(this->Named(this->Times(10, "qbimwfp qbimvta") + this->End()), "qbimwfp");
}

TYPED_TEST(InfScan, DoesNotReadFarBeyondTheTenthName) {
    const auto text = this->Times(10, "qbimvta") + typename TestFixture::Text(kPage, ' ');
    const Bytes readable = this->m_file.Put(std::as_bytes(std::span(text)));
    const Bytes reachingIntoTheClosedPage(readable.data(), readable.size() + kPage);
    EXPECT_EQ(Told(this->Scan(reachingIntoTheClosedPage)), "qbimvta");
}

TYPED_TEST(InfScan, IgnoresANameWithACapitalFirstLetter) {
    EXPECT_EQ(this->Named(this->Times(10, "QBIMVTA") + this->End()), "none");
    EXPECT_EQ(this->Named(this->Times(10, "Qbimwfp") + this->End()), "none");
    EXPECT_EQ(this->Named(this->Times(9, "qbimvta Qbimvta") + this->End()), "none");
}

TYPED_TEST(InfScan, IgnoresTheCaseOfTheOtherLetters) {
    EXPECT_EQ(this->Named(this->Times(10, "qBIMVTA") + this->End()), "qbimvta");
    EXPECT_EQ(this->Named(this->Times(5, "qbImWfP qBiMwFp") + this->End()), "qbimwfp");
}

TYPED_TEST(InfScan, IgnoresANameThatBeginsWithinTheLast8Characters) {
    const std::size_t width = this->kWidth;
    for (std::size_t behind = 0; behind < 12; ++behind)
        for (std::size_t moreBytes = 0; moreBytes < width; ++moreBytes) {
            SCOPED_TRACE(std::to_string(behind) + " characters and " + std::to_string(moreBytes) + " bytes behind it");
            const bool isSeen = (kLetters + behind) * width + moreBytes > 8 * width;
            const auto text = this->Times(9, "qbimvta") + this->Wide("qbimvta");
            EXPECT_EQ(this->Named(text + typename TestFixture::Text(behind, ' '), moreBytes),
                      isSeen ? "qbimvta" : "none");
        }
}

TYPED_TEST(InfScan, FindsAdjacentNames) {
    typename TestFixture::Text text;
    for (int i = 0; i < 10; ++i)
        text += this->Wide("qbimwfp");
    EXPECT_EQ(this->Named(text + this->Wide("  ")), "qbimwfp");
    EXPECT_EQ(this->Named(text + this->Wide(" ")), "none");
}

TYPED_TEST(InfScan, FindsANameAfterPartOfOne) {
    EXPECT_EQ(this->Named(this->Times(10, "qbimvtqbimvta") + this->End()), "qbimvta");
    EXPECT_EQ(this->Named(this->Times(10, "qqbqbimqbimwfp") + this->End()), "qbimwfp");
}

TYPED_TEST(InfScan, FindsANameWithinAWordButNotPartOfAName) {
    EXPECT_EQ(this->Named(this->Times(10, "xqbimvta2") + this->End()), "qbimvta");
    for (const char *const other : {"qbimvt", "qbimvtb", "qbimwta", "qbinvta", "abimvta", "q bimvta", "qcimwfp"})
        EXPECT_EQ(this->Named(this->Times(20, other) + this->End()), "none") << other;
}

TYPED_TEST(InfScan, DoesNotFindANameWithAZeroInIt) {
    for (std::size_t i = 0; i < kLetters; ++i) {
        auto name = this->Wide("qbimvta");
        name[i] = 0;
        EXPECT_EQ(this->Named(this->Times(20, name) + this->End()), "none") << i;
    }
}

TYPED_TEST(InfScan, ContinuesAfterZerosBetweenNames) {
    auto name = this->Wide("qbimvta");
    name.append(300, 0);
    EXPECT_EQ(this->Named(this->Times(10, name)), "qbimvta");
}

TYPED_TEST(InfScan, FindsNothingInAFileOfAtMost8Characters) {
    for (std::size_t size = 0; size <= 9; ++size)
        EXPECT_EQ(this->Named(typename TestFixture::Text(size, 'q')), "none") << size;
    EXPECT_EQ(Told(this->Scan({})), "none");
}

TYPED_TEST(InfScan, FindsANameAtAnyOffset) {
    for (std::size_t before = 0; before < 200; ++before) {
        const typename TestFixture::Text gap(before, 'x');
        EXPECT_EQ(this->Named(gap + this->Times(10, "qbimvta") + this->End()), "qbimvta") << before;
        EXPECT_EQ(this->Named(gap + this->Times(9, "qbimvta") + this->End()), "none") << before;
        EXPECT_EQ(this->Named(this->Times(9, "qbimwfp") + gap + this->Times(1, "qbimwfp") + this->End()), "qbimwfp")
            << before;
    }
}

TEST(InfScanOf16Bit, ReadsOnlyWholeCharacters) {
    std::wstring text = L" ";
    for (int i = 0; i < 20; ++i)
        text += L"qbimvta ";
    text += L"        ";
    const Bytes bytes = std::as_bytes(std::span(text));
    EXPECT_EQ(Told(ScanInfForDriver16Bit(bytes)), "qbimvta");
    EXPECT_EQ(Told(ScanInfForDriver16Bit(bytes.subspan(1))), "none");
    EXPECT_EQ(Told(ScanInfForDriver8Bit(bytes)), "none");
}

TEST(InfScanOf16Bit, DoesNotMatchOtherLettersThatLookAlike) {
    struct Row {
        const char *what;
        std::wstring name;
    };
    for (const Row &row : std::vector<Row>{{"low half of a q", L"\x0171" + std::wstring(L"bimvta")},
                                           {"high half of a q", L"\x7100" + std::wstring(L"bimvta")},
                                           {"wide q", L"\xff51" + std::wstring(L"bimvta")},
                                           {"low half of a b", L"q\x0162imvta"},
                                           {"high half of a b", L"q\x6200imvta"},
                                           {"capital i with a dot", L"qb\x0130mvta"},
                                           {"i without a dot", L"qb\x0131mvta"},
                                           {"wide a", L"qbimvt\xff41"}}) {
        std::wstring text;
        for (int i = 0; i < 20; ++i)
            text += row.name;
        text += L"        ";
        EXPECT_EQ(Told(ScanInfForDriver16Bit(std::as_bytes(std::span(text)))), "none") << row.what;
    }
}

/// An INF file that names a driver ten times.
const std::string kInf = [] {
    std::string text = "[Version]\r\nSignature=\"$Windows NT$\"\r\nClass=NetService\r\n";
    for (int i = 0; i < 10; ++i)
        text += "HKR, Ndi, Service, 0, \"qbimvta\"\r\n";
    return text;
}();
const std::wstring kWideInf = L"\xfeff" + std::wstring(kInf.begin(), kInf.end());

TEST(InfScanOfEither, ReadsATextOf8Bits) {
    EXPECT_EQ(Told(ScanInfForDriver(std::as_bytes(std::span(kInf)))), "qbimvta");
}

TEST(InfScanOfEither, ReadsATextOf16Bits) {
    EXPECT_EQ(Told(ScanInfForDriver(std::as_bytes(std::span(kWideInf)))), "qbimvta");
}

TEST(InfScanOfEither, IgnoresNamesOfTheOtherWidth) {
    std::string narrow = kInf.substr(0, kInf.find("HKR"));
    narrow.resize(1024, ' ');
    narrow.append(reinterpret_cast<const char *>(kWideInf.data()), kWideInf.size() * sizeof(wchar_t));
    EXPECT_EQ(Told(ScanInfForDriver(std::as_bytes(std::span(narrow)))), "none");
    std::string wide(reinterpret_cast<const char *>(kWideInf.data()), 2 * kInf.find("HKR"));
    wide += kInf + kInf.substr(0, kInf.size() % 2);
    EXPECT_EQ(Told(ScanInfForDriver(std::as_bytes(std::span(wide)))), "none");
}

TEST(InfScanOfEither, FindsNothingInShortAndEmptyFiles) {
    for (std::size_t size = 0; size < 20; ++size) {
        EXPECT_EQ(Told(ScanInfForDriver(std::as_bytes(std::span(kInf)).first(size))), "none") << size;
        EXPECT_EQ(Told(ScanInfForDriver(std::as_bytes(std::span(kWideInf)).first(size))), "none") << size;
    }
}

TEST(InfScanOfEither, ScansBeyondTwoGigabytes) {
    const std::size_t size = (std::size_t{1} << 31) + 4 * kPage;
    const std::unique_ptr<void, void (*)(void *)> pages(
        VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE),
        [](void *memory) { VirtualFree(memory, 0, MEM_RELEASE); });
    ASSERT_TRUE(pages) << "no address space of 2 GiB: error " << GetLastError();
    // Each text first without its names, which decides its width, and at the end complete.
    auto *const text = static_cast<char *>(pages.get());
    char *const end = text + size - 1024;
    const Bytes file = std::as_bytes(std::span(text, size));
    std::memset(text, ' ', kPage);
    kInf.copy(text, kInf.find("HKR"));
    kInf.copy(end, kInf.size());
    EXPECT_EQ(Told(ScanInfForDriver8Bit(file)), "qbimvta");
    EXPECT_EQ(Told(ScanInfForDriver(file)), "qbimvta");
    kWideInf.copy(reinterpret_cast<wchar_t *>(text), kWideInf.find(L"HKR"));
    kWideInf.copy(reinterpret_cast<wchar_t *>(end), kWideInf.size());
    EXPECT_EQ(Told(ScanInfForDriver16Bit(file)), "qbimvta");
    EXPECT_EQ(Told(ScanInfForDriver(file)), "qbimvta");
}

/// Generates random files that come close to naming a driver, reproducible by the seed.
template <typename Character>
class FileMaker {
public:
    explicit FileMaker(const std::mt19937 &random) : m_random(random) {}

    std::size_t Below(std::size_t end) { return std::uniform_int_distribution<std::size_t>(0, end - 1)(m_random); }

    /// @param size  in bytes; the last one may be half a character.
    std::string Make(std::size_t size) {
        std::basic_string<Character> text(size / sizeof(Character), ' ');
        if (Below(2) == 0)
            std::generate(text.begin(), text.end(), [this] { return AnyCharacter(); });
        PutNames(text, Below(5) == 0 ? 0 : Below(26));
        std::string file(size, 'q');
        std::memcpy(file.data(), text.data(), text.size() * sizeof(Character));
        return file;
    }

private:
    Character AnyCharacter() {
        constexpr char letters[] = "qqQbBimvtawfp \r\n\xff";
        if (Below(50) == 0)
            return static_cast<Character>(Below(0x10000));
        return static_cast<Character>(letters[Below(sizeof(letters))]);  // the zero as well
    }

    void PutNames(std::basic_string<Character> &text, std::size_t count) {
        if (text.size() < kLetters)
            return;
        const std::size_t places = text.size() - kLetters + 1;
        const std::string names[] = {"qbimvta", "qbimwfp"};
        const std::size_t favourite = Below(2);
        for (std::size_t i = 0; i < count; ++i) {
            std::string name = names[Below(4) == 0 ? 1 - favourite : favourite];
            if (Below(4) == 0)
                name[Below(kLetters)] ^= 0x20;  // the other case
            if (Below(30) == 0)
                name[Below(kLetters)] = static_cast<char>('a' + Below(26));
            const std::size_t at =
                Below(4) == 0 ? places - 1 - Below(std::min<std::size_t>(places, 20)) : Below(places);
            std::copy(name.begin(), name.end(), text.begin() + static_cast<std::ptrdiff_t>(at));
        }
    }

    std::mt19937 m_random;
};

/// Which kinds of files were generated, so that the test cannot pass by having tried only one.
struct FileKinds {
    int none = 0;
    int vta = 0;
    int wfp = 0;
    int taken16Bit = 0;
    int taken8Bit = 0;
};

TYPED_TEST(InfScan, AgreesWithTheRuleOnAnyFile) {
    std::cout << HowToRepeat() << std::endl;
    FileMaker<TypeParam> maker(SeededRandom());
    FileKinds kinds;
    for (int i = 0; i < 20000; ++i) {
        const std::size_t most = i % 500 == 0 ? kCapacity : i % 2 == 0 ? 5000 : 400;
        const std::size_t size = i == 0 ? kCapacity : maker.Below(most + 1);
        const std::string made = maker.Make(size);
        const Bytes file = this->m_file.Put(std::as_bytes(std::span(made)));
        SCOPED_TRACE("file " + std::to_string(i) + " of " + std::to_string(size) + " bytes, " + HowToRepeat());
        const std::string expected = Told(ScanSlowly<TypeParam>(file));
        ASSERT_EQ(Told(this->Scan(file)), expected);
        const bool is16Bit = IsTextUnicode(file.data(), static_cast<int>(size), nullptr) != FALSE;
        ASSERT_EQ(Told(ScanInfForDriver(file)), Told(is16Bit ? ScanSlowly<wchar_t>(file) : ScanSlowly<char>(file)));
        ++(expected == "none" ? kinds.none : expected == "qbimvta" ? kinds.vta : kinds.wfp);
        ++(is16Bit ? kinds.taken16Bit : kinds.taken8Bit);
    }
    for (const int files : {kinds.none, kinds.vta, kinds.wfp, kinds.taken16Bit, kinds.taken8Bit})
        EXPECT_GT(files, 500);
}

}  // namespace
