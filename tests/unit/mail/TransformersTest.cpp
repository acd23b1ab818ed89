#include <gmock/gmock.h>

#include "mail/Transformers.h"

namespace korvane {
namespace {

using testing::ElementsAre;

TEST(Base64StringTransformer, StoresTextAsBase64AndShowsItAgain) {
    EXPECT_EQ(QLBase64StringTransformer::reverseTransformedValue("ABC"), "QUJD");
    EXPECT_EQ(QLBase64StringTransformer::transformedValue("QUJD"), "ABC");
    EXPECT_EQ(QLBase64StringTransformer::transformedValue(""), "");
}

TEST(Base64StringTransformer, ALongPasswordIsStoredInLines) {
    const std::optional<std::string> stored =
        QLBase64StringTransformer::reverseTransformedValue(std::string(49, 'x'));
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->substr(64), "\r\neA==");
    EXPECT_EQ(QLBase64StringTransformer::transformedValue(*stored), std::string(49, 'x'));
}

TEST(Base64StringTransformer, APasswordBeyondAsciiHasNoStoredForm) {
    EXPECT_EQ(QLBase64StringTransformer::reverseTransformedValue("p\xC3\xA4ss"), std::nullopt);
}

TEST(Base64StringTransformer, StoredBytesBeyondAsciiHaveNoShownForm) {
    EXPECT_EQ(QLBase64StringTransformer::transformedValue("w6Q="), std::nullopt);
    EXPECT_EQ(QLBase64StringTransformer::transformedValue("QUJD\xC3\xA4"), "");
}

TEST(EmailArrayTransformer, DropsSpacesAndKeepsEmptyPieces) {
    const auto split = QLEmailArrayValueTransformer::arrayFromCommaDelimetedString;
    EXPECT_THAT(split("a@b.c , d@e.f"), ElementsAre("a@b.c", "d@e.f"));
    EXPECT_THAT(split(" a b@c "), ElementsAre("ab@c"));
    EXPECT_THAT(split("a@b,"), ElementsAre("a@b", ""));
    EXPECT_THAT(split(","), ElementsAre("", ""));
    EXPECT_THAT(split(""), ElementsAre(""));
    EXPECT_THAT(split("a\t@b,\nc"), ElementsAre("a\t@b", "\nc"));
}

TEST(EmailArrayTransformer, JoinsByCommaAndSpace) {
    const auto join = QLEmailArrayValueTransformer::stringFromArray;
    EXPECT_EQ(join({"a@b", "c@d"}), "a@b, c@d");
    EXPECT_EQ(join({"a@b"}), "a@b");
    EXPECT_EQ(join({}), "");
    EXPECT_EQ(join({"", ""}), ", ");
}

TEST(EmailArrayTransformer, TheKindOfTheValueDecidesTheDirection) {
    const PropertyList text{"a@b , c@d"};
    const PropertyList array{PropertyListArray{"a@b", "c@d"}};
    for (const auto transform : {QLEmailArrayValueTransformer::transformedValue,
                                 QLEmailArrayValueTransformer::reverseTransformedValue}) {
        EXPECT_EQ(transform(&text), array);
        EXPECT_EQ(transform(&array), PropertyList{"a@b, c@d"});
        EXPECT_EQ(transform(nullptr), std::nullopt);
    }
}

}  // namespace
}  // namespace korvane
