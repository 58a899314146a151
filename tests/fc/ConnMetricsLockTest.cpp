// What happens with the lock of the connection metrics held, and what without it.
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ConnMetricsFixture.h"
#include "WindowsFunctions.h"

namespace {

SIMULATOR_FUNCTION(EnterCriticalSection, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(LeaveCriticalSection, "KERNEL32.dll", CannotFail);

using Sections = std::vector<CRITICAL_SECTION *>;

class ConnMetricsLock : public ConnMetrics {
protected:
    ConnMetricsLock() {
        for (const char *function : {"EnterCriticalSection", "LeaveCriticalSection"})
            simulation().GetJournal().Mute(function);
        simulation().Functions().Put<EnterCriticalSection>(
            [watch = m_watch](const auto &next, CRITICAL_SECTION *section) {
                next(section);
                watch->entered.push_back(section);
            });
        simulation().Functions().Put<LeaveCriticalSection>(
            [watch = m_watch](const auto &next, CRITICAL_SECTION *section) {
                next(section);
                if (watch->onLeft)
                    watch->onLeft();
            });
        lua.Run("collectgarbage() collectgarbage('stop')");
    }

    Sections EnteredBy(const std::string &code) {
        m_watch->entered.clear();
        lua.Run(code);
        return m_watch->entered;
    }
    void OnLeft(const std::function<void()> &call) { m_watch->onLeft = call; }

private:
    /// Lives on while the module is unloaded.
    struct Watch {
        Sections entered;
        std::function<void()> onLeft;
    };
    std::shared_ptr<Watch> m_watch = std::make_shared<Watch>();
};

TEST_F(ConnMetricsLock, IsNotEnteredToCount) {
    EXPECT_EQ(EnteredBy("add('new') add('new') add('\\233') add('\\233')"), Sections());
    AdvanceSeconds(61);
    const Sections fold = EnteredBy("f.UpdateConnMetrics()");
    EXPECT_EQ(fold.size(), 1U);
    EXPECT_EQ(EnteredBy("f.GetConnMetrics()"), fold) << "the same one";
}

TEST_F(ConnMetricsLock, IsLeftBeforeAFoldFreesWhatHadNoRoom) {
    lua.Run("fill(1, 10000)");
    Fold();
    lua.Run("fill(20001, 20100)");
    AdvanceSeconds(61);
    std::size_t blocks = 0;
    OnLeft([&] { blocks = balance().Take().blocks; });
    EXPECT_EQ(EnteredBy("f.UpdateConnMetrics()").size(), 1U);
    OnLeft(nullptr);
    EXPECT_GE(blocks, balance().Take().blocks + 100);
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "10000");
}

}  // namespace
