#include "InfScanBench.h"

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <random>
#include <span>
#include <string>

#include <emmintrin.h>
#include <windows.h>

#include "WindowsDriverInstaller/cleanup/InfScan.h"

namespace {

constexpr std::size_t kMiB = 1024 * 1024;
constexpr std::size_t kUnseen = 8;  // characters at the end of a file
constexpr std::size_t kDriverLength = 7;
constexpr int kEnough = 10;

using Bytes = std::span<const std::byte>;

[[noreturn]] void EndScan(const char *what) {
    (void)std::fprintf(stderr, "bench: %s (error %lu)\n", what, GetLastError());
    std::exit(2);
}

/// The text of an ordinary network card's INF file, with a section for each of its models.
constexpr const char *kInfLines[] = {
    "; Copyright (c) Example Corporation. All rights reserved.",
    "",
    "[Version]",
    "Signature   = \"$Windows NT$\"",
    "Class       = Net",
    "ClassGUID   = {4d36e972-e325-11ce-bfc1-08002be10318}",
    "Provider    = %Example%",
    "CatalogFile = example.cat",
    "DriverVer   = 06/21/2006,10.0.17763.1",
    "PnpLockdown = 1",
    "",
    "[Manufacturer]",
    "%Example% = Example, NTamd64.10.0.1, NTamd64.10.0.2",
    "",
    "[ControlFlags]",
    "ExcludeFromSelect = *",
    "",
    "; Gigabit adapters",
    "Characteristics = 0x84 ; NCF_HAS_UI | NCF_PHYSICAL",
    "BusType         = 5    ; PCI",
    "AddReg          = Default.Reg, Speed.Reg, Queues.Reg, Moderation.Reg",
    "CopyFiles       = Example.CopyFiles",
    "*IfType         = 6    ; IF_TYPE_ETHERNET_CSMACD",
    "*MediaType      = 0    ; NdisMedium802_3",
    "HKR, Ndi,                           Service,       0, \"example\"",
    "HKR, Ndi\\Interfaces,                UpperRange,    0, \"ndis5\"",
    "HKR, Ndi\\Interfaces,                LowerRange,    0, \"ethernet\"",
    "HKR, Ndi\\params\\*FlowControl,       ParamDesc,     0, %FlowControl%",
    "HKR, Ndi\\params\\*FlowControl,       default,       0, \"3\"",
    "HKR, Ndi\\params\\*FlowControl,       type,          0, \"enum\"",
    "HKR, Ndi\\params\\*FlowControl\\enum,  0,             0, %Disabled%",
    "HKR, Ndi\\params\\*FlowControl\\enum,  3,             0, %RxTxEnabled%",
    "HKR, Ndi\\params\\*NumRssQueues,      ParamDesc,     0, %NumRssQueues%",
    "HKR, Ndi\\params\\*PriorityVLANTag,   ParamDesc,     0, %PriorityVlanTag%",
    "HKR, Ndi\\params\\WakeOnPattern,      min,           0, \"0\"",
    "HKR,, *ReceiveBuffers, 0, \"512\"   ; required by the firmware, a quarter of the ring",
    "StartType      = 3 ; SERVICE_DEMAND_START",
    "ErrorControl   = 1 ; SERVICE_ERROR_NORMAL",
    "ServiceBinary  = %12%\\example.sys",
    "LoadOrderGroup = NDIS",
    "AddService     = example, 2, Example.Service, Example.EventLog",
    "HKR,,EventMessageFile,0x00020000,\"%%SystemRoot%%\\System32\\netevent.dll\"",
    "NumRssQueues    = \"Maximum Number of RSS Queues\"",
    "PriorityVlanTag = \"Packet Priority & VLAN\"",
};

/// Each driver is named several times, but too rarely to end a scan early.
std::string MakeInfText(std::size_t characters) {
    std::mt19937 random(7);
    std::string text;
    text.reserve(characters + 100);
    while (text.size() < characters) {
        text += kInfLines[random() % std::size(kInfLines)];
        text += "\r\n";
    }
    text.resize(characters);
    for (std::size_t i = 1; i < 8; ++i)
        text.replace(characters / 8 * i, kDriverLength, i % 2 == 0 ? "qbimvta" : "qbimwfp");
    return text;
}

/// A file in memory, mapped as the module maps it.
class MappedFile {
public:
    explicit MappedFile(Bytes content) : m_size(content.size()) {
        wchar_t folder[MAX_PATH] = L"";
        wchar_t path[MAX_PATH] = L"";
        if (GetTempPathW(MAX_PATH, folder) == 0 || GetTempFileNameW(folder, L"inf", 0, path) == 0)
            EndScan("no name for a temporary file");
        m_file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                             FILE_FLAG_SEQUENTIAL_SCAN | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
        DWORD written = 0;
        if (m_file == INVALID_HANDLE_VALUE ||
            WriteFile(m_file, content.data(), static_cast<DWORD>(m_size), &written, nullptr) == FALSE ||
            written != m_size)
            EndScan("a temporary file can't be written");
        m_mapping = CreateFileMappingW(m_file, nullptr, PAGE_READONLY, 0, 0, nullptr);
        m_view = m_mapping ? MapViewOfFile(m_mapping, FILE_MAP_READ, 0, 0, 0) : nullptr;
        if (!m_view)
            EndScan("a temporary file can't be mapped");
    }
    ~MappedFile() {
        UnmapViewOfFile(m_view);
        CloseHandle(m_mapping);
        CloseHandle(m_file);
    }
    MappedFile(const MappedFile &) = delete;
    MappedFile &operator=(const MappedFile &) = delete;

    Bytes content() const { return {static_cast<const std::byte *>(m_view), m_size}; }

private:
    std::size_t m_size;
    HANDLE m_file = nullptr;
    HANDLE m_mapping = nullptr;
    const void *m_view = nullptr;
};

bool Names(const char *text, const char *name) {
    return _strnicmp(text, name, kDriverLength) == 0;
}

bool Names(const wchar_t *text, const wchar_t *name) {
    return _wcsnicmp(text, name, kDriverLength) == 0;
}

/// The obvious scan: checks each character, and calls the system's comparison at each first letter.
template <typename Character>
const wchar_t *ScanPlainly(Bytes file, const Character *first, const Character *second) {
    int firsts = 0;
    int seconds = 0;
    const auto *text = reinterpret_cast<const Character *>(file.data());
    const Character *const end = text + file.size() / sizeof(Character) - kUnseen;
    for (; text < end; ++text) {
        if (*text != *first)
            continue;
        if (Names(text, first) && ++firsts == kEnough)
            return L"qbimvta";
        if (Names(text, second) && ++seconds == kEnough)
            return L"qbimwfp";
    }
    return nullptr;
}

const wchar_t *ScanPlainly8Bit(Bytes file) {
    return ScanPlainly(file, "qbimvta", "qbimwfp");
}

const wchar_t *ScanPlainly16Bit(Bytes file) {
    return ScanPlainly(file, L"qbimvta", L"qbimwfp");
}

volatile int floorResult;  // keeps the floor from being optimised away

/// Reads every byte, with as many and as wide loads as the scan may use, and does a minimum of work.
void ReadAll(Bytes file) {
    __m128i sums[4] = {};
    const auto *block = reinterpret_cast<const __m128i *>(file.data());
    const __m128i *const end = block + file.size() / sizeof(__m128i);
    for (; block < end; block += 4)
        for (std::size_t i = 0; i < 4; ++i)
            sums[i] = _mm_or_si128(sums[i], _mm_load_si128(block + i));
    floorResult = _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(sums[0], sums[1]), _mm_or_si128(sums[2], sums[3])));
}

using ScanFunction = const wchar_t *(*)(Bytes);

struct Width {
    const char *name;
    ScanFunction scan;
    ScanFunction plain;
};

double TimeScan(ScanFunction scan, Bytes file) {
    const double start = Now();
    const wchar_t *const driver = scan(file);
    const double time = Now() - start;
    if (driver != nullptr)
        EndScan("an ordinary INF file is taken for a driver's");
    return time;
}

double TimeReadAll(Bytes file) {
    const double start = Now();
    ReadAll(file);
    return Now() - start;
}

void BenchText(Report &report, const Width &width, const std::string &what, Bytes content) {
    // Many short jobs: other programs then do not affect the median.
    const int infRounds = content.size() == kMiB ? 501 : 21;
    const MappedFile mapped(content);
    const Bytes file = mapped.content();
    const auto times =
        MedianTimes(infRounds, {[&] { return TimeScan(width.scan, file); }, [&] { return TimeScan(width.plain, file); },
                                [&] { return TimeReadAll(file); }});
    const std::string row = std::string("scan of ") + what + " of INF text, " + width.name;
    report.Add(row + ", plain loop to it", times[1] / times[0], "time ratio", ">= 2");
    report.Add(row + ", to reading each byte", times[0] / times[2], "time ratio", "<= 2.5");
}

/// Both sides must find what there is.
void CheckSameResult(const Width &width, Bytes content) {
    const wchar_t *const driver = width.scan(content);
    const wchar_t *const plain = width.plain(content);
    if (driver == nullptr || plain == nullptr || std::wcscmp(driver, plain) != 0)
        EndScan("the scan of an INF file and its peer differ");
}

template <typename Character>
void BenchWidth(Report &report, const Width &width) {
    for (const std::size_t size : {kMiB, 64 * kMiB}) {
        if (IsShortRun() && size > kMiB)
            break;
        const std::string narrow = MakeInfText(size / sizeof(Character));
        std::basic_string<Character> text(narrow.begin(), narrow.end());
        BenchText(report, width, std::to_string(size / kMiB) + " MiB", std::as_bytes(std::span(text)));
        for (int i = 0; i < kEnough; ++i)
            text.replace(text.size() - 100 + 8 * static_cast<std::size_t>(i), kDriverLength, text, text.size() / 8 * 2,
                         kDriverLength);
        CheckSameResult(width, std::as_bytes(std::span(text)));
    }
}

}  // namespace

void BenchInfScan(Report &report) {
    BenchWidth<char>(report, {"8 bit", ScanInfForDriver8Bit, ScanPlainly8Bit});
    BenchWidth<wchar_t>(report, {"16 bit", ScanInfForDriver16Bit, ScanPlainly16Bit});
}
