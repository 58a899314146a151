#!/usr/bin/env bash
# Whether interfaces/ is laid out by Microsoft's rules as docs/abi.md says. clang knows those rules; of the headers that it would
# need for Windows, stand-ins with what interfaces/ uses are enough.
#   abi-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
REPOSITORY=$(cd "$HERE/../.." && pwd)
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Abi

# header NAME: takes its text from the input.
header() {
    mkdir -p "$WORK/include/$(dirname "$1")"
    { echo '#pragma once' && cat; } >"$WORK/include/$1"
}
header cstddef <<<'#include <stddef.h>
namespace std { using ::size_t; }'
header cstdint <<<'#include <stdint.h>
namespace std { using ::uint32_t; using ::uintptr_t; }'
header cstdarg <<<'#include <stdarg.h>'
header lua.hpp <<<'struct lua_State;'
header windows.h <<<'typedef struct HINSTANCE__ *HINSTANCE; struct GUID { char bytes[16]; };'
header wx/string.h <<<'class wxString {}; class wxFormatString {};'
header wx/stream.h <<<'class wxInputStream; class wxOutputStream;'
header wx/log.h <<<'#include <wx/string.h>
typedef unsigned long wxLogLevel; class wxLogRecordInfo;
class wxLog {
public: virtual ~wxLog();
protected: virtual void DoLogRecord(wxLogLevel, const wxString &, const wxLogRecordInfo &);
};'
# Its virtual functions, in the order of the real one.
header wx/thread.h <<<'class wxThread {
public: virtual bool TestDestroy(); virtual ~wxThread();
protected: virtual void *Entry() = 0; virtual void OnDelete() {} virtual void OnKill() {} virtual void OnExit() {}
};'

# compile OPTIONS... : compiles the source on standard input by Microsoft's rules. Leaves the output in $WORK/out.
compile() {
    clang++-19 --target=x86_64-pc-windows-msvc -std=c++20 -nostdlibinc -nostdinc++ -I "$WORK/include" \
        -I "$REPOSITORY/interfaces" "$@" -x c++ - >"$WORK/out" 2>&1 || because "$(head -n 5 "$WORK/out")"
}

# slots_of CLASS SOURCE: "NUMBER NAME" of each of its virtual functions, from 0.
slots_of() {
    compile -Xclang -fdump-vtable-layouts -emit-llvm -c -o /dev/null <<<"$2" || return
    awk -v class="$1" '
        /^VFTable for / { shown = $0 ~ "'\''" class "'\'' \\(" }
        /^$/ { shown = 0 }
        shown && $2 == "|" && !/RTTI/ { number = $1 - 1; sub(/^[^|]*\| /, ""); print number, $0 }' "$WORK/out" |
        sed -E 's/^([0-9]+) .*::~.*/\1 destructor/; s/^([0-9]+) .*::(\w+)(\(.*)$/\1 \2\3/; /TestDestroy/!s/\(.*//'
}

# slots_told: the same, from the table on the page.
slots_told() {
    sed -n '/^| Slot | Operation/,/^$/p' "$REPOSITORY/docs/abi.md" | tr -d '`' |
        awk -F ' *\\| *' 'NR > 2 { print $2, $3; if ($5 != "") print $5, $6 }' | sed -n 's/wxThread:://; /^[0-9]/p' | sort -n
}

TheSlotsOfAThreadMatchThePage() {
    local slots
    slots=$(slots_of Own '#include <vta_core.h>
class Own : public VtaCore::CRunnable {
public: Own() : CRunnable(false, -1, false) {} const char *Name() const override { return ""; }
protected: void Run() override {}
};
void Make() { Own own; }') || return
    [ "$(slots_told | wc -l)" -eq 13 ] || because "the page tells $(slots_told)" || return
    [ "${slots/unsigned int/unsigned}" = "$(slots_told)" ] || because "$(diff <(echo "$slots") <(slots_told))"
}

TheRecordOfATypeHasItsFiveFunctionsInOrder() {
    local slots
    slots=$(slots_of Own '#include <SLB3.h>
class Own : public SLB3::BaseInfo {
    int kind() const override { return 0; } const char *name() const override { return ""; }
    int parameterCount() const override { return 0; } const BaseInfo *returnType() const override { return nullptr; }
    const BaseInfo *const *parameters() const override { return nullptr; }
};
Own own;') || return
    [ "$slots" = "0 kind
1 name
2 parameterCount
3 returnType
4 parameters" ] || because "$slots"
}

# The headers assert sizes and offsets.
TheRecordsHaveTheirLayout() {
    compile -fsyntax-only <<<'#include <vti.h>
#include <SLB3.h>'
}

TheObjectsOfTheAgentHaveNoMembers() {
    compile -fsyntax-only <<<'#include <vta_core.h>
static_assert(__is_empty(VtaCore::CDom) && __is_empty(VtaCore::CZipOutputStream));
static_assert(!__is_constructible(VtaCore::CDom) && !__is_constructible(VtaCore::CZipOutputStream));'
}

for name in TheSlotsOfAThreadMatchThePage TheRecordOfATypeHasItsFiveFunctionsInOrder TheRecordsHaveTheirLayout \
    TheObjectsOfTheAgentHaveNoMembers; do
    test_case "$name"
done
write_results abi-tests "$XML"
