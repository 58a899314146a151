// The ways in which functions report failure. Each simulated function names one of these.
#pragma once

#include <cerrno>
#include <cstdio>

#include <windows.h>

namespace Simulator {

/// The code itself is returned, 0 is success: the registry functions, fopen_s.
struct ReturnsStatus {
    static constexpr bool canFail = true;
    template <class R>
    static R Fail(DWORD code) {
        return static_cast<R>(code);
    }
    template <class R>
    static bool Succeeded(R result) {
        return result == R();
    }
};

/// The code is the last error, and FALSE, null or 0 is returned.
struct ReturnsZero {
    static constexpr bool canFail = true;
    template <class R>
    static R Fail(DWORD code) {
        SetLastError(code);
        return R();
    }
    template <class R>
    static bool Succeeded(R result) {
        return result != R();
    }
};

/// The code is the last error, and all bits set are returned: INVALID_HANDLE_VALUE,
/// INVALID_FILE_ATTRIBUTES, WAIT_FAILED.
struct ReturnsMinusOne {
    static constexpr bool canFail = true;
    template <class R>
    static R Fail(DWORD code) {
        SetLastError(code);
        return Value<R>();
    }
    template <class R>
    static bool Succeeded(R result) {
        return result != Value<R>();
    }

private:
    template <class R>
    static R Value() {
        return (R)(LONG_PTR)-1;  // a pointer or a number
    }
};

/// An HRESULT is returned; a Windows error code is converted to one.
struct ReturnsResult {
    static constexpr bool canFail = true;
    template <class R>
    static R Fail(DWORD code) {
        return HRESULT_FROM_WIN32(code);
    }
    template <class R>
    static bool Succeeded(R result) {
        return SUCCEEDED(result);
    }
};

/// The code is errno, and null or 0 is returned: fopen, fgets, fwrite, _beginthreadex.
struct SetsErrno {
    static constexpr bool canFail = true;
    template <class R>
    static R Fail(DWORD code) {
        errno = static_cast<int>(code);
        return R();
    }
    template <class R>
    static bool Succeeded(R result) {
        return result != R();
    }
};

/// The code is errno, and EOF is returned: fputs, fputc, fflush.
struct SetsErrnoReturnsEof {
    static constexpr bool canFail = true;
    template <class R>
    static R Fail(DWORD code) {
        errno = static_cast<int>(code);
        return EOF;
    }
    template <class R>
    static bool Succeeded(R result) {
        return result != EOF;
    }
};

/// It cannot fail; a plan to make it fail is never met. Sleep, the clocks, fclose.
struct CannotFail {
    static constexpr bool canFail = false;
    template <class R>
    static R Fail(DWORD) {
        return R();
    }
    template <class R>
    static bool Succeeded(R) {
        return true;
    }
};

}  // namespace Simulator
