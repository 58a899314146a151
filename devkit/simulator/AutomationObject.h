// Simulated COM objects with a dual interface: their common implementation of IDispatch, and their texts.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <windows.h>
#include <oleauto.h>

#include "ComObject.h"

namespace Simulator {

namespace Kind {
inline constexpr char kBstr[] = "BSTR";
}

/// A text for the caller to free with SysFreeString; counted as BSTR.
/// @param function  what returns it; stays valid for the life of the process.
[[nodiscard]] BSTR MakeBstr(const std::wstring &text, const char *function);

/// Only a vtable: the methods of IDispatch return E_NOTIMPL.
template <class Interface>
class AutomationObject : public ComObject<Interface> {
public:
    /// For the interface, IDispatch and IUnknown.
    HRESULT Provide(REFIID iid, const char *function, void **object) final {
        if (iid != __uuidof(Interface) && iid != __uuidof(IDispatch) && iid != __uuidof(IUnknown))
            return E_NOINTERFACE;
        return this->ProvideThis(function, object);
    }

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *count) final { return NotThere("GetTypeInfoCount", count); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo **info) final {
        return NotThere("GetTypeInfo", index, locale, info);
    }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID iid, LPOLESTR *names, UINT count, LCID locale, DISPID *ids) final {
        return NotThere("GetIDsOfNames", iid, names, count, locale, ids);
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID member, REFIID iid, LCID locale, WORD flags, DISPPARAMS *parameters,
                                     VARIANT *result, EXCEPINFO *exception, UINT *badArgument) final {
        return NotThere("Invoke", member, iid, locale, flags, parameters, result, exception, badArgument);
    }

protected:
    /// @param interfaceName  such as "INetFwPolicy2".
    AutomationObject(std::shared_ptr<Core> core, const char *interfaceName,
                     const typename ComObject<Interface>::Names &names)
        : ComObject<Interface>(std::move(core), names), m_interfaceName(interfaceName) {}

    /// Calls a method that is not simulated. Its interface outputs are set to null.
    template <class... Args>
    HRESULT NotThere(const char *method, Args... arguments) {
        const InsideSimulator inside;
        (ClearInterface(arguments), ...);
        const std::string name = std::string(m_interfaceName) + "::" + method;
        return this->Call(name.c_str(), [] { return E_NOTIMPL; }, arguments...);
    }

private:
    template <class T>
    static void ClearInterface(T argument) {
        using Given = std::remove_pointer_t<std::remove_pointer_t<T>>;
        if constexpr (std::is_same_v<T, Given **> && std::is_base_of_v<IUnknown, Given>)
            ClearResult(argument);
    }

    const char *const m_interfaceName;
};

}  // namespace Simulator
