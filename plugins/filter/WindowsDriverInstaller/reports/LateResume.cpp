#include "LateResume.h"

#include "common/Unique.h"

namespace {

constexpr DWORD kLongestPauseMs = 5'000;
/// A thread needs the loader's lock to start and to end.
constexpr DWORD kStartOrEndMs = 5'000;

UniqueHandle NewLateResumeEvent() {
    return UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

}  // namespace

struct LateResume::Shared {
    UniqueHandle paused;
    UniqueHandle ready = NewLateResumeEvent();
    UniqueHandle over = NewLateResumeEvent();
    UniqueHandle helper;
};

LateResume::LateResume(const wxThread &thread) : shared(std::make_shared<Shared>()) {
    HANDLE duplicate = nullptr;
    if (DuplicateHandle(GetCurrentProcess(), thread.MSWGetHandle(), GetCurrentProcess(), &duplicate,
                        THREAD_SUSPEND_RESUME, FALSE, 0) == 0)
        return;
    shared->paused.reset(duplicate);
    if (shared->ready && shared->over)
        Start();
}

void LateResume::Start() {
    auto forHelper = std::make_unique<std::shared_ptr<Shared>>(shared);
    shared->helper.reset(CreateThread(nullptr, 0, &ResumeIfLate, forHelper.get(), 0, nullptr));
    if (!shared->helper)
        return;
    (void)forHelper.release();  // owned by the helper now
    isReady = WaitForSingleObject(shared->ready.get(), kStartOrEndMs) == WAIT_OBJECT_0;
}

LateResume::~LateResume() {
    if (!shared->helper)
        return;
    (void)SetEvent(shared->over.get());
    (void)WaitForSingleObject(shared->helper.get(), kStartOrEndMs);
}

bool LateResume::IsReady() const {
    return isReady;
}

DWORD WINAPI LateResume::ResumeIfLate(void *shared) {
    const std::unique_ptr<std::shared_ptr<Shared>> owner(static_cast<std::shared_ptr<Shared> *>(shared));
    const Shared &mine = **owner;
    (void)SetEvent(mine.ready.get());
    // Repeatedly: the thread may be paused only after the first timeout.
    while (WaitForSingleObject(mine.over.get(), kLongestPauseMs) == WAIT_TIMEOUT) {
        constexpr DWORD failed = static_cast<DWORD>(-1);
        if (ResumeThread(mine.paused.get()) == failed)
            (void)ResumeThread(mine.paused.get());
    }
    return 0;
}
