#include "ReadView.h"

#include <cstdint>

#include <windows.h>

namespace {

struct Reading {
    std::span<const std::byte> view;
    void (*read)(void *context);
    void *context;
};

bool IsWithinView(std::span<const std::byte> view, std::uintptr_t address) {
    return address - reinterpret_cast<std::uintptr_t>(view.data()) < view.size();
}

/// The result of the __except filter.
int DecideOnViewException(const EXCEPTION_RECORD &exception, const Reading &reading) {
    const bool isPage =
        exception.ExceptionCode == EXCEPTION_IN_PAGE_ERROR || exception.ExceptionCode == EXCEPTION_ACCESS_VIOLATION;
    // The second word of both is the address that was read.
    return isPage && exception.NumberParameters >= 2 && IsWithinView(reading.view, exception.ExceptionInformation[1])
               ? EXCEPTION_EXECUTE_HANDLER
               : EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

#ifdef _MSC_VER

bool ReadView(std::span<const std::byte> view, void (*read)(void *context), void *context) {
    const Reading reading{view, read, context};
    __try {
        reading.read(reading.context);
        return true;
    } __except (DecideOnViewException(*GetExceptionInformation()->ExceptionRecord, reading)) {
        return false;
    }
}

#elif defined(__x86_64__)

// The same for compilers without __try: what MSVC would generate.
extern "C" {
int FcReadViewGuarded(const Reading *reading);
void FcReadView(const Reading *reading);
int FcReadViewFilter(const EXCEPTION_POINTERS *exception, const void *frame);
}

[[gnu::used]] void FcReadView(const Reading *reading) {
    reading->read(reading->context);
}

/// @param frame  that of FcReadViewGuarded, which keeps the reading behind the room for its callee's arguments.
[[gnu::used]] int FcReadViewFilter(const EXCEPTION_POINTERS *exception, const void *frame) {
    return DecideOnViewException(*exception->ExceptionRecord, *static_cast<const Reading *const *>(frame)[4]);
}

__asm__(R"(
    .text
    .def FcReadViewGuarded; .scl 2; .type 32; .endef
    .globl FcReadViewGuarded
    .p2align 4
    .seh_proc FcReadViewGuarded
FcReadViewGuarded:
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    movq %rcx, 32(%rsp)
.LFcReadBegins:
    call FcReadView
    nop
.LFcReadEnds:
    movl $1, %eax
    addq $40, %rsp
    ret
.LFcReadFails:
    xorl %eax, %eax
    addq $40, %rsp
    ret
    .seh_handler __C_specific_handler, @except
    .seh_handlerdata
    .long 1
    .rva .LFcReadBegins, .LFcReadEnds, FcReadViewFilter, .LFcReadFails
    .text
    .seh_endproc
)");

bool ReadView(std::span<const std::byte> view, void (*read)(void *context), void *context) {
    const Reading reading{view, read, context};
    return FcReadViewGuarded(&reading) != 0;
}

#else
// cppcheck-suppress preprocessorErrorDirective
#error "a frame handler of this processor is needed here"
#endif
