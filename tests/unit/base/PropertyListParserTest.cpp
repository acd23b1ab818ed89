#include <gmock/gmock.h>

#include <chrono>
#include <limits>

#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"

namespace korvane {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string document(std::string_view root) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n" +
           std::string(root) + "\n</plist>\n";
}

PropertyListData bytes(std::string_view text) {
    PropertyListData data;
    for (const char c : text) data.push_back(static_cast<std::byte>(c));
    return data;
}

PropertyListDate moment(int year, unsigned month, unsigned day, int hour, int minute, int second) {
    return std::chrono::sys_days(std::chrono::year_month_day(
               std::chrono::year(year), std::chrono::month(month), std::chrono::day(day))) +
           std::chrono::hours(hour) + std::chrono::minutes(minute) + std::chrono::seconds(second);
}

TEST(PropertyListParser, ReadsEveryKind) {
    const std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    const struct {
        const char* xml;
        PropertyList value;
    } rows[] = {
        {"<true/>", true},
        {"<false></false>", false},
        {"<string/>", ""},
        {"<string></string>", ""},
        {"<string> a  b </string>", " a  b "},
        {"<string>a\r\nb\rc&#13;d</string>", "a\nb\nc\rd"},
        {"<string>&lt;&amp;&gt;&quot;&apos;&#228;&#x20AC;</string>", "<&>\"'ä€"},
        {"<string><![CDATA[<b>&amp;]]> x<!-- no -->y<?p q?>z</string>", "<b>&amp; xyz"},
        {"<integer>0</integer>", 0},
        {"<integer>-0</integer>", 0},
        {"<integer> \n42\t</integer>", 42},
        {"<integer>+42</integer>", 42},
        {"<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
        {"<integer>9223372036854775807</integer>", std::numeric_limits<std::int64_t>::max()},
        {"<integer>18446744073709551615</integer>", largest},
        {"<integer>0xff</integer>", 255},
        {"<integer>-0X8000000000000000</integer>", std::numeric_limits<std::int64_t>::min()},
        {"<integer>0xFFFFFFFFFFFFFFFF</integer>", largest},
        {"<real>1</real>", 1.0},
        {"<real> +2.5e-3 </real>", 0.0025},
        {"<real>.5</real>", 0.5},
        {"<real>-Infinity</real>", -std::numeric_limits<double>::infinity()},
        {"<real>inf</real>", std::numeric_limits<double>::infinity()},
        {"<real>NaN</real>", std::numeric_limits<double>::quiet_NaN()},
        {"<real>5e-324</real>", 5e-324},
        {"<date>2024-02-29T23:59:58Z</date>", moment(2024, 2, 29, 23, 59, 58)},
        {"<date>0001-01-01T00:00:00Z</date>", moment(1, 1, 1, 0, 0, 0)},
        {"<date>1969-12-31T23:59:59Z</date>", PropertyListDate(std::chrono::seconds(-1))},
        {"<data></data>", PropertyListData{}},
        {"<data>QQ==</data>", bytes("A")},
        {"<data>\n\t\tQU\n\t\tI=\n</data>", bytes("AB")},
        {"<data>QUJD</data>", bytes("ABC")},
        {"<data>//79</data>", bytes("\xFF\xFE\xFD")},
        {"<array/>", PropertyListArray{}},
        {"<array><integer>1</integer><array/><string>x</string></array>",
         PropertyListArray{1, PropertyListArray{}, "x"}},
        {"<dict/>", Dictionary{}},
        {"<dict><key>b</key><dict><key/><true/></dict><key>a</key><array><dict/></array></dict>",
         Dictionary{{"a", PropertyListArray{Dictionary{}}}, {"b", Dictionary{{"", true}}}}},
        {"<dict><key>a</key><integer>1</integer><key>a</key><integer>2</integer></dict>",
         Dictionary{{"a", 2}}},
    };
    for (const auto& row : rows) {
        const auto value = parsePropertyList(document(row.xml));
        ASSERT_TRUE(value) << row.xml << ": " << value.error().message;
        EXPECT_EQ(*value, row.value) << row.xml;
    }
}

TEST(PropertyListParser, RefusesWhatIsNoPropertyList) {
    const struct {
        const char* xml;
        const char* error;
    } rows[] = {
        {"", "the root is empty"},
        {"text", "text outside a value"},
        {"<string>a</string><string>b</string>", "a second value"},
        {"<string>a</string>b", "text outside a value"},
        {"<plist/>", "a <plist> inside"},
        {"<array><plist><true/></plist></array>", "a <plist> inside"},
        {"<set/>", "property lists do not have"},
        {"<String/>", "property lists do not have"},
        {"<p:dict xmlns:p='x'/>", "property lists do not have"},
        {"<string lang='en'>a</string>", "an attribute"},
        {"<string>a<true/></string>", "an element inside a text"},
        {"<true><false/></true>", "an element inside a text"},
        {"<array><date><data>QUJD</data></array>", "an element inside a text"},
        {"<true>x</true>", "text outside a value"},
        {"<array>x</array>", "text outside a value"},
        {"<key>a</key>", "a key outside"},
        {"<array><key>a</key></array>", "a key outside"},
        {"<dict><string>a</string></dict>", "a value without a key"},
        {"<dict><dict/></dict>", "a value without a key"},
        {"<dict><key>a</key></dict>", "a key without a value"},
        {"<dict><key>a</key><key>b</key><true/></dict>", "a key without a value"},
        {"<dict><key>a</key><true/><true/></dict>", "a value without a key"},
        {"<string>a</string", "line "},
        {"<string>a</array>", "mismatched tag"},
        {"<string>&unknown;</string>", "an entity"},
        {"<string>&#0;</string>", "line "},
        {"<string>&#8;</string>", "line "},
        {"<string>\x01</string>", "not well-formed"},
        {"<string>\x1F</string>", "not well-formed"},
        {"<string>\xFF</string>", "not well-formed"},
        {"<string>\xC0\x80</string>", "not well-formed"},
        {"<string>\xED\xA0\x80</string>", "not well-formed"},
        {"<string>\xF4\x90\x80\x80</string>", "not well-formed"},
        {"<string>\xEF\xBF\xBF</string>", "not well-formed"},
        {"<string>\xC3</string>", "not well-formed"},
        {"<integer></integer>", "an integer"},
        {"<integer>x</integer>", "an integer"},
        {"<integer>1 2</integer>", "an integer"},
        {"<integer>1.5</integer>", "an integer"},
        {"<integer>+-1</integer>", "an integer"},
        {"<integer>--1</integer>", "an integer"},
        {"<integer>0x</integer>", "an integer"},
        {"<integer>0x-1</integer>", "an integer"},
        {"<integer>0xG</integer>", "an integer"},
        {"<integer>18446744073709551616</integer>", "an integer"},
        {"<integer>-9223372036854775809</integer>", "an integer"},
        {"<real></real>", "a real"},
        {"<real>1,5</real>", "a real"},
        {"<real>+-1</real>", "a real"},
        {"<real>1e999</real>", "a real"},
        {"<real>0x1p3</real>", "a real"},
        {"<real>1 </real ><x/>", "property lists do not have"},
        {"<date></date>", "a date"},
        {"<date>2024</date>", "a date"},
        {"<date>2024-01-01</date>", "a date"},
        {"<date>2024-01-01T00:00:00</date>", "a date"},
        {"<date>2024-01-01T00:00:00.5Z</date>", "a date"},
        {"<date>2024-01-01t00:00:00z</date>", "a date"},
        {"<date>2024-01-01T00:00:00+01</date>", "a date"},
        {"<date>2023-02-29T00:00:00Z</date>", "a date"},
        {"<date>2024-13-01T00:00:00Z</date>", "a date"},
        {"<date>2024-00-01T00:00:00Z</date>", "a date"},
        {"<date>2024-01-01T24:00:00Z</date>", "a date"},
        {"<date>2024-01-01T00:60:00Z</date>", "a date"},
        {"<date>2024-01-01T00:00:60Z</date>", "a date"},
        {"<date>0000-01-01T00:00:00Z</date>", "a date"},
        {"<date>-001-01-01T00:00:00Z</date>", "a date"},
        {"<data>Q</data>", "data"},
        {"<data>QQ</data>", "data"},
        {"<data>QQ=</data>", "data"},
        {"<data>QQ===</data>", "data"},
        {"<data>QUJD====</data>", "data"},
        {"<data>QQ==QQ==</data>", "data"},
        {"<data>====</data>", "data"},
        {"<data>Q?==</data>", "data"},
        {"<data>\xC3\xBC\xC3\xBC</data>", "data"},
    };
    for (const auto& row : rows) {
        const auto value = parsePropertyList(document(row.xml));
        ASSERT_FALSE(value) << row.xml;
        EXPECT_THAT(value.error().message, HasSubstr(row.error)) << row.xml;
        EXPECT_THAT(value.error().message, StartsWith("line ")) << row.xml;
    }
}

TEST(PropertyListParser, RefusesWhatIsNoDocument) {
    const std::string good = document("<string>x</string>");
    const std::string rows[] = {
        "",
        " ",
        "x",
        "\xEF\xBB\xBF",
        "{ a = 1; }",
        "bplist00\xD1\x01\x02",
        std::string("\0", 1),
        std::string("\0", 1) + good.substr(1),
        "<dict/>",
        "<string>x</string>",
        "\n" + good,
        good + "x",
        good + "<plist/>",
        good + std::string("\0", 1),
        good + good,
        "\xFE\xFF" + good,
        "\xFF\xFE" + good,
        "<?xml version='1.0' encoding='ISO-8859-1'?><plist><string>x</string></plist>",
        "<?xml version='1.0' encoding='UTF-16'?><plist><string>x</string></plist>",
        "<?xml version='1.0' encoding='utf-88'?><plist><string>x</string></plist>",
        "<!DOCTYPE plist [<!ENTITY e 'x'>]><plist><string>&e;</string></plist>",
        "<!DOCTYPE plist [<!ENTITY % e SYSTEM 'file:///etc/passwd'>%e;]><plist><true/></plist>",
        "<!DOCTYPE plist []><plist><true/></plist>",
        "<plist><true/>",
    };
    for (const auto& row : rows) EXPECT_FALSE(parsePropertyList(row)) << row;
}

TEST(PropertyListParser, AcceptsAMarkCommentsAndOtherQuotes) {
    const std::string rows[] = {
        "<plist><true/></plist>",
        "\xEF\xBB\xBF" + document("<true/>"),
        "<?xml version='1.0' encoding='Utf-8' standalone='yes'?><plist><true/></plist>",
        "<!-- a --><plist version='1.0'><!-- b --><true/><!-- c --></plist><!-- d -->\n\n",
        "<plist><true/></plist>",
    };
    for (const auto& row : rows) {
        const auto value = parsePropertyList(row);
        ASSERT_TRUE(value) << row << ": " << value.error().message;
        EXPECT_EQ(*value, PropertyList(true));
    }
}

TEST(PropertyListParser, NamesTheLine) {
    const auto value = parsePropertyList("<plist>\n<dict>\n<key>a</key>\n<integer>x</integer>\n");
    ASSERT_FALSE(value);
    EXPECT_EQ(value.error().message, "line 4: an integer that is none, or is out of range");
}

TEST(PropertyListParser, LimitsTheDepth) {
    const auto nested = [](int depth, std::string_view open, std::string_view close) {
        std::string xml;
        for (int i = 0; i < depth; ++i) xml += open;
        for (int i = 0; i < depth; ++i) xml += close;
        return document(xml);
    };
    EXPECT_TRUE(parsePropertyList(nested(kPropertyListDepthLimit, "<array>", "</array>")));
    EXPECT_FALSE(parsePropertyList(nested(kPropertyListDepthLimit + 1, "<array>", "</array>")));
    EXPECT_FALSE(parsePropertyList(nested(100'000, "<array>", "</array>")));
    EXPECT_FALSE(parsePropertyList(nested(100'000, "<dict><key>a</key>", "</dict>")));
}

TEST(PropertyListParser, RefusesADocumentCutAnywhere) {
    const std::string whole =
        contentsOf(KORVANE_SOURCE_DIR "/tests/fixtures/property-lists/every-kind.plist");
    ASSERT_TRUE(parsePropertyList(whole));
    // The line feed at the end is not needed.
    for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
        ASSERT_FALSE(parsePropertyList(whole.substr(0, length))) << length;
    }
}

TEST(PropertyListParser, SurvivesAnyByteChanged) {
    const std::string whole =
        contentsOf(KORVANE_SOURCE_DIR "/tests/fixtures/property-lists/every-kind.plist");
    constexpr std::string_view kBytes(
        "\0<>&\x80\xFF"
        "0",
        7);
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::string changed = whole;
        changed[i] = kBytes[i % kBytes.size()];
        const auto value = parsePropertyList(changed);
        EXPECT_TRUE(value || !value.error().message.empty());
    }
}

TEST(PropertyListParser, ReadsTwentyMegabytes) {
    PropertyListArray records;
    while (records.size() < 20'000) {
        records.push_back(Dictionary{{"number", static_cast<int>(records.size())},
                                     {"text", std::string(1000, 'x')}});
    }
    const PropertyList value(Dictionary{{"records", std::move(records)}});
    const std::string text = formatPropertyList(value);
    ASSERT_GT(text.size(), 20'000'000U);
    const auto again = parsePropertyList(text);
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, value);
}

TEST(PropertyListParser, TakesKeysInDescendingOrderInReasonableTime) {
    std::string xml = "<dict>";
    for (int i = 150'000; i > 100'000; --i) xml += "<key>" + std::to_string(i) + "</key><true/>";
    const auto value = parsePropertyList(document(xml + "</dict>"));
    ASSERT_TRUE(value);
    EXPECT_EQ(value->dictionary()->size(), 50'000U);
}

TEST(PropertyListParser, KeepsKeysThatNobodyKnows) {
    auto value = parsePropertyList(
        document("<dict><key>of another program</key><array><date>2024-01-01T00:00:00Z</date>"
                 "</array><key>ours</key><true/></dict>"));
    ASSERT_TRUE(value);
    value->dictionary()->set("ours", false);
    const auto again = parsePropertyList(formatPropertyList(*value));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->dictionary()->find("of another program")->array()->size(), 1U);
}

}  // namespace
}  // namespace korvane
