// How text gets to a terminal and into JSON.
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

#include "korvanectl/Json.h"
#include "korvanectl/Table.h"
#include "korvanectl/Text.h"
#include "korvanectl/Utf8.h"

namespace korvane::ctl {
namespace {

TEST(Utf8, RefusesWhatIsNoCharacter) {
    const std::string_view broken[] = {
        "",                  // nothing
        "\x80",              // a continuation first
        "\xc3",              // cut short
        "\xc3(",             // not continued
        "\xc0\xaf",          // overlong "/"
        "\xe0\x80\xaf",      // the same in three bytes
        "\xed\xa0\x80",      // a surrogate
        "\xf4\x90\x80\x80",  // past the last code
        "\xff",
    };
    for (const std::string_view text : broken) {
        EXPECT_EQ(firstUtf8Character(text).length, 0U) << printable(text);
    }
    EXPECT_EQ(firstUtf8Character("ä!").code, U'ä');
    EXPECT_EQ(firstUtf8Character("本").length, 3U);
    EXPECT_EQ(firstUtf8Character("\xf0\x9f\x92\xbe").code, char32_t{0x1F4BE});
}

TEST(Printable, EscapesWhatCouldMoveTheCursorOrTurnTheText) {
    EXPECT_EQ(printable("Dätä 日本"), "Dätä 日本");
    EXPECT_EQ(printable("a\nb\tc\rd"), "a\\nb\\tc\\rd");
    EXPECT_EQ(printable("\x1b[31mred"), "\\x1b[31mred");
    EXPECT_EQ(printable("bell\x07\x7f"), "bell\\x07\\x7f");
    EXPECT_EQ(printable("\xc2\x9b"
                        "31m"),
              "\\xc2\\x9b31m");  // CSI as one C1 character
    EXPECT_EQ(printable("\xe2\x80\xae"
                        "txt"),
              "\\xe2\\x80\\xaetxt");  // right-to-left override
    EXPECT_EQ(printable("bad \xff byte"), "bad \\xff byte");
    EXPECT_EQ(printable(std::string_view("nul\0!", 5)), "nul\\x00!");
}

TEST(DisplayWidth, CountsColumnsNotBytes) {
    EXPECT_EQ(displayWidth(""), 0U);
    EXPECT_EQ(displayWidth("abc"), 3U);
    EXPECT_EQ(displayWidth("Dätä"), 4U);
    EXPECT_EQ(displayWidth("日本"), 4U);
    EXPECT_EQ(displayWidth("e\xcc\x81"), 1U);  // a combining accent
}

TEST(ShellWord, IsQuotedOnlyWhereItNeedsToBe) {
    EXPECT_EQ(shellWord("/mnt/data"), "/mnt/data");
    EXPECT_EQ(shellWord("/mnt/my data"), "'/mnt/my data'");
    EXPECT_EQ(shellWord("it's"), "'it'\\''s'");
    EXPECT_EQ(shellWord(""), "''");
}

TEST(Paint, LeavesTextAsItIsAwayFromATerminal) {
    EXPECT_EQ(Paint{false}(Tone::bad, "LOW SPACE"), "LOW SPACE");
    EXPECT_EQ(Paint{true}(Tone::bad, "LOW SPACE"), "\x1b[1;31mLOW SPACE\x1b[0m");
    EXPECT_EQ(Paint{true}(Tone::plain, "x"), "x");
    EXPECT_EQ(Paint{true}(Tone::good, ""), "");
    EXPECT_EQ(Paint::forDescriptor(-1)(Tone::bad, "x"), "x");
}

TEST(Table, AlignsColumnsByTheirWidthOnTheTerminal) {
    Table table{{{"NAME"}, {"FREE", Align::right}, {"RESULT"}}};
    table.addRow({{"日本"}, {"1 %"}, {"ok"}});
    table.addRow({{"a\nb"}, {"100 %"}, {}});
    table.addRow({{"short"}});
    EXPECT_EQ(table.format(Paint{false}),
              "NAME    FREE  RESULT\n"
              "日本     1 %  ok\n"
              "a\\nb   100 %\n"
              "short\n");
}

TEST(Table, ColoursCellsWithoutCountingTheColour) {
    Table table{{{"A"}, {"B"}}};
    table.addRow({{"x", Tone::good}, {"y"}});
    EXPECT_EQ(table.format(Paint{true}),
              "\x1b[1mA\x1b[0m  \x1b[1mB\x1b[0m\n"
              "\x1b[32mx\x1b[0m  y\n");
}

TEST(Json, EscapesStrings) {
    EXPECT_EQ(jsonString("plain ä 日"), "\"plain ä 日\"");
    EXPECT_EQ(jsonString("\"\\/"), "\"\\\"\\\\/\"");
    EXPECT_EQ(jsonString("a\nb\tc\x01\x7f"), "\"a\\nb\\tc\\u0001\\u007f\"");
    EXPECT_EQ(jsonString("bad\xff!"), "\"bad\\ufffd!\"");
    EXPECT_EQ(jsonString(std::string_view("\0", 1)), "\"\\u0000\"");
}

TEST(Json, WritesEveryKindOfValue) {
    using namespace std::chrono;
    const PropertyList value{Dictionary{
        {"array", PropertyListArray{1, "two", PropertyListArray{}}},
        {"data", PropertyListData{std::byte{0xab}, std::byte{0x01}}},
        {"date", PropertyListDate{sys_days{2026y / 3 / 1} + 14h + 5min + 9s}},
        {"dictionary", Dictionary{}},
        {"flag", true},
        {"large", std::numeric_limits<std::uint64_t>::max()},
        {"nan", std::numeric_limits<double>::quiet_NaN()},
        {"real", 0.1},
    }};
    EXPECT_EQ(formatJson(value), R"({
  "array": [
    1,
    "two",
    []
  ],
  "data": "ab01",
  "date": "2026-03-01T14:05:09Z",
  "dictionary": {},
  "flag": true,
  "large": 18446744073709551615,
  "nan": null,
  "real": 0.1
}
)");
}

}  // namespace
}  // namespace korvane::ctl
