#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/Format.h"

namespace korvane {
namespace {

using Arguments = std::initializer_list<FormatArgument>;

constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

FormatArgument whole(std::int64_t value) { return value; }

TEST(FormatText, ShowsEachDirective) {
    const struct {
        std::string_view format;
        Arguments arguments;
        std::string_view text;
    } rows[] = {
        {"", {}, ""},
        {"plain", {}, "plain"},
        {"%@", {"a"}, "a"},
        {"%s", {"a"}, "a"},
        {"%@ - %@", {"model", "serial"}, "model - serial"},
        {"%@", {"%@ %d %n"}, "%@ %d %n"},
        {"%d %ld %zd", {whole(1), whole(-2), whole(kLowest)}, "1 -2 -9223372036854775808"},
        {"%d", {2.9}, "2"},
        {"%d", {-2.9}, "-2"},
        {"%d", {std::nan("")}, "0"},
        {"%d", {1e300}, "9223372036854775807"},
        {"%d", {-kInfinity}, "-9223372036854775808"},
        {"%@", {whole(12)}, "12"},
        {"%s", {2.5}, "2.5"},
        {"%@", {-std::nan("")}, "nan"},
        {"%.0f%%", {12.4}, "12%"},
        {"%.0f", {0.5}, "0"},
        {"%.0f", {1.5}, "2"},
        {"%.0f", {2.5}, "2"},
        {"%.0f", {-0.5}, "-0"},
        {"%.0f", {1e22}, "10000000000000000000000"},
        {"%.0f", {kInfinity}, "inf"},
        {"%.0f", {-kInfinity}, "-inf"},
        {"%.0f", {std::nan("")}, "nan"},
        {"%.0f", {-std::nan("")}, "nan"},
        {"%.0f", {whole(kHighest)}, "9223372036854775807"},
        {"WARNING! \"%@\" has %.0f%% free", {"Data", 4.6}, "WARNING! \"Data\" has 5% free"},
    };
    for (const auto& row : rows) EXPECT_EQ(formatText(row.format, row.arguments), row.text);
}

TEST(FormatText, ShowsTheLargestRealWhole) {
    const std::string text = formatText("%.0f", {-std::numeric_limits<double>::max()});
    EXPECT_EQ(text.size(), 310U);
    EXPECT_TRUE(text.starts_with("-179769313486231570814527423731704356"));
}

TEST(FormatText, ShowsWhatItCannotFillAsItStands) {
    const struct {
        std::string_view format;
        Arguments arguments;
        std::string_view text;
    } rows[] = {
        {"%@", {}, "%@"},
        {"%@ %@", {"a"}, "a %@"},
        {"%d", {"text"}, "%d"},
        {"%.0f", {"text"}, "%.0f"},
        {"%d %@", {"text", "next"}, "%d next"},
        {"%n", {whole(1)}, "%n"},
        {"%n%n%n%@", {"a"}, "%n%n%na"},
        {"%x %p %c %f", {whole(1)}, "%x %p %c %f"},
        {"%1000000d", {whole(1)}, "%1000000d"},
        {"%*d", {whole(1)}, "%*d"},
        {"%1$@", {"a"}, "%1$@"},
        {"%-5s", {"a"}, "%-5s"},
        {"%.1f", {1.5}, "%.1f"},
        {"%.0", {1.5}, "%.0"},
        {"%l", {whole(1)}, "%l"},
        {"%lld", {whole(1)}, "%lld"},
        {"%", {"a"}, "%"},
        {"100 %", {"a"}, "100 %"},
        {"%%%", {"a"}, "%%"},
        {"%%@", {"a"}, "%@"},
        {"%%%@", {"a"}, "%a"},
        {{"%\0@", 3}, {"a"}, {"%\0@", 3}},
        {"no directive", {"a", whole(2)}, "no directive"},
        {"\xFF%@\xFE",
         {"a"},
         "\xFF"
         "a\xFE"},
    };
    for (const auto& row : rows) EXPECT_EQ(formatText(row.format, row.arguments), row.text);
}

}  // namespace
}  // namespace korvane
