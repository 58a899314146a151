// The values that the sweep passes as every argument.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <lua.hpp>
#include <wx/mstream.h>

#include "SLB3.h"
#include "vta_core_control.h"
#include "vti.h"

/// What the module recognises a userdata as.
enum class AgentKind { None, Dom, Handle, ClosedHandle, Zip };

struct SweepValue {
    std::string name;  ///< Those that Lua can express are named by their source.
    std::function<void(lua_State *)> push;
    AgentKind kind = AgentKind::None;
};

// Values of usual calls.
inline constexpr char kDomValue[] = "dom";
inline constexpr char kHandleValue[] = "driver handle";
inline constexpr char kZipValue[] = "zip";
inline constexpr char kNdisValue[] = "ndis";
inline constexpr char kWfpValue[] = "wfp";
inline constexpr char kMetricText[] = R"('flags\t4095\npid\t7\ndst_port\t443\ncount\t9\n\tx\nno tab\n\nservice\tweb')";
inline constexpr char kPolicy[] = R"('{"SYS_THR_RUNQ": {"value": 20}, "SYS_THR_FREE_MEM": {"value": 5}}')";
inline constexpr char kProgram[] = "[[C:\\windows\\system32\\kernel32.dll]]";
inline constexpr char kNames[] = "{'Ethernet 2', 'vpn0'}";

/// The agent's objects behind the values. They outlive their use by the Lua state.
class SweepObjects {
public:
    explicit SweepObjects(VtaCore::CDom &dom);
    ~SweepObjects();
    SweepObjects(const SweepObjects &) = delete;
    SweepObjects &operator=(const SweepObjects &) = delete;

    /// Reopens the zip, empty, at the same address.
    void RenewZip();

    /// Every value, each once. Left out is userdata that is not an instance and has an instance's 32 bytes, filled with
    /// anything but zeros: the module has to read it as an instance.
    /// @param ndis  the value for the folder of the filter's files.
    /// @param wfp   the value for that of the callout's.
    [[nodiscard]] std::vector<SweepValue> Values(const std::string &ndis, const std::string &wfp);

private:
    /// Accepts nothing.
    class FullStream : public wxOutputStream {
    protected:
        size_t OnSysWrite(const void *, size_t) override {
            m_lasterror = wxSTREAM_WRITE_ERROR;
            return 0;
        }
    };

    void AddInstances(std::vector<SweepValue> &values);
    void AddZips(std::vector<SweepValue> &values);
    void AddHandles(std::vector<SweepValue> &values);

    VtaCore::CDom &m_dom;
    std::vector<SLB3::SlbBaseEntry> m_bases;  ///< Of a class derived from the agent's object.
    std::optional<wxMemoryOutputStream> m_memory;
    std::optional<VtaCore::Control::ZipPackage> m_zip;
    wxMemoryOutputStream m_closedMemory;
    VtaCore::Control::ZipPackage m_closedZip{m_closedMemory};
    FullStream m_full;
    VtaCore::Control::ZipPackage m_fullZip{m_full};
    vti_handle_t *m_handle = nullptr;
    vti_handle_t *m_lostHandle = nullptr;  ///< Closed behind its userdata's back.
};
