#include "ComLibrary.h"

#include <cstdint>
#include <utility>

#include "AutomationObject.h"
#include "Balance.h"
#include "CallScope.h"
#include "ComFunctions.h"
#include "ComObject.h"
#include "FunctionSet.h"

namespace Simulator {

namespace {

/// Asked of the system, since it forgets a killed thread.
bool ThreadHasModel() {
    const InsideSimulator inside;
    APTTYPE type{};
    APTTYPEQUALIFIER qualifier{};
    return SUCCEEDED(CoGetApartmentType(&type, &qualifier)) && qualifier != APTTYPEQUALIFIER_IMPLICIT_MTA;
}

bool IsMultithreaded(DWORD flags) {
    return (flags & COINIT_APARTMENTTHREADED) == 0;
}

std::uintptr_t AddressOf(const void *pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

void InstallInitialisation(FunctionSet &functions, ComLibrary &library) {
    functions.Put<System::CoInitializeEx>([&library](const auto &next, LPVOID reserved, DWORD flags) -> HRESULT {
        const bool others = library.threadsHaveApartments && !ThreadHasModel();
        if (others && IsMultithreaded(flags))
            return RPC_E_CHANGED_MODE;
        const HRESULT result = next(reserved, flags);
        if (SUCCEEDED(result))
            Balance::Instance().Opened(Kind::kComInitialisation, GetCurrentThreadId(), System::CoInitializeEx::name);
        return others && result == S_OK ? S_FALSE : result;
    });
    functions.Put<System::CoUninitialize>([](const auto &next) {
        Balance::Instance().Closed(Kind::kComInitialisation, GetCurrentThreadId());
        next();
    });
}

void InstallMemory(FunctionSet &functions) {
    functions.Put<System::CoTaskMemAlloc>([](const auto &next, SIZE_T size) {
        void *const block = next(size);
        if (block != nullptr)
            Balance::Instance().Opened(Kind::kComMemory, AddressOf(block), System::CoTaskMemAlloc::name);
        return block;
    });
    functions.Put<System::CoTaskMemFree>([](const auto &next, LPVOID block) {
        Balance::Instance().Closed(Kind::kComMemory, AddressOf(block));
        next(block);
    });
}

void InstallTexts(FunctionSet &functions) {
    functions.Put<System::SysAllocString>([](const auto &next, const OLECHAR *text) {
        const BSTR copy = next(text);
        if (copy != nullptr)
            Balance::Instance().Opened(Kind::kBstr, AddressOf(copy), System::SysAllocString::name);
        return copy;
    });
    functions.Put<System::SysFreeString>([](const auto &next, BSTR text) {
        Balance::Instance().Closed(Kind::kBstr, AddressOf(text));
        next(text);
    });
    functions.PassThrough<System::SysStringLen>();
}

}  // namespace

bool ComLibrary::IsInitialised() const {
    return threadsHaveApartments || ThreadHasModel();
}

void InstallCom(FunctionSet &functions, ComLibrary &library) {
    InstallInitialisation(functions, library);
    InstallMemory(functions);
    InstallTexts(functions);
    functions.PassThrough<System::CoCreateInstance>();
}

void PutComClass(FunctionSet &functions, const ComLibrary &library, const CLSID &id, ComFactory factory) {
    functions.Put<System::CoCreateInstance>(
        [&library, id, factory = std::move(factory)](const auto &next, REFCLSID asked, IUnknown *outer, DWORD context,
                                                     REFIID iid, LPVOID *object) -> HRESULT {
            if (asked != id)
                return next(asked, outer, context, iid, object);
            if (object == nullptr)
                return E_POINTER;
            *object = nullptr;
            if (!library.IsInitialised())
                return CO_E_NOTINITIALIZED;
            if ((context & CLSCTX_INPROC_SERVER) == 0)
                return REGDB_E_CLASSNOTREG;
            if (outer != nullptr)
                return CLASS_E_NOAGGREGATION;
            return factory(iid, System::CoCreateInstance::name, object);
        });
}

}  // namespace Simulator
