// Counts the objects of the library's classes, for Control::LiveObjects.
#pragma once

#include <atomic>

namespace VtaCore {

inline std::atomic<int> g_liveObjects{0};

/// A member of every object that is counted.
class LiveObject {
public:
    LiveObject() { ++g_liveObjects; }
    ~LiveObject() { --g_liveObjects; }

    LiveObject(const LiveObject &) = delete;
    LiveObject &operator=(const LiveObject &) = delete;
};

}  // namespace VtaCore
