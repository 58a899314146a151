// The network configuration while a driver thread has it open.
#pragma once

#include <windows.h>
#include <netcfgx.h>

#include "CDriverUninstallerThread.h"

namespace {

/// Opens the network configuration, and COM on this thread; the destructor closes both. A thread that is killed
/// meanwhile leaves both open.
class NetCfgSession {
public:
    enum class Access { Read, Write };

    /// @param access  Write takes the write lock, too.
    NetCfgSession(CDriverUninstallerThread &thread, Access access)
        : m_thread(thread),
          m_isLocked(access == Access::Write),
          m_result(m_thread.AcquireINetCfg(m_isLocked, &m_netCfg)) {}
    ~NetCfgSession() {
        if (m_netCfg != nullptr)
            (void)m_thread.ReleaseINetCfg(m_isLocked, m_netCfg);
    }
    NetCfgSession(const NetCfgSession &) = delete;
    NetCfgSession &operator=(const NetCfgSession &) = delete;

    /// S_OK, or why the configuration is not open.
    [[nodiscard]] HRESULT Result() const { return m_result; }
    [[nodiscard]] INetCfg *Get() const { return m_netCfg; }
    /// Keeps the configuration open beyond this object.
    void LeaveOpen() { m_netCfg = nullptr; }

private:
    CDriverUninstallerThread &m_thread;
    bool m_isLocked;
    INetCfg *m_netCfg = nullptr;
    HRESULT m_result;  ///< After the pointer, which the same call sets.
};

}  // namespace
