#include <gtest/gtest.h>

#include "KorvaneProNotice/Markup.h"
#include "platform/linux/NoticeProtocol.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;

Alert wholeAlert() {
    return {"Korvane Pro Warning", "The volume “A & <B>”\nis low.", "OK", AlertLevel::caution,
            milliseconds{5000}};
}

TEST(NoticeProtocol, CarriesEveryFieldOfAnAlert) {
    const Alert sent = wholeAlert();
    const Result<Alert> received = parseNotice(formatNotice(sent));
    ASSERT_TRUE(received) << received.error().message;
    EXPECT_EQ(received->header, sent.header);
    EXPECT_EQ(received->message, sent.message);
    EXPECT_EQ(received->defaultButton, sent.defaultButton);
    EXPECT_EQ(received->level, sent.level);
    EXPECT_EQ(received->timeOut, sent.timeOut);
}

TEST(NoticeProtocol, AnAlertWithoutAButtonStaysWithoutOne) {
    Alert sent = wholeAlert();
    sent.defaultButton.reset();
    const Result<Alert> received = parseNotice(formatNotice(sent));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->defaultButton, std::nullopt);
}

TEST(NoticeProtocol, ATimeOutIsHeldWithinADay) {
    for (const auto& [sent, expected] :
         {std::pair{milliseconds{-1}, milliseconds{0}},
          std::pair{milliseconds::max(), milliseconds{std::chrono::hours{24}}}}) {
        Alert alert = wholeAlert();
        alert.timeOut = sent;
        const Result<Alert> received = parseNotice(formatNotice(alert));
        ASSERT_TRUE(received);
        EXPECT_EQ(received->timeOut, expected);
    }
}

TEST(NoticeProtocol, RefusesWhatIsNoNotice) {
    const std::string head = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)";
    for (const std::string& text :
         {std::string{}, std::string{"warning"}, head + "<array/></plist>",
          head + "<dict/></plist>", head + "<dict><key>header</key><array/></dict></plist>",
          head + "<dict><key>header</key><string>cut"}) {
        EXPECT_FALSE(parseNotice(text)) << text;
    }
}

TEST(Markup, EscapesWhatAMarkupReaderWouldTake) {
    EXPECT_EQ(escapeMarkup("a <b>bold</b> & \"plain\" 'text'"),
              "a &lt;b&gt;bold&lt;/b&gt; &amp; \"plain\" 'text'");
    EXPECT_EQ(escapeMarkup("&amp;"), "&amp;amp;");
    EXPECT_EQ(escapeMarkup(""), "");
}

}  // namespace
}  // namespace korvane
