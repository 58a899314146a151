// The file that shows which values are in use, in the shape of a policy.
#pragma once

class HealthConfig;

/// Writes the values that are set to the diagnostic file, anew each time.
/// @return whether it was written.
bool outputCloudConfig(const HealthConfig &config);
