#include <gmock/gmock.h>

#include <clocale>
#include <limits>

#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"

namespace korvane {
namespace {

// The document without its first three lines and its last one.
std::string rootOf(const PropertyList& value) {
    const std::string text = formatPropertyList(value);
    const std::size_t begin = text.find("<plist version=\"1.0\">\n") + 22;
    return text.substr(begin, text.size() - begin - std::string_view("</plist>\n").size());
}

std::string textOf(std::string_view string) {
    std::string root = rootOf(PropertyList(string));
    constexpr std::string_view kOpening = "<string>";
    constexpr std::string_view kClosing = "</string>\n";
    EXPECT_TRUE(root.starts_with(kOpening) && root.ends_with(kClosing));
    return root.substr(kOpening.size(), root.size() - kOpening.size() - kClosing.size());
}

TEST(PropertyListWriter, WritesWhatItReadByteForByte) {
    for (const char* name : {"every-kind", "reals", "records", "nested-data"}) {
        const std::string text = contentsOf(std::string(KORVANE_SOURCE_DIR) +
                                            "/tests/fixtures/property-lists/" + name + ".plist");
        ASSERT_FALSE(text.empty()) << name;
        const auto value = parsePropertyList(text);
        ASSERT_TRUE(value) << name << ": " << value.error().message;
        EXPECT_EQ(formatPropertyList(*value), text) << name;
    }
}

TEST(PropertyListWriter, PutsKeysInOrder) {
    const auto value = parsePropertyList(
        contentsOf(KORVANE_SOURCE_DIR "/tests/fixtures/property-lists/unsorted.plist"));
    ASSERT_TRUE(value);
    EXPECT_EQ(rootOf(*value),
              "<dict>\n"
              "\t<key>apple</key>\n"
              "\t<array>\n"
              "\t\t<dict>\n"
              "\t\t\t<key>x</key>\n"
              "\t\t\t<integer>2</integer>\n"
              "\t\t\t<key>y</key>\n"
              "\t\t\t<integer>1</integer>\n"
              "\t\t</dict>\n"
              "\t</array>\n"
              "\t<key>mango</key>\n"
              "\t<string>m</string>\n"
              "\t<key>zebra</key>\n"
              "\t<integer>1</integer>\n"
              "</dict>\n");
}

TEST(PropertyListWriter, EscapesAndRepairsTexts) {
    const struct {
        std::string_view text;
        std::string_view written;
    } rows[] = {
        {"", ""},
        {"plain, and longer than eight", "plain, and longer than eight"},
        {"a<b>&c\"'", "a&lt;b&gt;&amp;c\"'"},
        {"12345678<", "12345678&lt;"},
        {"1234567<8>9012345&", "1234567&lt;8&gt;9012345&amp;"},
        {"&&&&&&&&&&&&&&&&",
         "&amp;&amp;&amp;&amp;&amp;&amp;&amp;&amp;"
         "&amp;&amp;&amp;&amp;&amp;&amp;&amp;&amp;"},
        {"a\tb\nc", "a\tb\nc"},
        {"a\rb\r\n", "a&#13;b&#13;\n"},
        {"=;?", "=;?"},
        {{"a\0b", 3}, "ab"},
        {"\x01\x08\x0B\x0C\x0E\x1F!", "!"},
        {"\x7F", "\x7F"},
        {"\xC2\x80", "\xC2\x80"},
        {"\xEF\xBF\xBE\xEF\xBF\xBF|", "|"},
        {"\xEF\xBF\xBD", "\xEF\xBF\xBD"},
        {"üë€𝄞 and on", "üë€𝄞 and on"},
        {"\x80", "\xEF\xBF\xBD"},
        {"\xFF\xFE", "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xC3", "\xEF\xBF\xBD"},
        {"\xC3(", "\xEF\xBF\xBD("},
        {"\xC0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xE2\x82", "\xEF\xBF\xBD"},
        {"\xE2\x82x", "\xEF\xBF\xBDx"},
        {"\xF0\x9D\x84", "\xEF\xBF\xBD"},
        {"\xE0\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"\xF5", "\xEF\xBF\xBD"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(textOf(row.text), row.written) << row.written;
        EXPECT_TRUE(parsePropertyList(formatPropertyList(PropertyList(row.text)))) << row.written;
    }
}

TEST(PropertyListWriter, LooksAtEveryPlaceInAText) {
    for (std::size_t place = 0; place < 24; ++place) {
        for (int c = 0; c < 256; ++c) {
            std::string text(24, 'x');
            text[place] = static_cast<char>(c);
            const auto again = parsePropertyList(formatPropertyList(PropertyList(text)));
            ASSERT_TRUE(again) << "character " << c << " at " << place;
            const bool isKept = (c >= 0x20 && c < 0x80) || c == '\t' || c == '\n' || c == '\r';
            if (isKept) {
                EXPECT_EQ(*again->string(), text);
            } else {
                EXPECT_EQ(again->string()->size(), c < 0x20 ? 23U : 26U);
            }
        }
    }
}

TEST(PropertyListWriter, EscapesKeysToo) {
    EXPECT_EQ(rootOf(Dictionary{{"a&b\xFF", true}}),
              "<dict>\n\t<key>a&amp;b\xEF\xBF\xBD</key>\n\t<true/>\n</dict>\n");
}

TEST(PropertyListWriter, WritesRealsInTheirShortestExactDigits) {
    const struct {
        double value;
        const char* written;
    } rows[] = {
        {0, "0.0"},
        {-0.0, "-0.0"},
        {1, "1.0"},
        {0.1, "0.1"},
        {0.1 + 0.2, "0.30000000000000004"},
        {0.0001, "0.0001"},
        {0.00001, "1e-05"},
        {1e15, "1000000000000000.0"},
        {1e16, "1e+16"},
        {1.5e300, "1.5e+300"},
        {5e-324, "5e-324"},
        {-1.7976931348623157e308, "-1.7976931348623157e+308"},
        {std::numeric_limits<double>::infinity(), "inf"},
        {-std::numeric_limits<double>::infinity(), "-inf"},
        {-std::numeric_limits<double>::quiet_NaN(), "nan"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(rootOf(row.value), std::string("<real>") + row.written + "</real>\n");
    }
}

TEST(PropertyListWriter, WritesDatesWithinTheYearsThatTheFormHas) {
    using std::chrono::seconds;
    EXPECT_EQ(rootOf(PropertyListDate(seconds(1709251199))), "<date>2024-02-29T23:59:59Z</date>\n");
    EXPECT_EQ(rootOf(PropertyListDate(seconds(-1))), "<date>1969-12-31T23:59:59Z</date>\n");
    EXPECT_EQ(rootOf(PropertyListDate::min()), "<date>0001-01-01T00:00:00Z</date>\n");
    EXPECT_EQ(rootOf(PropertyListDate::max()), "<date>9999-12-31T23:59:59Z</date>\n");
}

TEST(PropertyListWriter, WrapsDataByDepth) {
    PropertyList value(PropertyListData(60));
    EXPECT_EQ(rootOf(value),
              "<data>\n" + std::string(76, 'A') + "\n" + std::string(4, 'A') + "\n</data>\n");
    for (int level = 0; level < 100; ++level) value = PropertyListArray{std::move(value)};
    // Deep down a line has no fewer than 16 columns.
    EXPECT_THAT(rootOf(value),
                ::testing::HasSubstr("\t" + std::string(16, 'A') + "\n" + std::string(100, '\t') +
                                     std::string(16, 'A') + "\n"));
    EXPECT_EQ(rootOf(PropertyListData{}), "<data>\n</data>\n");
}

TEST(PropertyListWriter, IgnoresTheLocale) {
    const std::string former = setlocale(LC_ALL, nullptr);
    // Where the system has none of these the test shows nothing, and passes.
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"}) {
        if (setlocale(LC_ALL, name) != nullptr) break;
    }
    EXPECT_EQ(rootOf(1234567.5), "<real>1234567.5</real>\n");
    EXPECT_EQ(*parsePropertyList("<plist><real>1.5</real></plist>"), PropertyList(1.5));
    setlocale(LC_ALL, former.c_str());
}

}  // namespace
}  // namespace korvane
