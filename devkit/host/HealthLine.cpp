#include "HealthLine.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <sstream>
#include <string_view>

namespace {

constexpr std::string_view kBeginning = "SysHealth: ";

using Fields = std::map<std::string, std::string>;

/// The name=value parts. A part without '=' is the rest of a number that was padded with spaces.
Fields ReadFields(const std::string &line) {
    Fields fields;
    std::istringstream parts(line.substr(kBeginning.size()));
    for (std::string part; parts >> part;) {
        const std::size_t equals = part.find('=');
        if (equals != std::string::npos)
            fields[part.substr(0, equals)] = part.substr(equals + 1);
    }
    return fields;
}

/// The C runtime writes the decimal separator of its locale, which may have changed since, and non-finite numbers as
/// "inf", "1.#INF" and the like.
double ReadNumber(std::string text) {
    if (text.find_first_not_of("0123456789.,-") != std::string::npos)
        return std::numeric_limits<double>::quiet_NaN();
    std::replace(text.begin(), text.end(), ',', '.');
    double number = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// As in "7.000(50.000)".
std::optional<HealthMetric> ReadMetric(const std::string &text) {
    const std::size_t open = text.find('(');
    if (open == std::string::npos || text.back() != ')')
        return std::nullopt;
    return HealthMetric{ReadNumber(text.substr(0, open)), ReadNumber(text.substr(open + 1, text.size() - open - 2))};
}

/// The time is padded with spaces, so it may be a separate part.
std::string PaddedTime(const std::string &line) {
    constexpr std::string_view name = " tval=";
    const std::size_t at = line.find(name);
    const std::size_t begin = at == std::string::npos ? at : line.find_first_not_of(' ', at + name.size());
    return begin == std::string::npos ? std::string() : line.substr(begin, line.find(' ', begin) - begin);
}

bool HasAll(const Fields &fields) {
    for (const char *name : {"rc", "startSt", "endSt", "backoff", "next_chk"})
        if (fields.count(name) == 0)
            return false;
    return true;
}

std::uint64_t ReadCount(const std::string &text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

}  // namespace

double BeginOf(const HealthIteration &iteration, double now) {
    constexpr double secondsFrom1601To1970 = 11'644'473'600.0;
    constexpr double range = 4294967296.0;  // of the clock
    const double since1601 = now + secondsFrom1601To1970;
    const double rounds = std::round((since1601 - iteration.clock) / range);
    return rounds * range + iteration.clock + iteration.clockFraction - secondsFrom1601To1970;
}

std::optional<HealthIteration> ParseHealthLine(const std::string &line) {
    if (line.compare(0, kBeginning.size(), kBeginning) != 0)
        return std::nullopt;
    Fields fields = ReadFields(line);
    if (!HasAll(fields))
        return std::nullopt;
    HealthIteration iteration;
    const std::string time = PaddedTime(line);
    iteration.clock = static_cast<std::uint32_t>(ReadCount(time));
    iteration.clockFraction = ReadNumber("0" + time.substr(std::min(time.find('.'), time.size())));
    iteration.action = static_cast<int>(ReadCount(fields["rc"]));
    iteration.startsActive = fields["startSt"] == "Act";
    iteration.endsActive = fields["endSt"] == "Act";
    iteration.waitMinutes = ReadCount(fields["backoff"]);
    iteration.nextMinutes = ReadCount(fields["next_chk"]);
    for (std::size_t i = 0; i < kHealthMetricNames.size(); ++i) {
        // The interval occurs twice in the line; the metric comes last and overwrites it.
        const std::optional<HealthMetric> metric = ReadMetric(fields[kHealthMetricNames[i]]);
        if (!metric)
            return std::nullopt;
        iteration.metrics[i] = *metric;
    }
    iteration.interval = iteration.metrics.back().value;
    return iteration;
}
