// The examples of docs/lua-functions.md, docs/installation.md and docs/package.md, run unchanged by fc-host.exe.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "HostProcess.h"

namespace {

/// A block of Lua, and its output: the text block right below it, or nothing.
struct DocumentedExample {
    std::string code;
    std::string output;
};

struct DocumentSection {
    std::string name;
    std::vector<DocumentedExample> examples;
};

/// Reads a document line by line.
class SectionReader {
public:
    /// @param heading  how the heading of a section begins; everything up to the first one is skipped.
    explicit SectionReader(std::string heading) : m_heading(std::move(heading)) {}

    std::vector<DocumentSection> Read(const std::string &text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            Take(line);
        return std::move(m_sections);
    }

private:
    void Take(const std::string &line) {
        if (line.starts_with("```"))
            TakeFence(line.substr(3));
        else if (m_block != nullptr)
            *m_block += line + "\n";
        else if (!m_isFenced && line.starts_with(m_heading))
            m_sections.push_back({line.substr(m_heading.size()), {}});
        if (!m_isFenced && !line.empty() && !line.starts_with("```"))
            m_isBelowExample = false;
    }

    void TakeFence(const std::string &language) {
        m_block = nullptr;
        m_isFenced = !m_isFenced;
        if (!m_isFenced)
            return;
        if (language == "lua") {
            ASSERT_FALSE(m_sections.empty()) << "an example before all sections";
            m_block = &m_sections.back().examples.emplace_back().code;
        } else if (language == "text") {
            ASSERT_TRUE(m_isBelowExample) << m_sections.back().name << ": an output without its example";
            m_block = &m_sections.back().examples.back().output;
        }
        m_isBelowExample = language == "lua";
    }

    std::string m_heading;
    std::vector<DocumentSection> m_sections;
    std::string *m_block = nullptr;  ///< The block that lines are added to.
    bool m_isFenced = false;
    bool m_isBelowExample = false;
};

std::vector<DocumentSection> SectionsOf(const char *document, const char *heading) {
    return SectionReader(heading).Read(TextOfFile(TestData(document).wstring()));
}

std::vector<DocumentSection> FunctionSections() {
    return SectionsOf("docs/lua-functions.md", "### ");
}

std::vector<DocumentSection> InstallationSections() {
    return SectionsOf("docs/installation.md", "## ");
}

std::string WithoutCarriageReturns(std::string text) {
    std::erase(text, '\r');
    return text;
}

/// Runs the examples, and compares their output. @return how many there were.
std::size_t RunExamples(const std::vector<DocumentSection> &sections) {
    std::size_t count = 0;
    for (const DocumentSection &section : sections) {
        for (const DocumentedExample &example : section.examples) {
            const HostRun run = RunScript("require \"fc\"\n" + example.code, {L"--quiet", L"--clock", L"steps"});
            EXPECT_EQ(run.exitCode, 0U) << section.name << ": " << run.err;
            EXPECT_EQ(WithoutCarriageReturns(run.out), example.output) << section.name;
            ++count;
        }
    }
    return count;
}

}  // namespace

TEST(LuaDocument, HasAnExampleForEachFunctionThatCallsIt) {
    const std::vector<DocumentSection> sections = FunctionSections();
    ASSERT_FALSE(sections.empty());
    for (const DocumentSection &section : sections) {
        const std::regex call("\\b" + section.name + " ?[({]");
        bool isCalled = false;
        for (const DocumentedExample &example : section.examples)
            isCalled = isCalled || std::regex_search(example.code, call);
        EXPECT_TRUE(isCalled) << section.name;
    }
}

TEST(LuaDocument, HasExamplesWithTheirActualOutput) {
    const std::vector<DocumentSection> sections = FunctionSections();
    ASSERT_FALSE(sections.empty());
    EXPECT_GE(RunExamples(sections), sections.size());
}

TEST(PackageDocument, HasAnExampleWithItsActualOutput) {
    EXPECT_EQ(RunExamples(SectionsOf("docs/package.md", "## ")), 1U);
}

TEST(InstallationDocument, HasAnExampleWithItsActualOutput) {
    EXPECT_EQ(RunExamples(InstallationSections()), 1U);
}
