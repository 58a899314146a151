// Lines that the driver library prints: long ones, many, and bytes beyond ASCII.
#include "DiagnosticsFixture.h"
#include "PrintedTexts.h"

namespace {

std::string Letters(std::size_t count) {
    return std::string(count, 'a');
}

class DriverDump : public DiagnosticsFixture {
protected:
    /// The end of the statistics when the library prints these lines last.
    std::string Packed(const std::vector<std::string> &lines) {
        driver().statsLines.clear();
        const std::string own = PrintedStats(handle);
        driver().statsLines = lines;
        const Package package = Run();
        const std::string content = package.Content(kStats);
        EXPECT_TRUE(content.starts_with(own));
        return content.substr(std::min(own.size(), content.size()));
    }
};

TEST_F(DriverDump, ALineOf1023CharactersIsComplete) {
    const std::string line = Letters(1022).append("\n");
    EXPECT_EQ(Packed({line, "next\n"}), Letters(1022).append("\r\nnext\r\n"));
}

TEST_F(DriverDump, ALongerLineIsTruncatedTo1023CharactersIncludingItsLineFeed) {
    const std::string kept = Letters(1023);
    EXPECT_EQ(Packed({kept + "\n", "next\n"}), kept + "next\r\n");
    EXPECT_EQ(Packed({Letters(5000).append("\n"), "next\n"}), kept + "next\r\n");
}

TEST_F(DriverDump, AHundredThousandLinesAreComplete) {
    std::vector<std::string> lines;
    std::string expected;
    for (int i = 0; i < 100'000; ++i) {
        lines.push_back("line " + std::to_string(i) + "\n");
        expected += "line " + std::to_string(i) + "\r\n";
    }
    EXPECT_TRUE(Packed(lines) == expected);
}

TEST_F(DriverDump, AByteBeyondAsciiBecomesTheLatin1CharacterInUtf8) {
    std::string line;
    for (int byte = 0x80; byte <= 0xFF; ++byte)
        line += static_cast<char>(byte);
    EXPECT_EQ(Packed({line + "\n", "\xC3\xA4"}), AsPackedText(line) + "\r\n\xC3\x83\xC2\xA4");
}

TEST_F(DriverDump, PercentSignsAreUnchanged) {
    EXPECT_EQ(Packed({"100% %s %n\n"}), "100% %s %n\r\n");
}

TEST_F(DriverDump, EmptyLinesAndUnterminatedLinesAreUnchanged) {
    EXPECT_EQ(Packed({"\n", "", "a", "b\n\nc"}), "\r\nab\r\n\r\nc");
}

}  // namespace
