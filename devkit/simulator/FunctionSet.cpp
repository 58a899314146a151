#include "FunctionSet.h"

#include <algorithm>
#include <atomic>
#include <cwctype>
#include <stdexcept>
#include <utility>

#include <winternl.h>

#include "ModuleImage.h"

namespace Simulator {

namespace {

SIMULATOR_FUNCTION(GetProcAddress, "KERNEL32.dll", ReturnsZero);

// Taken before any import table is redirected: what finds the real functions must not come back here. Looked up by
// name, since `&::GetProcAddress` may be a stub that jumps through the import table.
template <class F>
F *Kernel32(F *, const char *name) {
    return reinterpret_cast<F *>(reinterpret_cast<void *>(::GetProcAddress(GetModuleHandleA("KERNEL32.dll"), name)));
}
const auto realGetModuleHandle = Kernel32(&::GetModuleHandleA, "GetModuleHandleA");
const auto realLoadLibrary = Kernel32(&::LoadLibraryA, "LoadLibraryA");
const auto realGetProcAddress = Kernel32(&::GetProcAddress, "GetProcAddress");

std::atomic<bool> thereIsOne{false};

std::wstring LowerCase(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return std::towlower(c); });
    return text;
}

FARPROC AsFarProc(void *function) {
    return reinterpret_cast<FARPROC>(reinterpret_cast<std::uintptr_t>(function));
}

// ntdll's notification about loaded modules; it is documented, but no header declares it.
struct LoadedModule {
    ULONG flags;
    const UNICODE_STRING *fullName;
    const UNICODE_STRING *baseName;
    void *base;
    ULONG size;
};
constexpr ULONG kLoaded = 1;
using NotificationFunction = void(CALLBACK *)(ULONG reason, const LoadedModule *module, void *context);
using RegisterFunction = LONG(NTAPI *)(ULONG flags, NotificationFunction function, void *context, void **cookie);
using UnregisterFunction = LONG(NTAPI *)(void *cookie);

bool IsLoaded(HMODULE module) {
    constexpr DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    HMODULE loaded = nullptr;
    return GetModuleHandleExW(flags, reinterpret_cast<LPCWSTR>(module), &loaded) && loaded == module;
}

template <class F>
F NtdllFunction(const char *name) {
    return reinterpret_cast<F>(reinterpret_cast<void *>(FindRealFunction("ntdll.dll", name)));
}

}  // namespace

struct LoadNotification {
    /// Called before the module's constructors, under the loader lock.
    static void CALLBACK OnLoaded(ULONG reason, const LoadedModule *module, void *context) {
        if (reason != kLoaded)
            return;
        const InsideSimulator inside;
        auto *set = static_cast<FunctionSet *>(context);
        const std::wstring name(module->baseName->Buffer, module->baseName->Length / sizeof(wchar_t));
        if (set->IsAwaited(LowerCase(name)))
            set->Attach(static_cast<HMODULE>(module->base));
    }
};

std::map<std::string_view, bool> &ReplaceableFunctions() {
    static std::map<std::string_view, bool> names;
    return names;
}

PlannedFailure Core::Enter(const char *function, bool canFail) {
    const Verdict verdict = faults.Ask(function, canFail);
    if (verdict.delayMs != 0)
        clock.SleepFor(verdict.delayMs);
    for (const auto &hang : verdict.hangs)
        hang->Hang(clock);
    return {verdict.fails, verdict.code};
}

void Core::End() {
    ended = true;
    clock.End();
    faults.Clear();
}

FARPROC FindRealFunction(const char *library, const char *function) {
    const InsideSimulator inside;
    const DWORD error = GetLastError();
    HMODULE module = realGetModuleHandle(library);
    if (module == nullptr)
        module = realLoadLibrary(library);  // for good: its address is kept
    const FARPROC found = module == nullptr ? nullptr : realGetProcAddress(module, function);
    SetLastError(error);
    return found;
}

FunctionSet::FunctionSet(std::shared_ptr<Core> core) : m_core(std::move(core)) {
    const InsideSimulator inside;
    if (thereIsOne.exchange(true))
        throw std::logic_error("one simulation at a time");
    PutGetProcAddress();
}

FunctionSet::~FunctionSet() {
    const InsideSimulator inside;
    if (m_loadNotification != nullptr)
        NtdllFunction<UnregisterFunction>("LdrUnregisterDllNotification")(m_loadNotification);
    m_modules.clear();
    for (const auto &[name, entry] : m_functions) {
        if (entry.end != nullptr)
            entry.end();
    }
    m_core->End();
    thereIsOne = false;
}

void FunctionSet::PutGetProcAddress() {
    Put<GetProcAddress>([this](const auto &next, HMODULE module, LPCSTR name) -> FARPROC {
        const FARPROC real = next(module, name);
        const bool byOrdinal = reinterpret_cast<std::uintptr_t>(name) < 0x10000;
        return byOrdinal ? real : ReplacementFor(module, name, real);
    });
}

FARPROC FunctionSet::ReplacementFor(HMODULE library, const char *name, FARPROC real) const {
    SimulatedFunction function;
    {
        const LockGuard guard(m_lock);
        const auto found = m_functions.find(std::string_view(name));
        if (found == m_functions.end())
            return real;
        function = found->second.function;
    }
    const DWORD error = GetLastError();
    // A function of the same name in another library is a different function.
    const bool same = SameLibrary(BaseName(library), function.library) ||
                      (real != nullptr && real == FindRealFunction(function.library.c_str(), name));
    SetLastError(error);
    return same ? AsFarProc(function.replacement) : real;
}

void FunctionSet::Add(SimulatedFunction function) {
    Add(std::move(function), nullptr);
}

void FunctionSet::Add(SimulatedFunction function, void (*end)()) {
    const InsideSimulator inside;
    std::vector<std::pair<HMODULE, std::set<std::string>>> modules;
    {
        const LockGuard guard(m_lock);
        const std::string name = function.name;
        if (!m_functions.try_emplace(name, Entry{std::move(function), end}).second)
            throw std::logic_error("simulated twice: " + name);
        for (const auto &[module, attached] : m_modules)
            modules.emplace_back(module, attached.wanted);
    }
    for (const auto &[module, wanted] : modules)
        Attach(module, wanted);
}

bool FunctionSet::Knows(std::string_view name) const {
    const LockGuard guard(m_lock);
    return m_functions.find(name) != m_functions.end();
}

std::set<std::string> FunctionSet::Names() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    std::set<std::string> names;
    for (const auto &[name, entry] : m_functions)
        names.insert(name);
    return names;
}

std::size_t FunctionSet::Attach(HMODULE module, const std::set<std::string> &names) {
    const InsideSimulator inside;
    if (!IsLoaded(module))
        return 0;
    if (m_onAttach)
        m_onAttach(module);
    // Looked up before the lock is taken: both take the loader lock, under which OnLoaded is called.
    const std::vector<Import> imports = Imports(module);

    const LockGuard guard(m_lock);
    Attached &attached = m_modules[module];
    attached.wanted = names;
    std::size_t count = 0;
    for (const Import &import : imports) {
        const auto found = m_functions.find(import.function);
        if (found == m_functions.end() || (!names.empty() && names.count(import.function) == 0))
            continue;
        ++count;
        void *replacement = found->second.function.replacement;
        if (import.Address() == replacement)
            continue;
        attached.slots.erase(import.slot);  // left from before the module was reloaded
        attached.slots.emplace(import.slot, SlotRedirection(module, import.slot, replacement));
    }
    return count;
}

void FunctionSet::AttachWhenLoaded(const std::wstring &baseName) {
    const InsideSimulator inside;
    {
        const LockGuard guard(m_lock);
        m_whenLoaded.insert(LowerCase(baseName));
    }
    if (m_loadNotification != nullptr)
        return;
    const auto registerNotification = NtdllFunction<RegisterFunction>("LdrRegisterDllNotification");
    if (registerNotification == nullptr ||
        registerNotification(0, &LoadNotification::OnLoaded, this, &m_loadNotification) != 0)
        throw std::runtime_error("the loader's notifications are not available");
}

bool FunctionSet::IsAwaited(const std::wstring &baseName) const {
    const LockGuard guard(m_lock);
    return m_whenLoaded.count(baseName) != 0;
}

void FunctionSet::Detach(HMODULE module) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_modules.erase(module);
}

void FunctionSet::Abandon(const std::set<std::string> &names) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    std::set<const void *> replacements;
    for (const std::string &name : names) {
        const auto found = m_functions.find(name);
        if (found != m_functions.end())
            replacements.insert(found->second.function.replacement);
    }
    for (auto &[module, attached] : m_modules) {
        for (auto &[slot, redirection] : attached.slots) {
            if (redirection.InForce() && replacements.count(*slot) != 0)
                redirection.Abandon();
        }
    }
}

}  // namespace Simulator
