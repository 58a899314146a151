#include "RemovalModel.h"

#include <algorithm>
#include <cstdio>

namespace {

using Code = std::uint32_t;

constexpr Code kOk = 0;
constexpr Code kFalse = 1;
constexpr Code kReboot = 0x0004A020;
constexpr Code kNoWriteLock = 0x8004A024;
constexpr Code kChangedMode = 0x80010106;

constexpr Code kErrorFileNotFound = 2;
constexpr Code kErrorAccessDenied = 5;
constexpr Code kErrorInUse = 32;
constexpr Code kErrorNoMoreItems = 259;
constexpr Code kErrorNoService = 1060;
constexpr Code kErrorNotActive = 1062;

constexpr char kHandle[] = "handle";
constexpr char kService[] = "service handle";
constexpr char kKey[] = "key";
constexpr char kLibrary[] = "library";

struct Step {
    Code id;
    const char *name;
    int limit;
    bool logged = true;
};
constexpr Step kThreadRunning{0, "ThreadRunning", 3600};
constexpr Step kApplying{1, "ApplyingInetCfgChanges", 300};
constexpr Step kChecking{2, "CheckingIfStillInstalled", 60};
constexpr Step kCleaningUp{3, "CleaningUpOrphans", 180};
constexpr Step kFinding{6, "FindingComponent", 15};
constexpr Step kGettingGuid{8, "GettingClassGUID", 10};
constexpr Step kGettingNetCfg{9, "GettingInetCfg", 10, false};
constexpr Step kGettingClass{10, "GettingINetCfgClass", 10};
constexpr Step kGettingSetup{11, "GettingINetCfgClassSetup", 10};
constexpr Step kGettingLock{12, "GettingNetworkConfigLock", 30, false};
constexpr Step kReleasingNetCfg{14, "ReleasingInetCfg", 10, false};
constexpr Step kReleasingLock{15, "ReleasingNetworkConfigLock", 10, false};
constexpr Step kRemovingInfs{16, "RemovingInfFiles", 300};
constexpr Step kUninstalling{17, "UninstallingDriver", 600};
constexpr Step kUninstallingWfp{19, "UninstallingWfpCalloutDriver", 300};

constexpr char kKeyPath[] = R"(SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP)";

bool Failed(Code hr) {
    return (hr & 0x80000000U) != 0;
}

std::string Hex(Code code) {
    char text[16];
    std::snprintf(text, sizeof text, code == 0 ? "0" : "%#x", code);
    return text;
}

class RemovalRun {
public:
    RemovalRun(const ModelMachine &machine, const Fault &fault) : m_fault(fault) { m.machine = machine; }

    Expectation Take(bool ownThread);

private:
    // The platform
    bool Strikes(const std::string &function);
    bool Works(const std::string &function, bool possible = true, Code error = kOk);
    Code Status(const std::string &function, Code otherwise = kOk);
    bool Close(const std::string &function, const char *kind);

    // The thread
    void Line(const char *level, const std::string &text) { m.log.push_back(level + text); }
    void Print(const std::string &text) { Line("  ", std::string(m_steps.size(), ' ') + text); }
    void Error(const std::string &text) { Line("E ", text); }
    void Report(Code code, const std::string &call);
    void Start(const Step &step);
    void End(const Step &step);
    void Note();
    Code Call(const Step &step, const std::string &function, const std::string &name, Code otherwise = kOk);

    // The removal, in the order of its stages
    bool Uninstall();
    void RemoveHealthFiles();
    bool ServiceIsThere();
    bool ServiceRuns();
    bool StopService();
    bool UninstallWfp();
    bool RunInf();
    bool DeleteService();
    Code UninstallComponent(const std::string &id, bool &notInstalled);
    Code RemoveComponent(const std::string &id);
    Code Find(const std::string &id);
    Code Acquire(bool writeLock);
    Code InitializeCom();
    Code Open(bool writeLock);
    Code AcquireLock();
    void Release(bool writeLock);
    Code RemoveInfs(bool byHand);
    void Sweep(ModelInf &inf, bool byHand, bool catalogs, Code &status);
    bool IsOurs(const ModelInf &inf);
    bool Delete(bool possible, const std::string &path, Code &status);
    void RemoveByHand(ModelInf &inf, bool catalogs, Code &status);
    Code CheckPresence();
    Code CleanUpOrphans();
    bool ScanIsClean();
    bool IsOrphan(bool isMiniport);
    void CleanUpRegistry();
    void TakeOwnership();
    void UseSids();
    void UseToken();
    bool SetPrivilege();
    bool DeleteTree(std::vector<ModelKey> &keys, const std::string &name);
    bool DeleteKey(std::vector<ModelKey> &keys, const std::string &name);

    Expectation m;
    const Fault m_fault;
    unsigned m_seen = 0;
    Code m_error = kOk;  ///< The last one.
    std::vector<Code> m_steps;
    int m_openServices = 0;
    bool m_hasToken = false;
};

bool RemovalRun::Strikes(const std::string &function) {
    m.calls.push_back(function);
    const bool strikes = function == m_fault.function && ++m_seen == m_fault.nth;
    if (strikes) {
        m.isHit = true;
        m_error = m_fault.code;
    }
    return strikes;
}

/// A call that returns success or failure, with the reason in the last error.
bool RemovalRun::Works(const std::string &function, bool possible, Code error) {
    if (Strikes(function))
        return false;
    if (!possible)
        m_error = error;
    return possible;
}

/// A call that returns a code.
Code RemovalRun::Status(const std::string &function, Code otherwise) {
    return Strikes(function) ? m_fault.code : otherwise;
}

/// A failure to release something does not fail the removal.
bool RemovalRun::Close(const std::string &function, const char *kind) {
    const bool closed = !Strikes(function);
    if (!closed)
        ++m.left[kind];
    return closed;
}

void RemovalRun::Report(Code code, const std::string &call) {
    Error(call + ": ... (" + Hex(code) + ")");
    m.events.push_back("3005 " + call + " (" + Hex(code) + ")");
}

void RemovalRun::Start(const Step &step) {
    if (step.logged)
        Print(">" + std::string(step.name) + ". " + std::to_string(step.limit) + "s max");
    m_steps.push_back(step.id);
}

void RemovalRun::End(const Step &step) {
    m_steps.pop_back();
    if (step.logged)
        Print("<" + std::string(step.name));
}

void RemovalRun::Note() {
    if (m.failedStep == Expectation::kNoStep)
        m.failedStep = m_steps.back();
}

Code RemovalRun::Call(const Step &step, const std::string &function, const std::string &name, Code otherwise) {
    Start(step);
    const Code hr = Status(function, otherwise);
    if (Failed(hr)) {
        Report(hr, name);
        Note();
    }
    End(step);
    return hr;
}

Expectation RemovalRun::Take(bool ownThread) {
    m.left[kHandle] = 1;  // the event, which is never closed
    (void)Works("CreateEventW");
    Start(kThreadRunning);
    if (!ownThread) {
        m.result = Uninstall();
        return m;
    }
    if (!Works("_beginthreadex")) {
        Error("Can't create thread ...");
        return m;
    }
    m.result = Uninstall();
    End(kThreadRunning);
    (void)Close("CloseHandle", kHandle);
    return m;
}

bool RemovalRun::Uninstall() {
    Print("UninstallDriver running.");
    const bool loaded = Works("LoadLibraryW");
    const bool byHand = !Works("GetModuleHandleW") || !Works("GetProcAddress", m.machine.hasUninstallOemInf);
    Print(std::string("SetupUninstallOEMInfW() is at address ") + (byHand ? "null" : "there"));
    RemoveHealthFiles();
    if (ServiceIsThere()) {
        if (!StopService())
            Error("StopWFPCallout() failed.");
        else if (!UninstallWfp())
            Error("UninstallWFPCallout() failed.");
    }
    bool notInstalled = false;
    Code hr = UninstallComponent("qbimvta", notInstalled);
    if (notInstalled)
        hr = UninstallComponent("rxwim", notInstalled);
    if (!Failed(hr))
        hr = RemoveInfs(byHand);
    Print("Checking if qbimvta is still installed");
    if (CheckPresence() == kFalse) {
        Print("Checking for orphaned QBIMVTA_MP bindings");
        hr = CleanUpOrphans();
    }
    if (loaded)
        (void)Close("FreeLibrary", kLibrary);
    if (hr == kReboot)
        m.rebootRequired = true;
    return hr == kOk || hr == kReboot;
}

/// Both files exist, or neither.
void RemovalRun::RemoveHealthFiles() {
    if (!Works("GetSystemDirectoryW"))
        return;
    const bool first = Works("GetFileAttributesW", m.machine.hasHealthFiles);
    const bool second = Works("GetFileAttributesW", m.machine.hasHealthFiles);
    m.machine.hasHealthFiles = m.machine.hasHealthFiles && !(first && second);
}

bool RemovalRun::ServiceIsThere() {
    if (!Works("OpenSCManagerW"))
        return false;
    const bool opened = Works("OpenServiceW", m.machine.hasService, kErrorNoService);
    if (opened && !Close("CloseServiceHandle", kService))
        ++m_openServices;
    (void)Close("CloseServiceHandle", kService);
    return opened;
}

bool RemovalRun::ServiceRuns() {
    if (!Works("OpenSCManagerW"))
        return false;
    bool runs = false;
    if (Works("OpenServiceW", m.machine.hasService, kErrorNoService)) {
        runs = Works("QueryServiceStatus");
        if (!Close("CloseServiceHandle", kService))
            ++m_openServices;
    }
    (void)Close("CloseServiceHandle", kService);
    return runs;
}

bool RemovalRun::StopService() {
    if (!ServiceRuns())
        return true;
    if (!Works("OpenSCManagerW")) {
        Error("OpenSCManager: error=" + std::to_string(m_error));
        return false;
    }
    bool stopped = true;
    if (!Works("OpenServiceW")) {
        Error("OpenService: error=" + std::to_string(m_error));
    } else {
        if (!Works("ControlService")) {
            Error("ControlService: error=" + std::to_string(m_error));
            stopped = m_error == kErrorNotActive;
        } else if (!Works("QueryServiceStatus")) {  // by the wait for the state
            Error("WaitForServiceState: error=" + std::to_string(m_error));
            stopped = false;
        }
        if (!Close("CloseServiceHandle", kService))
            ++m_openServices;
    }
    (void)Close("CloseServiceHandle", kService);
    return stopped;
}

bool RemovalRun::UninstallWfp() {
    Start(kUninstallingWfp);
    bool result = RunInf();
    if (result && ServiceIsThere())
        result = DeleteService();
    End(kUninstallingWfp);
    return result;
}

bool RemovalRun::RunInf() {
    if (!Works("GetFileAttributesW")) {
        Error("WFP callout INF file doesn't exist: " + m.machine.wfpFolder + "netqbimwfp.inf");
        return false;
    }
    const bool loaded = Works("LoadLibraryW");
    const bool found = Works("GetModuleHandleW") && Works("GetProcAddress");
    Print(std::string("InstallHinfSectionW() is at address ") + (found ? "there" : "null"));
    if (found) {
        m.calls.push_back("InstallHinfSectionW");
        if (m.machine.infRemovesService)
            m.machine.hasService = false;
    }
    if (loaded)
        (void)Close("FreeLibrary", kLibrary);
    return found;
}

bool RemovalRun::DeleteService() {
    if (!Works("OpenSCManagerW")) {
        Error("OpenSCManager: error=" + std::to_string(m_error));
        return false;
    }
    bool deleted = false;
    if (!Works("OpenServiceW")) {
        Error("OpenService: error=" + std::to_string(m_error));
    } else {
        deleted = Works("DeleteService");
        if (!deleted)
            Error("DeleteService: error=" + std::to_string(m_error));
        if (!Close("CloseServiceHandle", kService))
            ++m_openServices;
        // It is deleted with the last handle to it.
        m.machine.hasService = !deleted || m_openServices != 0;
    }
    (void)Close("CloseServiceHandle", kService);
    return deleted;
}

Code RemovalRun::UninstallComponent(const std::string &id, bool &notInstalled) {
    notInstalled = false;
    Print("Trying to uninstall '" + id + "'...");
    Code hr = Acquire(true);
    if (Failed(hr))
        return hr;
    hr = RemoveComponent(id);
    if (hr == kOk) {
        hr = Call(kApplying, "INetCfg::Apply", "INetCfg::Apply");
    } else if (hr == kFalse) {
        Print("'" + id + "' is not installed");
        notInstalled = true;
        hr = kOk;
    } else if (hr != kReboot) {
        Note();
    }
    Release(true);
    return hr;
}

Code RemovalRun::Find(const std::string &id) {
    const bool there = (id == "qbimvta" && m.machine.hasFilter) || (id == "QBIMVTA_MP" && m.machine.hasMiniport);
    const Code hr = Status("INetCfg::FindComponent", there ? kOk : kFalse);
    if (Failed(hr))
        Report(hr, "INetCfg::FindComponent");
    return hr;
}

Code RemovalRun::RemoveComponent(const std::string &id) {
    Start(kFinding);
    Code hr = Find(id);
    End(kFinding);
    if (hr != kOk)
        return hr;
    hr = Call(kGettingGuid, "INetCfgComponent::GetClassGuid", "INetCfgComponent::GetClassGuid");
    if (!Failed(hr))
        hr = Call(kGettingClass, "INetCfg::QueryNetCfgClass", "INetCfg::QueryNetCfgClass");
    if (!Failed(hr))
        hr = Call(kGettingSetup, "INetCfgClass::QueryInterface", "INetCfgClass::QueryInterface(IID_INetCfgClassSetup)");
    if (Failed(hr))
        return hr;
    const bool wasHit = m.isHit;
    hr = Call(kUninstalling, "INetCfgClassSetup::DeInstall", "INetCfgClassSetup::DeInstall");
    if (m.isHit == wasHit && id == "qbimvta")
        m.machine.hasFilter = false;
    return hr;
}

Code RemovalRun::InitializeCom() {
    const Code hr = Status("CoInitializeEx");
    return hr == kChangedMode ? Status("CoInitializeEx") : hr;
}

Code RemovalRun::Acquire(bool writeLock) {
    Code hr = InitializeCom();
    if (Failed(hr)) {
        Report(hr, "CoInitializeEx");
        return hr;
    }
    Start(kGettingNetCfg);
    hr = Open(writeLock);
    if (Failed(hr)) {
        m.calls.push_back("CoUninitialize");
        Note();
    }
    End(kGettingNetCfg);
    return hr;
}

Code RemovalRun::Open(bool writeLock) {
    Code hr = Status("CoCreateInstance");
    if (Failed(hr)) {
        Report(hr, "CoCreateInstance(CLSID_CNetCfg)");
        return hr;
    }
    if (writeLock) {
        Start(kGettingLock);
        hr = AcquireLock();
        End(kGettingLock);
        if (Failed(hr))
            return hr;
    }
    hr = Status("INetCfg::Initialize");
    if (Failed(hr)) {
        Report(hr, "INetCfg::Initialize");
        if (writeLock)
            m.machine.isLocked = Failed(Status("INetCfgLock::ReleaseWriteLock"));
    }
    return hr;
}

Code RemovalRun::AcquireLock() {
    Code hr = Status("INetCfg::QueryInterface");
    if (Failed(hr)) {
        Report(hr, "INetCfg::QueryInterface(IID_INetCfgLock)");
        Note();
        return hr;
    }
    if (!Strikes("INetCfgLock::AcquireWriteLock")) {
        // Any other holder gives the same description.
        if (m.machine.isLocked)
            m.calls.push_back("CoTaskMemFree");
        m.machine.isLocked = true;
        return kOk;
    }
    hr = m_fault.code;
    if (hr == kFalse) {  // held by an unnamed owner
        m.notices.push_back("2 Unable to proceed - the network configuration is currently locked by .");
        hr = kNoWriteLock;
    }
    Report(hr, "INetCfgLock::AcquireWriteLock");
    Note();
    return hr;
}

void RemovalRun::Release(bool writeLock) {
    Start(kReleasingNetCfg);
    Code hr = Status("INetCfg::Uninitialize");
    if (Failed(hr)) {
        Report(hr, "INetCfg::Uninitialize");
    } else if (writeLock) {
        hr = Status("INetCfg::QueryInterface");
        if (Failed(hr)) {
            Report(hr, "INetCfg::QueryInterface(IID_INetCfgLock)");
        } else {
            hr = Call(kReleasingLock, "INetCfgLock::ReleaseWriteLock", "INetCfgLock::ReleaseWriteLock");
            m.machine.isLocked = Failed(hr);
        }
    }
    m.calls.push_back("CoUninitialize");
    if (Failed(hr))
        Note();
    End(kReleasingNetCfg);
}

Code RemovalRun::RemoveInfs(bool byHand) {
    Start(kRemovingInfs);
    const bool folder = !Failed(Status("SHGetFolderPathW"));
    Code status = Status("SHGetFolderPathW");
    const bool catalogs = !Failed(status);
    if (Works("FindFirstFileW", folder && !m.machine.infs.empty())) {  // the other folder is empty
        for (ModelInf &inf : m.machine.infs) {
            if (IsOurs(inf))
                Sweep(inf, byHand, catalogs, status);
            if (!Works("FindNextFileW", &inf != &m.machine.infs.back()))
                break;
        }
        (void)Close("FindClose", "find handle");
    }
    End(kRemovingInfs);
    std::erase_if(m.machine.infs, [](const ModelInf &inf) { return inf.isGone; });
    return status;
}

bool RemovalRun::IsOurs(const ModelInf &inf) {
    if (!Works("CreateFileW"))
        return false;
    bool matches = false;
    if (Works("GetFileSizeEx") && Works("CreateFileMappingW")) {
        if (Works("MapViewOfFile")) {
            m.calls.push_back("IsTextUnicode");
            matches = !inf.driver.empty();
            (void)Close("UnmapViewOfFile", "view");
        }
        (void)Close("CloseHandle", kHandle);
    }
    (void)Close("CloseHandle", kHandle);
    return matches;
}

void RemovalRun::Sweep(ModelInf &inf, bool byHand, bool catalogs, Code &status) {
    Print("Matched '" + inf.driver + "' in file '" + m.machine.infFolder + inf.name + "'. Deleting this inf+pnf+cat.");
    (void)Works("SetFileAttributesW");
    if (byHand)
        return RemoveByHand(inf, catalogs, status);
    inf.isGone = Works("SetupUninstallOEMInfW");
    const std::string call = "SetupUninstallOEMInf('" + inf.name + "') ";
    Print(inf.isGone ? call + "succeeded" : call + "returned " + Hex(m_error));
}

/// @return whether it is gone.
bool RemovalRun::Delete(bool possible, const std::string &path, Code &status) {
    (void)Works("SetFileAttributesW");
    if (Works("DeleteFileW", possible, kErrorInUse))
        return true;
    if (Works("MoveFileExW"))
        status = kReboot;
    else
        Print("Unable to delete file '" + path + "': " + Hex(m_error));
    return false;
}

void RemovalRun::RemoveByHand(ModelInf &inf, bool catalogs, Code &status) {
    const std::string name = inf.name.substr(0, inf.name.rfind('.'));
    (void)Delete(true, m.machine.infFolder + name + ".pnf", status);
    inf.isGone = Delete(!inf.inUse, m.machine.infFolder + name + ".inf", status);
    (void)Delete(catalogs, m.machine.catalogFolder + name + ".cat", status);
}

Code RemovalRun::CheckPresence() {
    Start(kChecking);
    Code hr = Acquire(false);
    if (hr == kOk) {
        hr = Find("qbimvta");
        Release(false);
    }
    End(kChecking);
    return hr;
}

Code RemovalRun::CleanUpOrphans() {
    Start(kCleaningUp);
    int attempts = 0;
    Code hr = kOk;
    while (attempts < 4 && !ScanIsClean()) {
        Print("HrCleanupOrphans: Found an orphan");
        bool notInstalled = false;
        hr = UninstallComponent("QBIMVTA_MP", notInstalled);
        char text[64];
        std::snprintf(text, sizeof text, "HrCleanupOrphans: Uninstall orphan hr=0x%08x", hr);
        Print(text);
        if (hr == kReboot) {
            m.rebootRequired = true;
        } else if (hr != kOk) {
            Note();
            End(kCleaningUp);
            return hr;
        }
        ++attempts;
    }
    End(kCleaningUp);
    if (attempts < 4)
        return hr;
    if (!ScanIsClean()) {
        Print("HrCleanupOrphans: registry cleanup");
        CleanUpRegistry();
    }
    Print("HrCleanupOrphans: orphan scan needs reboot (4:" + std::to_string(hr) + ")");
    m.rebootRequired = true;
    return kReboot;
}

/// The devices are another product's adapter, followed by the miniport if one is left.
bool RemovalRun::ScanIsClean() {
    if (!Works("SetupDiGetClassDevsW")) {
        Report(m_error, "SetupDiGetClassDevs");
        return true;
    }
    const int devices = m.machine.hasMiniport ? 2 : 1;
    bool orphan = false;
    int index = 0;
    while (!orphan && Works("SetupDiEnumDeviceInfo", index < devices, kErrorNoMoreItems))
        orphan = IsOrphan(index++ == 1);
    if (!orphan && m_error != kErrorNoMoreItems)
        Report(m_error, "SetupDiEnumDeviceInfo");
    (void)Close("SetupDiDestroyDeviceInfoList", "device list");
    return !orphan;
}

bool RemovalRun::IsOrphan(bool isMiniport) {
    if (!Works("SetupDiGetDeviceInstanceIdW")) {
        Report(m_error, "SetupDiGetDeviceInstanceId");
        return false;
    }
    if (!Works("SetupDiGetDeviceRegistryPropertyW")) {
        Report(m_error, "SetupDiGetDeviceRegistryProperty");
        return false;
    }
    return isMiniport;
}

void RemovalRun::CleanUpRegistry() {
    Print(std::string("cleanup_registry: Scanning for registry key ") + kKeyPath);
    if (Status("RegOpenKeyExW", m.machine.miniportKey.empty() ? kErrorFileNotFound : kOk) != kOk) {
        Print("    cleanup_registry: no matches found");
        return;
    }
    (void)Close("RegCloseKey", kKey);
    Print(std::string("cleanup_registry: Found ") + kKeyPath + " key");
    TakeOwnership();
    const bool deleted = DeleteTree(m.machine.miniportKey, "QBIMVTA_MP");
    Print(deleted ? "    cleanup_registry: successfuly deleted" : "    cleanup_registry: failed to delete");
}

void RemovalRun::TakeOwnership() {
    if (!Works("AllocateAndInitializeSid"))
        return Print("TakeOwnership: AllocateAndInitializeSid (Everyone) error " + std::to_string(m_error));
    if (Works("AllocateAndInitializeSid")) {
        UseSids();
        m.calls.push_back("FreeSid");
    } else {
        Print("TakeOwnership: AllocateAndInitializeSid (Admin) error " + std::to_string(m_error));
    }
    m.calls.push_back("FreeSid");
    if (m_hasToken)
        (void)Close("CloseHandle", kHandle);
}

void RemovalRun::UseSids() {
    if (Status("SetEntriesInAclW") != kOk)
        return Print("TakeOwnership: Failed SetEntriesInAcl");
    const Code first = Status("SetNamedSecurityInfoW", m.machine.keyIsProtected ? kErrorAccessDenied : kOk);
    if (first == kErrorAccessDenied) {
        if (!Works("OpenProcessToken"))
            return Print("TakeOwnership: OpenProcessToken failed: " + std::to_string(m_error));
        m_hasToken = true;
        UseToken();
    } else if (first != kOk) {
        Print("TakeOwnership: First SetNamedSecurityInfo call failed: " + std::to_string(first));
    } else {
        m.machine.keyIsProtected = false;
    }
}

void RemovalRun::UseToken() {
    if (!SetPrivilege())
        return Print("TakeOwnership: Must be logged on as Administrator");
    const Code owned = Status("SetNamedSecurityInfoW");
    if (owned != kOk)
        return Print("TakeOwnership: Could not set owner. Error: " + std::to_string(owned));
    m.machine.administratorsOwnKey = true;
    if (!SetPrivilege())
        return Print("TakeOwnership: Failed SetPrivilege call unexpectedly");
    const Code second = Status("SetNamedSecurityInfoW");
    if (second != kOk)
        return Print("TakeOwnership: Second SetNamedSecurityInfo call failed: " + std::to_string(second));
    m.machine.keyIsProtected = false;
}

bool RemovalRun::SetPrivilege() {
    return Works("LookupPrivilegeValueW") && Works("AdjustTokenPrivileges");
}

/// A key that has subkeys or is protected can't be deleted.
bool RemovalRun::DeleteKey(std::vector<ModelKey> &keys, const std::string &name) {
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const ModelKey &other) { return other.name == name; });
    if (Status("RegOpenKeyExW", m.machine.keyIsProtected ? kErrorAccessDenied : kOk) != kOk)
        return false;
    const bool deleted = Status("NtDeleteKey", key->subkeys.empty() ? kOk : kErrorAccessDenied) == kOk;
    (void)Close("RegCloseKey", kKey);
    if (deleted)
        keys.erase(key);
    return deleted;
}

bool RemovalRun::DeleteTree(std::vector<ModelKey> &keys, const std::string &name) {
    if (DeleteKey(keys, name))
        return true;
    const Code opened = Status("RegOpenKeyExW");
    if (opened != kOk)
        return opened == kErrorFileNotFound;
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const ModelKey &other) { return other.name == name; });
    bool deleted = true;
    while (deleted && Works("RegEnumKeyExW", !key->subkeys.empty()))
        deleted = DeleteTree(key->subkeys, key->subkeys.front().name);
    (void)Close("RegCloseKey", kKey);
    return DeleteKey(keys, name);
}

}  // namespace

Expectation ExpectRemoval(const ModelMachine &machine, const Fault &fault, bool ownThread) {
    return RemovalRun(machine, fault).Take(ownThread);
}
