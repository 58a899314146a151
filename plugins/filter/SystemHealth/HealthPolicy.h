// The policy from the cloud: JSON that the scripts hand over instead of the local file.
#pragma once

#include <cstdint>

#include "HealthConfig.h"
#include "vta_core.h"

/// A threshold is an object that holds its number under this key.
constexpr char kPolicyValueKey[] = "value";

/// Fills the table from the policy.
/// @param activated  non-zero in fail-open, where the driver's metrics are not judged.
/// @param json       ends with a NUL; what stands behind the object is ignored.
/// @return the number of stored values; 0 when the policy switches the subsystem off; 1, with nothing stored, when
///         it can't be parsed.
std::int32_t readSystemHealthPolicy(HealthConfig &config, VtaCore::CDom &dom, std::int32_t activated, const char *json);
