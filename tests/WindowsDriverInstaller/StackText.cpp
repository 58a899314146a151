#include "StackText.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <regex>
#include <set>

#include <windows.h>

namespace {

std::filesystem::path FileOf(HMODULE module) {
    wchar_t path[MAX_PATH] = L"";
    (void)GetModuleFileNameW(module, path, MAX_PATH);
    return path;
}

bool LiesInOurs(std::uintptr_t address) {
    static const std::set<std::filesystem::path> runtime{L"libstdc++-6.dll", L"libgcc_s_seh-1.dll",
                                                         L"libwinpthread-1.dll", L"zlib1.dll"};
    HMODULE module = nullptr;
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<const wchar_t *>(address), &module) == 0)
        return false;
    const std::filesystem::path file = FileOf(module);
    return file.parent_path() == FileOf(nullptr).parent_path() && !runtime.contains(file.filename());
}

}  // namespace

const std::map<std::string, std::string> &FunctionsOfSteps() {
    static const std::map<std::string, std::string> functions{
        {"ApplyingInetCfgChanges", "CDriverUninstallerThread::UninstallComponent"},
        {"CheckingIfStillInstalled", "CDriverUninstallerThread::IsFilterComponentPresent"},
        {"CleaningUpOrphans", "CDriverUninstallerThread::CleanUpOrphans"},
        {"CopyingInfFiles", "CDriverInstallerThread::CopyInfFiles"},
        {"EnsuringDriverUnloaded", "CDriverInstallerThread::WaitForDriverToUnload"},
        {"FindingComponent", "CDriverUninstallerThread::RemoveComponent"},
        {"GettingClassGUID", "CDriverUninstallerThread::RemoveComponent"},
        {"GettingINetCfgClass", "CDriverUninstallerThread::RemoveComponent"},
        {"GettingINetCfgClassSetup", "CDriverUninstallerThread::RemoveComponent"},
        {"GettingInetCfg", "CDriverUninstallerThread::OpenINetCfg"},
        {"GettingNetworkConfigLock", "CDriverUninstallerThread::AcquireWriteLock"},
        {"InstallingDriver", "CDriverInstallerThread::AttemptInstall"},
        {"InstallingWfpCalloutDriver", "CDriverInstallerThread::InstallWFPCallout"},
        {"ReleasingInetCfg", "CDriverUninstallerThread::ReleaseINetCfg"},
        {"ReleasingNetworkConfigLock", "CDriverUninstallerThread::ReleaseWriteLock"},
        {"RemovingInfFiles", "CDriverUninstallerThread::RemoveOemInfFiles"},
        {"UninstallingDriver", "CDriverUninstallerThread::RemoveComponent"},
        {"UninstallingWfpCalloutDriver", "CDriverUninstallerThread::UninstallWFPCallout"},
    };
    return functions;
}

std::set<std::string> StepsWithin(const StepLimits &limits) {
    std::set<std::string> steps;
    for (const auto &[step, limit] : limits)
        steps.insert(step);
    return steps;
}

std::vector<std::string> NamelessFramesOfOurs(const std::string &stack) {
    static const std::regex nameless(R"(\[\d+\] ([0-9A-Fa-fx]+)(?=\n|$))");
    std::vector<std::string> frames;
    for (std::sregex_iterator frame(stack.begin(), stack.end(), nameless), end; frame != end; ++frame) {
        if (LiesInOurs(std::stoull((*frame)[1], nullptr, 16)))
            frames.push_back(frame->str());
    }
    return frames;
}

bool HasFrame(const std::string &stack, std::string_view name) {
    return stack.find(std::string(name) + "+") != std::string::npos;
}
