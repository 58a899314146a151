// The binder's record of a type.
#pragma once

#include "SLB3.h"

namespace SLB3 {

/// A record whose five answers are fixed; one static object for each type.
template <typename T>
class Info final : public BaseInfo {
public:
    constexpr Info(int kind, const char *name) : m_kind(kind), m_name(name) {}
    constexpr Info(int kind, const char *name, int parameterCount, const BaseInfo *returnType,
                   const BaseInfo *const *parameters)
        : m_kind(kind),
          m_name(name),
          m_parameterCount(parameterCount),
          m_returnType(returnType),
          m_parameters(parameters) {}

    int kind() const override { return m_kind; }
    const char *name() const override { return m_name; }
    int parameterCount() const override { return m_parameterCount; }
    const BaseInfo *returnType() const override { return m_returnType; }
    const BaseInfo *const *parameters() const override { return m_parameters; }

private:
    int m_kind;
    const char *m_name;
    int m_parameterCount = -1;
    const BaseInfo *m_returnType = nullptr;
    const BaseInfo *const *m_parameters = nullptr;
};

}  // namespace SLB3
