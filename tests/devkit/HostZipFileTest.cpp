// The packages that the host reads, valid and broken.
#include <gtest/gtest.h>

#include <wx/mstream.h>
#include <wx/zipstrm.h>

#include "HostProcess.h"
#include "devkit/host/ZipFile.h"

namespace {

const std::string kContent(50'000, 'x');

/// A package of an empty entry and one that is stored uncompressed.
std::string Package() {
    wxMemoryOutputStream memory;
    wxZipOutputStream zip(memory, 0);
    (void)zip.PutNextEntry("empty.txt");
    (void)zip.PutNextEntry("full.txt");
    zip.WriteAll(kContent.data(), kContent.size());
    (void)zip.Close();
    std::string bytes(memory.GetSize(), '\0');
    (void)memory.CopyTo(bytes.data(), bytes.size());
    return bytes;
}

/// The size of the second entry, as in its headers.
std::string WithSize(std::string package, const std::string &size) {
    const std::string before{'\x50', '\xC3', '\0', '\0'};  // 50,000
    int count = 0;
    for (std::size_t at = package.find(before); at != std::string::npos; at = package.find(before, at + 4)) {
        // The content alternates between compressible and random.
        if (package.compare(at + 4, 4, before) != 0)
            continue;
        package.replace(at + 4, 4, size);
        ++count;
    }
    EXPECT_GT(count, 0);
    return package;
}

class HostZipFile : public testing::Test {
protected:
    std::optional<std::vector<ZippedFile>> Read(const std::string &package) {
        return ReadZipFile(wxString(folder.Write(L"package.zip", package)), error);
    }

    void ExpectBroken(const std::string &package) {
        EXPECT_FALSE(Read(package));
        EXPECT_EQ(error, "cannot read " + (folder.Path() / "package.zip").string() + ": its entry full.txt is broken");
    }

    TemporaryFolder folder;
    std::string error;
};

TEST_F(HostZipFile, IsReadCompletely) {
    const auto files = Read(Package());
    ASSERT_TRUE(files) << error;
    ASSERT_EQ(files->size(), 2U);
    EXPECT_EQ(files->at(0).name, "empty.txt");
    EXPECT_EQ(files->at(0).content, "");
    EXPECT_EQ(files->at(1).name, "full.txt");
    EXPECT_EQ(files->at(1).content, kContent);
}

TEST_F(HostZipFile, AnEntryWithOtherBytesIsBroken) {
    std::string package = Package();
    package.replace(package.find("xxx"), 1, "y");
    ExpectBroken(package);
}

TEST_F(HostZipFile, TheSizeOfAnEntryIsNotTrusted) {
    for (const std::string &size :
         {std::string("\xFF\xFF\xFF\x7F"), std::string("\xFF\xFF\xFF\xFF"), std::string("\0\0\0\0", 4)})
        ExpectBroken(WithSize(Package(), size));
}

TEST_F(HostZipFile, IsReadUpToALimitOfAllItsEntriesTogether) {
    const wxString path(folder.Write(L"package.zip", Package()));
    EXPECT_TRUE(ReadZipFile(path, error, kContent.size())) << error;
    EXPECT_FALSE(ReadZipFile(path, error, kContent.size() - 1));
    EXPECT_EQ(error, "cannot read " + (folder.Path() / "package.zip").string() +
                         ": its entry full.txt is larger than the host reads");
}

TEST_F(HostZipFile, ATruncatedFileCannotBeRead) {
    const std::string package = Package();
    EXPECT_FALSE(Read(package.substr(0, package.size() / 2)));
    EXPECT_EQ(error.rfind("cannot read ", 0), 0U) << error;
}

}  // namespace
