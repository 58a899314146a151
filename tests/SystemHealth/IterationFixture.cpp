#include "IterationFixture.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "CallScope.h"

namespace {

constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;
constexpr DWORD kReaderWaitMs = 60'000;  // real milliseconds

std::string AllOf(const std::vector<std::string> &lines) {
    std::string text = "the lines are:";
    for (const std::string &line : lines)
        text += "\n  " + line;
    return text;
}

/// A Lua allocator that fails from the given request on.
struct FewRequests {
    int left;
    static void *Allocate(void *self, void *block, size_t oldSize, size_t newSize) {
        if (newSize == 0) {
            std::free(block);
            return nullptr;
        }
        const bool grows = block == nullptr || newSize > oldSize;
        if (grows && static_cast<FewRequests *>(self)->left-- <= 0)
            return nullptr;
        return std::realloc(block, newSize);
    }
};

}  // namespace

IterationFixture::IterationFixture() {
    SetClock(0);
    machine().processorQueue = 1;
}

void IterationFixture::SetClock(double seconds) {
    const std::int64_t micros = (kStart + kSecondsFrom1601To1970) * 1'000'000 + std::llround(seconds * 1e6);
    simulation().GetClock().SetWallClock(static_cast<std::uint64_t>(micros) * 10);
}

int IterationFixture::CheckAt(double seconds, const std::string &state, const std::string &policy) {
    SetClock(seconds);
    return Check(state, policy);
}

int IterationFixture::CheckActivatedAt(double seconds) {
    CheckAt(seconds - 30, "Activated");
    Forget();
    return CheckAt(seconds, "Activated");
}

std::string IterationFixture::Microseconds(double seconds) {
    return std::to_string((kStart + kSecondsFrom1601To1970) * 1'000'000 + std::llround(seconds * 1e6));
}

void IterationFixture::SetTotals(const Health::Totals &totals) {
    m_noise += 1'000'000'007;
    driver().scanCounters = {totals.connNew, m_noise, totals.established,  totals.halfOpenToClose,
                             m_noise,        m_noise, totals.bytesForward, totals.bytesBackward,
                             m_noise,        m_noise};
}

std::vector<std::string> IterationFixture::TakeDriverCalls() {
    std::vector<std::string> calls;
    calls.swap(driver().calls);
    return calls;
}

std::vector<std::string> IterationFixture::TakeErrors() {
    std::vector<std::string> errors;
    for (const LogLine &line : log.Take())
        if (line.level == wxLOG_Error)
            errors.push_back(line.text);
    return errors;
}

std::string IterationFixture::TakeLongLine() {
    std::string found;
    for (const LogLine &line : log.Take())
        if (line.level == wxLOG_Info)
            found = line.text;
    return found;
}

std::string IterationFixture::FieldOf(const std::string &longLine, const std::string &name) {
    // The interval occurs twice; its metric is the last one.
    const std::size_t place = longLine.rfind(" " + name + "=");
    if (place == std::string::npos)
        return "no " + name + " in: " + longLine;
    const std::size_t value = place + name.size() + 2;
    return longLine.substr(value, longLine.find(' ', value) - value);
}

void IterationFixture::Forget() {
    (void)log.Take();
    (void)TakeTracedLines();
    (void)simulation().GetJournal().Take();
    driver().calls.clear();
}

void IterationFixture::ExpectLockFree() {
    LuaState reader;
    Open(reader);
    bool read = false;
    Worker worker([&] {
        reader.Run("local done, metrics = SLB.filter.GetSysHealthMetrics() assert(done and #metrics == 7)");
        read = true;
    });
    EXPECT_TRUE(worker.EndsWithin(kReaderWaitMs)) << "the lock is still held";
    EXPECT_TRUE(read);
}

int CallWithShortMemory(lua_State *state, const std::string &function, int requests) {
    lua_getglobal(state, function.c_str());
    FewRequests memory{requests};
    void *data = nullptr;
    const lua_Alloc ordinary = lua_getallocf(state, &data);
    lua_setallocf(state, &FewRequests::Allocate, &memory);
    const int status = lua_pcall(state, 0, 0, 0);
    lua_setallocf(state, ordinary, data);
    return status;
}

Worker::Worker(std::function<void()> work) : m_work(std::move(work)), m_thread(nullptr) {
    const Simulator::InsideSimulator inside;
    m_thread = CreateThread(nullptr, 0, Start, this, 0, nullptr);
}

Worker::~Worker() {
    const Simulator::InsideSimulator inside;
    if (!EndsWithin(kReaderWaitMs))
        TerminateThread(m_thread, 1);
    CloseHandle(m_thread);
}

bool Worker::EndsWithin(DWORD timeoutMs) {
    const Simulator::InsideSimulator inside;
    return WaitForSingleObject(m_thread, timeoutMs) == WAIT_OBJECT_0;
}

DWORD Worker::Start(void *self) {
    static_cast<Worker *>(self)->m_work();
    return 0;
}

testing::AssertionResult Has(const std::vector<std::string> &lines, const std::string &line) {
    if (std::find(lines.begin(), lines.end(), line) != lines.end())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "there is no \"" << line << "\", " << AllOf(lines);
}

testing::AssertionResult HasBeginning(const std::vector<std::string> &lines, const std::string &beginning) {
    for (const std::string &line : lines)
        if (line.starts_with(beginning))
            return testing::AssertionSuccess();
    return testing::AssertionFailure() << "nothing begins with \"" << beginning << "\", " << AllOf(lines);
}
