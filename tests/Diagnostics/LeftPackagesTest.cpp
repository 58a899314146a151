// Leaves packages, each with its expected files beside it, for package-tests.sh to open with another program:
// diagnostics-packages/NAME/package.zip, NAME/names with the names in order, NAME/files.
#include <filesystem>
#include <fstream>

#include "DiagnosticsFixture.h"
#include "PrintedTexts.h"

namespace {

class LeftPackage : public DiagnosticsFixture {
protected:
    /// The expected files of the package, by name.
    using Expected = std::vector<std::pair<std::string, std::string>>;

    void Leave(const std::string &name, const Expected &expected) {
        const std::filesystem::path folder = std::filesystem::path("diagnostics-packages") / name;
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder / "files");
        std::string names;
        for (const auto &[file, content] : expected) {
            Write(folder / "files" / file, content);
            names += file + "\n";
        }
        wxMemoryOutputStream memory;
        {
            VtaCore::Control::ZipPackage zip(memory);
            RunOn(zip);
            EXPECT_TRUE(zip.Close());
        }
        const auto *bytes = static_cast<const char *>(memory.GetOutputStreamBuffer()->GetBufferStart());
        Write(folder / "package.zip", {bytes, memory.GetSize()});
        Write(folder / "names", names);
    }
    /// What a driver that does not fail prints.
    Expected AllFiles() {
        return {{kStats, PrintedStats(handle)},
                {kVariables, PrintedVariables(driver())},
                {kConnTrack, PrintedConnections(driver().udp, driver().tcp)},
                {kBlacklist, PrintedBlacklist(driver().blacklist)},
                {kProfile, {driver().profile.begin(), driver().profile.end()}}};
    }

private:
    static void Write(const std::filesystem::path &path, const std::string &content) {
        std::ofstream file(path, std::ios::binary);
        file << content;
        ASSERT_TRUE(file.flush()) << path;
    }
};

TEST_F(LeftPackage, OfAnOrdinaryDriver) {
    Leave("ordinary", AllFiles());
}

TEST_F(LeftPackage, OfACrowdedDriver) {
    driver().udp.assign(20'000, ConnectionOf(7));
    driver().tcp.assign(45'535, ConnectionOf(8));
    driver().blacklist = BytesOf(1'000'000);
    driver().profile = BytesOf(3'000'000);
    Leave("crowded", AllFiles());
}

TEST_F(LeftPackage, OfAnEmptyDriver) {
    driver().udp.clear();
    driver().tcp.clear();
    driver().blacklist.clear();
    driver().profile.clear();
    Expected expected = AllFiles();
    std::erase_if(expected, [](const auto &file) { return file.first == kConnTrack; });
    Leave("empty", expected);
}

TEST_F(LeftPackage, OfADriverThatIsNotOpen) {
    driver().available = false;
    Leave("closed", {{kProfile, {driver().profile.begin(), driver().profile.end()}}});
}

TEST_F(LeftPackage, OfADriverThatPrintsBytesBeyondAscii) {
    Expected expected = AllFiles();
    driver().statsLines = {"Ger\xE4t\n", "\xFF\xFE"};
    expected[0].second += AsPackedText("Ger\xE4t\n\xFF\xFE");
    Leave("foreign", expected);
}

}  // namespace
