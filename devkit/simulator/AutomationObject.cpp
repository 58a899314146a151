#include "AutomationObject.h"

namespace Simulator {

BSTR MakeBstr(const std::wstring &text, const char *function) {
    const BSTR copy = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (copy != nullptr)
        Balance::Instance().Opened(Kind::kBstr, reinterpret_cast<std::uintptr_t>(copy), function);
    return copy;
}

}  // namespace Simulator
