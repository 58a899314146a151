// Shared by the tests of the simulator.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include <windows.h>

#include "CallScope.h"
#include "ImportTable.h"
#include "Patience.h"

namespace SimulatorTest {

/// Polls every millisecond. @return whether the condition became true.
inline bool Eventually(const std::function<bool()> &condition) {
    return Await(kPatienceMs, condition);
}

/// The processor time of the calling thread, in milliseconds, so that other load does not count.
inline double ProcessorMs() {
    const Simulator::InsideSimulator inside;
    FILETIME begin{}, end{}, kernel{}, user{};
    GetThreadTimes(GetCurrentThread(), &begin, &end, &kernel, &user);
    const auto intervals = [](const FILETIME &time) {
        return double(std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
    };
    return (intervals(kernel) + intervals(user)) / 1e4;
}

inline HMODULE ThisProgram() {
    return GetModuleHandleW(nullptr);
}

inline HMODULE WxLibrary() {
    return GetModuleHandleW(L"" FC_WX_DLL);
}

/// The result of a call that reports success.
inline DWORD ErrorOf(BOOL result) {
    return result ? ERROR_SUCCESS : GetLastError();
}

/// Null if the module does not import it.
inline void **FindSlot(HMODULE module, const std::string &function) {
    for (const Simulator::Import &import : Simulator::Imports(module)) {
        if (import.function == function)
            return import.slot;
    }
    return nullptr;
}

/// A thread that may be killed from outside. Joins with the real functions.
class TestThread {
public:
    explicit TestThread(std::function<void()> body) : m_body(std::move(body)) {
        const Simulator::InsideSimulator inside;
        m_thread = CreateThread(nullptr, 0, &Run, this, 0, nullptr);
    }
    ~TestThread() {
        const Simulator::InsideSimulator inside;
        Join(INFINITE);
        CloseHandle(m_thread);
    }
    TestThread(const TestThread &) = delete;
    TestThread &operator=(const TestThread &) = delete;

    /// @return whether it has ended within so many real milliseconds.
    bool Join(DWORD realMs) const {
        const Simulator::InsideSimulator inside;
        return WaitForSingleObject(m_thread, realMs) == WAIT_OBJECT_0;
    }
    [[nodiscard]] bool Runs() const { return !Join(30); }
    [[nodiscard]] HANDLE Handle() const { return m_thread; }

private:
    static DWORD WINAPI Run(void *self) {
        static_cast<TestThread *>(self)->m_body();
        return 0;
    }
    std::function<void()> m_body;
    HANDLE m_thread = nullptr;
};

/// A copy of a library of the program under another name, so that it can be loaded and unloaded freely.
class LibraryCopy {
public:
    explicit LibraryCopy(const wchar_t *library) {
        const Simulator::InsideSimulator inside;
        wchar_t path[MAX_PATH] = L"";
        GetModuleFileNameW(GetModuleHandleW(library), path, MAX_PATH);
        m_path = std::filesystem::temp_directory_path() / Name();
        std::filesystem::copy_file(path, m_path, std::filesystem::copy_options::overwrite_existing);
    }
    ~LibraryCopy() {
        const Simulator::InsideSimulator inside;
        Unload();
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }
    LibraryCopy(const LibraryCopy &) = delete;
    LibraryCopy &operator=(const LibraryCopy &) = delete;

    [[nodiscard]] std::wstring Name() const {
        return L"fc-devkit-copy-" + std::to_wstring(GetCurrentProcessId()) + L".dll";
    }
    HMODULE Load() {
        const Simulator::OutsideSimulator outside;
        return m_module = LoadLibraryW(m_path.c_str());
    }
    void Unload() {
        if (m_module != nullptr)
            FreeLibrary(std::exchange(m_module, nullptr));
    }

private:
    std::filesystem::path m_path;
    HMODULE m_module = nullptr;
};

}  // namespace SimulatorTest
