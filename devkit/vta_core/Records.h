// What was traced, sent and shown: kept for the Control functions and reported to the observer.
#pragma once

#include "vta_core_control.h"

namespace VtaCore::Records {

// Any thread; the observer may call back into the library.
void Add(const Control::TraceLine &line);
void Add(const Control::Event &event);
void Add(const Control::Notification &notification);

}  // namespace VtaCore::Records
