#include "HungCall.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <dbghelp.h>

#include "Leftovers.h"
#include "WindowsFunctions.h"
#include "vta_core_control.h"

namespace Kind = Simulator::Kind;
using Simulator::InsideSimulator;

namespace {

namespace System {

// They mark the end of a step, and the removal of a file by the C runtime.
SIMULATOR_FUNCTION(SetEvent, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(_wremove, Simulator::kCRuntime, CannotFail);
SIMULATOR_FUNCTION(SymInitializeW, "dbghelp.dll", ReturnsZero);

}  // namespace System

/// With this variable Wine's stack library also skips the host's own libraries, of which it reads every byte.
constexpr wchar_t kNoSystemLibraries[] = L"DBGHELP_NOLIVE";

bool IsReadable(const std::byte *begin, const std::byte *end) {
    MEMORY_BASIC_INFORMATION info{};
    while (begin < end) {
        constexpr DWORD unreadable = PAGE_NOACCESS | PAGE_GUARD | PAGE_EXECUTE;
        if (VirtualQuery(begin, &info, sizeof info) == 0 || info.State != MEM_COMMIT ||
            (info.Protect & unreadable) != 0)
            return false;
        begin = static_cast<const std::byte *>(info.BaseAddress) + info.RegionSize;
    }
    return true;
}

/// Wine's function has its server stop the process and read, which a walk over a stack asks for some hundred times.
BOOL WINAPI ReadMemory(HANDLE process, LPCVOID address, LPVOID buffer, SIZE_T size, SIZE_T *read) {
    static const auto real = reinterpret_cast<decltype(&::ReadProcessMemory)>(
        reinterpret_cast<void *>(Simulator::FindRealFunction("KERNEL32.dll", "ReadProcessMemory")));
    const auto *const begin = static_cast<const std::byte *>(address);
    if (process != GetCurrentProcess() || !IsReadable(begin, begin + size))
        return real(process, address, buffer, size, read);
    std::memcpy(buffer, address, size);
    if (read != nullptr)
        *read = size;
    return TRUE;
}

}  // namespace

SeenThread::SeenThread(DWORD id) {
    const InsideSimulator inside;
    m_handle.reset(OpenThread(SYNCHRONIZE, FALSE, id));
}

bool SeenThread::AwaitEnd(DWORD realMs) const {
    const InsideSimulator inside;
    return m_handle && WaitForSingleObject(m_handle.get(), realMs) == WAIT_OBJECT_0;
}

std::vector<std::string> StacksIn(const std::vector<LogLine> &log) {
    std::vector<std::string> stacks;
    for (const LogLine &line : log) {
        if (line.level == wxLOG_Info && line.text.starts_with("Stack trace:\n"))
            stacks.push_back(line.text);
    }
    return stacks;
}

std::vector<Simulator::BalanceItem> NewThings(const Simulator::BalanceSnapshot &before) {
    const InsideSimulator inside;
    auto items = Simulator::Balance::Left(before, Simulator::Balance::Instance().Take());
    std::erase_if(items, [](const auto &item) { return item.kind == std::string_view(Kind::kBlock); });
    return items;
}

bool IsThread(const Simulator::BalanceItem &item) {
    return item.function == std::string_view("_beginthreadex");
}

HungCall::HungCall(Simulator::Simulation &simulation, const std::atomic<bool> &returned)
    : m_simulation(simulation), m_returned(returned), m_watcherClock(simulation) {
    wxLog::SetVerbose(true);
    Simulator::FunctionSet &functions = simulation.Functions();
    functions.PassThrough<System::SetEvent>();
    functions.PassThrough<System::_wremove>();
    functions.PassThrough<System::SymInitializeW>();
    functions.Add({"KERNEL32.dll", "ReadProcessMemory", reinterpret_cast<void *>(&ReadMemory)});
    (void)functions.Attach(GetModuleHandleW(L"dbghelp.dll"), {"ReadProcessMemory"});
    functions.Put<Simulator::System::Sleep>(
        [&faults = simulation.GetFaults()](const auto &next, DWORD ms) {
            for (const auto &hang : faults.Ask("Sleep(" + std::to_string(ms) + ")", false).hangs)
                hang->Hang();
            next(ms);
        },
        Simulator::Depth::Watch);
}

HungCall::~HungCall() {
    wxLog::SetVerbose(false);
    SetEnvironmentVariableW(kNoSystemLibraries, nullptr);
}

void HungCall::LoadNoModulesForStacks() {
    SetEnvironmentVariableW(kNoSystemLibraries, L"1");
    m_simulation.Functions().Put<System::SymInitializeW>(
        [](const auto &next, HANDLE process, PCWSTR path, BOOL) -> BOOL { return next(process, path, FALSE); });
}

bool HungCall::AwaitReturn() const {
    return Await(kPatienceMs, [this] { return m_returned.load(); });
}

bool HungCall::AwaitObjects(int objects, const Simulator::BalanceSnapshot &before) {
    return Await(kPatienceMs, [&] {
        const std::vector<Simulator::BalanceItem> items = NewThings(before);
        return VtaCore::Control::LiveObjects() == objects && std::none_of(items.begin(), items.end(), IsThread);
    });
}

void HungCall::ClearAway(const std::vector<Simulator::BalanceItem> &left) {
    const InsideSimulator inside;
    for (const Simulator::BalanceItem &item : left) {
        const std::string_view kind = item.kind;
        if (kind == Kind::kService)
            m_simulation.GetServices().Close(reinterpret_cast<SC_HANDLE>(item.value));
        else if (kind == Kind::kView || kind == Kind::kHandle || kind == Kind::kFind || kind == Kind::kKey)
            Release(item);
        m_simulation.GetBalance().Closed(item.kind, item.value);
    }
}
