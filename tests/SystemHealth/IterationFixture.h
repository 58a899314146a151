// Iterations at set times on a host with simple numbers, and shorthand for what each leaves behind.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "HealthFixture.h"

namespace Health {

// Lines of the configuration file.
inline const std::string kPort = "SYSTEM_CONNECTION_REFUSAL_PORT=443\n";
inline const std::string kRunQueue = "SYSTEM_RUNQ_PCT_THRESHOLD=50\n";
inline const std::string kRefusals = "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=10\n";
inline const std::string kEstablished = "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=100\n";
inline const std::string kScanned = "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=8\n";
inline const std::string kFreeMemory = "SYSTEM_MIN_FREE_MEM_PCT=20\n";
inline const std::string kInterval = "SYSTEM_MAX_ITERATION_INTERVAL=60\n";
inline const std::string kDriverMetrics = kPort + kRefusals + kEstablished + kScanned;

/// The driver's totals of the counters in use.
struct Totals {
    std::uint64_t connNew = 0;
    std::uint64_t established = 0;
    std::uint64_t halfOpenToClose = 0;
    std::uint64_t bytesForward = 0;
    std::uint64_t bytesBackward = 0;
};

}  // namespace Health

/// The wall clock starts at kStart and advances only by sleeps and by the tests. The host has 4 processors, a queue of
/// 1, and half of its 8 GiB free.
class IterationFixture : public HealthFixture {
protected:
    static constexpr std::int64_t kStart = 1'700'000'000;  ///< Seconds since 1970.

    IterationFixture();

    /// Sets the wall clock.
    /// @param seconds  since kStart.
    void SetClock(double seconds);
    /// One iteration at that time.
    int CheckAt(double seconds, const std::string &state = "Deactivated", const std::string &policy = "");
    /// Two iterations in fail-open, the first of them 30 s earlier, so that the iteration interval passes.
    int CheckActivatedAt(double seconds);
    /// The time in microseconds since 1601, in decimal.
    static std::string Microseconds(double seconds);

    /// Sets the driver's totals; the unused counters get other numbers each time.
    void SetTotals(const Health::Totals &totals);
    /// The operations of the driver since the last call.
    static std::vector<std::string> TakeDriverCalls();

    /// The lines of the error log since the last call; discards the others.
    std::vector<std::string> TakeErrors();
    /// The long line of the last iteration since the last call, "" if there is none; discards other lines.
    std::string TakeLongLine();
    /// The text after NAME= in the long line, such as "1.000(50.000)".
    static std::string FieldOf(const std::string &longLine, const std::string &name);

    /// Forgets everything logged, traced and recorded.
    void Forget();
    /// Expects that a read-out on another thread returns.
    void ExpectLockFree();

private:
    std::uint64_t m_noise = 1;
};

/// Calls a function without arguments in a Lua state that can allocate only so many blocks.
/// @return the status of the call.
int CallWithShortMemory(lua_State *state, const std::string &function, int requests);

/// A thread that is terminated if it does not end by itself.
class Worker {
public:
    explicit Worker(std::function<void()> work);
    ~Worker();
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    /// @param timeoutMs  real milliseconds.
    bool EndsWithin(DWORD timeoutMs);

private:
    static DWORD WINAPI Start(void *self);

    std::function<void()> m_work;
    HANDLE m_thread;
};

/// Whether the line is among the lines.
testing::AssertionResult Has(const std::vector<std::string> &lines, const std::string &line);
/// Whether a line begins with the text.
testing::AssertionResult HasBeginning(const std::vector<std::string> &lines, const std::string &beginning);
