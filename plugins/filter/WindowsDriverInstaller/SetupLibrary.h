// setupapi, whose functions for INF files are looked for at run time: not every system has them.
#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

class SetupLibrary {
public:
    SetupLibrary() : m_library(LoadLibraryW(L"setupapi")) {}

    /// @return null where there is no such function.
    template <typename Function>
    [[nodiscard]] Function Find(const char *name) const {
        // By its name: it may be there although it could not be loaded once more.
        const HMODULE module = GetModuleHandleW(L"setupapi");
        return module == nullptr ? nullptr
                                 : reinterpret_cast<Function>(reinterpret_cast<void *>(GetProcAddress(module, name)));
    }

private:
    struct Free {
        void operator()(HMODULE module) const { (void)FreeLibrary(module); }
    };
    std::unique_ptr<std::remove_pointer_t<HMODULE>, Free> m_library;
};
