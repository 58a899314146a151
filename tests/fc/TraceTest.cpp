// The function and the line that a trace reports.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCollector.h"
#include "common/Trace.h"
#include "vta_core_control.h"

namespace {

constexpr wchar_t kComponent[] = L"trace-test";

struct Spelling {
    const char *signature;
    const char *name;
};
constexpr Spelling kSpellings[] = {
    // GCC
    {"int luaopen_fc(lua_State*)", "luaopen_fc"},
    {"bool Filter::Diagnostics::IsDriverOpen(vti_handle_t*)", "Filter::Diagnostics::IsDriverOpen"},
    {"{anonymous}::Result {anonymous}::Step(const {anonymous}::Input&, const TraceSite&)", "Step"},
    {"const char* {anonymous}::StringArg(lua_State*, int)", "StringArg"},
    {"HRESULT WindowsFirewall::{anonymous}::MakeText(const wchar_t*)", "WindowsFirewall::MakeText"},
    {"HRESULT WindowsFirewall::<unnamed>::MakeText(const wchar_t*)", "WindowsFirewall::MakeText"},
    {"bool {anonymous}::Checker::operator()(const {anonymous}::Adapter&) const", "Checker::operator()"},
    {"static void {anonymous}::Worker::Run()", "Worker::Run"},
    {"{anonymous}::Worker::Run()::<lambda(int)>", "Worker::Run"},
    {"void {anonymous}::Write(const T&) [with T = wxString]", "Write"},
    // clang
    {"int luaopen_fc(lua_State *)", "luaopen_fc"},
    {"(anonymous namespace)::Result (anonymous namespace)::Step(const (anonymous namespace)::Input &)", "Step"},
    {"const char *(anonymous namespace)::StringArg(lua_State *, int)", "StringArg"},
    {"const wxString &Names::(anonymous namespace)::First()", "Names::First"},
    {"HRESULT WindowsFirewall::(anonymous namespace)::MakeText(const wchar_t *)", "WindowsFirewall::MakeText"},
    {"bool (anonymous namespace)::Checker::operator()(const Adapter &) const", "Checker::operator()"},
    {"auto (anonymous namespace)::Worker::Run()::(anonymous class)::operator()(int) const", "Worker::Run"},
    {"void (anonymous namespace)::Write(const T &) [T = wxString]", "Write"},
    // MSVC
    {"int __cdecl luaopen_fc(struct lua_State *)", "luaopen_fc"},
    {"struct `anonymous-namespace'::Result __cdecl `anonymous-namespace'::Step(const struct Input &)", "Step"},
    {"const char *__cdecl `anonymous-namespace'::StringArg(struct lua_State *,int)", "StringArg"},
    {"long __cdecl WindowsFirewall::`anonymous-namespace'::MakeText(const wchar_t *)", "WindowsFirewall::MakeText"},
    {"bool __cdecl `anonymous-namespace'::Checker::operator ()(const struct Adapter &) const", "Checker::operator()"},
    {"luaopen_fc", "luaopen_fc"},
};

TEST(TracedFunction, HasItsPlainNameWithEachCompiler) {
    for (const auto &[signature, name] : kSpellings)
        EXPECT_EQ(TraceFunctionNameOf(signature), name) << signature;
}

TEST(TracedFunction, IsEmptyWhenTheCompilerReportsNothing) {
    EXPECT_EQ(TraceFunctionNameOf(""), "");
}

void OneLine(const TraceLine &line) {
    Trace(line, "one");
}

void TwoLines(const TraceSite &site) {
    Trace(site, "first");
    Trace(site, "second");
}

struct KnownFunction {
    int begin = 0;
    void operator()() {
        const TraceSite site(kComponent);
        begin = __LINE__;
        OneLine(site);
        OneLine(site);
        OneLine(kComponent);
        TwoLines(site);
        Trace(site, "own");
    }
};

TEST(TracedLine, HasTheNumberOfItsCallAndTheNameOfTheKnownFunction) {
    VtaCore::Control::EnableTrace(kComponent, true);
    (void)TakeTracedLines();
    KnownFunction known;
    known();
    const std::vector<::TracedLine> lines = TakeTracedLines();
    VtaCore::Control::EnableTrace(kComponent, false);
    ASSERT_EQ(lines.size(), 6U);
    for (const ::TracedLine &line : lines) {
        EXPECT_EQ(line.function, "KnownFunction::operator()") << line.message;
        EXPECT_EQ(line.file, "TraceTest.cpp");
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(lines[static_cast<std::size_t>(i)].line, known.begin + 1 + i);
    EXPECT_EQ(lines[4].line, lines[3].line + 1) << "the helper's";
    EXPECT_LT(lines[4].line, known.begin);
    EXPECT_EQ(lines[5].line, known.begin + 5);
}

}  // namespace
