#include <gtest/gtest.h>

#include <random>
#include <string>

#include "mail/Base64.h"

namespace korvane {
namespace {

using namespace std::string_literals;

std::string randomBytes(std::mt19937& random, std::size_t size, std::string_view from = {}) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = from.empty() ? static_cast<char>(random()) : from[random() % from.size()];
    }
    return bytes;
}

// The length rules one symbol at a time, as slowly and plainly as they can be put.
std::string decodedPlainly(const std::string& text) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes((text.size() + 3) / 4 * 3 + 3, '\0');
    long length = 0;
    std::size_t index = 0;
    while (index < text.size()) {
        unsigned symbols[4] = {0, 0, 0, 0};
        long count = 0;
        while (index < text.size() && count < 4) {
            const std::size_t value = alphabet.find(text[index++]);
            if (value != std::string::npos) symbols[count++] = static_cast<unsigned>(value);
        }
        const auto at = static_cast<std::size_t>(length);
        bytes[at] = static_cast<char>(symbols[0] << 2 | symbols[1] >> 4);
        bytes[at + 1] = static_cast<char>(symbols[1] << 4 | symbols[2] >> 2);
        bytes[at + 2] = static_cast<char>(symbols[2] << 6 | symbols[3]);
        length = std::max(0L, length + count - 1);
    }
    return bytes.substr(0, static_cast<std::size_t>(length));
}

TEST(Base64, EncodesTheStandardsVectors) {
    // RFC 4648, section 10.
    for (const auto& [bytes, text] :
         {std::pair{"", ""}, std::pair{"f", "Zg=="}, std::pair{"fo", "Zm8="},
          std::pair{"foo", "Zm9v"}, std::pair{"foob", "Zm9vYg=="}, std::pair{"fooba", "Zm9vYmE="},
          std::pair{"foobar", "Zm9vYmFy"}}) {
        EXPECT_EQ(NewBase64Encode(bytes, LineSeparation::off), text);
        EXPECT_EQ(NewBase64Encode(bytes, LineSeparation::on), text);
        EXPECT_EQ(NewBase64Decode(text), bytes);
    }
    EXPECT_EQ(NewBase64Encode("\xFB\xFF\xBF"s, LineSeparation::off), "+/+/");
}

TEST(Base64, BreaksLinesAfterSixtyFourCharactersButNotAfterTheLast) {
    const std::string line(64, 'Q');  // what "AAA"-like groups of 0x41 0x04 0x10 come to
    const std::string bytes48 = NewBase64Decode(line);
    ASSERT_EQ(bytes48.size(), 48U);
    EXPECT_EQ(NewBase64Encode(bytes48, LineSeparation::on), line);
    EXPECT_EQ(NewBase64Encode(bytes48 + "A", LineSeparation::on), line + "\r\nQQ==");
    EXPECT_EQ(NewBase64Encode(bytes48 + bytes48, LineSeparation::on), line + "\r\n" + line);
    EXPECT_EQ(NewBase64Encode(bytes48 + bytes48 + "A", LineSeparation::off), line + line + "QQ==");
}

TEST(Base64, DecodesByTheNumberOfSymbols) {
    EXPECT_EQ(NewBase64Decode("QUJD"), "ABC");
    EXPECT_EQ(NewBase64Decode("QUI="), "AB");
    EXPECT_EQ(NewBase64Decode("QQ=="), "A");
    EXPECT_EQ(NewBase64Decode("Q"), "");
    EXPECT_EQ(NewBase64Decode("QUI"), "AB");
}

TEST(Base64, PassesOverWhatIsNoSymbol) {
    EXPECT_EQ(NewBase64Decode("Q U\r\nJ\tD"), "ABC");
    EXPECT_EQ(NewBase64Decode("\xFFQ\x80U=J\0D"s), "ABC");
}

TEST(Base64, ALastGroupWithoutSymbolsTakesAByteOff) {
    EXPECT_EQ(NewBase64Decode("QUJD\r\n"), "AB");
    EXPECT_EQ(NewBase64Decode("QUJD="), "AB");
    EXPECT_EQ(NewBase64Decode("QUI=\r\n"), "AB");
    EXPECT_EQ(NewBase64Decode("QUJDQUJD "), "ABCAB");
}

TEST(Base64, TheLengthNeverFallsBelowNothing) {
    for (const char* const text : {"", "=", "====", "\r\n", "    \r\n  "}) {
        EXPECT_EQ(NewBase64Decode(text), "") << text;
    }
}

TEST(Base64, EncodingAndDecodingGivesBackAnyBytes) {
    std::mt19937 random{1};
    for (std::size_t size = 0; size < 300; ++size) {
        const std::string bytes = randomBytes(random, size);
        EXPECT_EQ(NewBase64Decode(NewBase64Encode(bytes, LineSeparation::on)), bytes);
        EXPECT_EQ(NewBase64Decode(NewBase64Encode(bytes, LineSeparation::off)), bytes);
    }
}

TEST(Base64, DecodesAnyTextByTheSameRules) {
    std::mt19937 random{2};
    for (int round = 0; round < 20000; ++round) {
        const std::string text =
            randomBytes(random, random() % 40, round % 2 == 0 ? "QUJD/+9= \r\n" : "QUJDabc=");
        ASSERT_EQ(NewBase64Decode(text), decodedPlainly(text)) << text;
    }
}

}  // namespace
}  // namespace korvane
