#include "SweepFixture.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <setupapi.h>

#include "ComLibrary.h"
#include "ComObject.h"
#include "Leftovers.h"
#include "WindowsFunctions.h"

namespace {

constexpr wchar_t kServices[] = L"System\\CurrentControlSet\\Services";
constexpr wchar_t kAgent[] = L"SOFTWARE\\Quillon\\Vantry Agent";
constexpr wchar_t kVendorsAgentFolder[] = L"Quillon/Vantry Agent";

/// The current call; accessed without a lock, since a crash may hold any lock.
char currentCall[2000];
std::atomic<unsigned> callsBegun{0};

void TellCurrentCall(const char *what) {
    std::fprintf(stderr, "%s in: %s\n", what, currentCall);
    std::fflush(stderr);
}

LONG WINAPI OnCrash(EXCEPTION_POINTERS *) {
    TellCurrentCall("crash");
    return EXCEPTION_CONTINUE_SEARCH;
}

/// Failures that affect more than the call:
/// - without its event, or a wait for it, a thread can't be watched, and is killed wherever it is, maybe in the heap;
/// - if a function of the driver library is missing, resolving its import on first use ends the process.
bool MayFail(const std::string &function) {
    return function != "CreateEventW" && !function.starts_with("WaitFor") && function != "GetProcAddress" &&
           function != "LoadLibraryA";
}

/// Functions that cannot fail.
bool CannotFail(const std::string &function) {
    static const std::set<std::string> functions{"CoTaskMemFree",
                                                 "CoUninitialize",
                                                 "FreeSid",
                                                 "GetSystemInfo",
                                                 "GetSystemTimeAsFileTime",
                                                 "GetTickCount",
                                                 "GetTickCount64",
                                                 "InstallHinfSectionW",
                                                 "IsTextUnicode",
                                                 "QueryPerformanceCounter",
                                                 "Sleep",
                                                 "SysFreeString",
                                                 "SysStringLen",
                                                 "_time64",
                                                 "fclose"};
    return functions.contains(function);
}

bool IsMethod(const std::string &function) {
    return function.find("::") != function.npos;
}

bool IsOfDriverLibrary(const std::string &function) {
    return function.starts_with("vti_");
}

std::string Shortened(const std::string &text) {
    constexpr std::size_t most = 60;
    return text.size() <= most ? text : text.substr(0, most) + "...";
}

/// wxWidgets allocates a few words for each thread that logs, and does not free them when the thread ends.
bool IsWordOfAThread(const Simulator::BalanceItem &item) {
    return item.thread != GetCurrentThreadId() && item.size == sizeof(void *) && item.function == std::string("calloc");
}

/// The calls that created the resources of that kind.
std::string MadeBy(const std::string &kind, const std::vector<Simulator::BalanceItem> &items) {
    std::string calls;
    for (const Simulator::BalanceItem &item : items) {
        if (item.kind != kind)
            continue;
        calls += std::string(" ") + item.function;
        std::array<char, MAX_PATH> name{};
        if (kind == Simulator::Kind::kLibrary)
            (void)GetModuleFileNameA(reinterpret_cast<HMODULE>(item.value), name.data(), MAX_PATH);
        calls += std::string(" ") + name.data();
    }
    return calls;
}

Simulator::Service RandomService(Dice &dice) {
    constexpr DWORD states[] = {SERVICE_RUNNING, SERVICE_STOPPED,       SERVICE_RUNNING,     SERVICE_STOPPED,
                                SERVICE_PAUSED,  SERVICE_START_PENDING, SERVICE_STOP_PENDING};
    Simulator::Service service{.status = {dice.OneOf(states)}};
    if (dice.OneIn(4))
        service.starting = {{SERVICE_START_PENDING, 1, 2000}, {SERVICE_START_PENDING, 2, 2000}, {SERVICE_RUNNING}};
    if (dice.OneIn(4))
        service.stopping = {{SERVICE_STOP_PENDING, 1, 2000}, {SERVICE_STOP_PENDING, 1, 2000}, {SERVICE_STOPPED}};
    if (dice.OneIn(8))
        service.startType = SERVICE_DISABLED;
    if (dice.OneIn(8))
        service.startError = ERROR_SERVICE_DEPENDENCY_FAIL;
    if (dice.OneIn(8))
        service.controlError = ERROR_INVALID_SERVICE_CONTROL;
    return service;
}

}  // namespace

Dice::Dice() {
    const char *const text = std::getenv("FC_SEED");
    m_seed = text != nullptr ? static_cast<unsigned>(std::stoul(text))
                             : static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
    m_random.seed(m_seed);
}

CallWatch::CallWatch() : m_thread([this] { Watch(); }) {
    (void)SetUnhandledExceptionFilter(&OnCrash);
}

CallWatch::~CallWatch() {
    m_ended = true;
    m_thread.join();
    (void)SetUnhandledExceptionFilter(nullptr);
}

void CallWatch::Begin(const std::string &call) {
    currentCall[call.copy(currentCall, sizeof(currentCall) - 1)] = '\0';
    ++callsBegun;
}

void CallWatch::Watch() const {
    constexpr unsigned lookEachMs = 50;
    constexpr unsigned looksAtMost = 180'000 / lookEachMs;
    unsigned seen = callsBegun;
    for (unsigned looks = 0; !m_ended; ++looks) {
        Simulator::System::Sleep::Real(lookEachMs);
        if (seen != callsBegun)
            looks = 0;
        seen = callsBegun;
        if (looks == looksAtMost) {
            TellCurrentCall("hang");
            TerminateProcess(GetCurrentProcess(), EXIT_FAILURE);
        }
    }
}

SweepFixture::SweepFixture() {
    std::cout << "again with FC_SEED=" << dice.Seed() << std::endl;
    const Simulator::InsideSimulator inside;
    const std::filesystem::path programData = simulation().GetFolders().ProgramData();
    simulation().GetFolders().MapPath(L"C:\\ProgramData", programData);
    std::filesystem::create_directories(programData / kVendorsAgentFolder / L"filter");
    std::filesystem::create_directories(programData / kVendorsAgentFolder / L"diag");
    m_network = network().Read();
    m_onInstallSection = simulation().GetSetup().onInstallSection;
    objects = std::make_unique<SweepObjects>(dom);
    PutValues();
    RestoreMachine();
    m_openDriverHandles = Vti::TheDriver().openHandles;
}

SweepFixture::~SweepFixture() {
    VtaCore::Control::EnableTrace("*", false);
    wxLog::SetVerbose(false);
    Forget();
}

/// One table holds them, so that each is the same value in all calls.
void SweepFixture::PutValues() {
    const std::string wfp = std::filesystem::path(WfpFolder()).string();
    values = objects->Values(NdisFolder().string() + "\\", wfp);
    lua_newtable(lua);
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i].push(lua);
        lua_rawseti(lua, -2, static_cast<int>(i));
    }
    lua_setfield(lua, LUA_REGISTRYINDEX, "swept values");
    lua_settop(lua, 0);
}

void SweepFixture::RestoreServices() {
    for (const wchar_t *name : {L"qbimvta", L"qbimwfp", L"SharedAccess"}) {
        simulation().GetServices().Remove(name);
        if (!dice.OneIn(4))
            simulation().GetServices().Put(name, RandomService(dice));
    }
}

void SweepFixture::RestoreRegistry() {
    Simulator::RegistrySandbox &registry = simulation().GetRegistry();
    registry.Remove(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quillon");
    registry.Remove(HKEY_LOCAL_MACHINE, kServices);
    if (dice.OneIn(8))
        return;
    const std::wstring services = std::wstring(kServices) + L"\\";
    registry.PutDword(HKEY_LOCAL_MACHINE, services + L"qbimvta", L"driverChecked", 4'294'967'295);
    registry.PutText(HKEY_LOCAL_MACHINE, services + L"qbimvta", L"UncheckedIfs", L"a,,\x4E00,");
    registry.PutDword(HKEY_LOCAL_MACHINE, services + L"qbimvta\\Parameters", L"LastTimeDriverStoppedByBLP", 7);
    registry.PutText(HKEY_LOCAL_MACHINE, services + L"qbimwfp\\Parameters", L"LastTimeDriverStoppedByBLP", L"text");
    if (dice.OneIn(2))
        registry.PutDword(HKEY_LOCAL_MACHINE, kAgent, L"WindowsFirewallDisabledByInstaller",
                          static_cast<DWORD>(dice.Below(9)));
}

void SweepFixture::RestoreDriverLibrary() {
    const std::lock_guard lock(Vti::Lock());
    Vti::Driver &driver = Vti::TheDriver();
    driver.present = !dice.OneIn(4);
    driver.available = !dice.OneIn(8);
    driver.udp.assign(dice.Below(4), {});
    driver.tcp.assign(dice.Below(4), {});
    driver.blacklist.assign(dice.Below(300), 7);
    driver.profile.assign(dice.Below(5000), 9);
    driver.variables.fill(1);
    driver.overstatement = dice.OneIn(4) ? static_cast<std::uint32_t>(dice.Below(100'000)) : 0;
    driver.scanShape = dice.OneIn(4) ? std::array<std::uint32_t, 2>{11, 3} : std::array<std::uint32_t, 2>{10, 1};
    driver.faults.clear();
}

void SweepFixture::RestoreMachine() {
    constexpr const char *configurations[] = {
        "", "SYSTEM_RUNQ_PCT_THRESHOLD=20\n",
        ("SYSTEM_CONNECTION_REFUSAL_PORT=443\nSYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=10\n"
         "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=5\nSYSTEM_MIN_FREE_MEM_PCT=5\n")};
    RestoreServices();
    RestoreRegistry();
    RestoreDriverLibrary();
    simulation().GetFirewall().Put({});
    Simulator::Machine &machine = simulation().GetMachine();
    machine.processorQueue = static_cast<double>(dice.Below(100));
    machine.processorCount = static_cast<DWORD>(dice.Below(5));
    {
        const Simulator::InsideSimulator inside;
        std::ofstream(simulation().GetFolders().ProgramData() / kVendorsAgentFolder / L"filter" / L"vt_filter.conf")
            << dice.OneOf(configurations);
    }
    VtaCore::Control::EnableTrace("*", dice.OneIn(2));
    wxLog::SetVerbose(dice.OneIn(2));
    objects->RenewZip();
    if (dice.OneIn(16)) {
        constexpr DWORD systems[] = {5, 6, 10};
        machine.osMajor = dice.OneOf(systems);
        Reload();
        m_seemsOld = machine.osMajor < 6;
    }
}

void SweepFixture::RemoveInstalledInfs() {
    const Simulator::InsideSimulator inside;
    for (const auto &entry : std::filesystem::directory_iterator(simulation().GetFolders().Inf())) {
        if (entry.path().filename().wstring().starts_with(L"oem"))
            std::filesystem::remove(entry.path());
    }
    std::filesystem::remove(simulation().GetFolders().System32() / L"drivers" / L"qbimvta.sys");
}

void SweepFixture::RestoreDrivers() {
    constexpr WORD suites[] = {VER_SUITE_SINGLEUSERTS, VER_SUITE_SINGLEUSERTS, VER_SUITE_EMBEDDEDNT};
    RestoreRegistry();
    simulation().GetMachine().suiteMask = dice.OneOf(suites);
    simulation().GetMachine().osMajor = 10;
    const std::size_t drivers = dice.Below(4);
    RemoveDrivers();
    RemoveInstalledInfs();
    if (drivers == 3)
        InstallDrivers();
    network().Use([this](Simulator::NetworkState &state) { state = m_network; });
    for (const wchar_t *node : {kFirst, kSecond})
        simulation().GetDevices().Put({.instanceId = node, .description = L"Network adapter"});
    SetRunningVersion(std::nullopt);
    if (drivers == 1)
        InstallOldDriver({1, 0, 0, 0});
    else if (drivers == 2)
        InstallOldDriver({3, 0, 0, 0});
    else if (drivers == 3)
        network().Put({.id = L"qbimvta"});
    dom.Set("vtp.filter.ForceDriverInstall", dice.OneIn(2));
    simulation().GetSetup().onInstallSection = m_onInstallSection;
}

std::size_t SweepFixture::FunctionNamed(const std::string &name) const {
    for (std::size_t i = 0; i < functions.size(); ++i) {
        if (functions[i].name == name)
            return i;
    }
    throw std::logic_error("no function " + name);
}

std::size_t SweepFixture::ValueNamed(const std::string &name) const {
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (values[i].name == name)
            return i;
    }
    throw std::logic_error("no value " + name);
}

std::vector<std::size_t> SweepFixture::UsualArguments(std::size_t function) const {
    std::vector<std::size_t> arguments;
    for (const char *name : functions[function].usual)
        arguments.push_back(ValueNamed(name));
    return arguments;
}

std::string SweepFixture::Describe(const SweptCall &call) const {
    constexpr std::size_t toldArguments = 6;
    std::ostringstream text;
    text << functions[call.function].name << '(';
    for (std::size_t i = 0; i < std::min(call.arguments.size(), toldArguments); ++i)
        text << (i == 0 ? "" : ", ") << Shortened(values[call.arguments[i]].name);
    if (call.arguments.size() > toldArguments)
        text << ", ... " << call.arguments.size() << " in all";
    text << ')' << (call.guarded ? " guarded" : "") << (call.onCoroutine ? " on a coroutine" : "");
    if (call.fault)
        text << " with " << call.fault->function << '#' << call.fault->nth << "=0x" << std::hex << call.fault->code;
    return text.str();
}

std::optional<SweptFault> SweepFixture::RandomFault(std::size_t function) {
    constexpr DWORD errors[] = {ERROR_ACCESS_DENIED,     ERROR_FILE_NOT_FOUND,      ERROR_INVALID_HANDLE,
                                ERROR_MORE_DATA,         ERROR_NOT_ENOUGH_MEMORY,   ERROR_NO_MORE_FILES,
                                ERROR_NO_MORE_ITEMS,     ERROR_INSUFFICIENT_BUFFER, ERROR_SHARING_VIOLATION,
                                RPC_S_SERVER_UNAVAILABLE};
    constexpr HRESULT results[] = {E_FAIL, E_ACCESSDENIED, E_OUTOFMEMORY, E_NOINTERFACE, E_UNEXPECTED};
    constexpr int statuses[] = {-1, -10017, 5};
    const auto &met = m_met[function];
    if (met.empty())
        return std::nullopt;
    const auto &[name, times] = *std::next(met.begin(), static_cast<std::ptrdiff_t>(dice.Below(met.size())));
    SweptFault fault{name, static_cast<unsigned>(1 + dice.Below(times))};
    if (IsOfDriverLibrary(name))
        fault.code = static_cast<DWORD>(dice.OneOf(statuses));
    else
        fault.code = IsMethod(name) ? static_cast<DWORD>(dice.OneOf(results)) : dice.OneOf(errors);
    if (dice.OneIn(8)) {
        fault.nth = 0;
        fault.code = IsMethod(name) ? static_cast<DWORD>(E_ACCESSDENIED) : ERROR_ACCESS_DENIED;
    }
    return fault;
}

Simulator::FaultPlanHandle SweepFixture::Plan(const SweptFault &fault) {
    Simulator::Faults &faults = simulation().GetFaults();
    if (!IsOfDriverLibrary(fault.function))
        return fault.nth == 0 ? faults.FailEvery(fault.function, fault.code)
                              : faults.FailNth(fault.function, fault.nth, fault.code);
    const std::lock_guard lock(Vti::Lock());
    Vti::TheDriver().faults[fault.function] = {.status = static_cast<std::int32_t>(fault.code),
                                               .error = "a text %s%n of the library",
                                               .remaining = fault.nth == 0 ? -1 : 1,
                                               .after = fault.nth == 0 ? 0 : static_cast<int>(fault.nth) - 1};
    return nullptr;
}

unsigned SweepFixture::FaultHits(const SweptFault &fault, const Simulator::FaultPlanHandle &plan) {
    if (plan)
        return plan->Hits();
    const std::lock_guard lock(Vti::Lock());
    const auto &calls = Vti::TheDriver().calls;
    const auto hits = std::count_if(calls.begin(), calls.end(),
                                    [&](const std::string &call) { return call.starts_with(fault.function + "("); });
    return static_cast<unsigned>(hits) >= std::max(1U, fault.nth) ? 1 : 0;
}

std::vector<AgentKind> SweepFixture::Push(lua_State *L, const SweptCall &call) {
    constexpr int besides = 10;
    if (lua_checkstack(L, static_cast<int>(call.arguments.size()) + besides) == 0)
        throw std::logic_error("no room for so many arguments");
    lua_getfield(L, LUA_REGISTRYINDEX, "swept values");
    const int table = lua_gettop(L);
    if (call.arguments.empty())
        lua_pushnil(L);
    else
        lua_rawgeti(L, table, static_cast<int>(call.arguments.back()));
    lua_getglobal(L, "SLB");
    lua_getfield(L, -1, "filter");
    lua_getfield(L, -1, functions[call.function].name);
    lua_replace(L, -3);
    lua_pop(L, 1);
    std::vector<AgentKind> kinds;
    for (const std::size_t value : call.arguments) {
        lua_rawgeti(L, table, static_cast<int>(value));
        kinds.push_back(values[value].kind);
    }
    lua_remove(L, table);
    return kinds;
}

int SweepFixture::CallProtected(lua_State *L, const SweptCall &call) {
    const bool startsThreads = functions[call.function].startsThreads;
    const bool isInstallation = std::strcmp(functions[call.function].name, "InstallOrUpdateDriver") == 0;
    simulation().GetClock().SetFollower(isInstallation ? GetCurrentThreadId() : 0);
    const int objectsBefore = VtaCore::Control::LiveObjects();
    const Simulator::BalanceSnapshot before = startsThreads ? balance().Take() : Simulator::BalanceSnapshot();
    if (call.guarded)
        balance().Guard({.addressSpaceBytes = std::size_t{256} << 30});
    const int status = lua_pcall(L, static_cast<int>(call.arguments.size()), LUA_MULTRET, 0);
    if (startsThreads)
        AwaitThreads(objectsBefore, before);
    balance().StopGuarding();
    return status;
}

/// A thread frees its object a moment after its work, and closes its handle when it ends.
void SweepFixture::AwaitThreads(int objectsBefore, const Simulator::BalanceSnapshot &before) {
    constexpr DWORD longEnoughMs = 60'000;
    for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, balance().Take())) {
        if (item.function == std::string("_beginthreadex"))
            (void)Simulator::System::WaitForSingleObject::Real(reinterpret_cast<HANDLE>(item.value), longEnoughMs);
    }
    for (DWORD i = 0; i < longEnoughMs && VtaCore::Control::LiveObjects() != objectsBefore; ++i)
        Simulator::System::Sleep::Real(1);
    EXPECT_EQ(VtaCore::Control::LiveObjects(), objectsBefore) << "a thread is still running: " << currentCall;
}

void SweepFixture::Run(const SweptCall &call) {
    const SweptFunction &function = functions[call.function];
    lua_State *const L = call.onCoroutine ? lua_newthread(lua) : static_cast<lua_State *>(lua);
    const int bottom = lua_gettop(L);
    const SweptExpectation expected = ExpectCall(function, L, Push(L, call));
    CallWatch::Begin(Describe(call));
    const unsigned platformCalls = simulation().GetFaults().FailableCalls();
    const Simulator::FaultPlanHandle plan = call.fault ? Plan(*call.fault) : nullptr;
    const int status = CallProtected(L, call);
    const unsigned faultHits = call.fault ? FaultHits(*call.fault, plan) : 0;
    simulation().GetFaults().Clear();
    Vti::TheDriver().faults.clear();

    const int results = lua_gettop(L) - bottom - 1;
    if (status == LUA_OK) {
        EXPECT_EQ(expected.error, "") << "is not raised by " << currentCall;
        EXPECT_EQ(ComplaintAbout(function, L, results, call.arguments.empty() ? 0 : bottom + 1, expected), "")
            << currentCall;
    } else {
        const std::string message = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : "no string";
        EXPECT_EQ(status, LUA_ERRRUN) << currentCall;
        EXPECT_TRUE(!expected.error.empty() && message.find(expected.error) != message.npos)
            << currentCall << " raises: " << message << "\nexpected: " << expected.error;
        EXPECT_EQ(simulation().GetFaults().FailableCalls(), platformCalls) << "before the error of " << currentCall;
    }
    const bool answeredTrue = status == LUA_OK && results == 1 && lua_toboolean(L, -1) != 0;
    Account(call, status != LUA_OK, answeredTrue, faultHits);
    if (HasFailure())
        std::cout << "the group:\n" << m_group;
    lua_settop(L, bottom);
    if (call.onCoroutine)
        lua_pop(lua, 1);
}

void SweepFixture::Account(const SweptCall &call, bool raised, bool answeredTrue, unsigned faultHits) {
    namespace Kind = Simulator::Kind;
    const std::string name = functions[call.function].name;
    Tally &tally = m_tallies[call.function];
    ++tally.calls;
    tally.errors += raised ? 1 : 0;
    tally.faults += faultHits != 0 ? 1 : 0;
    tally.guarded += call.guarded ? 1 : 0;
    m_group += std::string(currentCall) + "\n";
    if (!call.fault)
        Learn(call.function);
    (void)simulation().GetJournal().Take();
    Vti::TheDriver().calls.clear();
    if (const std::string_view kind = call.fault ? KindReleasedBy(call.fault->function) : ""; !kind.empty())
        m_stays[std::string(kind)].most += faultHits;
    if (faultHits != 0 && call.fault->function == "GetVersionExW")
        m_seemsOld = true;
    if (call.fault && call.fault->function.starts_with("INetCfg"))
        m_lockMayStay = true;
    const auto mayStay = [this](const char *kind, std::size_t least, std::size_t most) {
        m_stays[kind].least += least;
        m_stays[kind].most += most;
    };
    if (name == "UninstallDriver" && !raised)
        mayStay(Kind::kHandle, 1, 1);
    if (name.starts_with("WindowsFirewall") && answeredTrue) {
        mayStay(Kind::kComInitialisation, 1, 1);
        mayStay(Kind::kComReference, 1, 2);  // there is no policy before Vista
    }
    if (name.ends_with("NativeFirewall") && m_seemsOld) {
        mayStay(Kind::kService, 0, 4);  // of a service that is stopped
        mayStay(Kind::kKey, 0, 1);      // if it can't be started
    }
}

void SweepFixture::Learn(std::size_t function) {
    std::map<std::string, unsigned> counts;
    for (const std::string &name : simulation().GetJournal().Names())
        ++counts[name];
    const std::lock_guard lock(Vti::Lock());
    for (const std::string &made : Vti::TheDriver().calls)
        ++counts[made.substr(0, made.find('('))];
    const Simulator::InsideSimulator inside;  // caching a result is not a leak
    for (const auto &[name, count] : counts) {
        if (MayFail(name) && !CannotFail(name))
            m_met[function][name] = std::max(m_met[function][name], count);
    }
}

void SweepFixture::Forget() {
    wxLog::FlushActive();
    (void)log.Take();
    (void)VtaCore::Control::TakeTraces();
    (void)VtaCore::Control::TakeEvents();
    (void)VtaCore::Control::TakeNotifications();
    (void)simulation().GetJournal().Take();
    const std::lock_guard lock(Vti::Lock());
    std::vector<std::string>().swap(Vti::TheDriver().calls);
}

Simulator::BalanceSnapshot SweepFixture::Settled() {
    constexpr int foldAfterSeconds = 100;
    AdvanceSeconds(foldAfterSeconds);
    lua.Run("SLB.filter.UpdateConnMetrics() SLB.filter.GetConnMetrics()");
    Forget();
    objects->RenewZip();
    lua_gc(lua, LUA_GCCOLLECT, 0);
    lua_gc(lua, LUA_GCCOLLECT, 0);
    return balance().Take();
}

void SweepFixture::GiveBack(const std::vector<Simulator::BalanceItem> &items) {
    namespace Kind = Simulator::Kind;
    for (const Simulator::BalanceItem &item : items) {
        const std::string_view kind = item.kind;
        if (kind == Kind::kComReference)
            reinterpret_cast<IUnknown *>(item.value)->Release();
        else if (kind == Kind::kComInitialisation)
            CoUninitialize();
        else if (kind != Kind::kLibrary)  // the module uses its libraries again
            Release(item);
    }
}

void SweepFixture::BeginGroup() {
    m_before = Settled();
    m_luaReferences = lua_rawlen(lua, LUA_REGISTRYINDEX);
    m_stays.clear();
    m_lockMayStay = false;
    m_group.clear();
}

void SweepFixture::EndGroup() {
    CallWatch::Begin("the account of a group");
    const Simulator::BalanceSnapshot after = Settled();
    const std::vector<Simulator::BalanceItem> items = Simulator::Balance::Left(m_before, after);
    // The number, since a library that is loaded again is the same resource as before.
    std::map<std::string, std::size_t> left;
    for (const Simulator::BalanceItem &item : items) {
        const std::size_t count = m_before.Count(item.kind);
        if (item.kind != std::string(Simulator::Kind::kBlock) && after.Count(item.kind) > count)
            left[item.kind] = after.Count(item.kind) - count;
    }
    for (const auto &[kind, stay] : m_stays)
        EXPECT_GE(left[kind], stay.least) << kind;
    for (const auto &[kind, count] : left)
        EXPECT_LE(count, m_stays[kind].most) << kind << "s are left:" << MadeBy(kind, items);
    EXPECT_EQ(lua_rawlen(lua, LUA_REGISTRYINDEX), m_luaReferences) << "references in Lua's registry";
    EXPECT_EQ(Vti::TheDriver().openHandles, m_openDriverHandles) << "handles of the driver library";
    EXPECT_TRUE(m_lockMayStay || !network().Read().lock) << "the network's write lock is held";
    if (HasFailure())
        std::cout << "the group:\n" << m_group;
    GiveBack(items);
}

void SweepFixture::ExpectNoGrowth(const Simulator::BalanceSnapshot &before) {
    // The C library keeps the memory of long numbers for later ones, Lua that of its string tables, and what the
    // agent's library frees by itself is not seen. A leak in one of a thousand calls exceeds this.
    constexpr std::size_t keptAtMost = 64;
    const Simulator::BalanceSnapshot after = Settled();
    std::map<std::string, std::size_t> made;
    std::size_t count = 0;
    for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, after)) {
        if (item.kind != std::string(Simulator::Kind::kBlock) || IsWordOfAThread(item))
            continue;
        ++made[std::string(item.function) + " of " + std::to_string(item.size) + " bytes"];
        ++count;
    }
    const std::size_t gone = Simulator::Balance::Left(after, before).size();
    EXPECT_LE(count, gone + keptAtMost) << testing::PrintToString(made);
    std::cout << "new blocks of memory: " << count << ", gone: " << gone << std::endl;
}

SweepFixture::Tally SweepFixture::Tell() const {
    Tally all;
    for (std::size_t i = 0; i < functions.size(); ++i) {
        const Tally &tally = m_tallies[i];
        if (tally.calls == 0)
            continue;
        std::cout << std::setw(32) << functions[i].name << std::setw(7) << tally.calls << " calls" << std::setw(7)
                  << tally.errors << " errors" << std::setw(6) << tally.faults << " met a fault" << std::setw(5)
                  << tally.guarded << " guarded\n";
        all.calls += tally.calls;
        all.errors += tally.errors;
        all.faults += tally.faults;
        all.guarded += tally.guarded;
    }
    std::cout << std::setw(32) << "all" << std::setw(7) << all.calls << " calls" << std::setw(7) << all.errors
              << " errors" << std::setw(6) << all.faults << " met a fault" << std::setw(5) << all.guarded << " guarded"
              << std::endl;
    return all;
}
