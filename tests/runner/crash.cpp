// A program that ends as its argument tells: crash, crash-at-end, overrun, vanish, or an exit status. It crashes
// without one, and where it is run as a test program is, with options.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <windows.h>

namespace {

void Crash() {
    volatile int *volatile wild = nullptr;  // the compiler is not to see where it leads
    *wild = 1;                              // cppcheck-suppress nullPointer
}

/// Writes past its array, which the stack protector finds when it returns.
[[gnu::noinline]] void Overrun(std::size_t length) {
    char text[16];
    for (std::size_t i = 0; i < length; ++i)
        static_cast<volatile char *>(text)[i] = 'x';  // cppcheck-suppress arrayIndexOutOfBounds
}

}  // namespace

int main(int argc, char **argv) {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    const std::string how = argc > 1 && argv[1][0] != '-' ? argv[1] : "crash";
    (void)std::puts("the program begins");
    (void)std::fflush(stdout);
    if (how == "crash")
        Crash();
    if (how == "crash-at-end")
        (void)std::atexit(&Crash);
    if (how == "overrun")
        Overrun(how.size() * 8);
    if (how == "vanish")
        (void)TerminateProcess(GetCurrentProcess(), 0);
    return static_cast<int>(std::strtol(how.c_str(), nullptr, 10));
}
