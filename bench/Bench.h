// What benchmarks share: timing, medians, and the report with its goals.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// A short run only shows that all benchmarks still work: few rounds, small sizes, no goals. Call it before the first
/// benchmark.
void SetShortRun();
[[nodiscard]] bool IsShortRun();

/// Seconds by the processor's steady clock.
double Now();

/// How long each call of the jobs takes, in seconds: the jobs take turns, `rounds` times after one warm-up round, and
/// the result is the median of each. A short run makes one round.
std::vector<double> MedianTimes(int rounds, const std::vector<std::function<double()>> &jobs);

/// The rows of a run. Every row is a ratio of two figures of the same run, unless it says otherwise.
class Report {
public:
    /// A row with a goal; a short run leaves the goal out.
    /// @param goal  a comparison such as "<= 2.5".
    void Add(const std::string &row, double value, const std::string &unit, const std::string &goal);
    /// A row without a goal.
    void Add(const std::string &row, double value, const std::string &unit);

    /// Prints the rows since the last call as a table.
    void PrintNew();
    /// Writes all rows as a JSON array; replaces a file atomically. @return false on failure.
    [[nodiscard]] bool WriteJson(const std::wstring &path) const;
    bool AllMet() const;

private:
    struct Row {
        std::string row;
        double value;
        std::string unit;
        std::string goal;
        bool met;
    };
    std::vector<Row> m_rows;
    std::size_t m_printed = 0;
};

/// Whether WriteJson could write the file.
[[nodiscard]] bool CanWriteJson(const std::wstring &path);
