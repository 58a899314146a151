// Writes what -fprofile-instr-generate has counted, when the module is unloaded: Debian has LLVM's runtime for that for
// Linux alone. The file is a raw profile, as llvm-profdata-19 reads it; the layout of its parts comes from a header of
// the compiler.
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <sys/stat.h>

typedef void *IntPtrT;
enum ValueKind {
#define VALUE_PROF_KIND(Enumerator, Value, Descr) Enumerator = (Value),
#include <profile/InstrProfData.inc>
};
typedef struct {
#define INSTR_PROF_DATA(Type, LLVMType, Name, Initializer) Type Name;
#include <profile/InstrProfData.inc>
} Record;
typedef struct {
#define INSTR_PROF_RAW_HEADER(Type, Name, Initializer) Type Name;
#include <profile/InstrProfData.inc>
} Header;

// The linker sorts the parts of a section by what follows the dollar sign; the compiler's are called $M.
#define PART(name) __attribute__((section(name), used))
static PART(".lprfd$A") Record beforeRecords = {0};
static PART(".lprfd$Z") Record afterRecords = {0};
static PART(".lprfc$A") uint64_t beforeCounters = 0;
static PART(".lprfc$Z") uint64_t afterCounters = 0;
static const PART(".lprfn$A") char beforeNames = 0;
static const PART(".lprfn$Z") char afterNames = 0;

#include <profile/InstrProfData.inc>  // the names

// The objects of the compiler refer to it, so that the linker searches a runtime.
int INSTR_PROF_PROFILE_RUNTIME_VAR = 0;

// By the C runtime's functions for descriptors: those for streams are the module's own, too, which tests replace.

// Adds what the same process has counted before it unloaded the module for the last time.
static void AddEarlierCounters(int file, long offset, uint64_t *counters, size_t count) {
    uint64_t earlier = 0;
    if (_lseek(file, offset, SEEK_SET) == -1)
        return;
    for (size_t i = 0; i < count && _read(file, &earlier, sizeof(earlier)) == (int)sizeof(earlier); ++i)
        counters[i] += earlier;
}

static bool Write(int file, const void *bytes, size_t size) {
    return _write(file, bytes, (unsigned)size) == (int)size;
}

// In the folder that FC_PROFILES names, one file for each process.
__attribute__((destructor)) static void WriteProfile(void) {
    const char *const folder = getenv("FC_PROFILES");
    char path[1024];
    if (folder == NULL || (size_t)snprintf(path, sizeof(path), "%s\\fc-%d.profraw", folder, _getpid()) >= sizeof(path))
        return;
    const Record *const records = &beforeRecords + 1;
    uint64_t *const counters = &beforeCounters + 1;
    const char *const names = &beforeNames + 1;
    const size_t recordsSize = (size_t)((uintptr_t)&afterRecords - (uintptr_t)records);
    const size_t countersSize = (size_t)((uintptr_t)&afterCounters - (uintptr_t)counters);
    const size_t namesSize = (size_t)((uintptr_t)&afterNames - (uintptr_t)names);
    const Header header = {
        .Magic = INSTR_PROF_RAW_MAGIC_64,
        .Version = INSTR_PROF_RAW_VERSION,
        .NumData = recordsSize / sizeof(Record),
        .NumCounters = countersSize / sizeof(uint64_t),
        .NamesSize = namesSize,
        // Distances have 32 bits in objects for Windows.
        .CountersDelta = (uint32_t)((uintptr_t)counters - (uintptr_t)records),
        .NamesDelta = (uintptr_t)names,
        .ValueKindLast = IPVK_Last,
    };
    const int file = _open(path, _O_RDWR | _O_CREAT | _O_BINARY, _S_IREAD | _S_IWRITE);
    if (file != -1)
        AddEarlierCounters(file, (long)(sizeof(header) + recordsSize), counters, header.NumCounters);
    static const char padding[sizeof(uint64_t)] = {0};
    const bool isWritten = file != -1 && _lseek(file, 0, SEEK_SET) == 0 && Write(file, &header, sizeof(header)) &&
                           Write(file, records, recordsSize) && Write(file, counters, countersSize) &&
                           Write(file, names, namesSize) && Write(file, padding, (8 - namesSize % 8) % 8);
    if (file == -1 || _close(file) != 0 || !isWritten)
        (void)fprintf(stderr, "error: no profile could be written to %s\n", path);
}
