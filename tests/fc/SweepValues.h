// The values that the sweep puts in the place of every argument.
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

/// What the module takes a userdata for.
enum class AgentKind { None, Dom, Handle, ClosedHandle, Zip };

struct SweepValue {
    std::string name;  ///< Those that Lua can write are named by what it writes.
    std::function<void(lua_State *)> push;
    AgentKind kind = AgentKind::None;
};

// Values that a usual call has.
inline constexpr char kDomValue[] = "dom";
inline constexpr char kHandleValue[] = "driver handle";
inline constexpr char kZipValue[] = "zip";
inline constexpr char kNdisValue[] = "ndis";
inline constexpr char kWfpValue[] = "wfp";
inline constexpr char kMetricText[] = R"('flags\t4095\npid\t7\ndst_port\t443\ncount\t9\n\tx\nno tab\n\nservice\tweb')";
inline constexpr char kPolicy[] = R"('{"SYS_THR_RUNQ": {"value": 20}, "SYS_THR_FREE_MEM": {"value": 5}}')";
inline constexpr char kProgram[] = "[[C:\\windows\\system32\\kernel32.dll]]";
inline constexpr char kNames[] = "{'Ethernet 2', 'vpn0'}";

/// The agent's objects behind the values. They outlive the Lua state's use of them.
class SweepObjects {
public:
    explicit SweepObjects(VtaCore::CDom &dom);
    ~SweepObjects();
    SweepObjects(const SweepObjects &) = delete;
    SweepObjects &operator=(const SweepObjects &) = delete;

    /// The open zip anew and empty, in the same place.
    void RenewZip();

    /// Every value, each once. Userdata that is no instance and has the 32 bytes of one, filled with anything else than
    /// zeros, is left out: the module reads it as an instance, as it has to.
    /// @param ndis  what stands for the folder of the filter's files, and
    /// @param wfp   for that of the callout's.
    [[nodiscard]] std::vector<SweepValue> Values(const std::string &ndis, const std::string &wfp);

private:
    /// Takes nothing.
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
    vti_handle_t *m_lostHandle = nullptr;  ///< Closed, and nobody has told its userdata.
};
