#include <gmock/gmock.h>
#include <re2/re2.h>

#include "mail/AlertMessage.h"
#include "mail/EmailAddress.h"
#include "platform/simulated/SimulatedHost.h"

namespace korvane {
namespace {

AlertMessage example() {
    AlertMessage message;
    message.now = Time{std::chrono::seconds{1794762309}};
    message.sender = "grace@example.org";
    message.recipients = {"ada@example.org", "b@example.org"};
    message.subject = "Korvane Pro";
    message.items = {"one", "two", "three", "four", "five", "six", "seven"};
    message.consoleUser = "Ada Example";
    message.computer = "studio";
    message.networkAddresses = "192.168.1.20";
    message.systemVersion = "Debian 12";
    message.alert = "The drive fails.";
    return message;
}

TEST(AlertMessage, HasTheseHeadersAndThisBody) {
    const AlertMessage message = example();
    EXPECT_EQ(composeAlertMessage(message),
              "Content-Type: text/plain;charset=UTF-8;\r\n"
              "Date: " +
                  formatLocalTime(message.now, "%a, %d %b %Y %H:%M:%S %z") +
                  "\r\n"
                  "From: grace@example.org\r\n"
                  "To: ada@example.org, b@example.org\r\n"
                  "Subject: Korvane Pro\r\n"
                  "\r\n"
                  "Korvane Pro\r\n\r\n"
                  "one\r\n\r\n"
                  "two " +
                  shortDateAndTime(message.now) +
                  "\r\n\r\n"
                  "three Ada Example\r\n\r\n"
                  "four studio\r\n\r\n"
                  "five 192.168.1.20\r\n\r\n"
                  "six Debian 12\r\n\r\n"
                  "seven\r\n\r\n"
                  "\tThe drive fails.\r\n\r\n.\r\n");
}

TEST(AlertMessage, ShowsAComputerWithoutAName) {
    AlertMessage message = example();
    message.computer = std::nullopt;
    EXPECT_THAT(composeAlertMessage(message), testing::HasSubstr("\r\nfour (null)\r\n"));
}

TEST(AlertMessage, LeavesLinesThatBeginWithAPointAsTheyAre) {
    AlertMessage message = example();
    message.subject = ".subject";
    message.items[0] = "first\r\n.second";
    const std::string text = composeAlertMessage(message);
    EXPECT_THAT(text, testing::HasSubstr("\r\n\r\n.subject\r\n\r\nfirst\r\n.second\r\n\r\n"));
}

TEST(AlertMessage, LineBreaksInTheAlertAreBlanks) {
    for (const auto& [alert, line] : std::vector<std::pair<std::string, std::string>>{
             {"a\r\n.\r\nMAIL FROM: <mallory>", "a  .  MAIL FROM: <mallory>"},
             {"a\n.\nb", "a . b"},
             {"a\r.\rb\r\n", "a . b  "}}) {
        AlertMessage message = example();
        message.alert = alert;
        EXPECT_THAT(composeAlertMessage(message), testing::EndsWith("\t" + line + "\r\n\r\n.\r\n"));
    }
}

TEST(AlertMessage, TextsThatLookLikeFormatsStayAsTheyAre) {
    AlertMessage message = example();
    message.subject = "%@ %s %d 100%";
    message.alert = "%n%n%n";
    const std::string text = composeAlertMessage(message);
    EXPECT_THAT(text, testing::HasSubstr("Subject: %@ %s %d 100%\r\n\r\n%@ %s %d 100%\r\n"));
    EXPECT_THAT(text, testing::HasSubstr("\t%n%n%n\r\n"));
}

TEST(NetworkAddresses, TakesTheAddressAfterAScopedOneOfAnEthernet) {
    const struct {
        std::vector<std::string> addresses;
        const char* text;
    } rows[] = {
        {{}, ""},
        {{"fe80::1%en0", "192.168.1.20"}, "192.168.1.20"},
        {{"fe80::1%en0", "192.168.1.20", "fe80::2%en1", "10.0.0.2"}, "192.168.1.20, 10.0.0.2"},
        // The comma goes by the place in the list.
        {{"fe80::1%lo0", "127.0.0.1", "fe80::2%en1", "10.0.0.2"}, ", 10.0.0.2"},
        {{"fe80::1%en0"}, ""},
        {{"127.0.0.1", "fe80::1%en0", "192.168.1.20", "::1"}, ""},
        {{"fe80::1%en0%en1", "10.0.0.2"}, ""},
        {{"fe80::1", "10.0.0.2"}, ""},
        {{"fe80::1%", "10.0.0.2"}, ""},
        {{"fe80::1%wlan0", "10.0.0.2"}, ""},
        {{"fe80::1%en0", "10.0.0.2", "fe80::2%en1"}, "10.0.0.2"},
    };
    for (const auto& row : rows) EXPECT_EQ(networkAddresses(row.addresses), row.text);
}

TEST(LocalComputerName, IsTheFirstNameThatEndsInLocal) {
    EXPECT_EQ(localComputerName({"studio.example.org", "studio.local", "other.local"}), "studio");
    EXPECT_EQ(localComputerName({"a.b.local"}), "a.b");
    EXPECT_EQ(localComputerName({"local"}), "");
    EXPECT_EQ(localComputerName({"studio.locals", "studio.local.", "slocal"}), std::nullopt);
    EXPECT_EQ(localComputerName({}), std::nullopt);
}

TEST(ConsoleUserName, IsTheFullNameOfTheUserAtTheConsole) {
    SimulatedHost host{{}};
    EXPECT_EQ(QLConsoleUserName(host), "Ada Example");
    EXPECT_EQ(NSFullUserNameForUserName(host, "ada"), "Ada Example");
    EXPECT_EQ(NSFullUserNameForUserName(host, "nobody-knows"), std::nullopt);
    host.setUsers({{"ada", "Ada Example,Room 1,555,"}, {"eve", ""}});
    EXPECT_EQ(QLConsoleUserName(host), "Ada Example,Room 1,555,");
    host.setConsoleUser("eve");
    EXPECT_EQ(QLConsoleUserName(host), "") << "a user without a full name is one all the same";
    host.setConsoleUser("nobody-knows");
    EXPECT_EQ(QLConsoleUserName(host), "System Administrator");
    host.setConsoleUser(std::nullopt);
    EXPECT_EQ(QLConsoleUserName(host), "System Administrator");
}

TEST(EmailAddress, IsTheWholeTextOrNothing) {
    for (const char* const address : {"a@b.c", "grace.hopper@mail.example.org",
                                      "o'brien&co^x~{|}@x-1.org", "a!#$%*+/=?_`-@1.2"}) {
        EXPECT_TRUE(isEmailAddress(address)) << address;
    }
    for (const char* const text : {"",
                                   "grace",
                                   "grace@",
                                   "@example.org",
                                   "a@localhost",
                                   "a@b.c ",
                                   " a@b.c",
                                   "a@b.c\n",
                                   "a b@c.d",
                                   ".a@b.c",
                                   "a.@b.c",
                                   "a..b@c.d",
                                   "a@-b.c",
                                   "a@b-.c",
                                   "a@b..c",
                                   "a@b.c.",
                                   "a@b.c@d.e",
                                   "gr\xC3\xA4"
                                   "ce@example.org",
                                   "<a@b.c>",
                                   "a\\b@c.d"}) {
        EXPECT_FALSE(isEmailAddress(text)) << text;
    }
}

TEST(EmailAddress, ThePlainPatternSaysTheSame) {
    const re2::RE2 plain{kPlainAddressPattern};
    ASSERT_TRUE(plain.ok()) << plain.error();
    for (int byte = 1; byte < 128; ++byte) {
        const std::string letter(1, static_cast<char>(byte));
        for (const std::string& text :
             {letter + "@b.c", "a." + letter + "@b.c", "a@" + letter + ".c", "a@b." + letter}) {
            EXPECT_EQ(re2::RE2::FullMatch(text, plain), isEmailAddress(text)) << text;
        }
    }
}

TEST(EmailAddress, TakesTextsOfAnyLength) {
    EXPECT_FALSE(isEmailAddress(std::string(5'000'000, 'a')));
    EXPECT_TRUE(isEmailAddress(std::string(100'000, 'a') + "@b.c"));
}

}  // namespace
}  // namespace korvane
