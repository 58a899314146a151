// The import table of a loaded module: its imports, and the replacement of single entries.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

namespace Simulator {

struct Import {
    std::string library;   ///< As in the table.
    std::string function;  ///< For an import by ordinal, from the library's exports; else "#ordinal".
    void **slot = nullptr;
    bool delayed = false;  ///< From the delay-load table: until its first use the slot leads to the loader's helper.

    [[nodiscard]] void *Address() const { return *slot; }
};

/// Those of the import table, then those of the delay-load table. Empty for a module without either.
[[nodiscard]] std::vector<Import> Imports(HMODULE module);

/// Keeps one slot of a module's table replaced. Its destructor restores the old value, unless the module was unloaded
/// or the slot was changed since. Any thread; the module must stay loaded meanwhile.
class SlotRedirection {
public:
    SlotRedirection(HMODULE module, void **slot, void *replacement);
    ~SlotRedirection();
    SlotRedirection(SlotRedirection &&other) noexcept;
    SlotRedirection &operator=(SlotRedirection &&other) noexcept;
    SlotRedirection(const SlotRedirection &) = delete;
    SlotRedirection &operator=(const SlotRedirection &) = delete;

    [[nodiscard]] void *Original() const { return m_original; }
    /// Whether the module is loaded and the slot still leads to the replacement.
    [[nodiscard]] bool InForce() const;
    /// Keeps the slot replaced for good.
    void Abandon() { m_slot = nullptr; }

private:
    void Restore();

    HMODULE m_module;
    void **m_slot;
    void *m_replacement;
    void *m_original;
};

/// Replaces a function wherever the module imports it by that name. A function of the module that is running may still
/// call the old one: the compiler may have read the slot already.
class Redirection {
public:
    /// @param library  only imports from this library, such as "KERNEL32.dll", case-insensitive; empty for every
    ///   library.
    Redirection(HMODULE module, std::string_view function, void *replacement, std::string_view library = {});

    /// False if the module does not import the function: nothing is replaced then.
    [[nodiscard]] bool Found() const { return !m_slots.empty(); }
    /// The function called before. For a delayed import that was not used yet this is the loader's helper: calling it
    /// binds the slot, which ends the redirection.
    /// @return null if the function was not found.
    [[nodiscard]] void *Original() const { return Found() ? m_slots.front().Original() : nullptr; }

private:
    std::vector<SlotRedirection> m_slots;
};

/// Whether two library names are the same: case-insensitive, with or without ".dll".
[[nodiscard]] bool SameLibrary(std::string_view one, std::string_view other);

}  // namespace Simulator
