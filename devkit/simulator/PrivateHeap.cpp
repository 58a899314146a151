#include "PrivateHeap.h"

#include <windows.h>

#include "Function.h"

namespace Simulator {

namespace {

template <class F>
F *RealKernelFunction(F *, const char *name) {
    return reinterpret_cast<F *>(reinterpret_cast<void *>(FindRealFunction("KERNEL32.dll", name)));
}

struct Heap {
    HANDLE handle = HeapCreate(0, 0, 0);
    decltype(&::HeapAlloc) allocate = RealKernelFunction(&::HeapAlloc, "HeapAlloc");
    decltype(&::HeapFree) release = RealKernelFunction(&::HeapFree, "HeapFree");
};

/// Lives as long as the process: resources are counted until its very end.
const Heap &TheHeap() {
    static const Heap heap;
    return heap;
}

}  // namespace

void *PrivateAllocate(std::size_t size) {
    return TheHeap().allocate(TheHeap().handle, 0, size);
}

void PrivateFree(void *block) {
    TheHeap().release(TheHeap().handle, 0, block);
}

}  // namespace Simulator
