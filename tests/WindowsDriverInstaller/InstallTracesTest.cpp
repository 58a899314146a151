// The function, the file and the line that each trace of an installation names. A removal traces nothing.
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "InstallMachine.h"
#include "Lock.h"
#include "TracedPlaces.h"

namespace {

constexpr wchar_t kNdisPath[] = L"System\\CurrentControlSet\\Services\\NDIS\\Parameters";
constexpr wchar_t kFairSharePath[] = L"System\\CurrentControlSet\\Services\\TSFairShare\\NetFS";
constexpr wchar_t kFairShare[] = L"EnableFairShare";

const std::string kVersionsFile = "CDriverInstallerWatchdog.Versions.cpp";
const std::string kRecoveryFile = "CDriverInstallerWatchdog.NetworkRecovery.cpp";
const std::string kTrafficFile = "CDriverInstallerWatchdog.ArpAndTraffic.cpp";
const std::string kDriverVersionsFile = "DriverVersions.cpp";
const std::string kWorkaroundFile = "InterruptWorkaround.cpp";
const std::string kCheckerFile = "AdaptorHealthChecker.cpp";

const std::string kDecides = "CDriverInstallerWatchdog::InstallOrUpdateDriver";
const std::string kReadsOurs = "CDriverInstallerWatchdog::GetBundledDriverVersion";
const std::string kReadsInstalled = "CDriverInstallerWatchdog::GetInstalledDriverVersion";
const std::string kAsksDriver = "GetDriverVersion";
const std::string kChecksNetwork = "CDriverInstallerWatchdog::CheckNetworkHealth";
const std::string kSends = "CDriverInstallerWatchdog::GenerateOutgoingTraffic";
const std::string kWorksAround = "SetNetworkInterruptWorkaround";
const std::string kChecksAdapter = "AdaptorHealthChecker::operator()";

/// Collects what is traced on all threads, while it exists.
class TraceCollector : public VtaCore::Control::Observer {
public:
    TraceCollector() { VtaCore::Control::SetObserver(this); }
    ~TraceCollector() override { VtaCore::Control::SetObserver(nullptr); }
    TraceCollector(const TraceCollector &) = delete;
    TraceCollector &operator=(const TraceCollector &) = delete;

    void OnTrace(const VtaCore::Control::TraceLine &line) override {
        const Simulator::InsideSimulator inside;
        const Simulator::LockGuard guard(m_lock);
        m_lines.push_back(
            {line.component.utf8_string(), line.function, line.message.utf8_string(), line.file, line.line});
    }
    [[nodiscard]] std::vector<TracedLine> Lines() const {
        const Simulator::LockGuard guard(m_lock);
        return m_lines;
    }

private:
    mutable Simulator::Lock m_lock;
    std::vector<TracedLine> m_lines;
};

class InstallTraces : public InstallMachine {
protected:
    [[nodiscard]] std::string OurFile() { return (NdisFolder() / L"qbimvta.sys").string(); }
    static void Spoil(const std::string &file) { std::ofstream(file, std::ios::trunc) << "no program file"; }

    TraceCollector traced;
};

TEST_F(InstallTraces, OfOurVersionNameItsReader) {
    (void)Install();
    Spoil(OurFile());
    (void)Install();
    remove(NdisFolder() / L"qbimvta.sys");
    (void)Install();
    ExpectTraced(traced.Lines(),
                 {{"Checking version of " + OurFile(), kReadsOurs, kVersionsFile, "Checking version of"},
                  {"Unable to get version information from", kReadsOurs, kVersionsFile},
                  {"Driver binary doesn't exist", kReadsOurs, kVersionsFile}});
}

TEST_F(InstallTraces, OfTheInstalledVersionNameItsReader) {
    (void)Install();
    InstallOldDriver({1, 0, 0, 0});
    SetRunningVersion(std::nullopt);
    Spoil(SystemFile());
    (void)Install();
    InstallOldDriver({1, 0, 0, 0});
    {
        const std::lock_guard lock(Vti::Lock());
        Vti::TheDriver().version = "x";
    }
    (void)Install();
    ExpectTraced(traced.Lines(),
                 {{"Checking version of " + SystemFile(), kReadsInstalled, kVersionsFile, "Checking version of"},
                  {"No installed driver", kReadsInstalled, kVersionsFile},
                  {"Unable to get version information from", kReadsInstalled, kVersionsFile},
                  {"Unable to parse the version string", kAsksDriver, kDriverVersionsFile}});
}

TEST_F(InstallTraces, OfTheDecisionNameTheInstallation) {
    InstallOldDriver({2, 0, 0, 1});
    (void)Install();
    InstallOldDriver(kOurVersion);
    (void)Install();
    SetRunningVersion(std::nullopt);
    (void)Install();
    ExpectTraced(traced.Lines(), {{"Installed driver is 2.", kDecides, kVersionsFile, "Installed driver is %d."},
                                  {"Installed driver is newer", kDecides, kVersionsFile},
                                  {"Running driver is the correct", kDecides, kVersionsFile},
                                  {"Driver is not running", kDecides, kVersionsFile}});
}

TEST_F(InstallTraces, OfTheWorkaroundNameIt) {
    simulation().GetMachine().osMajor = 10;
    simulation().GetMachine().osMinor = 0;
    simulation().GetMachine().osBuild = 17763;
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kNdisPath);
    simulation().GetRegistry().PutDword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShare, 1);
    (void)faults().FailNth("RegSetValueExW", 1, ERROR_ACCESS_DENIED);
    (void)Install();
    ExpectTraced(traced.Lines(), {{"InstallOrUpdateDriver: set registry", kWorksAround, kWorkaroundFile},
                                  {"InstallOrUpdateDriver: registry FilterBindLogicMode status", kWorksAround,
                                   kWorkaroundFile, "InstallOrUpdateDriver: registry %s status: %ld\", kBindMode"},
                                  {"Unable to write HKLM", kWorksAround, kWorkaroundFile},
                                  {"InstallOrUpdateDriver: check registry", kWorksAround, kWorkaroundFile},
                                  {"InstallOrUpdateDriver: registry EnableFairShare status", kWorksAround,
                                   kWorkaroundFile, "InstallOrUpdateDriver: registry %s status: %ld\", kFairShare"}});
}

TEST_F(InstallTraces, OfTheNetworkNameWhoChecksIt) {
    InstallOldDriver({1, 0, 0, 0});
    network().Bind(kSecond, L"qbimvta", false);
    (void)Install();
    BreakNetworkWhenInstalled();
    dom.Set("vtp.filter.ForceDriverInstall", true);
    (void)Install();
    (void)Install();  // they are still offline
    ExpectTraced(traced.Lines(),
                 {{"Sending ARP request", kSends, kTrafficFile},
                  {"Adapter 'First adapter' is healthy", kChecksAdapter, kCheckerFile, "is healthy."},
                  {"Adapter 'Second adapter' isn't bound", kChecksAdapter, kCheckerFile, "isn't bound to our driver"},
                  {"Adapter 'First adapter' reported", kChecksAdapter, kCheckerFile, "complaint"},
                  {"Adapters all seem to be healthy", kChecksNetwork, kRecoveryFile},
                  {"All of the adapters were offline", kDecides, kRecoveryFile}});
}

}  // namespace
