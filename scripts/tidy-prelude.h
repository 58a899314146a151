// For lint alone: the clang of Debian 12 lacks the builtin that libstdc++ makes std::source_location of.
#pragma once

#include <source_location>

#if !__has_builtin(__builtin_source_location)
namespace std {
struct source_location {
    static constexpr source_location current(int line = __builtin_LINE()) {
        source_location here;
        here.m_line = static_cast<unsigned>(line);
        return here;
    }
    [[nodiscard]] constexpr unsigned line() const { return m_line; }
    [[nodiscard]] constexpr const char *file_name() const { return ""; }
    [[nodiscard]] constexpr const char *function_name() const { return ""; }

private:
    unsigned m_line = 0;
};
}  // namespace std
#endif
