#include "TracedPlaces.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "TestData.h"

namespace {

using std::filesystem::path;

path ModuleSource(const std::string &file) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(TestData("plugins/filter"))) {
        if (entry.path().filename() == file)
            return entry.path();
    }
    return {};
}

/// From that line to the end of the statement.
std::string StatementAt(const std::string &file, int number) {
    std::ifstream source(ModuleSource(file));
    std::string statement;
    int current = 0;
    for (std::string line; std::getline(source, line);) {
        if (++current < number)
            continue;
        statement += line;
        if (line.find(';') != line.npos)
            break;
    }
    return statement;
}

bool IsOf(const TracedLine &line, const TracedPlace &place) {
    return line.message.starts_with(place.message);
}

bool IsAt(const TracedLine &line, const TracedPlace &place) {
    return IsOf(line, place) && line.function == place.function && line.file == place.file;
}

bool HasPlace(const TracedLine &line, const std::vector<TracedPlace> &places, decltype(&IsAt) isPlace) {
    return std::any_of(places.begin(), places.end(), [&](const TracedPlace &place) { return isPlace(line, place); });
}

void ExpectTracedAt(const TracedPlace &place, const std::vector<TracedLine> &lines) {
    std::set<int> numbers;
    for (const TracedLine &line : lines) {
        if (IsAt(line, place))
            numbers.insert(line.line);
    }
    EXPECT_FALSE(numbers.empty()) << place.message << " is not traced by " << place.function << " in " << place.file;
    const std::string &text = place.source.empty() ? place.message : place.source;
    for (const int number : numbers) {
        const std::string statement = StatementAt(place.file, number);
        EXPECT_NE(statement.find(text), statement.npos)
            << place.file << ":" << number << " does not trace " << text << "\n"
            << statement;
    }
}

}  // namespace

void ExpectTraced(const std::vector<TracedLine> &lines, const std::vector<TracedPlace> &places) {
    for (const TracedLine &line : lines) {
        if (HasPlace(line, places, &IsOf))
            EXPECT_TRUE(HasPlace(line, places, &IsAt))
                << line.message << " is traced by " << line.function << " in " << line.file;
    }
    for (const TracedPlace &place : places)
        ExpectTracedAt(place, lines);
}

void ExpectOnlyTraced(const std::vector<TracedLine> &lines, const std::vector<TracedPlace> &places) {
    ExpectTraced(lines, places);
    for (const TracedLine &line : lines)
        EXPECT_TRUE(HasPlace(line, places, &IsOf)) << line.message << " has no place here";
}
