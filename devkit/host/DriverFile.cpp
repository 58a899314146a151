#include "DriverFile.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <windows.h>

#include "Text.h"

namespace {

/// A small library with a version resource, which every system has.
std::string ReadSample() {
    wchar_t folder[MAX_PATH] = L"";
    (void)GetSystemDirectoryW(folder, MAX_PATH);
    std::ifstream file(std::filesystem::path(folder) / L"version.dll", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The offset of the version's four words in a program file.
std::size_t FindVersionWords(const std::string &program) {
    constexpr std::string_view signatureAndLayout("\xBD\x04\xEF\xFE\x00\x00\x01\x00", 8);
    const std::u16string_view key = u"VS_VERSION_INFO";
    const std::string_view keyBytes(reinterpret_cast<const char *>(key.data()), key.size() * sizeof(char16_t));
    const std::size_t info = program.find(keyBytes);
    const std::size_t found = info == program.npos ? info : program.find(signatureAndLayout, info);
    if (found == program.npos)
        throw std::runtime_error("the system's version.dll has no version");
    return found + signatureAndLayout.size();
}

}  // namespace

void WriteDriverFile(const std::filesystem::path &path, const FileVersion &version) {
    std::string program = ReadSample();
    const FileVersion stored{version[1], version[0], version[3], version[2]};  // the lower word of each pair first
    std::memcpy(program.data() + FindVersionWords(program), stored.data(), sizeof stored);
    std::ofstream file(path, std::ios::binary);
    file << program;
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + ToUtf8(path.wstring()));
}
