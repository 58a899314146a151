// Shared by the tests of the simulated network configuration.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <netcfgx.h>
#include <windows.h>
#include <wrl/client.h>

#include "ComObject.h"
#include "Simulation.h"
#include "SimulatorTestSupport.h"

namespace SimulatorTest {

using Microsoft::WRL::ComPtr;

/// This program on a machine with an empty network configuration, COM initialised in its first thread.
class SimulatedNetwork : public ::testing::Test {
protected:
    SimulatedNetwork() {
        (void)simulation->Attach(ThisProgram());
        EXPECT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    }
    ~SimulatedNetwork() override { CoUninitialize(); }

    static ComPtr<INetCfg> Create() {
        ComPtr<INetCfg> engine;
        EXPECT_EQ(CoCreateInstance(CLSID_CNetCfg, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&engine)), S_OK);
        return engine;
    }
    static ComPtr<INetCfg> CreateInitialised() {
        ComPtr<INetCfg> engine = Create();
        EXPECT_EQ(engine->Initialize(nullptr), S_OK);
        return engine;
    }
    static ComPtr<INetCfgLock> LockOf(const ComPtr<INetCfg> &engine) {
        ComPtr<INetCfgLock> lock;
        EXPECT_EQ(engine.As(&lock), S_OK);
        return lock;
    }
    static ComPtr<INetCfg> CreateLocked() {
        ComPtr<INetCfg> engine = Create();
        EXPECT_EQ(LockOf(engine)->AcquireWriteLock(0, L"test", nullptr), S_OK);
        EXPECT_EQ(engine->Initialize(nullptr), S_OK);
        return engine;
    }
    static ComPtr<INetCfgComponent> Find(const ComPtr<INetCfg> &engine, const wchar_t *id) {
        ComPtr<INetCfgComponent> component;
        EXPECT_EQ(engine->FindComponent(id, &component), S_OK);
        return component;
    }
    static ComPtr<INetCfgClassSetup> SetupOf(const ComPtr<INetCfg> &engine) {
        ComPtr<INetCfgClassSetup> setup;
        EXPECT_EQ(engine->QueryNetCfgClass(&GUID_DEVCLASS_NETSERVICE, IID_PPV_ARGS(&setup)), S_OK);
        return setup;
    }
    /// Removes the first component of that id.
    static HRESULT DeInstall(const ComPtr<INetCfg> &engine, const wchar_t *id) {
        OBO_TOKEN token{};
        token.Type = OBO_USER;
        return SetupOf(engine)->DeInstall(Find(engine, id).Get(), &token, nullptr);
    }

    /// The adapters of an enumeration, in its order.
    static std::vector<ComPtr<INetCfgComponent>> Adapters(const ComPtr<INetCfg> &engine) {
        ComPtr<IEnumNetCfgComponent> components;
        EXPECT_EQ(engine->EnumComponents(&GUID_DEVCLASS_NET, &components), S_OK);
        std::vector<ComPtr<INetCfgComponent>> adapters;
        for (;;) {
            ComPtr<INetCfgComponent> component;
            if (components->Next(1, &component, nullptr) != S_OK)
                return adapters;
            adapters.push_back(std::move(component));
        }
    }
    using TextMethod = HRESULT (STDMETHODCALLTYPE INetCfgComponent::*)(LPWSTR *);
    /// The string that a method returns.
    static std::wstring Text(const ComPtr<INetCfgComponent> &component, TextMethod method) {
        LPWSTR text = nullptr;
        EXPECT_EQ((component.Get()->*method)(&text), S_OK);
        std::wstring copy = text == nullptr ? L"" : text;
        CoTaskMemFree(text);
        return copy;
    }

    [[nodiscard]] std::size_t Count(const char *kind) const {
        return Simulator::Balance::Instance().Take().Count(kind);
    }
    [[nodiscard]] std::size_t References() const { return Count(Simulator::Kind::kComReference); }
    /// The calls that returned the current references, oldest first.
    [[nodiscard]] std::vector<std::string> Givers() const {
        std::vector<std::string> givers;
        for (const Simulator::BalanceItem &item : simulation->GetBalance().Take().items) {
            if (item.kind == std::string(Simulator::Kind::kComReference))
                givers.emplace_back(item.function);
        }
        return givers;
    }
    Simulator::Faults &faults() { return simulation->GetFaults(); }
    Simulator::Journal &journal() { return simulation->GetJournal(); }

    std::unique_ptr<Simulator::Simulation> simulation =
        std::make_unique<Simulator::Simulation>(Simulator::SimulationParts{.registry = false, .folders = false});
    Simulator::NetworkConfiguration &network = simulation->GetNetwork();
    Simulator::DeviceManager &devices = simulation->GetDevices();
};

}  // namespace SimulatorTest
