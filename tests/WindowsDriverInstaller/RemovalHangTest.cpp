// A removal hung in each of its calls: the watcher notices it when the limit of the top step has passed and not before,
// the script gets its answer, and the next removal works.
#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Balance.h"
#include "CallPlaces.h"
#include "ComObject.h"
#include "HangReport.h"
#include "HungRemoval.h"

namespace {

namespace Kind = Simulator::Kind;

using Thing = std::pair<std::string, std::uintptr_t>;

std::multiset<Thing> ThingsOf(const std::vector<Simulator::BalanceItem> &items) {
    std::multiset<Thing> things;
    for (const Simulator::BalanceItem &item : items)
        things.emplace(item.kind, item.value);
    return things;
}

int CountOf(const std::vector<Simulator::BalanceItem> &items, std::string_view kind) {
    return static_cast<int>(
        std::count_if(items.begin(), items.end(), [kind](const auto &item) { return item.kind == kind; }));
}

/// Each object of a removal leaves its event open.
void ExpectNothingLeftButTheEvent(const std::vector<Simulator::BalanceItem> &left) {
    std::vector<std::string> makers;
    for (const Simulator::BalanceItem &item : left)
        makers.push_back(std::string(item.kind) + " by " + item.function);
    EXPECT_EQ(makers, std::vector<std::string>{"handle by CreateEventW"});
}

class RemovalHang : public HungRemoval {
protected:
    /// Hangs each call of a removal from such a machine.
    /// @param prepare  makes it from one on which only both drivers are installed.
    template <class Prepare>
    std::vector<Place> HangEachCall(Prepare prepare) {
        hung.LoadNoModulesForStacks();
        PutRight();
        prepare();
        // What the first stack walk loads stays for good.
        hung.ClearAway(HangIn("CoCreateInstance", 1, 10'000).left);
        (void)Uninstall();
        PutRight();
        prepare();
        const Removal removal = Uninstall();
        EXPECT_TRUE(removal.result);
        std::vector<Place> places = PlacesOf(removal);
        for (std::size_t i = 0; i < places.size() && !HasFailure(); ++i) {
            if (!HangReport::IsWanted(i))
                continue;
            SCOPED_TRACE(places[i].function + " no. " + std::to_string(places[i].nth) + " in " + places[i].step + "; " +
                         HangReport::HowToRepeat(i));
            PutRight();
            prepare();
            HangAt(places[i]);
        }
        m_report.Tell(places.size(), "calls, each noticed in the millisecond in which its step's time was up");
        return places;
    }

private:
    void HangAt(const Place &place) {
        const bool letGo = place.step == "ThreadRunning";
        const Hang hang = HangIn(place.function, place.nth, place.deadlineMs, letGo ? Fate::LivesOn : Fate::Killed);
        EXPECT_TRUE(hang.met);
        EXPECT_TRUE(hang.waitedToTheEnd);
        EXPECT_EQ(hang.removal.tookMs, place.deadlineMs);
        EXPECT_FALSE(hang.removal.result);
        EXPECT_TRUE(hang.ended);
        EXPECT_TRUE(hang.destroyed);
        EXPECT_EQ(simulation().GetClock().Waiting(), 0U);
        m_report.Add(hang.returnedAfterMs);
        ExpectInFlight(place, hang);
        if (letGo)
            ExpectLetGo(hang);
        else
            ExpectKilled(place, hang);
        hung.ClearAway(hang.left);
        ExpectTheNextOneWorks();
    }

    /// The journal does not show the release of COM references.
    static void ExpectInFlight(const Place &place, const Hang &hang) {
        for (const std::string_view kind : KindsInJournals()) {
            const auto open = place.open.find(std::string(kind));
            const int event = kind == Kind::kHandle ? 1 : 0;
            EXPECT_EQ(CountOf(hang.inFlight, kind), event + (open == place.open.end() ? 0 : open->second)) << kind;
        }
    }

    void ExpectKilled(const Place &place, const Hang &hang) {
        EXPECT_TRUE(hang.killed);
        ASSERT_EQ(hang.Stacks().size(), 1U);
        EXPECT_TRUE(hang.Stacks()[0].starts_with("Stack trace:\n[00] ")) << hang.Stacks()[0];
        EXPECT_EQ(ThingsOf(hang.left), ThingsOf(hang.inFlight));
        EXPECT_EQ(simulation().GetNetwork().Read().lock.has_value(), place.holdsLock);
    }

    /// The worker did the rest of the removal when its call was released.
    void ExpectLetGo(const Hang &hang) {
        EXPECT_FALSE(hang.killed);
        EXPECT_EQ(hang.Stacks(), std::vector<std::string>{});
        ExpectNothingLeftButTheEvent(hang.left);
        EXPECT_FALSE(simulation().GetNetwork().Read().lock);
        EXPECT_FALSE(HasService());
    }

    void ExpectTheNextOneWorks() {
        PutRight();
        const Simulator::BalanceSnapshot before = balance().Take();
        const Removal next = Uninstall();
        EXPECT_TRUE(next.result);
        EXPECT_EQ(next.events, std::vector<std::string>{});
        EXPECT_FALSE(simulation().GetNetwork().Has(L"qbimvta"));
        EXPECT_FALSE(HasService());
        EXPECT_FALSE(simulation().GetNetwork().Read().lock);
        std::vector<Simulator::BalanceItem> left = Simulator::Balance::Left(before, balance().Take());
        std::erase_if(left, [](const auto &item) { return item.kind == std::string_view(Kind::kBlock); });
        ExpectNothingLeftButTheEvent(left);
        hung.ClearAway(left);
    }

    HangReport m_report;
};

std::set<std::string> FunctionsOf(const std::vector<Place> &places) {
    std::set<std::string> functions;
    for (const Place &place : places)
        functions.insert(place.function);
    return functions;
}

std::set<std::string> MissingFrom(const std::set<std::string> &these, const std::set<std::string> &wanted) {
    std::set<std::string> missing;
    std::set_difference(wanted.begin(), wanted.end(), these.begin(), these.end(),
                        std::inserter(missing, missing.end()));
    return missing;
}

TEST_F(RemovalHang, IsNoticedInTimeInEachCallOfACompleteRemoval) {
    const std::vector<Place> places = HangEachCall([] {});
    std::set<std::string> steps;
    for (const Place &place : places)
        steps.insert(place.step);
    std::set<std::string> all;
    for (const auto &[step, limit] : LimitsOfRemoval())
        all.insert(step);
    EXPECT_EQ(steps, all);
}

TEST_F(RemovalHang, IsNoticedInTimeInEachCallOfARemovalByHand) {
    simulation().GetSetup().Lack("SetupUninstallOEMInfW");
    simulation().GetFilesInUse().Hold(simulation().GetFolders().Inf() / L"oem2.pnf");
    const std::vector<Place> places = HangEachCall([this] {
        simulation().GetSetup().onInstallSection = [](const std::wstring &) {};
        RemoveFilterComponent();
        simulation().GetNetwork().Put({.id = L"rxwim"});
    });
    EXPECT_EQ(MissingFrom(FunctionsOf(places), {"DeleteFileW", "MoveFileExW", "DeleteService", "_wremove"}),
              std::set<std::string>{});
}

TEST_F(RemovalHang, IsNoticedInTimeInEachCallOfARemovalOfAnOrphan) {
    const std::vector<Place> places = HangEachCall([this] {
        RemoveDrivers();
        PutOrphan();
        simulation().GetNetwork().Put({.id = L"QBIMVTA_MP", .deInstallsUntilGone = 0});
        simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, std::wstring(kMiniportKey) + L"\\0001\\Control");
        simulation().GetSecurity().ProtectKey(kMiniportKey);
    });
    EXPECT_EQ(MissingFrom(FunctionsOf(places), {"NtDeleteKey", "RegEnumKeyExW", "OpenProcessToken",
                                                "AdjustTokenPrivileges", "SetNamedSecurityInfoW"}),
              std::set<std::string>{});
}

}  // namespace
