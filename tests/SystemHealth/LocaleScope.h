// Another locale of the C library within a scope.
#pragma once

#include <clocale>

/// The whole process has the locale until the end of the scope, and "C" afterwards.
class LocaleScope {
public:
    explicit LocaleScope(const char *name) : m_isKnown(std::setlocale(LC_ALL, name) != nullptr) {}
    ~LocaleScope() { (void)std::setlocale(LC_ALL, "C"); }
    LocaleScope(const LocaleScope &) = delete;
    LocaleScope &operator=(const LocaleScope &) = delete;

    [[nodiscard]] bool IsKnown() const { return m_isKnown; }

private:
    bool m_isKnown;
};
