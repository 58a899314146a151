// Whether an adapter got worse by a change of the drivers.
#pragma once

#include "TcpAdapter.h"

/// Compares with an earlier state, not with an ideal one: what was down before counts as healthy.
class AdaptorHealthChecker {
public:
    /// @param before  the earlier records; must outlive the object.
    explicit AdaptorHealthChecker(const TcpAdapterList &before) : m_before(&before) {}

    /// @return true for a healthy adapter; traces why.
    bool operator()(const TcpAdapter &now) const;

private:
    const TcpAdapterList *m_before;
};
