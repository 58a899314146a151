// The version of a file, through SLB.filter: of files not written here, and of broken ones.

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "DriverFile.h"
#include "LogCollector.h"
#include "ModuleFixture.h"
#include "WindowsDriverInstaller/drivers/DriverVersions.h"
#include "WindowsFunctions.h"
#include "vta_core_control.h"

namespace {

using Version = Simulator::FileVersion;
namespace fs = std::filesystem;

const fs::path kSystem = L"C:\\windows\\system32";

std::string BytesOf(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// As Lua sees it; "" for no result.
std::string Text(const std::optional<Version> &version) {
    std::string text;
    if (version)
        for (const std::uint16_t component : *version)
            text += (text.empty() ? "" : " ") + std::to_string(static_cast<std::int16_t>(component));
    return text;
}

class FileVersion : public ModuleFixture {
protected:
    FileVersion() : ModuleFixture({.registry = false}), m_sample(BytesOf(kSystem / L"version.dll")) {
        lua.Run("f = SLB.filter");
        VtaCore::Control::EnableTrace("*", true);
        (void)TakeTracedLines();
    }
    ~FileVersion() override {
        EXPECT_TRUE(TakeTracedLines().empty());
        EXPECT_TRUE(m_log.Take().empty());
        VtaCore::Control::EnableTrace("*", false);
    }

    /// What GetFileVersion returns for a path in UTF-8, separated by spaces; "" for no result.
    std::string Read(const std::string &path) {
        lua_pushlstring(lua, path.data(), path.size());
        lua_setglobal(lua, "path");
        lua.Run(R"(
            local r = table.pack(f.GetFileVersion(path))
            assert(r.n == 0 or r.n == 4, r.n)
            for i = 1, r.n do assert(type(r[i]) == 'number') end
            text = table.concat(r, ' '))");
        return lua.Eval("text");
    }
    std::string Read(const fs::path &path) {
        const std::u8string text = path.u8string();
        return Read(std::string(text.begin(), text.end()));
    }
    /// Lua's own memory is freed.
    void ReadInStateOfItsOwn(const fs::path &path) {
        LuaState own;
        Open(own);
        lua_pushstring(own, path.string().c_str());
        lua_setglobal(own, "path");
        own.Run("SLB.filter.GetFileVersion(path) pcall(SLB.filter.GetFileVersion, {})");
    }
    fs::path Write(const std::wstring &name, const std::string &bytes) {
        fs::path path = simulation().GetFolders().Temp() / name;
        std::ofstream file(path, std::ios::binary);
        file << bytes;
        EXPECT_TRUE(file.flush());
        return path;
    }
    /// A library with this version in its resources.
    fs::path WriteLibrary(const std::wstring &name, const Version &version) {
        std::string bytes = m_sample;
        Simulator::SetVersion(bytes, version);
        return Write(name, bytes);
    }

    const std::string &Sample() const { return m_sample; }

private:
    std::string m_sample;
    LogCollector m_log;
};

TEST_F(FileVersion, MatchesTheBytesOfTheSystemsLibraries) {
    int read = 0;
    for (const fs::directory_entry &entry : fs::directory_iterator(kSystem)) {
        if (entry.path().extension() != L".dll" || entry.file_size() > 300'000 || read == 150)
            continue;
        const std::optional<Version> expected = Simulator::VersionIn(BytesOf(entry.path()));
        EXPECT_EQ(Read(entry.path()), Text(expected)) << entry.path();
        read += expected.has_value() ? 1 : 0;
    }
    EXPECT_GT(read, 50) << "the system has too few libraries with a version";
}

TEST_F(FileVersion, MatchesTheBytesOfTheModule) {
    wchar_t path[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(GetModuleHandleW(L"fc.dll"), path, MAX_PATH), 0U);
    const std::optional<Version> expected = Simulator::VersionIn(BytesOf(path));
    ASSERT_TRUE(expected);
    EXPECT_EQ(Read(fs::path(path)), Text(expected));
}

TEST_F(FileVersion, HasTheHighWordFirst) {
    EXPECT_EQ(Read(WriteLibrary(L"a.dll", {1, 2, 3, 4})), "1 2 3 4");
}

TEST_F(FileVersion, HasNegativeComponentsFrom32768On) {
    EXPECT_EQ(Read(WriteLibrary(L"a.dll", {65535, 0, 0, 0})), "-1 0 0 0");
    EXPECT_EQ(Read(WriteLibrary(L"b.dll", {32768, 32767, 0x8001, 65534})), "-32768 32767 -32767 -2");
}

TEST_F(FileVersion, HasUnsignedComponentsForNativeCallers) {
    const fs::path path = WriteLibrary(L"a.dll", {65535, 32768, 1, 0});
    std::array<unsigned short, 4> version{9, 9, 9, 9};
    EXPECT_TRUE(GetFileVersion(path.wstring(), &version[0], &version[1], &version[2], &version[3]));
    EXPECT_EQ(version, (std::array<unsigned short, 4>{65535, 32768, 1, 0}));
}

TEST_F(FileVersion, LeavesTheComponentsOfANativeCallerUnchangedWhenThereIsNone) {
    std::array<unsigned short, 4> version{9, 8, 7, 6};
    EXPECT_FALSE(GetFileVersion("C:\\missing.dll", &version[0], &version[1], &version[2], &version[3]));
    EXPECT_EQ(version, (std::array<unsigned short, 4>{9, 8, 7, 6}));
}

TEST_F(FileVersion, HasNoResultForAFileWithoutOne) {
    lua_pushstring(lua, Write(L"text.txt", "no version\n").string().c_str());
    lua_setglobal(lua, "path");
    EXPECT_EQ(lua.Eval("select('#', f.GetFileVersion(path))"), "0");
    EXPECT_EQ(Read(Write(L"empty.dll", "")), "");
    EXPECT_EQ(Read(Write(L"text.dll", std::string(5'000, 'M'))), "");
}

TEST_F(FileVersion, HasNoResultForALibraryWithoutResources) {
    std::string bytes = Sample();
    const std::size_t header = static_cast<unsigned char>(bytes[0x3C]) + 256U * static_cast<unsigned char>(bytes[0x3D]);
    constexpr std::size_t resources = 24 + 112 + 2 * 8;  // the third directory of a 64-bit program
    ASSERT_EQ(bytes.substr(header, 2), "PE");
    bytes.replace(header + resources, 8, std::string(8, '\0'));
    EXPECT_EQ(Read(Write(L"bare.dll", bytes)), "");
}

TEST_F(FileVersion, IsCompleteOrHasNoResultForATruncatedLibrary) {
    const std::string whole = Text(Simulator::VersionIn(Sample()));
    int none = 0;
    for (std::size_t size = 0; size < Sample().size(); size += Sample().size() / 60 + 1) {
        const std::string read = Read(Write(L"cut" + std::to_wstring(size) + L".dll", Sample().substr(0, size)));
        EXPECT_TRUE(read.empty() || read == whole) << size << " bytes: " << read;
        none += read.empty() ? 1 : 0;
    }
    EXPECT_GT(none, 10);
}

TEST_F(FileVersion, HasNoResultForAPathThatIsNotAFile) {
    const fs::path temp = simulation().GetFolders().Temp();
    EXPECT_EQ(Read(temp), "") << "a folder";
    EXPECT_EQ(Read(temp / L"missing.dll"), "");
    EXPECT_EQ(Read(temp / L"missing" / L"missing.dll"), "");
    EXPECT_EQ(Read(std::string()), "");
    EXPECT_EQ(Read(std::string("\\")), "");
    EXPECT_EQ(Read(std::string("a<b>|?*.dll")), "");
    EXPECT_EQ(Read("C:\\" + std::string(40'000, 'x')), "");
}

TEST_F(FileVersion, TakesAPathInUtf8EvenOutsideTheCodePage) {
    EXPECT_EQ(Read(WriteLibrary(L"\u7DB2\u0416\u00FC \xD83D\xDE00.dll", {1, 2, 3, 4})), "1 2 3 4");
}

TEST_F(FileVersion, HasNoResultForAPathThatIsNotUtf8) {
    const std::string path = WriteLibrary(L"\u00FC.dll", {1, 2, 3, 4}).parent_path().string() + "\\";
    EXPECT_EQ(Read(path + "\xC3\xBC.dll"), "1 2 3 4");
    EXPECT_EQ(Read(path + "\xFC.dll"), "") << "the code page's character";
    EXPECT_EQ(Read(std::string("\xFF\xFE\xC3")), "");
}

TEST_F(FileVersion, TakesThePathUpToItsFirstZeroByte) {
    const std::string path = WriteLibrary(L"a.dll", {1, 2, 3, 4}).string();
    EXPECT_EQ(Read(path + std::string("\0.txt", 5)), "1 2 3 4");
}

TEST_F(FileVersion, RaisesALuaErrorForAnArgumentThatIsNotAString) {
    for (const char *argument : {"", "nil", "{}", "true", "print"})
        EXPECT_NE(lua.ErrorOf(std::string("f.GetFileVersion(") + argument + ")")
                      .find("bad argument #1 to 'GetFileVersion' (string expected"),
                  std::string::npos)
            << argument;
    EXPECT_EQ(lua.Eval("select('#', f.GetFileVersion(17))"), "0") << "a number is a path, too";
}

TEST_F(FileVersion, IgnoresFurtherArguments) {
    lua_pushstring(lua, WriteLibrary(L"a.dll", {1, 2, 3, 4}).string().c_str());
    lua_setglobal(lua, "path");
    EXPECT_EQ(lua.Eval("select('#', f.GetFileVersion(path, nil, {}, 'x'))"), "4");
}

TEST_F(FileVersion, HasNoResultWhicheverSystemCallFails) {
    const fs::path path = WriteLibrary(L"a.dll", {1, 2, 3, 4});
    for (const char *function : {"GetFileVersionInfoSizeW", "GetFileVersionInfoW", "VerQueryValueW"}) {
        const auto plan = simulation().GetFaults().FailNth(function, 1, ERROR_RESOURCE_DATA_NOT_FOUND);
        EXPECT_EQ(Read(path), "") << function;
        EXPECT_TRUE(plan->Hit()) << function;
        simulation().GetFaults().Clear();
        EXPECT_EQ(Read(path), "1 2 3 4") << function;
    }
}

TEST_F(FileVersion, HasNoResultWithoutMemoryForTheResource) {
    const wxString path = WriteLibrary(L"a.dll", {1, 2, 3, 4}).wstring();
    std::array<unsigned short, 4> version{9, 8, 7, 6};
    const auto fault = balance().FailAllocation(1, GetModuleHandleW(nullptr));
    EXPECT_FALSE(GetFileVersion(path, &version[0], &version[1], &version[2], &version[3]));
    EXPECT_TRUE(fault->Hit());
    EXPECT_EQ(version, (std::array<unsigned short, 4>{9, 8, 7, 6}));
    EXPECT_TRUE(GetFileVersion(path, &version[0], &version[1], &version[2], &version[3]));
    EXPECT_EQ(version, (std::array<unsigned short, 4>{1, 2, 3, 4}));
}

TEST_F(FileVersion, LeaksNeitherMemoryNorHandles) {
    const fs::path good = WriteLibrary(L"a.dll", {1, 2, 3, 4});
    const fs::path bad = Write(L"b.dll", "no library");
    const auto calls = [&] {
        ReadInStateOfItsOwn(good);
        ReadInStateOfItsOwn(bad);
        for (const char *function : {"GetFileVersionInfoW", "VerQueryValueW"}) {
            (void)simulation().GetFaults().FailNth(function, 1, ERROR_RESOURCE_DATA_NOT_FOUND);
            ReadInStateOfItsOwn(good);
            simulation().GetFaults().Clear();
        }
    };
    calls();
    const Simulator::BalanceSnapshot before = balance().Take();
    DWORD handlesBefore = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handlesBefore);
    for (int i = 0; i < 10; ++i)
        calls();
    DWORD handlesAfter = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handlesAfter);
    EXPECT_EQ(Simulator::Balance::Left(before, balance().Take()).size(), 0U)
        << balance().Difference(before, balance().Take());
    EXPECT_EQ(handlesAfter, handlesBefore);
    fs::remove(good);
    EXPECT_FALSE(fs::exists(good)) << "the file is not held open";
}

}  // namespace
