// The trace components of the health subsystem.
#pragma once

constexpr wchar_t kEngineTrace[] = L"SysHealth.eng";
constexpr wchar_t kConfigTrace[] = L"SysHealth.conf";
constexpr wchar_t kScanTrace[] = L"SysHealth.scan";
constexpr wchar_t kReadOutTrace[] = L"SysHealth.metr";
