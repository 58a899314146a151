#include "CallScope.h"

namespace Simulator {

namespace {
const ThreadWord depth;
}

std::uintptr_t ThreadWord::Get() const {
    const DWORD error = GetLastError();
    const auto value = reinterpret_cast<std::uintptr_t>(TlsGetValue(m_index));
    SetLastError(error);
    return value;
}

void ThreadWord::Set(std::uintptr_t value) const {
    const DWORD error = GetLastError();
    TlsSetValue(m_index, reinterpret_cast<void *>(value));
    SetLastError(error);
}

InsideSimulator::InsideSimulator() {
    depth.Set(depth.Get() + 1);
}

InsideSimulator::~InsideSimulator() {
    depth.Set(depth.Get() - 1);
}

bool InsideSimulator::Here() {
    return depth.Get() != 0;
}

OutsideSimulator::OutsideSimulator() : m_depth(depth.Get()) {
    depth.Set(0);
}

OutsideSimulator::~OutsideSimulator() {
    depth.Set(m_depth);
}

}  // namespace Simulator
