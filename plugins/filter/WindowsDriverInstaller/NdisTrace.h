// The trace component of the driver installer.
#pragma once

constexpr wchar_t kNdisTrace[] = L"NDIS";
