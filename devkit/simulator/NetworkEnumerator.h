// The enumerations that the simulated engine returns.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include <windows.h>
#include <netcfgx.h>

#include "ComObject.h"

namespace Simulator {

/// Names of calls, such as "IEnumNetCfgComponent::Next".
struct EnumeratorNames {
    const char *addRef;
    const char *queryInterface;
    const char *next;
    const char *skip;
    const char *reset;
    const char *clone;
};

/// A list as it was when it was created. It returns the same object each time.
template <class Interface, class Item>
class NetworkEnumerator final : public ComObject<Interface> {
public:
    using Items = std::vector<std::shared_ptr<ComObject<Item>>>;

    /// @param names  stay valid.
    NetworkEnumerator(const std::shared_ptr<Core> &core, const EnumeratorNames &names, Items items,
                      std::size_t position = 0)
        : ComObject<Interface>(core, {names.addRef, names.queryInterface}),
          m_names(names),
          m_items(std::move(items)),
          m_position(position) {}

    /// For its interface and IUnknown.
    HRESULT Provide(REFIID iid, const char *function, void **object) override {
        if (iid == __uuidof(Interface) || iid == IID_IUnknown)
            return this->ProvideThis(function, object);
        return E_NOINTERFACE;
    }

    /// S_FALSE if fewer are left, and null for the missing ones. @param fetched  may be null for one.
    HRESULT STDMETHODCALLTYPE Next(ULONG count, Item **items, ULONG *fetched) override {
        if (items != nullptr && (count == 1 || fetched != nullptr))
            std::fill_n(items, count, nullptr);
        if (fetched != nullptr)
            *fetched = 0;
        return this->Call(m_names.next, [&] { return Fetch(count, items, fetched); }, count, items, fetched);
    }

    /// S_FALSE if fewer are left.
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) override {
        return this->Call(
            m_names.skip,
            [&] {
                std::size_t from = 0;
                return Advance(count, from) == count ? S_OK : S_FALSE;
            },
            count);
    }

    HRESULT STDMETHODCALLTYPE Reset() override {
        return this->Call(m_names.reset, [&] {
            const LockGuard guard(m_lock);
            m_position = 0;
            return S_OK;
        });
    }

    /// The same list, from the current position on.
    HRESULT STDMETHODCALLTYPE Clone(Interface **copy) override {
        ClearResult(copy);
        return this->Call(
            m_names.clone,
            [&] {
                if (copy == nullptr)
                    return E_POINTER;
                std::size_t position = 0;
                (void)Advance(0, position);
                *copy = std::make_shared<NetworkEnumerator>(this->TheCore(), m_names, m_items, position)
                            ->Give(m_names.clone);
                return S_OK;
            },
            copy);
    }

private:
    HRESULT Fetch(ULONG count, Item **items, ULONG *fetched) {
        if (items == nullptr)
            return E_POINTER;
        if (count == 0 || (count != 1 && fetched == nullptr))
            return E_INVALIDARG;
        std::size_t from = 0;
        const ULONG there = Advance(count, from);
        for (ULONG i = 0; i < there; ++i)
            items[i] = m_items[from + i]->Give(m_names.next);
        if (fetched != nullptr)
            *fetched = there;
        return there == count ? S_OK : S_FALSE;
    }

    /// @param from  receives the old position. @return how many are skipped.
    ULONG Advance(ULONG count, std::size_t &from) {
        const LockGuard guard(m_lock);
        from = m_position;
        const std::size_t passed = std::min<std::size_t>(count, m_items.size() - m_position);
        m_position += passed;
        return static_cast<ULONG>(passed);
    }

    const EnumeratorNames &m_names;
    const Items m_items;
    Lock m_lock;
    std::size_t m_position;
};

using ComponentEnumerator = NetworkEnumerator<IEnumNetCfgComponent, INetCfgComponent>;
inline constexpr EnumeratorNames kComponentEnumerator{
    "IEnumNetCfgComponent::AddRef", "IEnumNetCfgComponent::QueryInterface", "IEnumNetCfgComponent::Next",
    "IEnumNetCfgComponent::Skip",   "IEnumNetCfgComponent::Reset",          "IEnumNetCfgComponent::Clone"};

using BindingPathEnumerator = NetworkEnumerator<IEnumNetCfgBindingPath, INetCfgBindingPath>;
inline constexpr EnumeratorNames kBindingPathEnumerator{
    "IEnumNetCfgBindingPath::AddRef", "IEnumNetCfgBindingPath::QueryInterface", "IEnumNetCfgBindingPath::Next",
    "IEnumNetCfgBindingPath::Skip",   "IEnumNetCfgBindingPath::Reset",          "IEnumNetCfgBindingPath::Clone"};

using BindingInterfaceEnumerator = NetworkEnumerator<IEnumNetCfgBindingInterface, INetCfgBindingInterface>;
inline constexpr EnumeratorNames kBindingInterfaceEnumerator{
    "IEnumNetCfgBindingInterface::AddRef", "IEnumNetCfgBindingInterface::QueryInterface",
    "IEnumNetCfgBindingInterface::Next",   "IEnumNetCfgBindingInterface::Skip",
    "IEnumNetCfgBindingInterface::Reset",  "IEnumNetCfgBindingInterface::Clone"};

}  // namespace Simulator
