// docs/host.md compared with the actual table `host`.
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <windows.h>

#include "HostProcess.h"
#include "devkit/host/TraceComponents.h"

namespace {

using Names = std::set<std::string>;

Names Documented() {
    const std::string text = TextOfFile(TestData("docs/host.md").wstring());
    const std::regex heading("(^|\n)### `([a-zA-Z_.]+)");
    Names names;
    for (std::sregex_iterator match(text.begin(), text.end(), heading), end; match != end; ++match)
        names.insert((*match)[2]);
    return names;
}

/// The names, including those in its tables; pairs visits their fields as well.
Names Real() {
    const HostRun run = RunScript(R"(
        local function list(prefix, t)
            for name, value in pairs(t) do
                if type(value) == 'table' and getmetatable(value) then
                    list(prefix .. name .. '.', value)
                else
                    print(prefix .. name)
                end
            end
        end
        list('host.', host)
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    std::istringstream lines(run.out);
    Names names;
    for (std::string line; std::getline(lines, line);)
        names.insert(line);
    return names;
}

/// Programs started while it exists run in the folder, and have their temporary files there.
class Workplace {
public:
    explicit Workplace(const std::filesystem::path &folder) : m_folder(std::filesystem::current_path()) {
        std::filesystem::current_path(folder);
        for (std::size_t i = 0; i < std::size(kNames); ++i) {
            m_values[i] = Value(kNames[i]);
            SetEnvironmentVariableW(kNames[i], folder.c_str());
        }
    }
    ~Workplace() {
        for (std::size_t i = 0; i < std::size(kNames); ++i)
            SetEnvironmentVariableW(kNames[i], m_values[i] ? m_values[i]->c_str() : nullptr);
        std::error_code ignored;  // the tests locate their files by absolute paths
        std::filesystem::current_path(m_folder, ignored);
    }
    Workplace(const Workplace &) = delete;
    Workplace &operator=(const Workplace &) = delete;

private:
    static constexpr const wchar_t *kNames[] = {L"TEMP", L"TMP"};

    static std::optional<std::wstring> Value(const wchar_t *name) {
        std::wstring value(MAX_PATH * 4, L'\0');
        const DWORD length = GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size()));
        if (length == 0 || length >= value.size())
            return std::nullopt;
        value.resize(length);
        return value;
    }

    std::filesystem::path m_folder;
    std::optional<std::wstring> m_values[std::size(kNames)];
};

}  // namespace

TEST(HostDocument, DescribesExactlyWhatIsInTheTable) {
    const Names documented = Documented();
    const Names real = Real();
    ASSERT_GT(real.size(), 30U);
    for (const std::string &name : real)
        EXPECT_EQ(documented.count(name), 1U) << "docs/host.md does not describe " << name;
    for (const std::string &name : documented)
        EXPECT_EQ(real.count(name), 1U) << "docs/host.md describes what is not there: " << name;
}

// Each example is run unchanged, on the clock for which it is written.
TEST(HostDocument, HasExamplesThatRun) {
    const std::string text = TextOfFile(TestData("docs/host.md").wstring());
    const std::string open = "```lua\n";
    int count = 0;
    for (std::size_t at = text.find(open); at != std::string::npos; at = text.find(open, at)) {
        at += open.size();
        const std::size_t end = text.find("```", at);
        const std::string example = text.substr(at, end - at);
        const TemporaryFolder folder;
        const Workplace workplace(folder.Path());
        const HostRun run =
            RunScript(example, {L"--quiet", L"--clock", L"steps", L"--report", folder.At(L"report.html")});
        EXPECT_EQ(run.exitCode, 0U) << example << run.err;
        ++count;
    }
    EXPECT_GE(count, 10);
}

TEST(TraceComponents, AreListedInThePagesThatTellOfThem) {
    ASSERT_EQ(ModuleTraceComponents().size(), 9U);
    for (const char *name : {"docs/lua-functions.md", "docs/support.md", "docs/host.md"}) {
        const std::string text = TextOfFile(TestData(name).wstring());
        for (const std::string &component : ModuleTraceComponents())
            EXPECT_NE(text.find("`" + component + "`"), std::string::npos) << name << " lacks " << component;
    }
    EXPECT_NE(TextOfFile(TestData("docs/lua-functions.md").wstring()).find("There are nine components:"),
              std::string::npos);
}
