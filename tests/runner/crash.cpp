// A program that ends as its argument says: crash, crash-at-end, overrun, vanish, or an exit status. It crashes without
// an argument, and with options, as a test program gets them.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <windows.h>

namespace {

void Crash() {
    volatile int *volatile wild = nullptr;  // so that the compiler does not know the value
    *wild = 1;                              // cppcheck-suppress nullPointer
}

/// Writes beyond its array, which the stack protector detects when it returns.
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
