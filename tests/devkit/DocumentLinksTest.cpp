// The documents' links to files beside them.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "HostProcess.h"

namespace {

const std::filesystem::path kDocuments = FC_DOCUMENTS;

std::vector<std::filesystem::path> Documents() {
    std::vector<std::filesystem::path> documents{kDocuments.parent_path() / "README.md"};
    for (const auto &entry : std::filesystem::directory_iterator(kDocuments))
        if (entry.path().extension() == ".md")
            documents.push_back(entry.path());
    return documents;
}

/// What links lead to, without the place in a document; those to other hosts and within a page are none.
std::vector<std::string> RelativeLinks(const std::string &text) {
    const std::regex link(R"(\]\(([^)#:\s]+)(#[^)\s]*)?\))");
    std::vector<std::string> links;
    for (std::sregex_iterator match(text.begin(), text.end(), link), end; match != end; ++match)
        links.push_back((*match)[1]);
    return links;
}

TEST(DocumentLinks, LeadToFilesThatExist) {
    std::size_t count = 0;
    for (const std::filesystem::path &document : Documents()) {
        for (const std::string &link : RelativeLinks(ReadFile(document.wstring()))) {
            EXPECT_TRUE(std::filesystem::exists(document.parent_path() / link))
                << document.string() << " links to " << link;
            ++count;
        }
    }
    EXPECT_GE(count, 10U);
}

}  // namespace
