#include "Nearest.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <numeric>
#include <utility>

namespace {

constexpr std::size_t kMostNames = 3;
/// A shorter part of a name says too little.
constexpr std::size_t kShortestPart = 4;

std::string LowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

/// How many characters have to be inserted, removed or replaced, or exchanged with the next one.
std::size_t Distance(std::string_view from, std::string_view to) {
    std::vector<std::vector<std::size_t>> steps(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
    std::iota(steps[0].begin(), steps[0].end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        steps[i][0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t replaced = steps[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            steps[i][j] = std::min({replaced, steps[i - 1][j] + 1, steps[i][j - 1] + 1});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
                steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
        }
    }
    return steps.back().back();
}

std::string_view WithoutInterface(std::string_view name) {
    const std::size_t colons = name.find("::");
    return colons == name.npos ? name : name.substr(colons + 2);
}

/// The less the nearer. Both in lower case.
std::size_t Strangeness(std::string_view name, std::string_view known) {
    const std::size_t whole = Distance(name, known);
    if (name.find("::") != name.npos)
        return whole;
    const std::size_t nearest = std::min(whole, Distance(name, WithoutInterface(known)));
    const bool isPart = name.size() >= kShortestPart && known.find(name) != known.npos;
    return isPart ? std::min(nearest, std::size_t{1}) : nearest;
}

}  // namespace

std::vector<std::string> NearestNames(std::string_view name, const std::vector<std::string> &known) {
    const std::string wanted = LowerCase(name);
    const std::size_t most = std::max<std::size_t>(1, wanted.size() / 4);
    std::vector<std::pair<std::size_t, std::string>> candidates;
    for (const std::string &other : known) {
        const std::size_t strangeness = Strangeness(wanted, LowerCase(other));
        if (strangeness <= most)
            candidates.emplace_back(strangeness, other);
    }
    std::sort(candidates.begin(), candidates.end());
    std::vector<std::string> names;
    for (std::size_t i = 0; i < std::min(candidates.size(), kMostNames); ++i)
        if (candidates[i].first <= candidates.front().first + 1)
            names.push_back(candidates[i].second);
    return names;
}

std::string Suggestion(std::string_view name, const std::vector<std::string> &known) {
    const std::vector<std::string> names = NearestNames(name, known);
    if (names.empty())
        return {};
    std::string text = "; did you mean " + names.front();
    for (std::size_t i = 1; i < names.size(); ++i)
        text += (i + 1 == names.size() ? " or " : ", ") + names[i];
    return text + "?";
}
