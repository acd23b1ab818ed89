#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "base/PropertyList.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
constexpr double kLargestReal = std::numeric_limits<double>::max();

std::vector<std::string> keysOf(const Dictionary& dictionary) {
    std::vector<std::string> keys;
    for (const auto& entry : dictionary) keys.push_back(entry.key);
    return keys;
}

TEST(Dictionary, KeepsItsKeysInOrderHoweverTheyCome) {
    Dictionary dictionary;
    for (const char* key : {"m", "z", "a", "n", "", "ü", "Z"}) dictionary.set(key, key);
    EXPECT_THAT(keysOf(dictionary), ElementsAre("", "Z", "a", "m", "n", "z", "ü"));
    EXPECT_EQ(*dictionary.find("n")->string(), "n");
    EXPECT_EQ(dictionary.find("o"), nullptr);
    EXPECT_FALSE(dictionary.contains("zz"));
}

TEST(Dictionary, ReplacesAValueUnderTheSameKey) {
    Dictionary dictionary{{"a", 1}, {"b", 2}};
    dictionary.set("a", 3);
    dictionary.set("b", "four");
    EXPECT_EQ(dictionary, (Dictionary{{"b", "four"}, {"a", 3}}));
}

TEST(Dictionary, TakesTheLastOfEqualKeys) {
    const Dictionary dictionary{{"b", 1}, {"a", 2}, {"b", 3}, {"a", 4}, {"c", 5}};
    EXPECT_EQ(dictionary, (Dictionary{{"a", 4}, {"b", 3}, {"c", 5}}));
    EXPECT_EQ((Dictionary{{"a", 1}, {"a", 2}}).size(), 1U);
}

TEST(Dictionary, RemovesWhatItHasAndSaysWhenThereWasNothing) {
    Dictionary dictionary{{"a", 1}, {"b", 2}};
    EXPECT_TRUE(dictionary.remove("a"));
    EXPECT_FALSE(dictionary.remove("a"));
    EXPECT_EQ(dictionary.size(), 1U);
}

TEST(Dictionary, LetsItsValuesBeChangedInPlace) {
    Dictionary dictionary{{"entries", PropertyListArray{1, 2}}};
    dictionary.find("entries")->array()->push_back(3);
    EXPECT_EQ(dictionary.find("entries")->array()->size(), 3U);
    for (auto& entry : dictionary) entry.value = false;
    EXPECT_EQ(*dictionary.find("entries")->boolean(), false);
}

TEST(PropertyList, IsExactlyOfOneKind) {
    EXPECT_NE(PropertyList(true).boolean(), nullptr);
    EXPECT_EQ(PropertyList(true).integer(), nullptr);
    EXPECT_NE(PropertyList("x").string(), nullptr);
    EXPECT_EQ(PropertyList("1").integer(), nullptr);
    EXPECT_NE(PropertyList(1.0).real(), nullptr);
    EXPECT_NE(PropertyList(Dictionary{}).dictionary(), nullptr);
    EXPECT_EQ(PropertyList(PropertyListArray{}).dictionary(), nullptr);
    EXPECT_EQ(*PropertyList().string(), "");
}

TEST(PropertyList, HoldsAnUnsignedIntegerAsASignedOneWhereItFits) {
    EXPECT_EQ(*PropertyList(std::uint64_t{7}).integer(), 7);
    EXPECT_EQ(*PropertyList(static_cast<std::uint64_t>(kHighest)).integer(), kHighest);
    const PropertyList large(static_cast<std::uint64_t>(kHighest) + 1);
    EXPECT_EQ(large.integer(), nullptr);
    EXPECT_EQ(*large.largeInteger(), static_cast<std::uint64_t>(kHighest) + 1);
}

TEST(PropertyList, ComparesByKindAndContents) {
    EXPECT_EQ(PropertyList(1), PropertyList(1));
    EXPECT_FALSE(PropertyList(1) == PropertyList(1.0));
    EXPECT_FALSE(PropertyList(1) == PropertyList(true));
    EXPECT_FALSE(PropertyList("1") == PropertyList(1));
    EXPECT_EQ(PropertyList(std::nan("")), PropertyList(-std::nan("")));
    EXPECT_FALSE(PropertyList(std::nan("")) == PropertyList(0.0));
}

TEST(LenientReadings, TakeIntegersFromWhateverHoldsOne) {
    const struct {
        PropertyList value;
        std::int64_t integer;
    } rows[] = {
        {5, 5},
        {-5, -5},
        {true, 1},
        {false, 0},
        {2.99, 2},
        {-2.99, -2},
        {1e300, kHighest},
        {-1e300, kLowest},
        {9223372036854775808.0, kHighest},
        {-9223372036854775808.0, kLowest},
        {std::numeric_limits<double>::infinity(), kHighest},
        {std::nan(""), 0},
        {std::numeric_limits<std::uint64_t>::max(), kHighest},
        {"12", 12},
        {" \t\n-12abc", -12},
        {"+12", 12},
        {"+-12", 0},
        {"-+12", 0},
        {"--12", 0},
        {"- 12", 0},
        {"-", 0},
        {"+", 0},
        {"", 0},
        {"   ", 0},
        {"abc", 0},
        {"0x10", 0},
        {"007", 7},
        {"1e3", 1},
        {"1.9", 1},
        {"99999999999999999999", kHighest},
        {"-99999999999999999999", kLowest},
        {"9223372036854775807", kHighest},
        {"-9223372036854775808", kLowest},
        {std::string("1\0002", 3), 1},
        {"\xFF\xFE"
         "1",
         0},
        {PropertyListArray{1}, 0},
        {Dictionary{{"a", 1}}, 0},
        {PropertyListData{std::byte{1}}, 0},
        {PropertyListDate(std::chrono::seconds(5)), 0},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(integerValue(&rows[i].value), rows[i].integer) << "row " << i;
    }
    EXPECT_EQ(integerValue(nullptr), 0);
}

TEST(LenientReadings, TakeRealsFromWhateverHoldsOne) {
    const struct {
        PropertyList value;
        double real;
    } rows[] = {
        {5, 5},
        {2.5, 2.5},
        {true, 1},
        {std::uint64_t{1} << 63U, 9223372036854775808.0},
        {"1.5", 1.5},
        {" -1.5e2x", -150},
        {"+1.5", 1.5},
        {"+-1.5", 0},
        {".5", 0.5},
        {"-.5", -0.5},
        {"5.", 5},
        {".", 0},
        {"-", 0},
        {"", 0},
        {"1,5", 1},
        {"0x10", 0},
        {"inf", 0},
        {"-nan", 0},
        {"infinity", 0},
        {"1e", 1},
        {"1e999", kLargestReal},
        {"-1e999", -kLargestReal},
        {"1e-999", 0},
        {"0.0001e999", kLargestReal},
        {std::string(400, '9'), kLargestReal},
        {std::string(400, '9') + "e-399", 10},
        {"0." + std::string(400, '0') + "1", 0},
        {PropertyListArray{1.5}, 0},
        {PropertyListDate(std::chrono::seconds(5)), 0},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_DOUBLE_EQ(doubleValue(&rows[i].value), rows[i].real) << "row " << i;
    }
    EXPECT_EQ(doubleValue(nullptr), 0);
}

TEST(LenientReadings, TakeYesFromNumbersAndWords) {
    const struct {
        PropertyList value;
        bool yes;
    } rows[] = {
        {true, true},
        {false, false},
        {1, true},
        {-1, true},
        {0, false},
        {0.5, true},
        {0.0, false},
        {"YES", true},
        {"yes", true},
        {"True", true},
        {"true", true},
        {"t", true},
        {" \t+001", true},
        {"-1", true},
        {"9", true},
        {"0", false},
        {"000", false},
        {"-0", false},
        {"NO", false},
        {"false", false},
        {"on", false},
        {"", false},
        {"+", false},
        {"++1", false},
        {"0y", true},
        {"0n", false},
        {"\xC3\xBC", false},
        {PropertyListArray{1}, false},
        {Dictionary{{"a", true}}, false},
        {std::numeric_limits<std::uint64_t>::max(), true},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(booleanValue(&rows[i].value), rows[i].yes) << "row " << i;
    }
    EXPECT_FALSE(booleanValue(nullptr));
}

TEST(LenientReadings, ShowNumbersAsText) {
    const struct {
        PropertyList value;
        const char* text;
    } rows[] = {
        {"as it is", "as it is"},
        {3, "3"},
        {-3, "-3"},
        {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
        {2.5, "2.5"},
        {3.0, "3"},
        {true, "1"},
        {false, "0"},
        {PropertyListArray{"a"}, ""},
        {PropertyListDate(), ""},
    };
    for (const auto& row : rows) EXPECT_EQ(stringValue(&row.value), row.text);
    EXPECT_EQ(stringValue(nullptr), "");
}

}  // namespace
}  // namespace korvane
