#include "DriverFile.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include <windows.h>

#include "ArgumentText.h"
#include "CallScope.h"

namespace Simulator {

namespace {

/// A small library with a version resource, which every system has.
std::string ReadSample() {
    const InsideSimulator inside;
    wchar_t folder[MAX_PATH] = L"";
    (void)GetSystemDirectoryW(folder, MAX_PATH);
    std::ifstream file(std::filesystem::path(folder) / L"version.dll", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The offset of the version's four words, the lower word of each pair first; npos if there is no version.
std::size_t FindWords(const std::string &program) {
    const std::u16string_view key = u"VS_VERSION_INFO";
    std::string marker(reinterpret_cast<const char *>(key.data()), key.size() * sizeof(char16_t));
    marker += std::string(4, '\0');                // its terminator, and the padding to a multiple of four
    marker += "\xBD\x04\xEF\xFE";                  // the signature
    marker += std::string("\x00\x00\x01\x00", 4);  // the version of the structure
    const std::size_t found = program.find(marker);
    const bool isWhole = found != program.npos && found + marker.size() + sizeof(FileVersion) <= program.size();
    return isWhole ? found + marker.size() : program.npos;
}

}  // namespace

std::optional<FileVersion> VersionIn(const std::string &program) {
    const std::size_t at = FindWords(program);
    if (at == program.npos)
        return std::nullopt;
    FileVersion stored;
    std::memcpy(stored.data(), program.data() + at, sizeof stored);
    return FileVersion{stored[1], stored[0], stored[3], stored[2]};
}

void SetVersion(std::string &program, const FileVersion &version) {
    const std::size_t at = FindWords(program);
    if (at == program.npos)
        throw std::runtime_error("the program has no version");
    const FileVersion stored{version[1], version[0], version[3], version[2]};
    std::memcpy(program.data() + at, stored.data(), sizeof stored);
}

void WriteDriverFile(const std::filesystem::path &path, const FileVersion &version) {
    std::string program = ReadSample();
    SetVersion(program, version);
    std::ofstream file(path, std::ios::binary);
    file << program;
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + Utf8(path.wstring()));
}

}  // namespace Simulator
