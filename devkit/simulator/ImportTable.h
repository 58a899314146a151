// The import table of a loaded module: what it imports, and the replacing of single entries.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

namespace Simulator {

struct Import {
    std::string library;   ///< As the table names it.
    std::string function;  ///< Found in the library's exports for an import by ordinal; else "#ordinal".
    void **slot = nullptr;
    bool delayed = false;  ///< Of the delay-load table: until its first use the slot leads to the loader's helper.

    [[nodiscard]] void *Address() const { return *slot; }
};

/// Those of the import table, then those of the delay-load table. A module without either has none.
[[nodiscard]] std::vector<Import> Imports(HMODULE module);

/// Holds one slot of a module's table replaced. Its end puts the old value back, unless the module has gone
/// or somebody else has written to the slot since. Any thread; the module must stay loaded meanwhile.
class SlotRedirection {
public:
    SlotRedirection(HMODULE module, void **slot, void *replacement);
    ~SlotRedirection();
    SlotRedirection(SlotRedirection &&other) noexcept;
    SlotRedirection &operator=(SlotRedirection &&other) noexcept;
    SlotRedirection(const SlotRedirection &) = delete;
    SlotRedirection &operator=(const SlotRedirection &) = delete;

    [[nodiscard]] void *Original() const { return m_original; }
    /// Whether the module is there and the slot still leads to the replacement.
    [[nodiscard]] bool InForce() const;
    /// Leaves the slot as it is, for good.
    void Abandon() { m_slot = nullptr; }

private:
    void Restore();

    HMODULE m_module;
    void **m_slot;
    void *m_replacement;
    void *m_original;
};

/// Replaces a function wherever the module imports it by that name. A function of the module that runs at that
/// moment may still call the old one: the compiler may have read the slot already.
class Redirection {
public:
    /// @param library  only imports from this library, such as "KERNEL32.dll", in any case of letters;
    ///                 empty for every library.
    Redirection(HMODULE module, std::string_view function, void *replacement, std::string_view library = {});

    /// False if the module does not import the function: nothing is replaced then.
    [[nodiscard]] bool Found() const { return !m_slots.empty(); }
    /// What was called before. Of an import that is delayed and not yet used this is the loader's helper:
    /// calling it binds the slot, which ends the redirection.
    /// @return null if the function was not found.
    [[nodiscard]] void *Original() const { return Found() ? m_slots.front().Original() : nullptr; }

private:
    std::vector<SlotRedirection> m_slots;
};

/// Whether two names of libraries are the same: in any case of letters, with or without ".dll".
[[nodiscard]] bool SameLibrary(std::string_view one, std::string_view other);

}  // namespace Simulator
