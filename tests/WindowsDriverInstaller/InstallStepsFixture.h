// What the installer's worker does, step by step, through SLB.filter on simulated machines.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <netcfgx.h>
#include <setupapi.h>

#include "InstallMachine.h"

inline constexpr wchar_t kServiceKey[] = L"System\\CurrentControlSet\\Services\\qbimvta";
inline constexpr char kInstall[] = "INetCfgClassSetup::Install";

class InstallSteps : public InstallMachine {
protected:
    void MakeSystemEmbedded() { simulation().GetMachine().suiteMask |= VER_SUITE_EMBEDDEDNT; }
    void SetResults(const std::vector<HRESULT> &results) {
        network().Use([&](Simulator::NetworkState &state) { state.installable.front().results = results; });
    }
    [[nodiscard]] std::filesystem::path WindowsCopy() { return simulation().GetFolders().Windows() / L"qbimvta.sys"; }
    [[nodiscard]] std::string Source() { return (NdisFolder() / L"qbimvta.sys").string(); }
    static bool Contains(const std::string &text, const std::string &part) { return text.find(part) != text.npos; }
    [[nodiscard]] std::optional<std::wstring> ServiceValue(const wchar_t *name) {
        return simulation().GetRegistry().Text(HKEY_LOCAL_MACHINE, kServiceKey, name);
    }
    void PutServiceKey() { simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kServiceKey); }
    [[nodiscard]] std::vector<std::string> Commands() {
        std::vector<std::string> commands;
        for (const std::wstring &command : simulation().GetSetup().Commands())
            commands.push_back(wxString(command).utf8_string());
        return commands;
    }
};
