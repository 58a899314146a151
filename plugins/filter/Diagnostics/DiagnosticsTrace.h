// The trace component of the diagnostic package.
#pragma once

namespace Filter::Diagnostics {

constexpr wchar_t kDiagnosticsTrace[] = L"diagnostics";

}  // namespace Filter::Diagnostics
