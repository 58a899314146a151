// The links of the documents to files, and to headings in them.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "HostProcess.h"

namespace {

std::vector<std::filesystem::path> Documents() {
    std::vector<std::filesystem::path> documents{TestData("README.md"), TestData("CONTRIBUTING.md"),
                                                 TestData("CHANGELOG.md")};
    for (const auto &entry : std::filesystem::directory_iterator(TestData("docs")))
        if (entry.path().extension() == ".md")
            documents.push_back(entry.path());
    return documents;
}

/// The targets of links, without the heading; those to other hosts and within a page are left out.
std::vector<std::string> RelativeLinks(const std::string &text) {
    const std::regex link(R"(\]\(([^)#:\s]+)(#[^)\s]*)?\))");
    std::vector<std::string> links;
    for (std::sregex_iterator match(text.begin(), text.end(), link), end; match != end; ++match)
        links.push_back((*match)[1]);
    return links;
}

struct PlaceLink {
    std::string file;  ///< Empty for the document itself.
    std::string place;
};

std::vector<PlaceLink> LinksToPlaces(const std::string &text) {
    const std::regex link(R"(\]\(([\w/.-]*\.md)?#([^)\s]+)\))");
    std::vector<PlaceLink> links;
    for (std::sregex_iterator match(text.begin(), text.end(), link), end; match != end; ++match)
        links.push_back({(*match)[1], (*match)[2]});
    return links;
}

/// How a page names the anchor of a heading: in lower case, with hyphens for spaces, without other punctuation.
std::string PlaceOf(const std::string &heading) {
    std::string place;
    for (const char sign : heading) {
        const int character = static_cast<unsigned char>(sign);
        if (sign == ' ')
            place += '-';
        else if (std::isalnum(character) != 0 || sign == '-' || sign == '_' || character >= 0x80)
            place += static_cast<char>(std::tolower(character));
    }
    return place;
}

std::set<std::string> Places(const std::string &text) {
    std::set<std::string> places;
    std::istringstream lines(text);
    bool isFenced = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("```"))
            isFenced = !isFenced;
        else if (!isFenced && line.starts_with('#'))
            places.insert(PlaceOf(line.substr(line.find_first_not_of("# "))));
    }
    return places;
}

TEST(DocumentLinks, PointToFilesThatExist) {
    std::size_t count = 0;
    for (const std::filesystem::path &document : Documents()) {
        for (const std::string &link : RelativeLinks(TextOfFile(document.wstring()))) {
            EXPECT_TRUE(std::filesystem::exists(document.parent_path() / link))
                << document.string() << " links to " << link;
            ++count;
        }
    }
    EXPECT_GE(count, 10U);
}

TEST(DocumentLinks, PointToHeadingsThatExist) {
    std::size_t count = 0;
    for (const std::filesystem::path &document : Documents()) {
        const std::string text = TextOfFile(document.wstring());
        for (const PlaceLink &link : LinksToPlaces(text)) {
            const std::string there =
                link.file.empty() ? text : TextOfFile((document.parent_path() / link.file).wstring());
            EXPECT_TRUE(Places(there).contains(link.place))
                << document.string() << " links to " << link.file << "#" << link.place;
            ++count;
        }
    }
    EXPECT_GE(count, 30U);
}

/// All documents that can be reached by links from one of them. Those of packaging/README.md start elsewhere, in the
/// package, and are not followed here.
std::set<std::filesystem::path> ReachableFrom(const std::filesystem::path &start) {
    std::set<std::filesystem::path> reached;
    std::vector<std::filesystem::path> ahead{std::filesystem::canonical(start)};
    while (!ahead.empty()) {
        const std::filesystem::path document = ahead.back();
        ahead.pop_back();
        if (!reached.insert(document).second)
            continue;
        for (const std::string &link : RelativeLinks(TextOfFile(document.wstring()))) {
            const std::filesystem::path next = document.parent_path() / link;
            if (link.ends_with(".md") && std::filesystem::exists(next))
                ahead.push_back(std::filesystem::canonical(next));
        }
    }
    return reached;
}

TEST(DocumentLinks, ReachEveryDocumentFromTheIndex) {
    const std::set<std::filesystem::path> reached = ReachableFrom(TestData("docs/README.md"));
    for (const std::filesystem::path &document : Documents())
        EXPECT_TRUE(reached.contains(std::filesystem::canonical(document)))
            << document.string() << " cannot be reached from docs/README.md";
}

TEST(DocumentLinks, ReachTheIndexFromTheFirstPage) {
    EXPECT_TRUE(ReachableFrom(TestData("README.md")).contains(std::filesystem::canonical(TestData("docs/README.md"))));
}

}  // namespace
