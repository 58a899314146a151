// The example that counts the connections of a log.
#include <memory>
#include <sstream>

#include <gtest/gtest.h>

#include <cJSON.h>

#include "HostProcess.h"

namespace {

struct DeleteJson {
    void operator()(cJSON *value) const { cJSON_Delete(value); }
};
using JsonPtr = std::unique_ptr<cJSON, DeleteJson>;

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

const std::wstring kExample = TestData("examples/connections.lua").wstring();

constexpr const char *kHeader =
    "#separator \\x09\n#set_separator\t,\n#empty_field\t(empty)\n#unset_field\t-\n#path\tconn\n"
    "#fields\tts\tid.resp_p\tproto\tservice\tconn_state\tlocal_orig\tlocal_resp\n";
constexpr const char *kRow = "1.0\t443\ttcp\tssl\tSF\tT\tF\n";

/// Runs the example on the test's own log.
class Connections : public ::testing::Test {
protected:
    HostRun Run(const std::string &log) {
        return RunHost(
            {L"--quiet", L"--clock", L"steps", kExample, folder.Write(L"conn.log", log), L"--out", folder.At(L"out")});
    }
    JsonPtr Result() const {
        JsonPtr json(cJSON_Parse(TextOfFile(folder.At(L"out\\connections.json")).c_str()));
        EXPECT_NE(json, nullptr);
        return json;
    }
    void ExpectFails(const std::string &log, const std::string &message) {
        const HostRun run = Run(log);
        EXPECT_EQ(run.exitCode, 1U);
        EXPECT_TRUE(Contains(run.err, "connections: ")) << run.err;
        EXPECT_TRUE(Contains(run.err, message)) << run.err;
        EXPECT_FALSE(Contains(run.err, "traceback")) << run.err;
        EXPECT_FALSE(std::filesystem::exists(folder.Path() / "out"));
    }

    TemporaryFolder folder;
};

int Number(const JsonPtr &json, const char *name) {
    const cJSON *item = cJSON_GetObjectItem(json.get(), name);
    EXPECT_TRUE(cJSON_IsNumber(item)) << name;
    return item != nullptr ? item->valueint : -1;
}

std::string TextField(const cJSON *object, const char *name) {
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
    return text != nullptr ? text : "no text";
}

int NumberField(const cJSON *object, const char *name) {
    const cJSON *item = cJSON_GetObjectItem(object, name);
    return cJSON_IsNumber(item) ? item->valueint : -1;
}

int SumOfCounts(const cJSON *kinds) {
    int sum = 0;
    const cJSON *kind = nullptr;
    cJSON_ArrayForEach(kind, kinds) sum += NumberField(kind, "count");
    return sum;
}

/// Rows of the log whose columns have these values, counted without the module.
int CountRows(const std::string &log, const std::vector<std::pair<std::size_t, std::string>> &wanted) {
    int count = 0;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::vector<std::string> fields;
        std::istringstream parts(line);
        for (std::string field; std::getline(parts, field, '\t');)
            fields.push_back(field);
        bool matches = true;
        for (const auto &[column, value] : wanted)
            matches = matches && fields.at(column) == value;
        count += matches ? 1 : 0;
    }
    return count;
}

}  // namespace

TEST_F(Connections, CountsEveryRowOfTheSample) {
    const HostRun run = RunHost({L"--quiet", L"--clock", L"steps", kExample, L"--out", folder.At(L"out")});
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.err, "");
    const std::string log = TextOfFile(TestData("examples/conn.log").wstring());
    const int rows = CountRows(log, {});
    const JsonPtr json = Result();
    const cJSON *kinds = cJSON_GetObjectItem(json.get(), "kinds");
    EXPECT_EQ(Number(json, "connections"), rows);
    EXPECT_EQ(Number(json, "not_counted"), 0);
    EXPECT_EQ(SumOfCounts(kinds), rows);

    // Each kind, compared with the rows of the log: port, protocol, service, state, locality.
    const cJSON *kind = nullptr;
    cJSON_ArrayForEach(kind, kinds) {
        const std::string direction = TextField(kind, "direction");
        const bool outbound = direction == "outbound";
        const int port = NumberField(kind, "dst_port");
        SCOPED_TRACE(direction + " " + std::to_string(port) + " " + TextField(kind, "conn_state"));
        EXPECT_EQ(NumberField(kind, "count"), CountRows(log, {{5, std::to_string(port)},
                                                              {6, TextField(kind, "proto")},
                                                              {7, TextField(kind, "service")},
                                                              {11, TextField(kind, "conn_state")},
                                                              {12, outbound ? "T" : "F"},
                                                              {13, outbound ? "F" : "T"}}));
        EXPECT_EQ(NumberField(kind, "cf_outbound_connection"), outbound ? 1 : 0);
        EXPECT_EQ(NumberField(kind, "cf_udp_connection"), TextField(kind, "proto") == "udp" ? 1 : 0);
    }
    EXPECT_TRUE(Contains(run.out, "conn.log: " + std::to_string(rows) + " connections, 0 rows skipped")) << run.out;
    EXPECT_TRUE(Contains(run.out, "count  proto  service")) << run.out;
    EXPECT_TRUE(Contains(run.out, "cf_ssl_connection")) << run.out;
}

TEST_F(Connections, ColumnsMayHaveAnyOrderAndLinesMayEndWithCrLf) {
    const HostRun run =
        Run("#separator "
            "\\x09\r\n#unset_field\t-\r\n#path\tconn\r\n#fields\tservice\tproto\textra\tid.resp_p\tlocal_orig\r\n"
            "smtp,ssl\ttcp\t?\t587\tT\r\n-\tudp\t?\t53\t-\r\n");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const JsonPtr json = Result();
    const cJSON *kinds = cJSON_GetObjectItem(json.get(), "kinds");
    ASSERT_EQ(cJSON_GetArraySize(kinds), 2);
    const cJSON *smtp = cJSON_GetArrayItem(kinds, 0);
    const cJSON *udp = cJSON_GetArrayItem(kinds, 1);
    EXPECT_EQ(TextField(udp, "service"), "-");
    EXPECT_EQ(TextField(udp, "direction"), "unknown");
    EXPECT_EQ(NumberField(udp, "flags"), 2);
    EXPECT_EQ(TextField(smtp, "direction"), "outbound");
    EXPECT_EQ(NumberField(smtp, "flags"), 1 + 4 + 256);
    EXPECT_EQ(NumberField(smtp, "cf_start_tls"), 1);
    EXPECT_EQ(NumberField(smtp, "dst_port"), 587);
}

TEST_F(Connections, ReadsAnotherSeparatorAndAnotherMarkForUnset) {
    const HostRun run =
        Run("#separator \\x3b\n#unset_field;n/a\n#path;conn\n#fields;proto;id.resp_p;service\n"
            "tcp;22;n/a\n");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    const JsonPtr json = Result();
    const cJSON *kind = cJSON_GetArrayItem(cJSON_GetObjectItem(json.get(), "kinds"), 0);
    EXPECT_EQ(NumberField(kind, "dst_port"), 22);
    EXPECT_EQ(TextField(kind, "service"), "-");
}

TEST_F(Connections, SkipsAndReportsMalformedRows) {
    const HostRun run = Run(std::string(kHeader) + kRow + "1.0\t443\ttcp\n" + kRow + "1.0\t-\ttcp\tssl\tSF\tT\tF\n" +
                            "1.0\t70000\ttcp\tssl\tSF\tT\tF\n" + "1.0\t443\t(empty)\tssl\tSF\tT\tF\n" + "#close\t-\n");
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_TRUE(Contains(run.err, "conn.log:8: row skipped: 3 fields instead of 7\n")) << run.err;
    EXPECT_TRUE(Contains(run.err, "conn.log:10: row skipped: '-' is no port\n")) << run.err;
    EXPECT_TRUE(Contains(run.err, "conn.log:11: row skipped: '70000' is no port\n")) << run.err;
    EXPECT_TRUE(Contains(run.err, "conn.log:12: row skipped: no protocol\n")) << run.err;
    EXPECT_TRUE(Contains(run.out, "2 connections, 4 rows skipped")) << run.out;
    const JsonPtr json = Result();
    EXPECT_EQ(Number(json, "connections"), 2);
    EXPECT_EQ(SumOfCounts(cJSON_GetObjectItem(json.get(), "kinds")), 2);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(json.get(), "skipped_rows")), 4);
}

TEST_F(Connections, ReportsFileLineAndRemedyForALogThatCannotBeRead) {
    ExpectFails(kRow, "conn.log:1: a row comes before the #fields line; give a conn.log in Zeek's TSV format");
    ExpectFails("", "conn.log: there is no #fields line; give a conn.log in Zeek's TSV format");
    ExpectFails("\x1F\x8B\x08 packed", "conn.log:1: the log is compressed with gzip; unpack it first, with gunzip");
    ExpectFails("{\"ts\": 1}\n", "conn.log:1: the log is in JSON; have Zeek write TSV (LogAscii::use_json = F)");
    ExpectFails("#separator \\x09\n#path\tdns\n", "conn.log:2: this is a log of 'dns'; give a log of connections");
    ExpectFails("#separator \\x09\n#fields\tts\tproto\n", "conn.log:2: #fields does not name 'id.resp_p'");
    ExpectFails(std::string(kHeader) + "1.0\n", "conn.log has no usable row");
}

TEST_F(Connections, SaysWhatToDoWithALogThatIsCompressedOrInAnotherEncoding) {
    ExpectFails(std::string("\xFD"
                            "7zXZ\0\0packed",
                            12),
                "conn.log:1: the log is compressed with xz; unpack it first, with unxz");
    ExpectFails("\x28\xB5\x2F\xFD packed", "conn.log:1: the log is compressed with zstd; unpack it first");
    ExpectFails("BZh9 packed", "conn.log:1: the log is compressed with bzip2; unpack it first");
    ExpectFails("PK\x03\x04 packed", "conn.log:1: the log is in a zip file; unpack it first");
    for (const std::string &utf16 : {std::string("\xFF\xFE#\0s\0", 6), std::string("\xFE\xFF\0#\0s", 6),
                                     std::string("#\0s\0", 4), std::string("\0#\0s", 4)})
        ExpectFails(utf16, "conn.log:1: the log is in UTF-16; convert it first, with iconv -f UTF-16");
    ExpectFails("\xEF\xBB\xBF{\"ts\": 1}\n", "conn.log:1: the log is in JSON");
}

TEST_F(Connections, SkipsAByteOrderMark) {
    const HostRun run = Run("\xEF\xBB\xBF" + std::string(kHeader) + kRow);
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(Number(Result(), "connections"), 1);
}

TEST_F(Connections, ReportsAThousandMalformedRowsAndCountsTheOthers) {
    std::string log = std::string(kHeader) + kRow;
    for (int row = 0; row < 1200; ++row)
        log += "1.0\n";
    const HostRun run = Run(log);
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_TRUE(Contains(run.err, "connections: and 1195 more rows\n")) << run.err;
    EXPECT_TRUE(Contains(run.out, "1 connections, 1200 rows skipped")) << run.out;
    const JsonPtr json = Result();
    EXPECT_EQ(Number(json, "skipped"), 1200);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(json.get(), "skipped_rows")), 1000);
}

TEST_F(Connections, WritesWhatWasCountedWhenItIsInterrupted) {
    const std::wstring log = folder.Write(L"conn.log",
                                          "#separator \\x09\n#path\tconn\n#fields\tproto\tid.resp_p\n"
                                          "tcp\t1\ntcp\t2\ntcp\t3\n");
    const std::wstring script = folder.Write(L"script.lua",
                                             "require 'fc'\nlocal add, rows = SLB.filter.AddToConnMetrics, 0\n"
                                             "SLB.filter.AddToConnMetrics = function(...)\n"
                                             "add(...)\nrows = rows + 1\n"
                                             "if rows == 2 then print 'ready' io.stdout:flush() while true do end end\n"
                                             "end\nassert(loadfile(arg[1]))(arg[2], '--out', arg[3])");
    const HostRun run = InterruptHost({L"--fast", L"1", script, kExample, log, folder.At(L"out")});
    EXPECT_EQ(run.exitCode, 130U);
    EXPECT_TRUE(Contains(run.err, "connections: interrupted in line 5; the result so far is in ")) << run.err;
    const std::string result = TextOfFile(folder.At(L"out\\connections.json"));
    EXPECT_TRUE(Contains(result, "\"interrupted\":\ttrue")) << result;
}

TEST_F(Connections, NamesAMissingLog) {
    const HostRun run = RunHost({L"--fast", L"1", kExample, folder.At(L"none.log")});
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_TRUE(Contains(run.err, "none.log: No such file or directory; give the name of a conn.log")) << run.err;
}

TEST_F(Connections, WarnsWhenTheLogHasMoreKindsThanTheModuleKeeps) {
    std::string log = "#separator \\x09\n#path\tconn\n#fields\tproto\tid.resp_p\n";
    for (int port = 1; port <= 10'050; ++port)
        log += "tcp\t" + std::to_string(port) + "\n";
    const HostRun run = Run(log);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(Contains(run.err, "50 of 10050 connections are not counted: the module keeps 10000 kinds")) << run.err;
    const JsonPtr json = Result();
    EXPECT_EQ(Number(json, "not_counted"), 50);
    EXPECT_EQ(SumOfCounts(cJSON_GetObjectItem(json.get(), "kinds")), 10'000);
}

TEST(Hello, ListsTheModulesFunctions) {
    const HostRun run = RunHost({TestData("examples/hello.lua").wstring()});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_TRUE(Contains(run.out, "\n  AddToConnMetrics\n")) << run.out;
}
