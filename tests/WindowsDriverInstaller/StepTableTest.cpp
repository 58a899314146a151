// The table of docs/steps.md, compared with the names of the steps and the limits with which the driver threads begin
// them.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <wx/string.h>

#include "TestData.h"
#include "WindowsDriverInstaller/threads/Steps.h"

namespace {

/// A row of the table; texts as they stand in the file.
struct StepRow {
    std::string limit;
    bool isSilent = false;  ///< In italics.
};
using StepRows = std::map<std::string, StepRow>;

std::string ReadWhole(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << "no " << path.string();
    return {std::istreambuf_iterator<char>(file), {}};
}

StepRows DocumentedSteps() {
    const std::string text = ReadWhole(TestData("docs/steps.md"));
    const std::string table = text.substr(text.find("## All steps"));
    const std::regex row(R"(\n\| (\*?)`(\w+)`\*? \| (\w+) \|)");
    StepRows rows;
    for (std::sregex_iterator match(table.begin(), table.end(), row), end; match != end; ++match)
        EXPECT_TRUE(rows.emplace((*match)[2], StepRow{(*match)[3], (*match)[1].length() != 0}).second)
            << "listed twice: " << (*match)[2];
    return rows;
}

/// The steps that the driver threads begin.
std::set<std::string> BegunSteps() {
    const std::regex begins(R"((?:StartStep|CallInStep)\(([A-Z]\w+)[,)])");
    std::set<std::string> steps;
    for (const auto &entry :
         std::filesystem::recursive_directory_iterator(TestData("plugins/filter/WindowsDriverInstaller"))) {
        if (!entry.is_regular_file())
            continue;
        const std::string text = ReadWhole(entry.path());
        for (std::sregex_iterator match(text.begin(), text.end(), begins), end; match != end; ++match)
            steps.insert((*match)[1]);
    }
    return steps;
}

std::string NameOf(std::uint32_t step) {
    return wxString(StepName(step)).utf8_string();
}

TEST(StepTable, ListsEachStepAndNoOther) {
    const StepRows rows = DocumentedSteps();
    std::set<std::string> names;
    for (std::uint32_t step = 0; NameOf(step) != "<UnknownStep>"; ++step)
        names.insert(NameOf(step));
    EXPECT_EQ(names.size(), 22U);
    for (const std::string &name : names)
        EXPECT_TRUE(rows.contains(name)) << "not in the table: " << name;
    for (const auto &[name, row] : rows)
        EXPECT_TRUE(names.contains(name)) << "not a step: " << name;
}

TEST(StepTable, ListsTheLimitWithWhichEachStepBegins) {
    const StepRows rows = DocumentedSteps();
    const std::set<std::string> begun = BegunSteps();
    EXPECT_EQ(begun.size(), 20U);
    for (std::uint32_t step = 0; step <= StoppingWfpCalloutDriver; ++step) {
        const auto row = rows.find(NameOf(step));
        ASSERT_NE(row, rows.end()) << NameOf(step);
        const std::uint32_t limit = StepLimitSeconds(step);
        EXPECT_EQ(row->second.limit, limit == 0 ? "none" : std::to_string(limit)) << NameOf(step);
        EXPECT_EQ(begun.contains(NameOf(step)), limit != 0) << NameOf(step);
    }
}

TEST(StepTable, ListsTheUnloggedStepsInItalics) {
    const StepRows rows = DocumentedSteps();
    for (std::uint32_t step = 0; step <= StoppingWfpCalloutDriver; ++step) {
        const auto row = rows.find(NameOf(step));
        ASSERT_NE(row, rows.end()) << NameOf(step);
        EXPECT_EQ(row->second.isSilent, IsSilentStep(step)) << NameOf(step);
    }
}

}  // namespace
