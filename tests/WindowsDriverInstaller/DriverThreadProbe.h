// The thread that removes the drivers, with everything accessible that a test needs. It includes the product's source,
// since the class lives in that file's unnamed namespace: include this in one source of a program only.
#pragma once

#include "WindowsDriverInstaller/WindowsDriverInstaller.cpp"  // NOLINT(bugprone-suspicious-include): see above

namespace {

class Probe : public CDriverUninstallerThread {
public:
    explicit Probe(VtaCore::CDom &toDom, const wxString &toWfpDriverDir = "C:\\wfp\\")
        : CDriverUninstallerThread(&toDom, "C:\\ndis\\", toWfpDriverDir) {}

    using CDriverUninstallerThread::AcquireINetCfg;
    using CDriverUninstallerThread::DbgPrint;
    using CDriverUninstallerThread::EndStep;
    using CDriverUninstallerThread::NoteFailedStep;
    using CDriverUninstallerThread::ReleaseINetCfg;
    using CDriverUninstallerThread::StartStep;
    using CDriverUninstallerThread::UninstallDriver;
};

}  // namespace
