// Checks whether an adapter got worse when the drivers were changed.
#pragma once

#include <map>

#include "TcpAdapter.h"

/// Compares with an earlier state, not with an ideal one: what was down before counts as healthy.
class AdaptorHealthChecker {
public:
    /// @param before  the earlier records; must outlive the object, and stay as they are.
    explicit AdaptorHealthChecker(const TcpAdapterList &before);

    /// @return true for a healthy adapter; traces why.
    bool operator()(const TcpAdapter &now) const;

private:
    std::map<wxString, const TcpAdapter *> m_before;  ///< The first of each name.
};
