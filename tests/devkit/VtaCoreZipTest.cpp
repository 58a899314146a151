// The stream of a diagnostic package, read back with wxWidgets' reader.
#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <wx/mstream.h>
#include <wx/sstream.h>
#include <wx/zipstrm.h>

#include "vta_core_control.h"

namespace {

using namespace VtaCore;

struct File {
    wxString name;
    wxString comment;
    bool text = false;
    int method = 0;
    std::string content;
};

std::string ReadAll(wxInputStream &in) {
    std::string content;
    char block[1000];
    while (const std::size_t got = in.Read(block, sizeof block).LastRead())
        content.append(block, got);
    return content;
}

/// The package's files, in the order of its directory.
std::vector<File> Unpack(const wxMemoryOutputStream &package) {
    wxMemoryInputStream in(package);
    wxZipInputStream zip(in);
    std::vector<File> files;
    while (const auto entry = std::unique_ptr<wxZipEntry>(zip.GetNextEntry())) {
        const std::string content = ReadAll(zip);
        EXPECT_EQ(zip.GetLastError(), wxSTREAM_EOF) << "checksum or length of " << entry->GetName().utf8_str();
        files.push_back(
            {entry->GetName(wxPATH_UNIX), entry->GetComment(), entry->IsText(), entry->GetMethod(), content});
    }
    EXPECT_EQ(zip.GetTotalEntries(), static_cast<int>(files.size()));
    return files;
}

bool Add(CZipOutputStream &zip, const std::string &content, const wxString &name, bool text = false,
         const wxString &comment = {}) {
    wxMemoryInputStream in(content.data(), content.size());
    return zip.AddFromStream(in, text, name, comment);
}

std::string Noise(std::size_t size) {
    std::mt19937 random(1);
    std::string noise(size, '\0');
    std::generate(noise.begin(), noise.end(), [&random] { return static_cast<char>(random()); });
    return noise;
}

/// Returns some bytes and then fails.
class FailingInput : public wxInputStream {
public:
    explicit FailingInput(std::size_t good) : m_left(good) {}

protected:
    size_t OnSysRead(void *buffer, size_t size) override {
        const std::size_t count = std::min(size, m_left);
        std::fill_n(static_cast<char *>(buffer), count, 'x');
        m_left -= count;
        if (count < size)
            m_lasterror = wxSTREAM_READ_ERROR;
        return count;
    }

private:
    std::size_t m_left;
};

/// Accepts some bytes and then fails.
class FailingOutput : public wxOutputStream {
public:
    explicit FailingOutput(std::size_t good) : m_left(good) {}

protected:
    size_t OnSysWrite(const void *, size_t size) override {
        const std::size_t count = std::min(size, m_left);
        m_left -= count;
        if (count < size)
            m_lasterror = wxSTREAM_WRITE_ERROR;
        return count;
    }

private:
    std::size_t m_left;
};

TEST(ZipStream, ContainsFilesWithNamesCommentsAndKind) {
    wxMemoryOutputStream out;
    Control::ZipPackage zip(out);
    const std::string text(50'000, 'a');
    const std::string noise = Noise(200'000);
    EXPECT_TRUE(Add(zip, text, "log.txt", true, "the log"));
    EXPECT_TRUE(Add(zip, noise, L"Ordner/\u00FC-\u65E5\u672C.bin", false, L"Anmerkung \u00E4"));
    EXPECT_TRUE(Add(zip, "tiny", "tiny.txt", true));
    EXPECT_TRUE(zip.Close());
    const std::vector<File> files = Unpack(out);
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(files[0].name, "log.txt");
    EXPECT_EQ(files[0].comment, "the log");
    EXPECT_TRUE(files[0].text);
    EXPECT_EQ(files[0].method, wxZIP_METHOD_DEFLATE);
    EXPECT_EQ(files[0].content, text);
    EXPECT_EQ(files[1].name, L"Ordner/\u00FC-\u65E5\u672C.bin");
    EXPECT_EQ(files[1].comment, L"Anmerkung \u00E4");
    EXPECT_FALSE(files[1].text);
    EXPECT_TRUE(files[1].content == noise);
    EXPECT_EQ(files[2].content, "tiny");
    EXPECT_EQ(files[2].comment, "");
}

TEST(ZipStream, WritesNamesAsUtf8AndFlagsThem) {
    wxMemoryOutputStream out;
    {
        Control::ZipPackage zip(out);
        EXPECT_TRUE(Add(zip, "content", L"\u00FC.txt"));
    }
    std::string bytes(static_cast<std::size_t>(out.GetSize()), '\0');
    out.CopyTo(bytes.data(), bytes.size());
    EXPECT_NE(bytes.find("\xC3\xBC.txt"), std::string::npos);
    constexpr std::size_t kLocalFlags = 6;
    constexpr unsigned kUtf8Flag = 1u << 11;
    const unsigned flags = static_cast<unsigned char>(bytes.at(kLocalFlags)) |
                           static_cast<unsigned>(static_cast<unsigned char>(bytes.at(kLocalFlags + 1))) << 8;
    EXPECT_EQ(flags & kUtf8Flag, kUtf8Flag);
}

TEST(ZipStream, AcceptsStreamsOfAllSizesAroundItsBlocks) {
    const std::size_t sizes[] = {0, 1, 6, 7, 4095, 4096, 65'535, 65'536, 65'537, 131'072};
    wxMemoryOutputStream out;
    Control::ZipPackage zip(out);
    for (const std::size_t size : sizes)
        EXPECT_TRUE(Add(zip, Noise(size), wxString::Format("%u", static_cast<unsigned>(size))));
    EXPECT_TRUE(zip.Close());
    const std::vector<File> files = Unpack(out);
    ASSERT_EQ(files.size(), std::size(sizes));
    for (std::size_t i = 0; i < files.size(); ++i)
        EXPECT_TRUE(files[i].content == Noise(sizes[i])) << sizes[i];
}

TEST(ZipStream, WithoutFilesIsAnEmptyPackage) {
    wxMemoryOutputStream out;
    Control::ZipPackage zip(out);
    EXPECT_TRUE(zip.Close());
    EXPECT_GT(out.GetSize(), 0u);
    EXPECT_TRUE(Unpack(out).empty());
}

TEST(ZipStream, TheDestructorFinishesThePackage) {
    wxMemoryOutputStream out;
    const int before = Control::LiveObjects();
    {
        Control::ZipPackage zip(out);
        EXPECT_EQ(Control::LiveObjects(), before + 1);
        EXPECT_TRUE(Add(zip, "content", "name"));
    }
    EXPECT_EQ(Control::LiveObjects(), before);
    EXPECT_EQ(Unpack(out).size(), 1u);
}

TEST(ZipStream, NothingCanBeAddedToAClosedPackage) {
    wxMemoryOutputStream out;
    Control::ZipPackage zip(out);
    EXPECT_TRUE(Add(zip, "content", "name"));
    EXPECT_TRUE(zip.Close());
    const auto size = out.GetSize();
    EXPECT_TRUE(zip.Close());
    EXPECT_FALSE(Add(zip, "content", "later"));
    EXPECT_EQ(out.GetSize(), size);
    EXPECT_EQ(Unpack(out).size(), 1u);
}

TEST(ZipStream, AStreamThatFailsIsNotAddedButTheNextOneIs) {
    for (const std::size_t good : {0u, 10u, 100'000u}) {
        SCOPED_TRACE(good);
        wxMemoryOutputStream out;
        Control::ZipPackage zip(out);
        FailingInput failing(good);
        EXPECT_FALSE(zip.AddFromStream(failing, false, "failing", ""));
        EXPECT_TRUE(Add(zip, "content", "sound"));
        EXPECT_TRUE(zip.Close());
        const std::vector<File> files = Unpack(out);
        ASSERT_FALSE(files.empty());
        EXPECT_EQ(files.back().name, "sound");
        EXPECT_EQ(files.back().content, "content");
    }
}

TEST(ZipStream, AStreamThatHasFailedBeforeIsNotAdded) {
    wxMemoryOutputStream out;
    Control::ZipPackage zip(out);
    FailingInput failing(0);
    failing.GetC();
    ASSERT_EQ(failing.GetLastError(), wxSTREAM_READ_ERROR);
    EXPECT_FALSE(zip.AddFromStream(failing, false, "failing", ""));
    EXPECT_TRUE(zip.Close());
    EXPECT_TRUE(Unpack(out).empty());
}

/// Writes a small package. @return true if no step reported a failure.
bool WritePackage(wxOutputStream &out) {
    Control::ZipPackage zip(out);
    const bool first = Add(zip, std::string(10'000, 'a'), "first.txt", true);
    const bool second = Add(zip, Noise(300), "second.bin");
    return zip.Close() && first && second;
}

TEST(ZipStream, ReportsAnOutputThatFailsAtAnyByte) {
    wxMemoryOutputStream whole;
    ASSERT_TRUE(WritePackage(whole));
    const auto all = static_cast<std::size_t>(whole.GetSize());
    FailingOutput enough(all);
    EXPECT_TRUE(WritePackage(enough));
    for (std::size_t good = 0; good < all; ++good) {
        FailingOutput out(good);
        ASSERT_FALSE(WritePackage(out)) << "failing after " << good << " of " << all << " bytes";
    }
}

TEST(ZipStream, AfterAFailedWriteNothingMoreIsAdded) {
    FailingOutput out(1000);
    Control::ZipPackage zip(out);
    EXPECT_FALSE(Add(zip, Noise(100'000), "big"));
    EXPECT_FALSE(Add(zip, "", "small"));
    EXPECT_FALSE(zip.Close());
    EXPECT_FALSE(zip.Close()) << "the same answer again";
}

}  // namespace
