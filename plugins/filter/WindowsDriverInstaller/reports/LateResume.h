// Resumes a paused thread if the one that paused it can't.
#pragma once

#include <memory>

#include <windows.h>
#include <wx/thread.h>

/// Create it before a thread is paused. Until it is destroyed it resumes the thread every five seconds: whoever paused
/// the thread may be waiting for a lock that it holds, such as the heap's or the loader's. Its own thread, which does
/// that, allocates nothing.
class LateResume {
public:
    explicit LateResume(const wxThread &thread);
    /// Stops resuming the thread.
    ~LateResume();
    LateResume(const LateResume &) = delete;
    LateResume &operator=(const LateResume &) = delete;

    /// Whether the thread may be paused. False if it holds the loader's lock for good: no thread can start then.
    [[nodiscard]] bool IsReady() const;

private:
    struct Shared;
    static DWORD WINAPI ResumeIfLate(void *shared);
    void Start();

    std::shared_ptr<Shared> shared;  // shared with a helper that may not have started or ended yet
    bool isReady = false;
};
