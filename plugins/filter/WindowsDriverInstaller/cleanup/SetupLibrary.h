// setupapi, whose functions for INF files are resolved at run time: not every system has them.
#pragma once

#include <windows.h>

#include "common/Unique.h"

class SetupLibrary {
public:
    SetupLibrary() : m_library(LoadLibraryW(L"setupapi")) {}

    /// @param function  set to null where there is no such function.
    template <typename Function>
    void FindFunction(const char *name, Function &function) const {
        // By name: it may be loaded already even if loading it again has failed.
        const HMODULE module = GetModuleHandleW(L"setupapi");
        const FARPROC found = module == nullptr ? nullptr : GetProcAddress(module, name);
        function = reinterpret_cast<Function>(reinterpret_cast<void *>(found));
    }

private:
    Unique<HMODULE, FreeLibrary> m_library;
};
