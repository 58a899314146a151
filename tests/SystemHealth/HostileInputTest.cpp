// Configuration files and policies that nobody would write: noise, and valid ones that were corrupted.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>
#include <utility>

#include "ConfigurationFixture.h"
#include "FcModule.h"
#include "SeededRandom.h"
#include "WindowsFunctions.h"
#include "vta_core_control.h"

namespace {

/// Generates random inputs, reproducible by the seed.
class InputMaker {
public:
    explicit InputMaker(const std::mt19937 &random) : m_random(random) {}

    /// A random number from 0 up to, but not including, `end`.
    std::size_t Below(std::size_t end) { return m_random() % end; }

    template <class Choices>
    const auto &OneOf(const Choices &choices) {
        return choices[Below(std::size(choices))];
    }

    std::string ConfigText() { return Below(4) == 0 ? Noise() : Spoilt(GoodConfig(), kConfigTokens); }
    std::string PolicyText() { return Below(4) == 0 ? Noise() : Spoilt(GoodPolicy(), kPolicyTokens); }

private:
    static inline const std::vector<std::string> kNumbers{
        "0",     "-0",    "1",   "-1",   "0.5",    "20",    "50",  "200",    "200.1",    "65535",
        "65536", "1e999", "1e5", "-1e9", "1e-320", "0x1p4", "1e+", "100000", "10000000", "12345678901234567890123",
        ".5",    "25",    "60"};
    static inline const std::vector<std::string> kConfigTokens{"nan",
                                                               "inf",
                                                               "-",
                                                               "SYSTEM_",
                                                               "=",
                                                               "\n",
                                                               "\r\n",
                                                               "\x1A",
                                                               " ",
                                                               "SYSTEM_DISABLE_FAIL_OPEN=1\n",
                                                               "%s%n",
                                                               "\xEF\xBB\xBF",
                                                               "SYSTEM_RUNQ_PCT_THRESHOLD=",
                                                               std::string(1, '\0'),
                                                               std::string(1020, 'x'),
                                                               std::string(2046, '0')};
    static inline const std::vector<std::string> kPolicyTokens{"null",
                                                               "true",
                                                               "\"",
                                                               "{",
                                                               "}",
                                                               "[",
                                                               "]",
                                                               ",",
                                                               ":",
                                                               "\\u0000",
                                                               "\\ud83d\\ude00",
                                                               "\\ud800",
                                                               "\\",
                                                               "\xFF",
                                                               "\xC3",
                                                               "%s%n",
                                                               "{\"value\": 5}",
                                                               "\"SYS_THR_RUNQ\": ",
                                                               std::string(1, '\0'),
                                                               "\xEF\xBB\xBF",
                                                               std::string(1100, '['),
                                                               "\"value\": ",
                                                               "1e999",
                                                               "1E",
                                                               std::string(300, '9')};

    char Byte() { return static_cast<char>(Below(256)); }

    std::string Noise() {
        std::string text(1 + Below(Below(16) == 0 ? 3000 : 120), '\0');
        for (char &c : text)
            c = Byte();
        return text;
    }

    std::string GoodConfig() {
        std::string text;
        for (std::size_t lines = Below(8); lines > 0; --lines)
            text += OneOf(kSettings).line + OneOf(kNumbers) + "\n";
        return text;
    }

    std::string GoodPolicy() {
        std::string policy = "{";
        for (std::size_t members = Below(8); members > 0; --members)
            policy += (policy.size() == 1 ? "" : ", ") + Member(OneOf(kSettings), OneOf(kNumbers));
        return policy + "}";
    }

    /// The text with none to three changes; not empty.
    std::string Spoilt(std::string text, const std::vector<std::string> &tokens) {
        for (std::size_t changes = Below(4); changes > 0; --changes)
            Change(text, tokens);
        return text.empty() ? " " : text;
    }

    void Change(std::string &text, const std::vector<std::string> &tokens) {
        const std::size_t place = Below(text.size() + 1);
        const std::size_t length = Below(20);
        switch (Below(5)) {
            case 0:
                text.insert(place, OneOf(tokens));
                break;
            case 1:
                text.erase(place, length);
                break;
            case 2:
                text.insert(Below(text.size() + 1), text.substr(place, length));
                break;
            case 3:
                text.replace(place, 1, 1, Byte());
                break;
            default:
                text.resize(place);
        }
    }

    std::mt19937 m_random;
};

/// The module reads its configuration from memory, since files would take most of the time, and finds the file that it
/// would write locked, except in some iterations.
class HostileInput : public ConfigurationFixture {
protected:
    static constexpr int kInputs = 100'000;
    static constexpr int kInputsToWarmUp = 500;
    static constexpr int kWrittenOneIn = 500;
    static constexpr int kForgetEach = 256;
    /// The C library keeps the memory of long numbers for later ones. A leak in one of a thousand inputs exceeds this.
    static constexpr std::size_t kKeptAtMost = 64;

    HostileInput() {
        WriteConfig("");
        m_config = _wfopen(ConfigPath().c_str(), L"r");
        PutFiles();
        VtaCore::Control::EnableTrace("*", false);
        wxLog::SetVerbose(false);
        lua_getglobal(lua, "f");
        lua_getfield(lua, -1, "CheckSystemHealthMetrics");
        lua_remove(lua, -2);
        std::cout << HowToRepeat() << std::endl;
    }

    ~HostileInput() override { (void)std::fclose(std::exchange(m_config, nullptr)); }

    void SetUp() override {
        ASSERT_NE(m_config, nullptr);
        ASSERT_TRUE(lua_isfunction(lua, -1));
    }

    /// Calls `one`, which runs an iteration on a new input and returns its action, as often as configured.
    template <class One>
    void RunAll(One one) {
        for (int i = 0; i < kInputsToWarmUp; ++i)
            one();
        const Simulator::BalanceSnapshot before = Settled();
        for (int i = 0; i < kInputs && !HasFailure(); ++i) {
            Prepare(i);
            ++m_actions.at(static_cast<std::size_t>(one()));
        }
        balance().StopGuarding();
        const Simulator::BalanceSnapshot after = Settled();
        EXPECT_LE(after.items.size(), before.items.size() + kKeptAtMost) << balance().Difference(before, after);
        Tell();
    }

    /// One iteration. @return its action.
    int Run(const std::string &policy) {
        const int top = lua_gettop(lua);
        lua_pushvalue(lua, -1);
        lua_getglobal(lua, "dom");
        lua_pushstring(lua, inputs.OneOf(kStates));
        lua_pushlstring(lua, policy.data(), policy.size());
        EXPECT_EQ(lua_pcall(lua, 3, LUA_MULTRET, 0), LUA_OK) << lua_tostring(lua, -1);
        EXPECT_EQ(lua_gettop(lua), top + 1);
        lua_getfield(lua, -1, "action");
        const int action = static_cast<int>(lua_tointegerx(lua, -1, nullptr));
        EXPECT_TRUE(lua_isnumber(lua, -1) && action >= kNormal && action <= kDisabled) << action;
        lua_settop(lua, top);
        return action;
    }

    /// The configuration file from now on.
    void Replace(const std::string &text) { m_text = text; }

    InputMaker inputs{SeededRandom()};

private:
    static constexpr const char *kStates[] = {"Activated", "Deactivated", "Deactivated", "Activated?"};

    void PutFiles() {
        namespace System = Simulator::System;
        Simulator::FunctionSet &functions = simulation().Functions();
        functions.Put<System::fopen>([this](const auto &next, const char *path, const char *mode) {
            return *mode == 'r' ? Config() : m_writes ? next(path, mode) : Refused();
        });
        functions.Put<System::_wfopen>([this](const auto &next, const wchar_t *path, const wchar_t *mode) {
            return *mode == L'r' ? Config() : m_writes ? next(path, mode) : Refused();
        });
        functions.Put<System::fgets>([this](const auto &next, char *line, int size, std::FILE *file) {
            return file == m_config ? Line(line, size) : next(line, size, file);
        });
        functions.Put<System::fclose>(
            [this](const auto &next, std::FILE *file) { return file == m_config ? 0 : next(file); });
        for (const std::string &name : functions.Names())
            simulation().GetJournal().Mute(name);
    }

    std::FILE *Config() {
        m_place = 0;
        return m_config;
    }
    /// As fgets reads from m_text.
    char *Line(char *line, int size) {
        if (m_place == m_text.size())
            return nullptr;
        const std::size_t feed = m_text.find('\n', m_place);
        const std::size_t end = feed == std::string::npos ? m_text.size() : feed + 1;
        const std::size_t length = std::min(end - m_place, static_cast<std::size_t>(size) - 1);
        m_text.copy(line, length, m_place);
        line[length] = '\0';
        m_place += length;
        return line;
    }
    static std::FILE *Refused() {
        errno = EACCES;
        return nullptr;
    }

    void Prepare(int i) {
        constexpr double queues[] = {0, 0.4, 30, 1000};
        machine().processorQueue = inputs.OneOf(queues);
        driver().present = inputs.Below(4) != 0;
        driver().scanCounters.fill(inputs.Below(4) * 1'000'000'000'000);
        AdvanceSeconds(static_cast<std::int64_t>(inputs.Below(64) == 0 ? inputs.Below(100'000) : inputs.Below(10)));
        m_writes = i % kWrittenOneIn == 0;
        balance().StopGuarding();
        if (i % m_guardedOneIn == 0)
            balance().Guard({.addressSpaceBytes = std::size_t{256} << 30});
        if (i % kForgetEach == 0)
            Forget();
    }

    void Forget() {
        (void)log.Take();
        driver().calls.clear();
    }

    /// What remains after an iteration that leaves as little as possible.
    Simulator::BalanceSnapshot Settled() {
        m_writes = false;
        Replace("");
        (void)Run("");
        Forget();
        lua_gc(lua, LUA_GCCOLLECT, 0);
        return balance().Take();
    }

    void Tell() {
        std::cout << kInputs << " inputs, " << (kInputs + m_guardedOneIn - 1) / m_guardedOneIn
                  << " of them on the guarded heap; actions";
        for (std::size_t action = 0; action < m_actions.size(); ++action) {
            std::cout << " " << action << ": " << m_actions[action];
            EXPECT_GT(m_actions[action], kInputs / 100) << "too few results with action " << action;
        }
        std::cout << std::endl;
    }

    /// Selects the iterations that run on the guarded heap: each takes some milliseconds more, so that all of them
    /// would take ten minutes.
    static int GuardedOneIn() {
        constexpr int otherwise = 40;
        const char *const text = std::getenv("FC_GUARDED_ONE_IN");
        return text != nullptr ? std::max(1, std::stoi(text)) : otherwise;
    }

    const int m_guardedOneIn = GuardedOneIn();
    std::FILE *m_config = nullptr;
    std::string m_text;
    std::size_t m_place = 0;
    bool m_writes = false;
    std::array<int, kDisabled + 1> m_actions{};
};

TEST_F(HostileInput, ConfigurationFilesOfAnyContentAreHarmless) {
    RunAll([this] {
        const std::string text = inputs.ConfigText();
        Replace(text);
        const int action = Run("");
        if (HasFailure())
            ADD_FAILURE() << testing::PrintToString(text);
        return action;
    });
}

TEST_F(HostileInput, PoliciesOfAnyContentAreHarmless) {
    RunAll([this] {
        const std::string policy = inputs.PolicyText();
        const int action = Run(policy);
        if (HasFailure())
            ADD_FAILURE() << testing::PrintToString(policy);
        return action;
    });
}

}  // namespace
