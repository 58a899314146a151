// The driver's counters, its variables and its version.
#include <algorithm>
#include <cstring>

#include "DriverState.h"

using namespace Vti;

namespace {

constexpr std::size_t kVersionBytes = 112;
/// The words of a region are numbered from here, so that a reader sees where each came from.
constexpr uint32_t kFirstRegion = 0x0100'0000;
constexpr uint32_t kSecondRegion = 0x0200'0000;
constexpr uint32_t kThirdRegion = 0x0300'0000;

bool IsStatsRequest(const StatsRecord &record) {
    return record.word0 == 12 && record.word4 == 6 && record.word8 == 0 && record.word12 == 7325 &&
           record.word16 == 1 && record.regions == offsetof(StatsRecord, first) && record.layout0 == 293 &&
           record.layout1 == 21 && record.layout2 == 1 && record.layout3 == 32;
}

bool PointsIntoItself(const StatsRecord &record) {
    return record.firstAddress == record.first && record.secondAddress == record.second &&
           record.thirdAddress == record.third;
}

template <std::size_t size>
void FillRegion(uint8_t (&region)[size], uint32_t firstWord) {
    static_assert(size % sizeof(uint32_t) == 0);
    for (uint32_t i = 0; i < size / sizeof(uint32_t); ++i) {
        const uint32_t word = firstWord + i;
        std::memcpy(region + i * sizeof word, &word, sizeof word);
    }
}

Outcome ReadVariable(const Driver &driver, uint32_t index, FilterVariable *variable) {
    if (index >= driver.variables.size())
        return {kOutOfRange, "there is no filter variable " + std::to_string(index)};
    if (variable == nullptr)
        return {kInvalidRequest, "no record for the filter variable"};
    *variable = {index, driver.variables[index]};
    return {};
}

}  // namespace

int32_t vti_get_stats(vti_handle_t *handle, StatsRecord *record, uint32_t size) {
    return Perform("vti_get_stats", handle, std::to_string(size), [&](Driver &driver) -> Outcome {
        if (record == nullptr || size != sizeof(StatsRecord))
            return {kInvalidRequest, "a statistics record has 6192 bytes"};
        const auto *bytes = reinterpret_cast<const uint8_t *>(record);
        driver.statsRequest.assign(bytes, bytes + sizeof *record);
        driver.statsAddress = reinterpret_cast<std::uintptr_t>(record);
        if (!IsStatsRequest(*record))
            return {kInvalidRequest, "the words of the statistics record are not those of a request"};
        if (!PointsIntoItself(*record))
            return {kInvalidRequest, "the addresses of the statistics record are not its own regions"};
        record->layout0 = driver.statsLayout[0];
        record->layout1 = driver.statsLayout[1];
        record->layout2 = driver.statsLayout[2];
        FillRegion(record->first, kFirstRegion);
        FillRegion(record->second, kSecondRegion);
        FillRegion(record->third, kThirdRegion);
        return {};
    });
}

int32_t vti_get_varv(vti_handle_t *handle, FilterVariable *variable) {
    const uint32_t index = variable != nullptr ? variable->index : 0;
    return Perform("vti_get_varv", handle, std::to_string(index),
                   [&](const Driver &driver) { return ReadVariable(driver, index, variable); });
}

int32_t vti_get_var(vti_handle_t *handle, uint32_t index, FilterVariable *variable) {
    return Perform("vti_get_var", handle, std::to_string(index),
                   [&](const Driver &driver) { return ReadVariable(driver, index, variable); });
}

int32_t vti_set_var(vti_handle_t *handle, uint32_t index, uint32_t value) {
    const std::string arguments = std::to_string(index) + ", " + std::to_string(value);
    return Perform("vti_set_var", handle, arguments, [&](Driver &driver) -> Outcome {
        if (index >= driver.variables.size())
            return {kOutOfRange, "there is no filter variable " + std::to_string(index)};
        driver.variables[index] = value;
        return {};
    });
}

int32_t vti_get_version(vti_handle_t *handle, char *buffer) {
    return Perform("vti_get_version", handle, "", [&](const Driver &driver) -> Outcome {
        if (buffer == nullptr)
            return {kInvalidRequest, "no buffer for the version"};
        const std::size_t length = std::min(driver.version.size(), kVersionBytes - 1);
        std::memcpy(buffer, driver.version.data(), length);
        buffer[length] = '\0';
        return {};
    });
}
