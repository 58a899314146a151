// Whether an adapter got worse: the rules one by one and in order, and as an installation applies them.
#include <functional>
#include <string>
#include <vector>

#include "BindingsFixture.h"
#include "WindowsDriverInstaller/adapters/AdaptorHealthChecker.h"

namespace {

using Change = std::function<void(TcpAdapter &)>;

const std::string kUnbound = "Adapter 'One' isn't bound to our driver; assuming it's healthy.";
const std::string kHealthy = "Adapter 'One' is healthy.";
const std::string kDisconnected =
    "Adapter 'One' reported that it was connected and now it isn't; assuming it's not healthy.";
const std::string kStatus = "Adapter 'One' had a status of 0 and now it's non-0; assuming it's not healthy.";
const std::string kNoAddressNow = "Adapter 'One' had an IP address and now it doesn't; assuming it's not healthy.";
const std::string kNoGatewayNow = "Adapter 'One' had a default gateway and now it doesn't; assuming it's not healthy.";

/// The rules, each named after what breaks it.
const std::vector<std::pair<Change, std::string>> kRules{
    {[](TcpAdapter &adapter) { adapter.mediaConnectStatus = 1; }, kDisconnected},
    {[](TcpAdapter &adapter) { adapter.deviceStatus = 22; }, kStatus},
    {[](TcpAdapter &adapter) { adapter.ipAddress = 0xFFFFFFFF; }, kNoAddressNow},
    {[](TcpAdapter &adapter) { adapter.gatewayAddress = 0xFFFFFFFF; }, kNoGatewayNow},
};

class HealthChecker : public testing::Test {
protected:
    HealthChecker() {
        VtaCore::Control::EnableTrace("NDIS", true);
        (void)TakeTracedMessages();
    }
    ~HealthChecker() override { VtaCore::Control::EnableTrace("NDIS", false); }

    /// A healthy adapter bound to the filter.
    static TcpAdapter One() {
        TcpAdapter adapter;
        adapter.boundToIp = adapter.boundToFilter = true;
        adapter.bindName = "{one}";
        adapter.displayName = "One";
        adapter.pnpDevNodeId = "PCI\\ONE\\1";
        adapter.ipAddress = 0x0A00000A;
        adapter.gatewayAddress = 0x0100000A;
        adapter.mediaConnectStatus = 0;
        return adapter;
    }
    static TcpAdapter Changed(const Change &change) {
        TcpAdapter adapter = One();
        change(adapter);
        return adapter;
    }
    /// The check's verdict on the adapter now, compared with these earlier records; the message includes the result.
    static std::string Judge(const TcpAdapterList &before, const TcpAdapter &now) {
        const bool healthy = AdaptorHealthChecker(before)(now);
        const std::vector<std::string> messages = TakeTracedMessages("NDIS");
        EXPECT_EQ(messages.size(), 1U);
        std::string message = messages.empty() ? "" : messages.front();
        EXPECT_EQ(healthy, message == kHealthy || message == kUnbound) << message;
        return message;
    }
};

TEST_F(HealthChecker, AcceptsAnUnchangedAdapter) {
    EXPECT_EQ(Judge({One()}, One()), kHealthy);
}

TEST_F(HealthChecker, AcceptsAnyStateOfAnAdapterThatIsNotBoundToTheFilter) {
    for (const auto &[breakIt, message] : kRules) {
        TcpAdapter now = Changed(breakIt);
        now.boundToFilter = false;
        EXPECT_EQ(Judge({One()}, now), kUnbound) << message;
    }
}

TEST_F(HealthChecker, UsesTheCurrentBindingAndNotTheEarlierOne) {
    TcpAdapter before = One();
    before.boundToFilter = false;
    EXPECT_EQ(Judge({before}, Changed(kRules[0].first)), kDisconnected);
}

TEST_F(HealthChecker, AcceptsANewAdapter) {
    TcpAdapter other = One();
    other.bindName = "{other}";
    for (const auto &[breakIt, message] : kRules) {
        EXPECT_EQ(Judge({other}, Changed(breakIt)), kHealthy) << message;
        EXPECT_EQ(Judge({}, Changed(breakIt)), kHealthy) << message;
    }
}

TEST_F(HealthChecker, ComparesTheBindNameCaseSensitively) {
    TcpAdapter before = One();
    before.bindName = "{ONE}";
    EXPECT_EQ(Judge({before}, Changed(kRules[0].first)), kHealthy);
}

TEST_F(HealthChecker, ComparesWithTheFirstRecordOfTheBindName) {
    const TcpAdapter down = Changed([](TcpAdapter &adapter) { adapter.mediaConnectStatus = 1; });
    EXPECT_EQ(Judge({down, One()}, down), kHealthy);
    EXPECT_EQ(Judge({One(), down}, down), kDisconnected);
}

TEST_F(HealthChecker, RejectsWhatGotWorse) {
    for (const auto &[breakIt, message] : kRules)
        EXPECT_EQ(Judge({One()}, Changed(breakIt)), message);
}

TEST_F(HealthChecker, AcceptsWhatWasDownBefore) {
    for (const auto &[breakIt, message] : kRules) {
        const TcpAdapter down = Changed(breakIt);
        EXPECT_EQ(Judge({down}, down), kHealthy) << message;
        EXPECT_EQ(Judge({down}, One()), kHealthy) << "it got better: " << message;
    }
}

TEST_F(HealthChecker, ReportsOnlyTheFirstBrokenRule) {
    for (std::size_t first = 0; first < kRules.size(); ++first) {
        TcpAdapter now = One();
        for (std::size_t rule = first; rule < kRules.size(); ++rule)
            kRules[rule].first(now);
        EXPECT_EQ(Judge({One()}, now), kRules[first].second);
    }
}

TEST_F(HealthChecker, TreatsAnAdapterThatCannotBeQueriedAsDisconnected) {
    const TcpAdapter unknown = Changed([](TcpAdapter &adapter) { adapter.mediaConnectStatus = 0xFFFFFFFF; });
    EXPECT_EQ(Judge({One()}, unknown), kDisconnected);
    EXPECT_EQ(Judge({unknown}, unknown), kHealthy);
    const TcpAdapter down = Changed([](TcpAdapter &adapter) { adapter.mediaConnectStatus = 1; });
    EXPECT_EQ(Judge({unknown}, down), kHealthy);
    EXPECT_EQ(Judge({down}, unknown), kHealthy);
}

TEST_F(HealthChecker, AcceptsAnotherNonzeroStatus) {
    const TcpAdapter before = Changed([](TcpAdapter &adapter) { adapter.deviceStatus = 10; });
    const TcpAdapter now = Changed([](TcpAdapter &adapter) { adapter.deviceStatus = 22; });
    EXPECT_EQ(Judge({before}, now), kHealthy);
}

TEST_F(HealthChecker, AcceptsOtherAddresses) {
    const TcpAdapter now = Changed([](TcpAdapter &adapter) {
        adapter.ipAddress = 0x0B00000A;
        adapter.gatewayAddress = 0x0200000A;
    });
    EXPECT_EQ(Judge({One()}, now), kHealthy);
}

TEST_F(HealthChecker, UsesTheAdaptersCurrentName) {
    TcpAdapter before = One();
    before.displayName = "Another name";
    EXPECT_EQ(Judge({before}, Changed(kRules[1].first)), kStatus);
}

TEST_F(HealthChecker, TracesNothingWhileItsChannelIsOff) {
    VtaCore::Control::EnableTrace("NDIS", false);
    const TcpAdapterList before{One()};
    EXPECT_TRUE(AdaptorHealthChecker(before)(One()));
    EXPECT_FALSE(AdaptorHealthChecker(before)(Changed(kRules[0].first)));
    EXPECT_EQ(TakeTracedMessages(), std::vector<std::string>{});
}

// ---- In an installation

class HealthAfterInstallation : public BindingsFixture {
protected:
    /// The first check's verdict on the first adapter, which the installation changed.
    std::string FirstCheck(const std::function<void(Simulator::NetworkAdapter &)> &change) {
        onMoment = [this, change](const Simulator::NetworkMoment &moment) {
            if (moment.what == Simulator::NetworkMoment::What::Installed)
                network().ChangeAdapter(kFirst, change);
        };
        const Texts verdicts = With(InstallInBalance().traces, "Adapter 'First adapter'");
        return verdicts.empty() ? "" : verdicts.front();
    }
};

TEST_F(HealthAfterInstallation, RejectsALostConnection) {
    EXPECT_EQ(FirstCheck([](auto &adapter) { adapter.mediaStatus = 1; }),
              "Adapter 'First adapter' reported that it was connected and now it isn't; assuming it's not healthy.");
}

TEST_F(HealthAfterInstallation, RejectsAnAdapterThatCanNoLongerBeOpened) {
    EXPECT_EQ(FirstCheck([](auto &adapter) { adapter.openError = ERROR_ACCESS_DENIED; }),
              "Adapter 'First adapter' reported that it was connected and now it isn't; assuming it's not healthy.");
}

TEST_F(HealthAfterInstallation, RejectsStatusZero) {
    EXPECT_EQ(FirstCheck([](auto &adapter) { adapter.deviceStatus = 31; }),
              "Adapter 'First adapter' had a status of 0 and now it's non-0; assuming it's not healthy.");
}

TEST_F(HealthAfterInstallation, RejectsALostAddress) {
    EXPECT_EQ(FirstCheck([](auto &adapter) { adapter.ip = "0.0.0.0"; }),
              "Adapter 'First adapter' had an IP address and now it doesn't; assuming it's not healthy.");
}

TEST_F(HealthAfterInstallation, RejectsALostGateway) {
    EXPECT_EQ(FirstCheck([](auto &adapter) { adapter.gateway = "0.0.0.0"; }),
              "Adapter 'First adapter' had a default gateway and now it doesn't; assuming it's not healthy.");
}

TEST_F(HealthAfterInstallation, AcceptsOtherAddresses) {
    EXPECT_EQ(FirstCheck([](auto &adapter) {
                  adapter.ip = "10.0.0.99";
                  adapter.gateway = "10.0.0.98";
              }),
              "Adapter 'First adapter' is healthy.");
}

TEST_F(HealthAfterInstallation, AcceptsAnAdapterThatWasDownBefore) {
    network().ChangeAdapter(kFirst, [](auto &adapter) { adapter.mediaStatus = 1; });
    EXPECT_EQ(FirstCheck([](auto &) {}), "Adapter 'First adapter' is healthy.");
}

}  // namespace
