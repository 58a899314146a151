// Connection metrics compared with a simple implementation.

#include <map>
#include <random>
#include <string>
#include <vector>

#include <wx/tokenzr.h>

#include "CodePage.h"
#include "ConnMetricsFixture.h"
#include "SeededRandom.h"

namespace {

/// The row by a simple implementation: a tokenizer, one string for each name and value.
std::map<std::string, std::string> SlowRow(const std::string &text, unsigned count) {
    static const char *const bits[] = {"cf_ssl_connection",        "cf_udp_connection",       "cf_outbound_connection",
                                       "cf_rsa_key_imported",      "cf_nuagent_key_imported", "cf_do_dpi",
                                       "cf_nuagent_key_not_found", "cf_nuagent_key_error",    "cf_start_tls",
                                       "cf_nuagent_fail_open",     "cf_nuagent_throttled",    "cf_nuagent_banned"};
    std::map<std::string, std::string> row;
    wxStringTokenizer lines(wxString(text.c_str()), "\n", wxTOKEN_DEFAULT);
    while (lines.HasMoreTokens()) {
        const wxString line = lines.GetNextToken();
        wxString value;
        const wxString name = line.BeforeFirst('\t', &value);
        const std::string key(static_cast<const char *>(name.mb_str()));
        const int number = _wtoi(value.wc_str());
        if (name == "flags") {
            for (unsigned bit = 0; bit < 12; ++bit)
                row[bits[bit]] = std::to_string((static_cast<unsigned>(number) >> bit) & 1U);
        }
        if (name == "flags" || name == "pid" || name == "dst_port" || name == "tls_version" || name == "cipher" ||
            name == "container_type")
            row[key] = std::to_string(number);
        else
            row[key] = '"' + std::string(static_cast<const char *>(value.mb_str())) + '"';
    }
    row["count"] = std::to_string(count);
    return row;
}

TEST_F(ConnMetrics, RandomTextsGiveTheRowsOfASimpleImplementation) {
    std::mt19937 random = SeededRandom();
    SCOPED_TRACE(HowToRepeat());
    const std::string pieces[] = {"\n",       "\n",   "\t",   "\t",     "flags", "pid",       "cf_do_dpi", "count",
                                  "dst_port", "0",    "33",   "-1",     "4096",  " ",         "\r",        "name",
                                  "x",        "\xE4", "\xFF", "cipher", "12345", "9999999999"};
    std::uniform_int_distribution<std::size_t> which(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> length(0, 24);
    balance().Guard({});
    for (int round = 0; round < 300; ++round) {
        std::string text;
        for (int i = length(random); i > 0; --i)
            text += pieces[which(random)];
        lua_getglobal(lua, "add");
        lua_pushstring(lua, "key");
        lua_pushlstring(lua, text.data(), text.size());
        lua_call(lua, 2, 0);
        Fold();
        std::string expected;
        for (const auto &[name, value] : SlowRow(text, 1))
            expected += (expected.empty() ? "" : " ") + name + "=" + value;
        ASSERT_EQ(Drain(), expected) << testing::PrintToString(text);
    }
}

TEST_F(ConnMetrics, RandomTrafficGivesTheCountsOfASimpleModel) {
    std::mt19937 random = SeededRandom();
    SCOPED_TRACE(HowToRepeat());
    std::map<std::string, unsigned> staging, merged;
    const auto drained = [&] {
        std::string expected;
        for (const auto &[key, count] : merged)
            expected.append(expected.empty() ? "" : "\n")
                .append("count=" + std::to_string(count))
                .append(key.empty() ? "" : " k=\"" + key + "\"");
        merged.clear();
        return expected;
    };
    for (int step = 0; step < 5000; ++step) {
        const unsigned what = random() % 100;
        if (what < 95) {
            const std::string key = "k" + std::to_string(random() % 40) + (random() % 2 ? "" : "\xE9");
            const unsigned count = random() % 3;
            lua.Run("add('" + key + "', 'k\\t" + key + "', " + std::to_string(count) + ")");
            if (count != 0)
                staging[IsInCodePage(key) ? key : ""] += count;
        } else if (what < 98) {
            Fold();
            for (const auto &[key, count] : staging)
                merged[key] += count;
            staging.clear();
        } else {
            ASSERT_EQ(Drain(), drained()) << "step " << step;
        }
    }
}

}  // namespace
