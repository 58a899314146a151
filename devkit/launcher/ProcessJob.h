// Processes that end with the one that has started them.
#pragma once

#include <windows.h>

/// The process ends when the job is closed, at the latest with the calling process. Processes that it starts live on.
/// @return the job, which the caller closes; null on failure, with GetLastError.
[[nodiscard]] inline HANDLE TieToJob(HANDLE process) {
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);
    if (job == nullptr)
        return nullptr;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK;
    if (SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits)) != 0 &&
        AssignProcessToJobObject(job, process) != 0)
        return job;
    const DWORD error = GetLastError();
    CloseHandle(job);
    SetLastError(error);
    return nullptr;
}
