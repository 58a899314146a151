// The functions that report the version of the machine's system.
#include <array>

#include "FunctionSet.h"
#include "Machine.h"
#include "MachineFunctions.h"

namespace Simulator {

namespace {

void FillVersion(const Machine &machine, OSVERSIONINFOW &info) {
    info.dwMajorVersion = machine.osMajor;
    info.dwMinorVersion = machine.osMinor;
    info.dwBuildNumber = machine.osBuild;
    if (info.dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXW))
        return;
    auto &extended = reinterpret_cast<OSVERSIONINFOEXW &>(info);
    extended.wServicePackMajor = machine.servicePack;
    extended.wServicePackMinor = 0;
    extended.wProductType = machine.productType;
    extended.wSuiteMask = machine.suiteMask;
}

/// @param type  one bit, such as VER_MAJORVERSION.
/// @return the condition that VerSetConditionMask has set: VER_EQUAL or another; 0 for none.
unsigned ConditionOf(DWORDLONG conditions, DWORD type) {
    unsigned place = 0;
    while ((type >>= 1) != 0)
        ++place;
    return static_cast<unsigned>(conditions >> (place * VER_NUM_BITS_PER_CONDITION_MASK)) & VER_CONDITION_MASK;
}

bool Compare(unsigned condition, DWORD actual, DWORD wanted) {
    switch (condition) {
        case VER_EQUAL:
            return actual == wanted;
        case VER_GREATER:
            return actual > wanted;
        case VER_GREATER_EQUAL:
            return actual >= wanted;
        case VER_LESS:
            return actual < wanted;
        case VER_LESS_EQUAL:
            return actual <= wanted;
        default:
            return false;
    }
}

bool CompareSuites(unsigned condition, WORD actual, WORD wanted) {
    if (condition == VER_AND)
        return (actual & wanted) == wanted;
    return condition == VER_OR && (actual & wanted) != 0;
}

/// The version numbers are compared together: the first that differs decides.
bool CompareNumbers(const Machine &machine, const OSVERSIONINFOEXW &wanted, DWORD types, DWORDLONG conditions) {
    struct Number {
        DWORD type, actual, wanted;
    };
    const std::array<Number, 4> numbers{{{VER_MAJORVERSION, machine.osMajor, wanted.dwMajorVersion},
                                         {VER_MINORVERSION, machine.osMinor, wanted.dwMinorVersion},
                                         {VER_SERVICEPACKMAJOR, machine.servicePack, wanted.wServicePackMajor},
                                         {VER_SERVICEPACKMINOR, 0, wanted.wServicePackMinor}}};
    bool fits = true;
    for (const Number &number : numbers) {
        if ((types & number.type) == 0)
            continue;
        fits = Compare(ConditionOf(conditions, number.type), number.actual, number.wanted);
        if (number.actual != number.wanted)
            return fits;
    }
    return fits;
}

bool Fits(const Machine &machine, const OSVERSIONINFOEXW &wanted, DWORD types, DWORDLONG conditions) {
    const auto fits = [&](DWORD type, DWORD actual, DWORD asked) {
        return (types & type) == 0 || Compare(ConditionOf(conditions, type), actual, asked);
    };
    return CompareNumbers(machine, wanted, types, conditions) &&
           fits(VER_BUILDNUMBER, machine.osBuild, wanted.dwBuildNumber) &&
           fits(VER_PLATFORMID, VER_PLATFORM_WIN32_NT, wanted.dwPlatformId) &&
           fits(VER_PRODUCT_TYPE, machine.productType, wanted.wProductType) &&
           ((types & VER_SUITENAME) == 0 ||
            CompareSuites(ConditionOf(conditions, VER_SUITENAME), machine.suiteMask, wanted.wSuiteMask));
}

DWORD Verify(const Machine &machine, const OSVERSIONINFOEXW &wanted, DWORD types, DWORDLONG conditions) {
    if (types == 0)
        return ERROR_BAD_ARGUMENTS;
    for (DWORD type = VER_MINORVERSION; type <= VER_PRODUCT_TYPE; type <<= 1) {
        if ((types & type) != 0 && ConditionOf(conditions, type) == 0)
            return ERROR_BAD_ARGUMENTS;
    }
    return Fits(machine, wanted, types, conditions) ? ERROR_SUCCESS : ERROR_OLD_WIN_VERSION;
}

void Set(int *to, DWORD value) {
    if (to != nullptr)
        *to = static_cast<int>(value);
}

}  // namespace

void InstallMachineVersion(FunctionSet &functions, const Machine &machine) {
    functions.Put<System::GetVersionExW>([&machine](const auto &next, OSVERSIONINFOW *info) -> BOOL {
        if (info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOW) &&
            info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXW)) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        if (!next(info))
            return FALSE;
        FillVersion(machine, *info);
        return TRUE;
    });
    functions.Put<System::VerifyVersionInfoW>(
        [&machine](const auto &, OSVERSIONINFOEXW *wanted, DWORD types, DWORDLONG conditions) -> BOOL {
            const DWORD error = Verify(machine, *wanted, types, conditions);
            if (error != ERROR_SUCCESS)
                SetLastError(error);
            return error == ERROR_SUCCESS;
        });
    functions.Put<System::wxGetOsVersion>([&machine](const auto &next, int *major, int *minor, int *build) {
        const int family = next(nullptr, nullptr, nullptr);
        Set(major, machine.osMajor);
        Set(minor, machine.osMinor);
        Set(build, machine.osBuild);
        return family;
    });
}

}  // namespace Simulator
