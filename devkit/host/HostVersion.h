// The version of the whole build.
#pragma once

/// Such as "1.0.0+g0123456789", with the commit that it was built from.
const char *HostVersion();
