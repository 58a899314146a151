#include "ComObject.h"

#include <cwchar>

namespace Simulator {

wchar_t *MakeComText(const std::wstring &text, const char *function) {
    const std::size_t length = text.size() + 1;
    auto *copy = static_cast<wchar_t *>(CoTaskMemAlloc(length * sizeof(wchar_t)));
    if (copy == nullptr)
        return nullptr;
    std::wmemcpy(copy, text.c_str(), length);
    Balance::Instance().Opened(Kind::kComMemory, reinterpret_cast<std::uintptr_t>(copy), function);
    return copy;
}

}  // namespace Simulator
