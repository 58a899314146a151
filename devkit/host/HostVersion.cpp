#include "HostVersion.h"

#include "Version.h"

const char *HostVersion() {
    return FC_VERSION;
}
