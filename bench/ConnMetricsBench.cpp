#include "ConnMetricsBench.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ConnMetricsFloor.h"
#include "LuaBench.h"
#include "Simulation.h"

namespace {

constexpr int kRounds = 31;

// Keys and texts of the form that scripts pass: a kind of connection, and its properties.
constexpr const char *kTraffic = R"(
    local function key(i) return ('198.51.100.%d:%d|service-%05d.exe'):format(i % 254 + 1, 1024 + i % 500, i) end
    local function text(i)
        return ('flags\t%d\npid\t%d\ndst_port\t%d\ntls_version\t771\ncipher\t%d\ncontainer_type\t0\n' ..
            'process\tC:\\Program Files\\Example\\service-%05d.exe\nserver\thost-%d.example.org'):format(i % 4096, i, i % 65536, 49195 + i % 9, i, i % 700)
    end
    keys, texts = {}, {}
    for i = 1, 15000 do keys[i], texts[i] = key(i), text(i) end
    -- the order in which connections come is not the order of the keys
    math.randomseed(7)
    order = {}
    for i = 1, 10000 do order[i] = i end
    for i = 10000, 2, -1 do local j = math.random(i) order[i], order[j] = order[j], order[i] end
    shuffled = {}
    for i = 1, 10000 do shuffled[i] = keys[order[i]] end
    -- bytes of a key, its text, both in the module's wide characters, and its count; the mean
    function payload()
        local characters = 0
        for i = 1, 10000 do characters = characters + #keys[i] + #texts[i] end
        return characters * 2 / 10000 + 4
    end
    function fill(add, first, last) for i = first, last do add(keys[i], texts[i], 1) end end
)";

/// The module in a Lua state, with a clock that is advanced explicitly.
class ModuleBench {
public:
    ModuleBench() : m_simulation({.registry = false, .folders = false, .balance = false}) {
        m_simulation.GetClock().Step();
        m_simulation.AttachWhenLoaded(L"fc.dll");
        lua.Run("require 'fc' f = SLB.filter peer = dofile(folder .. 'ConnMetricsPeer.lua')");
        lua_register(lua, "read_only", ReadArgumentsOnly);
        lua_register(lua, "prepare", PrepareRows);
        lua_register(lua, "build", BuildPreparedRows);
        lua.Run(kTraffic);
    }

    void LetTheFoldComeDue() { m_simulation.GetClock().Advance(std::chrono::seconds(61)); }

    void Fold() {
        LetTheFoldComeDue();
        lua.Run("f.UpdateConnMetrics()");
    }

    void Empty() {
        Fold();
        lua.Run("f.GetConnMetrics()");
    }

    LuaBench lua;

private:
    Simulator::Simulation m_simulation;
};

void BenchPresentKeys(ModuleBench &bench, Report &report) {
    bench.Empty();
    bench.lua.Run("fill(f.AddToConnMetrics, 1, 10000) fill(peer.add, 1, 10000)");
    const auto loop = [&bench](const std::string &function) {
        return bench.lua.Time(
            "local add, keys, text = " + function +
            ", shuffled, texts[1] for _ = 1, 20 do for i = 1, 10000 do add(keys[i], text, 1) end end");
    };
    const auto times = MedianTimes(kRounds, {[&] { return loop("f.AddToConnMetrics"); },
                                             [&] { return loop("peer.add"); }, [&] { return loop("read_only"); }});
    report.Add("AddToConnMetrics, present key of 10,000, to pure Lua", times[0] / times[1], "time ratio", "< 1");
    report.Add("AddToConnMetrics, present key of 10,000, to reading the arguments", times[0] / times[2], "time ratio",
               "<= 2.5");
    bench.Empty();
}

/// Keys of sixteen ASCII characters that all have the same value of the hash that an earlier module used: starting with
/// the length, then for each word of eight bytes a xor, a multiplication by an odd constant and a xor-shift. Each step
/// is reversible, so for any first word there is a second one that gives the wanted value; those of printable bytes are
/// used.
std::vector<std::string> KeysThatCollidedOnce(std::size_t count) {
    constexpr std::uint64_t factor = 0x9E3779B97F4A7C15U;
    std::uint64_t inverse = factor;
    for (int i = 0; i < 6; ++i)
        inverse *= 2 - factor * inverse;
    const auto shift = [](std::uint64_t word) { return word ^ (word >> 32); };  // is its own inverse
    std::mt19937_64 random(7);
    std::vector<std::string> keys;
    // The low 32 bits of the hash, which were its value, are 0; the others are free.
    while (keys.size() < count) {
        char first[9];
        (void)std::snprintf(first, sizeof(first), "%08u", static_cast<unsigned>(random() % 100'000'000));
        std::uint64_t word = 0;
        std::memcpy(&word, first, sizeof(word));
        const std::uint64_t between = shift((word ^ 16) * factor);
        for (int tries = 0; tries < 4096; ++tries) {
            const std::uint64_t last = (shift(random() << 32) * inverse) ^ between;
            if (((last - 0x0101010101010101U) | last) & 0x8080808080808080U)
                continue;
            std::string key(first, 8);
            key.append(reinterpret_cast<const char *>(&last), sizeof(last));
            keys.push_back(key);
            break;
        }
    }
    return keys;
}

void SetKeys(lua_State *L, const char *global, const std::vector<std::string> &keys) {
    lua_createtable(L, static_cast<int>(keys.size()), 0);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        lua_pushlstring(L, keys[i].data(), keys[i].size());
        lua_rawseti(L, -2, static_cast<int>(i + 1));
    }
    lua_setglobal(L, global);
}

void BenchHostileKeys(ModuleBench &bench, Report &report) {
    constexpr std::size_t count = 10'000;
    SetKeys(bench.lua, "hostile", KeysThatCollidedOnce(count));
    std::mt19937_64 random(11);
    std::vector<std::string> harmless(count);
    for (std::string &key : harmless)
        for (int i = 0; i < 16; ++i)
            key += static_cast<char>('!' + random() % 94);
    SetKeys(bench.lua, "harmless", harmless);
    const auto loop = [&bench](const std::string &keys) {
        bench.Empty();
        bench.lua.Run("for i = 1, 10000 do f.AddToConnMetrics(" + keys + "[i], '', 1) end");
        return bench.lua.Time("local add, keys = f.AddToConnMetrics, " + keys +
                              " for _ = 1, 20 do for i = 1, 10000 do add(keys[i], '', 1) end end");
    };
    const auto times = MedianTimes(kRounds, {[&] { return loop("hostile"); }, [&] { return loop("harmless"); }});
    report.Add("AddToConnMetrics, present key of 10,000 made to collide, to random keys", times[0] / times[1],
               "time ratio", "<= 1.5");
    bench.Empty();
}

void BenchNewKeys(ModuleBench &bench, Report &report) {
    const auto times = MedianTimes(kRounds, {[&] {
                                                 bench.Empty();
                                                 return bench.lua.Time("fill(f.AddToConnMetrics, 1, 10000)");
                                             },
                                             [&] {
                                                 bench.lua.Run("peer.clear()");
                                                 return bench.lua.Time("fill(peer.add, 1, 10000)");
                                             }});
    report.Add("AddToConnMetrics, new keys up to 10,000, to pure Lua", times[0] / times[1], "time ratio", "<= 3");
    bench.Empty();
}

struct PlainValue {
    std::wstring text;
    std::uint32_t count;
};
using PlainMap = std::map<std::wstring, PlainValue>;

PlainMap PlainEntries(ModuleBench &bench, int first, int last) {
    PlainMap map;
    lua_State *const L = bench.lua;
    for (int i = first; i <= last; ++i) {
        lua_getglobal(L, "keys");
        lua_rawgeti(L, -1, i);
        lua_getglobal(L, "texts");
        lua_rawgeti(L, -1, i);
        const std::string key = lua_tostring(L, -3);
        const std::string text = lua_tostring(L, -1);
        lua_pop(L, 4);
        map.emplace(std::wstring(key.begin(), key.end()), PlainValue{std::wstring(text.begin(), text.end()), 1});
    }
    return map;
}

/// A naive merge: look up, add or insert a copy while there is space, then empty the source.
double TimePlainMerge(PlainMap merged, PlainMap staging) {
    const double start = Now();
    for (const auto &[key, value] : staging) {
        const auto found = merged.find(key);
        if (found != merged.end())
            found->second.count += value.count;
        else if (merged.size() < 10000)
            merged.emplace(key, value);
    }
    staging.clear();
    return Now() - start;
}

void BenchFold(ModuleBench &bench, Report &report) {
    const PlainMap plainMerged = PlainEntries(bench, 1, 10000);
    const PlainMap plainStaging = PlainEntries(bench, 5001, 15000);
    const auto times = MedianTimes(kRounds, {[&] {
                                                 bench.Empty();
                                                 bench.lua.Run("fill(f.AddToConnMetrics, 1, 10000)");
                                                 bench.Fold();
                                                 bench.lua.Run("fill(f.AddToConnMetrics, 5001, 15000)");
                                                 bench.LetTheFoldComeDue();
                                                 return bench.lua.Time("f.UpdateConnMetrics()");
                                             },
                                             [&] { return TimePlainMerge(plainMerged, plainStaging); }});
    report.Add("UpdateConnMetrics, 10,000 onto 10,000, to plain std::map", times[0] / times[1], "time ratio", "<= 1.5");
    bench.Empty();
}

void BenchRows(ModuleBench &bench, Report &report) {
    bench.lua.Run("peer.clear() fill(peer.add, 1, 10000) prepare(peer.rows())");
    const auto times = MedianTimes(kRounds, {[&] {
                                                 bench.lua.Run("fill(f.AddToConnMetrics, 1, 10000)");
                                                 bench.Fold();
                                                 return bench.lua.Time("assert(#f.GetConnMetrics() == 10000)");
                                             },
                                             [&] { return bench.lua.Time("assert(#peer.rows() == 10000)"); },
                                             [&] { return bench.lua.Time("assert(#build() == 10000)"); }});
    report.Add("GetConnMetrics, 10,000 rows, pure Lua to it", times[1] / times[0], "times faster", ">= 4");
    report.Add("GetConnMetrics, 10,000 rows, to building them from ready values", times[0] / times[2], "time ratio",
               "<= 1.6");
}

/// The module with its memory counted, and a clock that is advanced explicitly.
struct CountedModule {
    CountedModule() : simulation({.registry = false, .folders = false, .balance = true}) {
        simulation.GetClock().Step();
        lua.Run("require 'fc' f = SLB.filter");
        for (const wchar_t *name : {L"fc.dll", L"" FC_WX_DLL, L"libstdc++-6.dll"})
            simulation.Attach(GetModuleHandleW(name));
    }

    void Fold() {
        // The time of the last fold lies in the future that the other measurements have simulated.
        simulation.GetClock().Advance(std::chrono::hours(24));
        lua.Run("f.UpdateConnMetrics()");
    }

    Simulator::Simulation simulation;
    Simulator::Balance &balance = simulation.GetBalance();
    LuaBench lua;
};

/// What the module allocates for 10,000 keys, without Lua's own memory.
void BenchMemory(CountedModule &module, Report &report) {
    auto &[simulation, balance, lua] = module;
    lua.Run(kTraffic);

    const std::size_t empty = balance.Take().bytes;
    lua.Run("fill(f.AddToConnMetrics, 1, 10000)");
    const std::size_t staging = balance.Take().bytes - empty;
    module.Fold();
    const std::size_t merged = balance.Take().bytes - empty;

    const double payload = lua.Number("payload()") * 10000;
    report.Add("memory of 10,000 keys in staging, to their strings and counts", static_cast<double>(staging) / payload,
               "bytes ratio", "<= 1.6");
    report.Add("memory of 10,000 keys in the result, to their strings and counts",
               static_cast<double>(merged) / payload, "bytes ratio", "<= 1.6");
    report.Add("bytes per key in staging", static_cast<double>(staging) / 10000, "bytes");
    lua.Run("f.GetConnMetrics()");
}

/// The peak memory of Lua and the module, from adding a text of many short lines to the end of its drain.
void BenchDrainMemory(CountedModule &module, Report &report) {
    constexpr double kTextBytes = 4 * 1024 * 1024;
    auto &[simulation, balance, lua] = module;
    simulation.Attach(GetModuleHandleW(nullptr));  // this program allocates Lua's memory
    lua.Run("text = ('x\\n'):rep(2 * 1024 * 1024) collectgarbage()");
    const std::size_t before = balance.Take().bytes;
    balance.ResetPeak();
    lua.Run("f.AddToConnMetrics('key', text, 1)");
    module.Fold();
    lua.Run("assert(#f.GetConnMetrics() == 1)");
    report.Add("peak memory of draining a text of 2,097,152 lines, to the text",
               static_cast<double>(balance.Take().peakBytes - before) / kTextBytes, "bytes ratio", "<= 4");
}

}  // namespace

void BenchConnMetrics(Report &report) {
    {
        ModuleBench bench;
        BenchPresentKeys(bench, report);
        BenchHostileKeys(bench, report);
        BenchNewKeys(bench, report);
        BenchFold(bench, report);
        BenchRows(bench, report);
    }
    CountedModule module;
    BenchMemory(module, report);
    BenchDrainMemory(module, report);
}
