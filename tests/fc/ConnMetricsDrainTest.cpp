// Drains of connection metrics on other threads, without memory, and interrupted ones.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "CodePage.h"
#include "ConnMetricsFixture.h"

namespace {

// ---- Threads

TEST_F(ConnMetrics, DrainsOnAnotherThreadLoseAndDuplicateNothing) {
    std::atomic<bool> finished{false};
    double drained = 0;
    std::thread drainer([&] {
        LuaState own;
        Open(own);
        while (!finished) {
            own.Run("n = 0 for _, row in ipairs(SLB.filter.GetConnMetrics()) do n = n + row.count end");
            drained += std::stod(own.Eval("n"));
        }
    });
    for (int round = 0; round < 300; ++round) {
        lua.Run("for i = 1, 50 do add('key' .. i % 70, '', 1) end");
        Fold();
    }
    finished = true;
    drainer.join();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(drained + std::stod(lua.Eval("sum(rows)")), 300 * 50);
}

// ---- What is left behind

TEST_F(ConnMetrics, NothingIsLeftAfterADrainOnceTheStateIsClosed) {
    const auto cycle = [this] {
        LuaState own;
        Open(own);
        own.Run("for i = 1, 10500 do SLB.filter.AddToConnMetrics('key' .. i, 'flags\\t1\\nname\\t\\233' .. i, 1) end");
        AdvanceSeconds(61);
        own.Run("SLB.filter.UpdateConnMetrics()");
        own.Run("for i = 1, 500 do SLB.filter.AddToConnMetrics('other' .. i, '', 1) end");
        AdvanceSeconds(61);
        own.Run("SLB.filter.UpdateConnMetrics() assert(#SLB.filter.GetConnMetrics() == 10000)");
    };
    cycle();  // what the libraries allocate once and keep
    const Simulator::BalanceSnapshot before = balance().Take();
    cycle();
    EXPECT_GT(balance().Take().sequence, before.sequence + 50000) << "allocations are counted";
    EXPECT_EQ(balance().Difference(before, balance().Take()), "");
}

TEST_F(ConnMetrics, ABadArgumentLeaksNothing) {
    const auto badCalls = [this] {
        EXPECT_NE(lua.ErrorOf("f.AddToConnMetrics('key', {}, 1)"), "");
        EXPECT_NE(lua.ErrorOf("f.AddToConnMetrics('key', 'a', 'x')"), "");
        lua_gc(lua, LUA_GCCOLLECT, 0);
    };
    badCalls();
    const Simulator::BalanceSnapshot before = balance().Take();
    badCalls();
    EXPECT_EQ(balance().Difference(before, balance().Take()), "");
}

/// A Lua allocator that fails from the given request on.
struct ShortMemory {
    int left = 0;
    static void *Allocate(void *self, void *block, size_t oldSize, size_t newSize) {
        if (newSize == 0) {
            std::free(block);
            return nullptr;
        }
        if (newSize > oldSize || !block) {
            int &left = static_cast<ShortMemory *>(self)->left;
            if (left == 0)
                return nullptr;
            --left;
        }
        return std::realloc(block, newSize);
    }
};

TEST_F(ConnMetrics, WhereverLuaRunsOutOfMemoryTheErrorIsRaisedAndNoRowIsLost) {
    int failures = 0;
    for (int requests = 0;; ++requests) {
        SCOPED_TRACE("requests " + std::to_string(requests));
        lua.Run("for i = 1, 20 do add('key' .. i, 'flags\\t1\\nname\\tvalue' .. i) end");
        Fold();
        const Simulator::BalanceSnapshot before = balance().Take();
        int status = LUA_OK;
        {
            LuaState own;
            Open(own);
            own.Run("get = SLB.filter.GetConnMetrics");
            ShortMemory memory{requests};
            void *data = nullptr;
            const lua_Alloc ordinary = lua_getallocf(own, &data);
            lua_getglobal(own, "get");
            lua_setallocf(own, &ShortMemory::Allocate, &memory);
            status = lua_pcall(own, 0, 1, 0);
            EXPECT_TRUE(status == LUA_OK || std::strcmp(lua_tostring(own, -1), "not enough memory") == 0);
            EXPECT_TRUE(status == LUA_OK || status == LUA_ERRRUN) << "raised again, as an error of the function";
            lua_setallocf(own, ordinary, data);
            lua_setglobal(own, "rows");
            if (status == LUA_OK) {
                EXPECT_EQ(own.Eval("#rows"), "20");
                for (int i = 1; i <= 20; ++i)
                    EXPECT_EQ(own.Eval("rows[" + std::to_string(i) + "].count"), std::to_string(failures + 1));
            }
        }
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, balance().Take()))
            ADD_FAILURE() << item.size << " bytes are left by " << item.function;
        if (status == LUA_OK)
            break;
        ++failures;
    }
    EXPECT_GT(failures, 20);
    EXPECT_EQ(Drain(), "");
}

TEST_F(ConnMetrics, WhicheverAllocationFailsInADrainTheErrorIsRaisedAndNoRowIsLost) {
    // Texts for which the C++ part needs memory: in another encoding, and numbers that are not plain.
    const std::string beyondAscii = CharacterInCodePage().narrow;
    lua_pushlstring(lua, beyondAscii.data(), beyondAscii.size());
    lua_setglobal(lua, "beyondAscii");
    lua.Run("text = 'pid\\t' .. (' '):rep(100) .. '7\\nname\\t' .. beyondAscii:rep(1000) .. '\\n' .. ('n'):rep(200)");
    lua.Run("for i = 1, 5 do add('key' .. i, text) add('plain' .. i, 'cipher\\t0000000000000000009') end");
    Fold();
    unsigned failures = 0;
    for (bool hit = true; hit; ++failures) {
        SCOPED_TRACE("allocation " + std::to_string(failures + 1));
        lua_getglobal(lua, "f");
        lua_getfield(lua, -1, "GetConnMetrics");
        lua_gc(lua, LUA_GCCOLLECT, 0);
        const Simulator::BalanceSnapshot before = balance().Take();
        const auto fault = balance().FailAllocation(failures + 1, nullptr, GetCurrentThreadId());
        const int status = lua_pcall(lua, 0, 1, 0);
        hit = fault->Hit();
        balance().CancelAllocationFaults();
        // Lua retries when it is short of memory: not every failure fails the drain.
        if (status == LUA_OK) {
            ASSERT_EQ(lua_rawlen(lua, -1), 10U);
            lua_settop(lua, 0);
            lua.Run("for i = 1, 5 do add('key' .. i, text) add('plain' .. i, 'cipher\\t0000000000000000009') end");
            Fold();
            continue;
        }
        EXPECT_STREQ(lua_tostring(lua, -1), "not enough memory");
        lua_settop(lua, 0);
        lua_gc(lua, LUA_GCCOLLECT, 0);
        EXPECT_LE(balance().Take().blocks, before.blocks);
    }
    EXPECT_GT(failures, 10U);
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows .. ' ' .. sum(rows)"), "10 10");
    EXPECT_EQ(lua.Eval("rows[5].pid .. ' ' .. rows[10].cipher"), "7 9");
}

// ---- Interrupted drains

TEST_F(ConnMetrics, ADrainThatAFinalizerMakesFailLosesNoRow) {
    lua.Run("fill(1, 2000)");
    Fold();
    lua.Run("collectgarbage() setmetatable({}, {__gc = function() error('from a finalizer', 0) end})");
    EXPECT_EQ(lua.ErrorOf("f.GetConnMetrics()"), "error in __gc metamethod (from a finalizer)");
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows .. ' ' .. sum(rows)"), "2000 2000");
    EXPECT_EQ(Drain(), "");
}

TEST_F(ConnMetrics, ADrainThatAHookMakesFailLosesNoRow) {
    lua.Run(R"(
        -- The hook raises at the n-th event. When GetConnMetrics itself returns, the rows are out of its hands.
        function drain_with_hook(n)
            local seen = 0
            debug.sethook(function(event)
                local func = debug.getinfo(2, 'f').func
                if func == pcall or func == debug.sethook or (event == 'return' and func == f.GetConnMetrics) then
                    return
                end
                seen = seen + 1
                if seen == n then error('from a hook', 0) end
            end, 'cr')
            local ok, rows = pcall(f.GetConnMetrics)
            debug.sethook()
            return ok, rows
        end
        fill(1, 3)
    )");
    Fold();
    lua.Run(R"(
        failures = 0
        for n = 1, 100 do
            ok, rows = drain_with_hook(n)
            if ok then break end
            assert(rows == 'from a hook', rows)
            failures = failures + 1
        end
    )");
    EXPECT_EQ(lua.Eval("failures"), "3") << "at the calls of GetConnMetrics and of its builder, and when that returns";
    EXPECT_EQ(lua.Eval("ok and #rows .. ' ' .. sum(rows)"), "3 3");
}

TEST_F(ConnMetrics, AFinalizerMayUseTheModuleWithinADrain) {
    lua.Run("fill(1, 2000)");
    Fold();
    AdvanceSeconds(61);
    lua.Run(R"(
        collectgarbage()
        setmetatable({}, {__gc = function()
            within = #f.GetConnMetrics()
            add('key00001', 'name\tyoung', 5) add('aaa', 'name\tnew', 7)
            f.UpdateConnMetrics()
        end})
        rows = f.GetConnMetrics()
    )");
    EXPECT_EQ(lua.Eval("within .. ' ' .. #rows .. ' ' .. sum(rows)"), "0 2000 2000");
    EXPECT_EQ(Drain(), "count=7 name=\"new\"\ncount=5 name=\"young\"");
}

TEST_F(ConnMetrics, WhatWasFoldedDuringAFailedDrainIsAddedToTheRestoredRows) {
    lua.Run("fill(1, 2000)");
    Fold();
    AdvanceSeconds(61);
    lua.Run(R"(
        collectgarbage()
        setmetatable({}, {__gc = function()
            add('key00001', 'name\tyoung', 4294967295) add('aaa', 'name\tnew', 7) add('key00002', '', -2)
            f.UpdateConnMetrics()
            error('from a finalizer', 0)
        end})
    )");
    EXPECT_NE(lua.ErrorOf("f.GetConnMetrics()"), "");
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "2001");
    EXPECT_EQ(lua.Eval("show(rows[1])"), "count=7 name=\"new\"");
    EXPECT_EQ(lua.Eval("show(rows[2])"), "count=0 name=\"value\"") << "the older text, and counts wrap";
    EXPECT_EQ(lua.Eval("show(rows[3])"), "count=4294967295 name=\"value\"");
}

TEST_F(ConnMetrics, RowsRestoredByAFailedDrainTakePrecedenceOverThoseFoldedMeanwhile) {
    lua.Run("fill(1, 9999)");
    Fold();
    AdvanceSeconds(61);
    lua.Run(R"(
        collectgarbage()
        setmetatable({}, {__gc = function()
            add('aab', 'key\taab') add('aaa', 'key\taaa') add('key00001', '', 1)
            f.UpdateConnMetrics()
            error('from a finalizer', 0)
        end})
    )");
    EXPECT_NE(lua.ErrorOf("f.GetConnMetrics()"), "");
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows .. ' ' .. sum(rows)"), "10000 10001");
    EXPECT_EQ(lua.Eval("rows[1].key .. ' ' .. rows[2].count"), "aaa 2") << "one place was left: the first in order";
}

TEST_F(ConnMetrics, ASlowFinalizerWithinADrainDelaysNoOtherThread) {
    lua.Run("fill(1, 2000)");
    Fold();
    AdvanceSeconds(61);
    static std::atomic<bool> within{false};
    static std::atomic<bool> finished{false};
    within = finished = false;
    lua_register(lua, "take_long", [](lua_State *) {
        within = true;
        for (int i = 0; i < 6'000 && !finished; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return 0;
    });
    lua.Run("collectgarbage() setmetatable({}, {__gc = take_long})");
    std::thread other([this] {
        LuaState own;
        Open(own);
        while (!within)
            std::this_thread::yield();
        own.Run("f = SLB.filter f.AddToConnMetrics('other', '', 1) f.UpdateConnMetrics() rows = f.GetConnMetrics()");
        finished = true;
        EXPECT_EQ(own.Eval("#rows"), "1");
    });
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_TRUE(finished) << "the other thread waited for the finalizer";
    within = true;
    other.join();
    EXPECT_EQ(lua.Eval("#rows"), "2000");
}

TEST_F(ConnMetrics, ADrainOfManyLinesNeedsLittleMemoryBesideTheText) {
    constexpr std::size_t kBytes = 1024 * 1024;
    for (const std::string line : {"x\\n", "\\233\\n"}) {
        lua.Run("add('key', ('" + line + "'):rep(" + std::to_string(kBytes / 2) + "))");
        Fold();
        lua.Run("collectgarbage()");
        const std::size_t before = balance().Take().bytes;
        balance().ResetPeak();
        lua.Run("rows = f.GetConnMetrics()");
        EXPECT_LT(balance().Take().peakBytes - before, kBytes / 10) << line;
        EXPECT_EQ(lua.Eval("#rows"), "1");
    }
}

}  // namespace
