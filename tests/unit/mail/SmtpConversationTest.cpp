// The steps of a session: what is sent on which reply, and what is passed over.

#include <algorithm>
#include <set>
#include <string>
#include <utility>

#include "mail/SmtpCommands.h"
#include "mail/SmtpSteps.h"
#include "mail/Transformers.h"
#include "unit/mail/MailSession.h"

namespace korvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class SmtpConversation : public MailSession {
  protected:
    // What a server asks in the course of a login.
    static MailReply question(const std::string& prompt) { return reply("334 " + prompt); }
};

TEST_F(SmtpConversation, SendsAMessageWithoutLogin) {
    send(settings());
    EXPECT_THAT(commands(),
                ElementsAre("EHLO studio.example.org", "NOOP", "MAIL FROM: <ada@example.org>",
                            "RCPT TO: <ada@example.org>", "DATA", "message", "QUIT"));
    EXPECT_THAT(progress(), ElementsAre(kQLSMTPBeginConnection, kQLSMTPSentEmail));
    EXPECT_TRUE(controller_->emailSentSuccessfully());
    EXPECT_FALSE(controller_->emailSendIsBusy());
    EXPECT_FALSE(controller_->smtpError());
    EXPECT_FALSE(controller_->peerHasGone());
    EXPECT_EQ(machine_.mailServer.openStreams(), 0U);
    EXPECT_EQ(machine_.mailServer.lastHost(), "mail.example.org");
    EXPECT_EQ(machine_.mailServer.lastPort(), 25);
    ASSERT_THAT(ends_, SizeIs(1));
    EXPECT_EQ(ends_[0].outcome, MailOutcome::sent);
}

TEST_F(SmtpConversation, PostsOneReplyForEachChunk) {
    send(settings());
    EXPECT_EQ(std::count(notifications_.begin(), notifications_.end(), kQLRecievedSMTPResponse), 8);
}

TEST_F(SmtpConversation, LogsInWithTheStoredFormOfNameAndPassword) {
    send(withLogin());
    EXPECT_THAT(commands(), ElementsAre("EHLO studio.example.org", "NOOP", "AUTH LOGIN",
                                        "Z3JhY2VAZXhhbXBsZS5vcmc=", "c2VjcmV0",
                                        "MAIL FROM: <grace@example.org>",
                                        "RCPT TO: <ada@example.org>", "DATA", "message", "QUIT"));
}

TEST_F(SmtpConversation, LogsInWhateverTheWordsOfTheQuestions) {
    EXPECT_EQ(QLBase64StringTransformer::base64DecodedString(kSmtpUserNamePrompt), "Username:");
    EXPECT_EQ(QLBase64StringTransformer::base64DecodedString(kSmtpPasswordPrompt), "Password:");
    machine_.mailServer.setReplies("AUTH", {question(kSmtpPasswordPrompt)});
    machine_.mailServer.setReplies("login", {question(kSmtpUserNamePrompt), reply("235 accepted")});
    send(withLogin());
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(1));
}

TEST_F(SmtpConversation, SaysItsOwnWordsAndNoOthers) {
    send(settings());
    send(withLogin({{"emailUseSSLAuthentication", true}, {"emailPort", "587"}}));
    std::set<std::string> words;
    for (const std::string& line : commands()) words.insert(line.substr(0, line.find(' ')));
    EXPECT_THAT(words,
                testing::UnorderedElementsAre(kSmtpHello, kSmtpStartTls, kSmtpNothing, "AUTH",
                                              "MAIL", "RCPT", kSmtpData, kSmtpQuit, "message",
                                              "Z3JhY2VAZXhhbXBsZS5vcmc=", "c2VjcmV0"));
    EXPECT_FALSE(words.contains(kSmtpOpen));
}

TEST_F(SmtpConversation, CanBeBegunBeforeTheGreeting) {
    machine_.mailServer.setGreeting(MailReply{});
    const Dictionary configuration = settings();
    controller_->sendSMTPAlertMessage("The drive fails.", "", &configuration);
    machine_.runLoop.runFor(std::chrono::seconds{1});
    ASSERT_EQ(controller_->smtpStepCounter(), kStepGreeting);
    controller_->sendEmail();
    EXPECT_THAT(commands(), ElementsAre("EHLO studio.example.org"));
    EXPECT_EQ(controller_->smtpStepCounter(), kStepHello);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(SmtpConversation, ShowsTheErrorOfTheLastSessionOnRequest) {
    send(settings());
    controller_->presentSMTPError();
    EXPECT_THAT(machine_.alertDialogs.shown(), IsEmpty());

    machine_.mailServer.setReplies("RCPT", {reply("550 unknown")});
    send(settings());
    controller_->presentSMTPError();
    ASSERT_THAT(machine_.alertDialogs.shown(), SizeIs(1));
    const Alert& alert = machine_.alertDialogs.shown()[0].alert;
    EXPECT_EQ(alert.header, "There was an error talking to the SMTP server");
    EXPECT_EQ(alert.message, "550 unknown");
    EXPECT_EQ(alert.level, AlertLevel::caution);
    EXPECT_EQ(alert.timeOut.count(), 0);
}

TEST_F(SmtpConversation, UpgradesToTlsAndLogsInWithoutASecondHello) {
    send(withLogin({{"emailUseSSLAuthentication", true}, {"emailPort", "587"}}));
    const auto& received = machine_.mailServer.received();
    EXPECT_THAT(commands(), ElementsAre("EHLO studio.example.org", "STARTTLS", "AUTH LOGIN",
                                        "Z3JhY2VAZXhhbXBsZS5vcmc=", "c2VjcmV0",
                                        "MAIL FROM: <grace@example.org>",
                                        "RCPT TO: <ada@example.org>", "DATA", "message", "QUIT"));
    for (std::size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(received[i].isUnderTls, i >= 2) << received[i].text;
    }
}

TEST_F(SmtpConversation, GoesOnWithoutTlsWhereTheServerAnswersTheUpgradeBy250) {
    machine_.mailServer.setReplies("STARTTLS", {reply("250 as you like")});
    send(withLogin({{"emailUseSSLAuthentication", true}, {"emailPort", "587"}}));
    EXPECT_THAT(commands(), testing::Contains("AUTH LOGIN"));
    EXPECT_FALSE(machine_.mailServer.received().back().isUnderTls);
}

TEST_F(SmtpConversation, SpeaksTlsFromTheFirstByteOnPort465) {
    send(withLogin({{"emailUseSSLAuthentication", true}, {"emailPort", "465"}}));
    EXPECT_EQ(commands()[1], "NOOP");
    for (const auto& line : machine_.mailServer.received()) EXPECT_TRUE(line.isUnderTls);
}

TEST_F(SmtpConversation, UsesNoTlsWithoutLogin) {
    for (const char* const port : {"587", "465"}) {
        send(settings({{"emailUseSSLAuthentication", true}, {"emailPort", port}}));
    }
    EXPECT_THAT(commands(), Not(testing::Contains("STARTTLS")));
    for (const auto& line : machine_.mailServer.received()) EXPECT_FALSE(line.isUnderTls);
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(2));
}

TEST_F(SmtpConversation, NamesEachRecipientInItsOrder) {
    for (int session = 0; session < 2; ++session) {
        send(settings({{"emailAddress", "a@x.org, b@x.org,c@x.org"}}));
    }
    std::vector<std::string> recipients;
    for (const std::string& line : commands()) {
        if (line.starts_with("RCPT")) recipients.push_back(line);
    }
    EXPECT_THAT(recipients,
                ElementsAre("RCPT TO: <a@x.org>", "RCPT TO: <b@x.org>", "RCPT TO: <c@x.org>",
                            "RCPT TO: <a@x.org>", "RCPT TO: <b@x.org>", "RCPT TO: <c@x.org>"));
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(2));
}

TEST_F(SmtpConversation, BeginsWithTheFirstRecipientAgainAfterASessionThatStoppedAmongThem) {
    machine_.mailServer.setReplies("RCPT", {reply("250 OK"), reply("550 unknown")});
    send(settings({{"emailAddress", "a@x.org,b@x.org,c@x.org"}}));
    EXPECT_EQ(commands().back(), "RCPT TO: <b@x.org>");
    machine_.mailServer.setReplies("RCPT", {reply("250 OK")});
    send(settings({{"emailAddress", "d@x.org,e@x.org"}}));
    const std::vector<std::string> all = commands();
    EXPECT_THAT(std::vector(all.end() - 5, all.end() - 1),
                ElementsAre("RCPT TO: <d@x.org>", "RCPT TO: <e@x.org>", "DATA", "message"));
}

TEST_F(SmtpConversation, NamesTheServerToItsTls) {
    send(withLogin({{"emailUseSSLAuthentication", true}, {"emailPort", "465"}}));
    EXPECT_THAT(machine_.journal.text(), HasSubstr("mail TLS mail.example.org"));
}

TEST_F(SmtpConversation, ThePortsTextDecidesAboutTlsFromTheFirstByte) {
    send(withLogin({{"emailUseSSLAuthentication", true}, {"emailPort", "0465"}}));
    EXPECT_EQ(machine_.mailServer.lastPort(), 465);
    EXPECT_EQ(commands()[1], "STARTTLS");
}

TEST_F(SmtpConversation, AConnectionThatIsNotOpenAnyMoreIsGivenUpSilently) {
    machine_.mailServer.failWrites("AUTH", StreamWrite::notOpen);
    send(withLogin());
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THAT(suggestions_, IsEmpty());
    EXPECT_EQ(controller_->smtpStepCounter(), kStepLogin);
}

// ---- Replies ------------------------------------------------------------------------------------

TEST_F(SmtpConversation, TakesOnlyTheFirstLineOfAChunk) {
    machine_.mailServer.setReplies("MAIL", {reply("250-first\r\n550 second")});
    send(settings());
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(1));
}

TEST_F(SmtpConversation, TakesEachChunkAsAReply) {
    // The second chunk of the greeting is a reply to EHLO as far as the session can tell.
    machine_.mailServer.setGreeting(MailReply{.chunks = {"220-one\r\n", "220 two\r\n"}});
    machine_.mailServer.setReplies("EHLO", {MailReply{}});
    send(settings());
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(1));
}

TEST_F(SmtpConversation, PassesOverWhatDoesNotFitTheStep) {
    const struct {
        const char* command;
        std::vector<std::string> chunks;
    } rows[] = {
        {"EHLO", {"421 wait\r\n", "250 OK\r\n"}},    {"NOOP", {"421 wait\r\n", "250 OK\r\n"}},
        {"AUTH", {"235 what\r\n", "334 go\r\n"}},    {"MAIL", {"451 wait\r\n", "250 OK\r\n"}},
        {"RCPT", {"451 wait\r\n", "250 OK\r\n"}},    {"DATA", {"451 wait\r\n", "354 go\r\n"}},
        {"message", {"451 wait\r\n", "250 OK\r\n"}},
    };
    std::size_t sent = 0;
    for (const auto& row : rows) {
        machine_.mailServer.setReplies(row.command, {MailReply{.chunks = row.chunks}});
        send(withLogin());
        EXPECT_THAT(machine_.mailServer.messages(), SizeIs(++sent)) << row.command;
    }
}

// It means that the server will forward the mail: a client could go on, this one does not.
TEST_F(SmtpConversation, ARecipientWhoseMailIsForwardedLeadsNowhere) {
    machine_.mailServer.setReplies("RCPT", {reply("251 will forward")});
    send(settings());
    EXPECT_THAT(commands().back(), "RCPT TO: <ada@example.org>");
    EXPECT_EQ(ends_.back().outcome, MailOutcome::dropped);
    EXPECT_EQ(ends_.back().text, "251 will forward");
}

TEST_F(SmtpConversation, AReplyThatIsLongerThanAReadIsSeveral) {
    // The second part comes as the reply to NOOP, and fits nothing.
    const std::string longLine = "250-" + std::string(1500, 'x');
    machine_.mailServer.setReplies("EHLO", {reply(longLine + "\r\n250 OK")});
    send(settings());
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(1));
    ASSERT_GE(replies_.size(), 4U);
    EXPECT_EQ(replies_[1], longLine.substr(0, 1024));
    EXPECT_EQ(replies_[2], longLine.substr(1024));
    EXPECT_EQ(replies_[3], "250 OK");
}

TEST_F(SmtpConversation, ACommandOutOfItsTurnIsLoggedAndSentAllTheSame) {
    bool isFirst = true;
    center_.addObserver(&isFirst, kQLRecievedSMTPResponse, controller_.get(),
                        [&](const Notification&) {
                            if (controller_->smtpStepCounter() != kStepMailFrom) return;
                            if (std::exchange(isFirst, false)) controller_->sendEmail();
                        });
    send(settings());
    EXPECT_THAT(log(), Contains("Internal Consistency Check Failed! QLSMTPController expecting to "
                                "be in state: 1, but we are currently in: 7"));
    const std::vector<std::string> sent = commands();
    EXPECT_EQ(std::ranges::count(sent, "EHLO studio.example.org"), 2);
    center_.removeObserver(&isFirst);
}

TEST_F(SmtpConversation, AnAlertOfSeveralLinesCannotEndTheMessageAndSpeakToTheServer) {
    const std::string name = "Data\r\n.\r\nMAIL FROM: <mallory@example.org>\r\nx";
    send(settings(), "The volume " + name + " is full.");
    EXPECT_THAT(machine_.mailServer.messages(),
                ElementsAre(testing::EndsWith("\r\n\tThe volume Data  .  MAIL FROM: "
                                              "<mallory@example.org>  x is full.\r\n\r\n.\r\n")));
    EXPECT_THAT(commands(),
                ElementsAre("EHLO studio.example.org", "NOOP", "MAIL FROM: <ada@example.org>",
                            "RCPT TO: <ada@example.org>", "DATA", "message", "QUIT"));
}

TEST_F(SmtpConversation, AnEhloThatIsRefusedIsPassedOver) {
    machine_.mailServer.setReplies(
        "EHLO", {MailReply{.chunks = {"502 what is that?\r\n", "250 all right\r\n"}}});
    send(settings());
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(1));
    EXPECT_FALSE(controller_->smtpError());
}

TEST_F(SmtpConversation, EveryOtherRefusalEndsTheSessionWithoutANotification) {
    const struct {
        const char* command;
        int step;
    } rows[] = {{"NOOP", kStepStartTls},   {"AUTH", kStepLogin}, {"MAIL", kStepMailFrom},
                {"RCPT", kStepRecipients}, {"DATA", kStepData},  {"message", kStepMessage}};
    for (const auto& row : rows) {
        SimulatedMailServer& server = machine_.mailServer;
        const std::size_t before = notifications_.size();
        server.setReplies(row.command, {reply("550 no, thank you")});
        send(withLogin());
        ASSERT_TRUE(controller_->smtpError()) << row.command;
        EXPECT_EQ(controller_->smtpError()->domain, "com.quorlen.protectiontool.smtp");
        EXPECT_EQ(controller_->smtpError()->code, 550);
        EXPECT_EQ(controller_->smtpError()->description,
                  "There was an error talking to the SMTP server");
        EXPECT_EQ(controller_->smtpError()->recoverySuggestion, "550 no, thank you");
        EXPECT_FALSE(controller_->emailSendIsBusy());
        EXPECT_EQ(server.openStreams(), 0U);
        EXPECT_EQ(ends_.back().outcome, MailOutcome::refused);
        EXPECT_EQ(ends_.back().step, row.step) << row.command;
        EXPECT_EQ(ends_.back().text, "550 no, thank you");
        EXPECT_EQ(std::count(notifications_.begin() + static_cast<std::ptrdiff_t>(before),
                             notifications_.end(), kQLSMTPError),
                  0);
        server.setReplies(row.command, {});
        machine_.mailServer.setReplies("NOOP", {reply("250 OK")});
        machine_.mailServer.setReplies("AUTH", {question(kSmtpUserNamePrompt)});
        machine_.mailServer.setReplies("MAIL", {reply("250 OK")});
        machine_.mailServer.setReplies("RCPT", {reply("250 OK")});
        machine_.mailServer.setReplies("DATA", {reply("354 go on")});
    }
}

TEST_F(SmtpConversation, ARefusedRecipientMeansNoMessageWasSent) {
    machine_.mailServer.setReplies("RCPT", {reply("550 unknown")});
    send(settings());
    EXPECT_THAT(progress(), ElementsAre(kQLSMTPBeginConnection));
    EXPECT_FALSE(controller_->emailSentSuccessfully());
}

TEST_F(SmtpConversation, AWrongPasswordHasTheServersOwnCode) {
    machine_.mailServer.setReplies("login", {question(kSmtpPasswordPrompt), reply("535 wrong")});
    send(withLogin());
    ASSERT_TRUE(controller_->smtpError());
    EXPECT_EQ(controller_->smtpError()->code, 535);
    EXPECT_EQ(ends_.back().step, kStepPassword);
}

TEST_F(SmtpConversation, AnyOtherReplyToThePasswordIsAConnectionError) {
    machine_.mailServer.setReplies("login", {question(kSmtpPasswordPrompt), reply("334 again?")});
    send(withLogin());
    ASSERT_TRUE(controller_->smtpError());
    EXPECT_EQ(controller_->smtpError()->code, kSmtpErrorGeneric);
    EXPECT_THAT(suggestions_,
                ElementsAre("Failed to connect to SMTP server mail.example.org on port 25"));
}

TEST_F(SmtpConversation, AnyReplyToTheEndEndsTheSession) {
    machine_.mailServer.setReplies("QUIT", {reply("500 that was one line too many")});
    send(settings());
    EXPECT_EQ(machine_.mailServer.openStreams(), 0U);
    EXPECT_EQ(ends_.back().outcome, MailOutcome::sent);
    EXPECT_FALSE(controller_->peerHasGone());
}

TEST_F(SmtpConversation, AReplyBeyondAsciiEndsTheSession) {
    machine_.mailServer.setGreeting(reply("220 Gr\xC3\xBC\xC3\x9F Gott"));
    send(settings());
    EXPECT_THAT(suggestions_,
                ElementsAre("Failed to connect to SMTP server mail.example.org on port 25"));
    EXPECT_EQ(machine_.mailServer.openStreams(), 0U);
}

TEST_F(SmtpConversation, AReplyOfOneByteAtATimeFitsNoStep) {
    machine_.mailServer.setGreeting(MailReply{.chunks = {"2", "2", "0", " ", "\r", "\n"}});
    send(settings());
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_TRUE(controller_->peerHasGone());  // the server has lost its patience
}

// ---- Who sends ----------------------------------------------------------------------------------

TEST_F(SmtpConversation, ALoginNameThatIsNoAddressIsLoggedAndTheFirstRecipientSends) {
    send(withLogin({{"emailUserName", NewBase64Encode("grace", LineSeparation::on)}}));
    EXPECT_THAT(log(), testing::Contains("username: grace is not detected as an email address."));
    EXPECT_THAT(commands(), testing::Contains("MAIL FROM: <ada@example.org>"));
}

TEST_F(SmtpConversation, WithoutLoginTheFirstRecipientSendsWhateverTheName) {
    send(settings({{"emailUserName", NewBase64Encode("grace@example.org", LineSeparation::on)},
                   {"emailAddress", "b@x.org,a@x.org"}}));
    EXPECT_THAT(commands(), testing::Contains("MAIL FROM: <b@x.org>"));
    EXPECT_THAT(machine_.mailServer.messages()[0],
                HasSubstr("From: b@x.org\r\nTo: b@x.org, a@x.org"));
}

TEST_F(SmtpConversation, WithoutRecipientsTheSessionEndsInAConnectionError) {
    Dictionary none = settings();
    none.remove("emailAddress");
    for (const Dictionary& configuration :
         {settings({{"emailAddress", ""}}), none,
          settings({{"emailAddress", PropertyListArray{"a@x.org"}}})}) {
        suggestions_.clear();
        send(configuration);
        EXPECT_THAT(suggestions_,
                    ElementsAre("Failed to connect to SMTP server mail.example.org on port 25"));
        EXPECT_FALSE(controller_->emailSendIsBusy());
    }
    EXPECT_THAT(machine_.mailServer.messages(), IsEmpty());
}

TEST_F(SmtpConversation, WithoutNameOrPasswordNothingIsSentInTheirPlace) {
    Dictionary configuration = withLogin();
    configuration.remove("emailUserName");
    machine_.mailServer.setReplies("AUTH",
                                   {MailReply{.chunks = {"334 name\r\n", "334 password\r\n"}}});
    // The server takes MAIL for the second line of the login.
    machine_.mailServer.setReplies("login", {reply("235 accepted"), reply("250 OK")});
    send(configuration);
    EXPECT_THAT(commands(), testing::Contains("c2VjcmV0"));
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(1));
}

TEST_F(SmtpConversation, SendsTextBeyondAsciiAndNotesItsLength) {
    machine_.host.setHostName(
        "k\xC3\xBC"
        "che\xF0\x9F\x92\xBE");
    send(settings());
    EXPECT_EQ(commands()[0],
              "EHLO k\xC3\xBC"
              "che\xF0\x9F\x92\xBE");
    // "EHLO küche", a character of two UTF-16 units, and the line's end.
    EXPECT_EQ(log()[0], "strlen(rawText): 17 && [streamedText length]: 14");
}

TEST_F(SmtpConversation, TheMessageEndsWithAPointAndOneMoreEmptyLine) {
    send(settings());
    // The server's line is without the end that the client appends to each.
    EXPECT_THAT(machine_.mailServer.messages()[0], testing::EndsWith("fails.\r\n\r\n.\r\n"));
    EXPECT_THAT(machine_.mailServer.messages()[0],
                StartsWith("Content-Type: text/plain;charset=UTF-8;\r\nDate: "));
}

}  // namespace
}  // namespace korvane
