#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "platform/linux/LogLine.h"

namespace korvane {
namespace {

struct LogLineRow {
    std::string_view text;
    std::string_view shown;
};

class LogLineTexts : public testing::TestWithParam<LogLineRow> {};

TEST_P(LogLineTexts, IsShownEscaped) {
    EXPECT_EQ(escapedForLog(GetParam().text), GetParam().shown);
}

using namespace std::string_view_literals;

INSTANTIATE_TEST_SUITE_P(
    Rows, LogLineTexts,
    testing::Values(LogLineRow{"", ""}, LogLineRow{"\"/Volumes/A b\" 5%", "\"/Volumes/A b\" 5%"},
                    LogLineRow{"Müller 東京 🖴 \xC2\xA0", "Müller 東京 🖴 \xC2\xA0"},
                    LogLineRow{"a\nb\tc\rd", "a\\nb\\tc\\rd"}, LogLineRow{"a\0b"sv, "a\\x00b"},
                    LogLineRow{"\x1b[2J\x7f", "\\x1b[2J\\x7f"},
                    LogLineRow{"\xC2\x9B"
                               "2J",
                               "\\xc2\\x9b2J"},
                    // Not UTF-8: a lone continuation, a cut character, overlong forms, a
                    // surrogate, beyond the last code point.
                    LogLineRow{"\x9B", "\\x9b"}, LogLineRow{"a\xE6\x9D", "a\\xe6\\x9d"},
                    LogLineRow{"\xC0\x80", "\\xc0\\x80"},
                    LogLineRow{"\xE0\x80\x80", "\\xe0\\x80\\x80"},
                    LogLineRow{"\xED\xA0\x80", "\\xed\\xa0\\x80"},
                    LogLineRow{"\xF0\x80\x80\x80", "\\xf0\\x80\\x80\\x80"},
                    LogLineRow{"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
                    LogLineRow{"\xFF\xFE", "\\xff\\xfe"}));

}  // namespace
}  // namespace korvane
