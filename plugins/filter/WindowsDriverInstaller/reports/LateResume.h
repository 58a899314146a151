// A paused thread goes on, also when whoever paused it can't resume it.
#pragma once

#include <memory>

#include <windows.h>
#include <wx/thread.h>

/// To be made before a thread is paused. Until it is destroyed it resumes the thread every five seconds: whoever paused
/// the thread may be waiting for a lock that it holds, such as the heap's or the loader's. Its own thread, which does
/// that, allocates nothing.
class LateResume {
public:
    explicit LateResume(const wxThread &thread);
    /// The thread is not resumed by it any more.
    ~LateResume();
    LateResume(const LateResume &) = delete;
    LateResume &operator=(const LateResume &) = delete;

    /// Whether the thread may be paused. False if it holds the loader's lock for good: no thread can start then.
    [[nodiscard]] bool IsReady() const { return isReady; }

private:
    struct Shared;
    static DWORD WINAPI ResumeIfLate(void *shared);
    void Start();

    std::shared_ptr<Shared> shared;  // with a helper that could not start yet, or not end
    bool isReady = false;
};
