// The replacements of the memory functions. They bypass journal and fault plans: they are called too often, and a
// journal would allocate.
#include "Balance.h"

#include <cstring>
#include <cwchar>
#include <malloc.h>
#include <new>

#include "FunctionSet.h"

#ifdef _MSC_VER
#include <intrin.h>
#define CALLER _ReturnAddress()
#else
#define CALLER __builtin_return_address(0)
#endif

namespace Simulator {

namespace {

template <class F>
F *Find(F *, const char *library, const char *name) {
    return reinterpret_cast<F *>(reinterpret_cast<void *>(FindRealFunction(library, name)));
}

// NOLINTNEXTLINE(bugprone-macro-parentheses): a declaration's name
#define REAL(library, name) decltype(&::name) name = Find(static_cast<decltype(&::name)>(nullptr), library, #name)
struct RealFunctions {
    REAL(kCRuntime, malloc);
    REAL(kCRuntime, calloc);
    REAL(kCRuntime, realloc);
    REAL(kCRuntime, free);
    REAL(kCRuntime, _msize);
    REAL(kCRuntime, _aligned_malloc);
    REAL(kCRuntime, _aligned_realloc);
    REAL(kCRuntime, _aligned_free);
    REAL("KERNEL32.dll", HeapAlloc);
    REAL("KERNEL32.dll", HeapReAlloc);
    REAL("KERNEL32.dll", HeapFree);
};
#undef REAL

const RealFunctions &Real() {
    static const RealFunctions functions;
    return functions;
}

Balance &Books() {
    return Balance::Instance();
}

/// The caller of the operator new that is about to call malloc; 0 if there is none.
const ThreadWord askedForNew;

Balance::Request RequestOf(const char *function, std::size_t size, const void *caller) {
    if (const std::uintptr_t asker = askedForNew.Get())
        return {Balance::kOperatorNew, size, reinterpret_cast<const void *>(asker)};
    return {function, size, caller};
}

// ---- The C runtime

void *Malloc(std::size_t size) {
    return Books().Allocate(RequestOf("malloc", size, CALLER), [size] { return Real().malloc(size); });
}

void *Calloc(std::size_t count, std::size_t size) {
    if (size != 0 && count > SIZE_MAX / size)
        return Real().calloc(count, size);  // fails like the real one
    void *block = Books().Allocate(RequestOf("calloc", count * size, CALLER),
                                   [count, size] { return Real().calloc(count, size); });
    // The real function gets zeros without touching the memory; a guarded block has none.
    std::size_t guardedSize = 0;
    if (block != nullptr && Books().GuardedSize(block, guardedSize))
        std::memset(block, 0, count * size);
    return block;
}

void Free(void *block) {
    Books().Free(block, Real().free);
}

void *Realloc(void *block, std::size_t size) {
    return Books().Reallocate(
        block, RequestOf("realloc", size, CALLER), [=] { return Real().realloc(block, size); },
        [=] { return Real().malloc(size); }, Real().free);
}

std::size_t Msize(void *block) {
    std::size_t size = 0;
    return Books().GuardedSize(block, size) ? size : Real()._msize(block);
}

void *Copy(const char *function, const void *text, std::size_t size, const void *caller) {
    void *copy = Books().Allocate(RequestOf(function, size, caller), [size] { return Real().malloc(size); });
    return copy == nullptr ? nullptr : std::memcpy(copy, text, size);
}

char *Strdup(const char *text) {
    return text == nullptr ? nullptr : static_cast<char *>(Copy("_strdup", text, std::strlen(text) + 1, CALLER));
}

wchar_t *Wcsdup(const wchar_t *text) {
    if (text == nullptr)
        return nullptr;
    return static_cast<wchar_t *>(Copy("_wcsdup", text, (std::wcslen(text) + 1) * sizeof(wchar_t), CALLER));
}

void *AlignedMalloc(std::size_t size, std::size_t alignment) {
    Balance::Request request = RequestOf("_aligned_malloc", size, CALLER);
    request.alignment = alignment;
    return Books().Allocate(request, [=] { return Real()._aligned_malloc(size, alignment); });
}

void *AlignedRealloc(void *block, std::size_t size, std::size_t alignment) {
    Balance::Request request = RequestOf("_aligned_realloc", size, CALLER);
    request.alignment = alignment;
    return Books().Reallocate(
        block, request, [=] { return Real()._aligned_realloc(block, size, alignment); },
        [=] { return Real()._aligned_malloc(size, alignment); }, Real()._aligned_free);
}

void AlignedFree(void *block) {
    Books().Free(block, Real()._aligned_free);
}

// ---- The system's heaps, which are not guarded

void *WINAPI HeapAlloc_(HANDLE heap, DWORD flags, SIZE_T size) {
    Balance::Request request = RequestOf("HeapAlloc", size, CALLER);
    request.guardable = false;
    return Books().Allocate(request, [=] { return Real().HeapAlloc(heap, flags, size); });
}

void *WINAPI HeapReAlloc_(HANDLE heap, DWORD flags, void *block, SIZE_T size) {
    Balance::Request request = RequestOf("HeapReAlloc", size, CALLER);
    request.guardable = false;
    const auto real = [=] { return Real().HeapReAlloc(heap, flags, block, size); };
    return Books().Reallocate(block, request, real, real, [](void *) {});
}

BOOL WINAPI HeapFree_(HANDLE heap, DWORD flags, void *block) {
    BOOL freed = TRUE;
    Books().Free(block, [&](void *real) { freed = Real().HeapFree(heap, flags, real); });
    return freed;
}

// ---- libstdc++'s operator new, only to know the caller; it calls its malloc

#ifndef _MSC_VER

class AskedForNew {
public:
    explicit AskedForNew(const void *caller) { askedForNew.Set(reinterpret_cast<std::uintptr_t>(caller)); }
    ~AskedForNew() { askedForNew.Set(0); }
    AskedForNew(const AskedForNew &) = delete;
    AskedForNew &operator=(const AskedForNew &) = delete;
};

constexpr char kNewLibrary[] = "libstdc++-6.dll";
using NewFunction = void *(std::size_t);
using NothrowNewFunction = void *(std::size_t, const std::nothrow_t &);

template <class F>
F *RealNew(const char *name) {
    return Find(static_cast<F *>(nullptr), kNewLibrary, name);
}

void *New(std::size_t size) {
    static NewFunction *const real = RealNew<NewFunction>("_Znwy");
    const AskedForNew asked(CALLER);
    return real(size);
}

void *NewArray(std::size_t size) {
    static NewFunction *const real = RealNew<NewFunction>("_Znay");
    const AskedForNew asked(CALLER);
    return real(size);
}

void *NothrowNew(std::size_t size, const std::nothrow_t &tag) {
    static NothrowNewFunction *const real = RealNew<NothrowNewFunction>("_ZnwyRKSt9nothrow_t");
    const AskedForNew asked(CALLER);
    return real(size, tag);
}

void *NothrowNewArray(std::size_t size, const std::nothrow_t &tag) {
    static NothrowNewFunction *const real = RealNew<NothrowNewFunction>("_ZnayRKSt9nothrow_t");
    const AskedForNew asked(CALLER);
    return real(size, tag);
}

#endif

template <class F>
void *Address(F *function) {
    return reinterpret_cast<void *>(function);
}

std::vector<SimulatedFunction> MemoryFunctions() {
    return {
        {kCRuntime, "malloc", Address(&Malloc)},
        {kCRuntime, "calloc", Address(&Calloc)},
        {kCRuntime, "realloc", Address(&Realloc)},
        {kCRuntime, "free", Address(&Free)},
        {kCRuntime, "_msize", Address(&Msize)},
        {kCRuntime, "_strdup", Address(&Strdup)},
        {kCRuntime, "_wcsdup", Address(&Wcsdup)},
        {kCRuntime, "_aligned_malloc", Address(&AlignedMalloc)},
        {kCRuntime, "_aligned_realloc", Address(&AlignedRealloc)},
        {kCRuntime, "_aligned_free", Address(&AlignedFree)},
        {"KERNEL32.dll", "HeapAlloc", Address(&HeapAlloc_)},
        {"KERNEL32.dll", "HeapReAlloc", Address(&HeapReAlloc_)},
        {"KERNEL32.dll", "HeapFree", Address(&HeapFree_)},
#ifndef _MSC_VER
        {kNewLibrary, "_Znwy", Address(&New)},
        {kNewLibrary, "_Znay", Address(&NewArray)},
        {kNewLibrary, "_ZnwyRKSt9nothrow_t", Address(&NothrowNew)},
        {kNewLibrary, "_ZnayRKSt9nothrow_t", Address(&NothrowNewArray)},
#endif
    };
}

}  // namespace

std::set<std::string> MemoryFunctionNames() {
    const InsideSimulator inside;
    std::set<std::string> names;
    for (const SimulatedFunction &function : MemoryFunctions())
        names.insert(function.name);
    return names;
}

void InstallMemoryFunctions(FunctionSet &functions) {
    const InsideSimulator inside;
    (void)Real();
    (void)Books();
    for (SimulatedFunction &function : MemoryFunctions())
        functions.Add(std::move(function));
}

}  // namespace Simulator
