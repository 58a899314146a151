#include "HealthStubs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pdh.h>

#include "Bench.h"
#include "Redirect.h"
#include "vti.h"

namespace HealthStubs {

namespace {

std::size_t nextLine = 0;
bool readsConfig = false;
char handle = 0;  // every handle and file is its address

void Note(Mark mark) {
    if (TheState().notesTimes)
        TheState().times[mark] = Now();
}

void WINAPI TellTime(FILETIME *time) {
    static ULARGE_INTEGER now{{0, 31'000'000}};
    now.QuadPart += 300'000'000;  // half a minute
    *time = {now.LowPart, now.HighPart};
    Note(Start);
}

std::FILE *Open(const char *, const char *mode) {
    ++TheState().opened;
    readsConfig = *mode == 'r';
    nextLine = 0;
    return reinterpret_cast<std::FILE *>(&handle);
}

char *ReadLine(char *line, int size, std::FILE *) {
    if (nextLine == TheState().configLines.size())
        return nullptr;
    return std::strncpy(line, TheState().configLines[nextLine++].c_str(), static_cast<std::size_t>(size));
}

int Write(const char *, std::FILE *) {
    ++TheState().written;
    return 0;
}

int Flush(std::FILE *) {
    return 0;
}

int Close(std::FILE *) {
    if (readsConfig)
        Note(ConfigClosed);
    return 0;
}

PDH_STATUS WINAPI OpenQuery(const wchar_t *, DWORD_PTR, PDH_HQUERY *query) {
    Note(SampleBegun);
    *query = &handle;
    return ERROR_SUCCESS;
}

PDH_STATUS WINAPI AddCounter(PDH_HQUERY, const wchar_t *, DWORD_PTR, PDH_HCOUNTER *counter) {
    *counter = &handle;
    return ERROR_SUCCESS;
}

PDH_STATUS WINAPI Succeed(PDH_HQUERY) {
    return ERROR_SUCCESS;
}

PDH_STATUS WINAPI Format(PDH_HCOUNTER, DWORD, DWORD *, PDH_FMT_COUNTERVALUE *value) {
    value->doubleValue = 3;
    return ERROR_SUCCESS;
}

void WINAPI DoNotSleep(DWORD) {}

void WINAPI TellSystem(SYSTEM_INFO *system) {
    system->dwNumberOfProcessors = 8;
}

BOOL WINAPI TellMemory(MEMORYSTATUSEX *status) {
    status->ullTotalPhys = 1ULL << 33;
    status->ullAvailPhys = 1ULL << 32;
    return TRUE;
}

vti_handle_t *OpenDriver() {
    return reinterpret_cast<vti_handle_t *>(&handle);
}

void CloseDriver(vti_handle_t *) {
    Note(SampleEnded);
}

int32_t Monitor(vti_handle_t *, const ScanMonitorRequest *) {
    return 0;
}

int32_t ReadCounters(vti_handle_t *, ScanMetricsRecord *record, uint32_t) {
    static uint64_t total = 0;
    total += 1000;
    for (uint64_t &counter : record->counters)
        counter = total;
    record->counters[3] = 0;  // no connection was refused
    return 0;
}

}  // namespace

State &TheState() {
    static State state;
    return state;
}

std::vector<Simulator::Redirection> PutUnder(HMODULE module) {
    std::vector<Simulator::Redirection> redirections;
    const auto put = [&](const char *function, auto *stub) { Redirect(redirections, module, function, stub); };
    put("GetSystemTimeAsFileTime", TellTime);
    put("fopen", Open);
    put("fgets", ReadLine);
    put("fputs", Write);
    put("fflush", Flush);
    put("fclose", Close);
    put("PdhOpenQueryW", OpenQuery);
    put("PdhAddCounterW", AddCounter);
    put("PdhCollectQueryData", Succeed);
    put("PdhGetFormattedCounterValue", Format);
    put("PdhCloseQuery", Succeed);
    put("Sleep", DoNotSleep);
    put("GetSystemInfo", TellSystem);
    put("GlobalMemoryStatusEx", TellMemory);
    put("vti_open", OpenDriver);
    put("vti_close", CloseDriver);
    put("vti_set_scan_monitoring", Monitor);
    put("vti_get_scan_metrics", ReadCounters);
    return redirections;
}

}  // namespace HealthStubs
