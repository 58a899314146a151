// Binding paths of several interfaces: the filter is looked for in each of them.
#include <optional>
#include <string>

#include "BindingsFixture.h"

namespace {

const std::string kIsBound = "Adapter 'First adapter' is bound to qbimvta";
const std::string kDisabling = "Disabling binding from 'First adapter' -> qbimvta";

/// The filter is bound to both adapters; other components lie above it, or above others.
class FilterPaths : public BindingsFixture {
protected:
    FilterPaths() {
        PutFilter();
        network().Put({.id = L"another"});
        network().Bind(kSecond, L"qbimvta", false);
    }

    /// The filter's path down to the first adapter has these components, too, instead of the filter alone.
    void PutPath(const std::wstring &path) {
        network().Use([](Simulator::NetworkState &state) { state.bindings.RemoveOf(L"qbimvta"); });
        network().Bind(kFirst, path);
    }
    /// Whether the path is enabled; nothing if there is none.
    std::optional<bool> Path(const std::wstring &path) {
        const Simulator::NetworkState state = network().Read();
        const Simulator::NetworkBinding *const binding = state.bindings.Find(kFirst, path);
        return binding == nullptr ? std::nullopt : std::optional(binding->enabled);
    }
    /// What is logged of the first adapter while all is unbound, and nothing may fail.
    Texts Unbind() {
        const InTest set = SetBindings(false, nullptr, false);
        EXPECT_TRUE(set.result);
        EXPECT_EQ(set.events, Texts{});
        EXPECT_EQ(set.left, Texts{});
        return With(set.lines, "First adapter");
    }
    unsigned Changes() { return CountCalls("INetCfgBindingPath::Enable"); }
};

TEST_F(FilterPaths, AreFoundWhereTheFilterIsTheLastOfTheirInterfaces) {
    PutPath(L"ms_tcpip>another>qbimvta");
    EXPECT_EQ(Unbind(), (Texts{kIsBound, kDisabling}));
    EXPECT_EQ(Changes(), 1U);
    EXPECT_EQ(Path(L"ms_tcpip>another>qbimvta"), false);
}

TEST_F(FilterPaths, AreFoundWhereTheFilterIsInTheMiddle) {
    PutPath(L"ms_tcpip>qbimvta>another");
    EXPECT_EQ(Unbind(), (Texts{kIsBound, kDisabling}));
    EXPECT_EQ(Changes(), 1U);
    EXPECT_EQ(Path(L"ms_tcpip>qbimvta>another"), false) << "a path is enabled or disabled as a whole";
}

TEST_F(FilterPaths, AreChangedEachByItself) {
    network().Bind(kFirst, L"another>qbimvta", false);
    EXPECT_EQ(Unbind(), (Texts{"Adapter 'First adapter' is not bound to qbimvta",
                               "No need to change the bindings of adapter 'First adapter'", kIsBound, kDisabling}));
    EXPECT_EQ(Changes(), 1U);
    EXPECT_FALSE(IsBound(kFirst));
}

TEST_F(FilterPaths, AreChangedOnceForEachOfTheirInterfacesThatLeadsToTheFilter) {
    PutPath(L"qbimvta>another>qbimvta");
    EXPECT_EQ(Unbind(), (Texts{kIsBound, kDisabling, kIsBound, kDisabling}))
        << "whether it is enabled is asked once for the path";
    EXPECT_EQ(Changes(), 2U);
    EXPECT_EQ(CountCalls("INetCfg::Apply"), 2U);
    EXPECT_EQ(Path(L"qbimvta>another>qbimvta"), false);
}

TEST_F(FilterPaths, AreFoundBehindAnInterfaceThatCannotBeRead) {
    for (const char *function : {"INetCfgBindingInterface::GetUpperComponent", "INetCfgComponent::GetId"}) {
        SCOPED_TRACE(function);
        PutPath(L"another>qbimvta");
        Fail(function, 2);  // the first is that of the path to TCP/IP
        EXPECT_EQ(Unbind(), (Texts{kIsBound, kDisabling}));
        EXPECT_EQ(Path(L"another>qbimvta"), false);
    }
}

TEST_F(FilterPaths, OfOthersStayHoweverManyInterfacesTheyHave) {
    PutPath(L"another>ms_tcpip6>another");
    EXPECT_EQ(Unbind(), Texts{});
    EXPECT_EQ(Path(L"another>ms_tcpip6>another"), true);
    EXPECT_EQ(Changes(), 0U);
}

}  // namespace
