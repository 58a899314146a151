#include "Bench.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>

#include <cJSON.h>
#include <windows.h>

namespace {

bool isShortRun = false;
constexpr int kRowWidth = 78;

bool Meets(double value, const std::string &goal) {
    std::istringstream words(goal);
    std::string comparison;
    double bound = 0;
    words >> comparison >> bound;
    if (comparison == "<=")
        return value <= bound;
    if (comparison == "<")
        return value < bound;
    if (comparison == ">=")
        return value >= bound;
    return false;
}

std::filesystem::path Beside(const std::wstring &path) {
    return path + L".partial";
}

}  // namespace

void SetShortRun() {
    isShortRun = true;
}

bool IsShortRun() {
    return isShortRun;
}

double Now() {
    LARGE_INTEGER frequency;
    LARGE_INTEGER count;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&count);
    return static_cast<double>(count.QuadPart) / static_cast<double>(frequency.QuadPart);
}

std::vector<double> MedianTimes(int rounds, const std::vector<std::function<double()>> &jobs) {
    if (isShortRun)
        rounds = 1;
    std::vector<std::vector<double>> times(jobs.size());
    for (int round = -1; round < rounds; ++round)
        for (std::size_t job = 0; job < jobs.size(); ++job) {
            const double time = jobs[job]();
            if (round >= 0)
                times[job].push_back(time);
        }
    std::vector<double> medians;
    for (std::vector<double> &all : times) {
        const auto middle = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
        std::nth_element(all.begin(), middle, all.end());
        medians.push_back(*middle);
    }
    return medians;
}

void Report::Add(const std::string &row, double value, const std::string &unit, const std::string &goal) {
    if (isShortRun)
        Add(row, value, unit);
    else
        m_rows.push_back({row, value, unit, goal, Meets(value, goal)});
}

void Report::Add(const std::string &row, double value, const std::string &unit) {
    m_rows.push_back({row, value, unit, "", true});
}

void Report::PrintNew() {
    if (isShortRun && m_printed == 0)
        std::printf("A short run: the figures mean nothing.\n");
    for (; m_printed < m_rows.size(); ++m_printed) {
        const Row &row = m_rows[m_printed];
        std::printf("%-*s  %10.3f %-22s %-8s %s\n", kRowWidth, row.row.c_str(), row.value, row.unit.c_str(),
                    row.goal.c_str(),
                    row.goal.empty() ? ""
                    : row.met        ? "met"
                                     : "NOT MET");
    }
    (void)std::fflush(stdout);
}

bool Report::WriteJson(const std::wstring &path) const {
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> array(cJSON_CreateArray(), &cJSON_Delete);
    for (const Row &row : m_rows) {
        cJSON *const object = cJSON_CreateObject();
        cJSON_AddItemToArray(array.get(), object);
        cJSON_AddStringToObject(object, "row", row.row.c_str());
        cJSON_AddNumberToObject(object, "value", row.value);
        cJSON_AddStringToObject(object, "unit", row.unit.c_str());
        cJSON_AddStringToObject(object, "goal", row.goal.c_str());
        cJSON_AddBoolToObject(object, "met", row.met);
    }
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_Print(array.get()), &cJSON_free);
    std::ofstream file(Beside(path), std::ios::binary);
    file << text.get() << '\n';
    file.close();
    std::error_code error;
    if (file)
        std::filesystem::rename(Beside(path), path, error);
    return file && !error;
}

bool CanWriteJson(const std::wstring &path) {
    std::error_code error;
    const bool opened = !std::filesystem::is_directory(path, error) && std::ofstream(Beside(path), std::ios::binary);
    std::filesystem::remove(Beside(path), error);
    return opened;
}

bool Report::AllMet() const {
    return std::all_of(m_rows.begin(), m_rows.end(), [](const Row &row) { return row.met; });
}
