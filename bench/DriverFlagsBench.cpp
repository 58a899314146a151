#include "DriverFlagsBench.h"

#include <cstdio>
#include <cstdlib>

#include <windows.h>

#include "LuaBench.h"
#include "Simulation.h"

namespace {

constexpr int kFlagRounds = 15;
constexpr int kFlagTurns = 20;
constexpr wchar_t kDriver[] = L"System\\CurrentControlSet\\Services\\qbimvta";
constexpr wchar_t kDriverParameters[] = L"System\\CurrentControlSet\\Services\\qbimvta\\Parameters";
constexpr wchar_t kCalloutParameters[] = L"System\\CurrentControlSet\\Services\\qbimwfp\\Parameters";
constexpr wchar_t kInterfaces[] = L"Ethernet 1,Ethernet 2";

void PutValues(Simulator::RegistrySandbox &registry) {
    registry.PutDword(HKEY_LOCAL_MACHINE, kDriver, L"driverChecked", 1);
    registry.PutDword(HKEY_LOCAL_MACHINE, kDriver, L"driverHooked", 1);
    registry.PutText(HKEY_LOCAL_MACHINE, kDriver, L"UncheckedIfs", kInterfaces);
    registry.PutDword(HKEY_LOCAL_MACHINE, kDriverParameters, L"LastTimeDriverStoppedByBLP", 1);
    registry.PutDword(HKEY_LOCAL_MACHINE, kCalloutParameters, L"LastTimeDriverStoppedByBLP", 2);
}

// The bare calls that wxRegKey makes: a key is opened once for HasValue and QueryValue, each of which queries (a text
// twice, for its size); Exists opens and closes it separately. Counted, to check that the other side makes the same
// ones.
std::size_t bareCalls = 0;

[[noreturn]] void EndForLackOf(const char *what) {
    (void)std::fprintf(stderr, "bench: %s\n", what);
    std::exit(2);
}

void Expect(LSTATUS status) {
    ++bareCalls;
    if (status != ERROR_SUCCESS)
        EndForLackOf("a bare registry call fails");
}

HKEY OpenKey(const wchar_t *path, REGSAM access) {
    HKEY key = nullptr;
    Expect(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, access, &key));
    return key;
}

void CloseKey(HKEY key) {
    Expect(RegCloseKey(key));
}

void CheckKey(const wchar_t *path) {
    CloseKey(OpenKey(path, KEY_READ));
}

void QueryNumber(const wchar_t *path, const wchar_t *name) {
    HKEY key = OpenKey(path, KEY_READ);
    Expect(RegQueryValueExW(key, name, nullptr, nullptr, nullptr, nullptr));
    DWORD number = 0;
    DWORD type = 0;
    DWORD size = sizeof(number);
    Expect(RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE *>(&number), &size));
    CloseKey(key);
}

void QueryText(const wchar_t *path, const wchar_t *name) {
    HKEY key = OpenKey(path, KEY_READ);
    Expect(RegQueryValueExW(key, name, nullptr, nullptr, nullptr, nullptr));
    wchar_t text[64] = L"";
    DWORD type = 0;
    DWORD size = 0;
    Expect(RegQueryValueExW(key, name, nullptr, &type, nullptr, &size));
    size = sizeof(text);
    Expect(RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE *>(text), &size));
    CloseKey(key);
}

void SetValue(const wchar_t *name, DWORD type, const void *data, DWORD size) {
    CheckKey(kDriver);
    HKEY key = OpenKey(kDriver, KEY_READ | KEY_WRITE);
    Expect(RegSetValueExW(key, name, 0, type, static_cast<const BYTE *>(data), size));
    CloseKey(key);
}

void CallRegistry() {
    constexpr DWORD one = 1;
    QueryNumber(kDriver, L"driverChecked");
    SetValue(L"driverChecked", REG_DWORD, &one, sizeof(one));
    QueryNumber(kDriver, L"driverHooked");
    SetValue(L"driverHooked", REG_DWORD, &one, sizeof(one));
    QueryText(kDriver, L"UncheckedIfs");
    SetValue(L"UncheckedIfs", REG_SZ, kInterfaces, sizeof(kInterfaces));
    CheckKey(kDriverParameters);
    QueryNumber(kDriverParameters, L"LastTimeDriverStoppedByBLP");
    CheckKey(kCalloutParameters);
    QueryNumber(kCalloutParameters, L"LastTimeDriverStoppedByBLP");
}

double TimeBareCalls() {
    const double start = Now();
    for (int i = 0; i < kFlagTurns; ++i)
        CallRegistry();
    return Now() - start;
}

std::size_t CountRegistryCalls(LuaBench &lua) {
    Simulator::Simulation simulation({.folders = false, .balance = false, .machine = false});
    PutValues(simulation.GetRegistry());
    simulation.Attach(GetModuleHandleW(L"" FC_WX_DLL));
    (void)simulation.GetJournal().Take();
    lua.Run("flags(1)");
    std::size_t calls = 0;
    for (const std::string &name : simulation.GetJournal().Names())
        calls += name.starts_with("Reg") ? 1u : 0u;
    return calls;
}

}  // namespace

void BenchDriverFlags(Report &report) {
    LuaBench lua;
    lua.Run("require 'fc'");
    lua.Run(R"(function flags(times)
        local f, interfaces = SLB.filter, { 'Ethernet 1', 'Ethernet 2' }
        for i = 1, times do
            assert(f.GetDriverCheckedFromReg() == 1)
            f.SetDriverCheckedToReg(1)
            assert(f.GetDriverHookedFromReg() == 1)
            f.SetDriverHookedToReg(1)
            assert(#f.GetUncheckedIfc() == 2)
            f.SetUncheckedIfc(interfaces)
            local driver, callout = f.GetDriverStoppedByBLPTimestamp()
            assert(driver == 1 and callout == 2)
        end
    end)");
    const std::size_t calls = CountRegistryCalls(lua);
    Simulator::RegistrySandbox registry;
    PutValues(registry);
    CallRegistry();
    if (calls != bareCalls) {
        (void)std::fprintf(stderr, "bench: the module makes %zu registry calls, the floor %zu\n", calls, bareCalls);
        EndForLackOf("the floor of the driver flags has to be adapted");
    }
    const std::string turns = "flags(" + std::to_string(kFlagTurns) + ")";
    const auto times = MedianTimes(kFlagRounds, {[&] { return lua.Time(turns); }, TimeBareCalls});
    report.Add("the seven driver-flag functions, to their bare registry calls", times[0] / times[1], "time ratio",
               "<= 1.3");
    report.Add("registry calls of the seven, in either", static_cast<double>(calls), "calls");
}
