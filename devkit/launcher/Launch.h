// What fc-launch and the programs that it runs agree on.
#pragma once

/// The variable with the handle of an event, in hexadecimal digits: the program signals it when it ends by itself.
inline constexpr wchar_t kEndEventVariable[] = L"FC_END_EVENT";
