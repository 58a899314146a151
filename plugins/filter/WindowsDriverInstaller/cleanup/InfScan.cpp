#include "InfScan.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

#include <emmintrin.h>
#include <windows.h>

namespace {

constexpr std::size_t kNameLength = 7;
constexpr std::size_t kUnseenCharacters = 8;  ///< compat 117: of a file's end; a name that begins there is not seen.
constexpr int kEnoughNames = 10;
constexpr char kFirstLetter = 'q';
constexpr std::size_t kBlockBytes = 64;

struct DriverName {
    const char *narrow;
    const wchar_t *wide;
};
constexpr std::array<DriverName, 2> kDriverNames{{{"qbimvta", L"qbimvta"}, {"qbimwfp", L"qbimwfp"}}};

bool IsInfScanName(const char *text, const DriverName &name) {
    return _strnicmp(text, name.narrow, kNameLength) == 0;
}

bool IsInfScanName(const wchar_t *text, const DriverName &name) {
    return _wcsnicmp(text, name.wide, kNameLength) == 0;
}

/// How often each driver is named in one file.
template <typename Character>
class InfScanCounts {
public:
    /// Counts a name that begins here.
    /// @return the driver that is now named often enough; null if none is.
    const wchar_t *CountAt(const std::byte *position) {
        std::array<Character, kNameLength> text;
        std::memcpy(text.data(), position, sizeof(text));
        // Checking the second letter avoids most of the calls.
        // compat 116: the first letter counts in lower case only, the others in any case
        if (text[0] != kFirstLetter || (text[1] != 'b' && text[1] != 'B'))
            return nullptr;
        for (std::size_t i = 0; i < kDriverNames.size(); ++i)
            if (IsInfScanName(text.data(), kDriverNames[i]) && ++m_counts[i] == kEnoughNames)
                return kDriverNames[i].wide;
        return nullptr;
    }

private:
    std::array<int, kDriverNames.size()> m_counts{};
};

/// Sets all bits of each of these 16 bytes that is the first letter.
__m128i MarkInfScanLetters(const std::byte *bytes) {
    return _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes)), _mm_set1_epi8(kFirstLetter));
}

/// A bit for each byte of the block that is the first letter; bit 0 for its first byte.
std::uint64_t InfScanLettersIn(const std::byte *block) {
    const __m128i marks[] = {MarkInfScanLetters(block), MarkInfScanLetters(block + 16), MarkInfScanLetters(block + 32),
                             MarkInfScanLetters(block + 48)};
    const __m128i any = _mm_or_si128(_mm_or_si128(marks[0], marks[1]), _mm_or_si128(marks[2], marks[3]));
    // Most blocks hold none, so one test covers all four.
    if (_mm_movemask_epi8(any) == 0)
        return 0;
    const auto bits = [&marks](std::size_t i) {
        return static_cast<std::uint64_t>(_mm_movemask_epi8(marks[i])) << (16 * i);
    };
    return bits(0) | bits(1) | bits(2) | bits(3);
}

/// Where in a block characters may begin: at 16 bits, on every other byte.
template <typename Character>
constexpr std::uint64_t kInfScanBeginnings = sizeof(Character) == 1 ? ~0ULL : 0x5555'5555'5555'5555ULL;

template <typename Character>
const wchar_t *CountInfScanNames(std::span<const std::byte> file) {
    constexpr std::size_t unseen = kUnseenCharacters * sizeof(Character);
    static_assert(unseen > kNameLength * sizeof(Character), "a name that is compared must end within the file");
    const std::byte *const view = file.data();
    const std::size_t end = file.size() > unseen ? file.size() - unseen : 0;
    InfScanCounts<Character> counts;
    std::size_t at = 0;
    for (; end - at >= kBlockBytes; at += kBlockBytes)
        for (std::uint64_t letters = InfScanLettersIn(view + at) & kInfScanBeginnings<Character>; letters != 0;
             letters &= letters - 1)
            if (const wchar_t *const driver = counts.CountAt(view + at + std::countr_zero(letters)))
                return driver;
    for (; at < end; at += sizeof(Character))
        if (const wchar_t *const driver = counts.CountAt(view + at))
            return driver;
    return nullptr;
}

}  // namespace

const wchar_t *ScanInfForDriver(std::span<const std::byte> file) {
    // The beginning of a file too large for an int is enough. Its size stays even: an odd one would make
    // IsTextUnicode reject 16 bits.
    constexpr std::size_t most = INT_MAX - 1;
    const int size = static_cast<int>(std::min(file.size(), most));
    return IsTextUnicode(file.data(), size, nullptr) != FALSE ? ScanInfForDriver16Bit(file)
                                                              : ScanInfForDriver8Bit(file);
}

const wchar_t *ScanInfForDriver8Bit(std::span<const std::byte> file) {
    return CountInfScanNames<char>(file);
}

const wchar_t *ScanInfForDriver16Bit(std::span<const std::byte> file) {
    return CountInfScanNames<wchar_t>(file);
}
