// The mail commands: what is asked, how it is stored, what is never shown, and how a test mail's
// end reads.

#include <gmock/gmock.h>

#include "mail/Base64.h"
#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

using MailCommands = KorvanectlTest;

std::string text(const Dictionary& preferences, const char* key) {
    return stringValue(preferences.find(key));
}

TEST_F(MailCommands, StoresTheAnswersInTheFormInWhichTheDaemonReadsThem) {
    answers = {"mail.example.org", "587", "grace@example.org", "secret", "a@x.org, b@x.org", "yes"};
    EXPECT_EQ(run({"mail", "set"}), 0) << err;
    const Dictionary preferences = stored();
    EXPECT_EQ(text(preferences, "emailServer"), "mail.example.org");
    EXPECT_EQ(preferences.find("emailPort")->string()->c_str(), std::string{"587"});
    EXPECT_EQ(text(preferences, "emailUserName"), "Z3JhY2VAZXhhbXBsZS5vcmc=");
    EXPECT_EQ(text(preferences, "emailPassword"), "c2VjcmV0");
    EXPECT_THAT(text(preferences, "emailAddress"),
                testing::AnyOf("a@x.org,b@x.org", "a@x.org, b@x.org"));
    EXPECT_TRUE(*preferences.find("emailUseAuthentication")->boolean());
    EXPECT_TRUE(*preferences.find("emailUseSSLAuthentication")->boolean());
    EXPECT_EQ(text(preferences, "emailSubject"), "Korvane Pro");
    EXPECT_THAT(out + err, Not(HasSubstr("secret")));
    EXPECT_EQ(daemon.words, std::vector<std::string>{kReloadWord});
}

TEST_F(MailCommands, RefusesACredentialThatNoServerCouldTake) {
    const std::string longest(48, 'x');
    answers = {"mail.example.org", "465", longest, longest, "a@x.org", "yes"};
    EXPECT_EQ(run({"mail", "set"}), 0) << err;
    answers = {"mail.example.org", "465", "grace", longest + "x", "a@x.org", "yes"};
    EXPECT_NE(run({"mail", "set"}), 0);
    EXPECT_THAT(err, HasSubstr("the password may not be longer than 48 characters"));
    EXPECT_THAT(err, Not(HasSubstr(longest)));
    answers = {"mail.example.org", "465", longest + "x", "secret", "a@x.org", "yes"};
    EXPECT_NE(run({"mail", "set"}), 0);
    EXPECT_THAT(err, HasSubstr("the user name may not be longer"));
}

TEST_F(MailCommands, HidesThePasswordAloneWhileItIsTyped) {
    answers = {"mail.example.org", "", "grace", "secret", "a@x.org", ""};
    EXPECT_EQ(run({"mail", "set"}), 0) << err;
    ASSERT_THAT(questions, SizeIs(6));
    for (const auto& [question, echo] : questions) {
        EXPECT_EQ(echo == Echo::off, question.starts_with("Password")) << question;
    }
    EXPECT_EQ(text(stored(), "emailPort"), "465");
}

TEST_F(MailCommands, KeepsWhatIsNotAnsweredAndClearsWhatGetsADash) {
    answers = {"mail.example.org", "587", "grace", "secret", "a@x.org", "no"};
    ASSERT_EQ(run({"mail", "set"}), 0) << err;
    questions.clear();
    answers = {"", "", "", "", "", ""};
    ASSERT_EQ(run({"mail", "set"}), 0) << err;
    EXPECT_EQ(text(stored(), "emailPassword"), "c2VjcmV0");
    EXPECT_EQ(text(stored(), "emailServer"), "mail.example.org");
    EXPECT_FALSE(*stored().find("emailUseSSLAuthentication")->boolean());
    EXPECT_THAT(questions[3].first, Not(HasSubstr("secret")));
    answers = {"", "", "-", "", ""};
    ASSERT_EQ(run({"mail", "set"}), 0) << err;
    EXPECT_EQ(text(stored(), "emailUserName"), "");
    EXPECT_EQ(text(stored(), "emailPassword"), "");
    EXPECT_FALSE(*stored().find("emailUseAuthentication")->boolean());
}

TEST_F(MailCommands, ChangesNothingWhenAnAnswerDoesNotDo) {
    const std::string before = storedText();
    const std::deque<std::string> rows[] = {
        {"mail.example.org", "70000", "", "a@x.org", "yes"},
        {"mail.example.org", "25",
         "gr\xC3\xA4"
         "ce",
         "secret", "a@x.org", "yes"},
        {"mail.example.org", "25", "grace", "p\xC3\xA4ss", "a@x.org", "yes"},
        {"mail.example.org", "25", "", "a@x.org", "perhaps"},
        {"mail.example.org", "25"},
    };
    for (const auto& row : rows) {
        answers = row;
        EXPECT_EQ(run({"mail", "set"}), 1);
        EXPECT_THAT(err, SizeIs(testing::Gt(10U)));
        EXPECT_EQ(storedText(), before);
    }
}

TEST_F(MailCommands, ShowsEverythingButThePassword) {
    answers = {"mail.example.org", "587", "grace", "secret", "a@x.org,b@x.org", "yes"};
    ASSERT_EQ(run({"mail", "set"}), 0) << err;
    for (const std::vector<const char*>& line :
         {std::vector<const char*>{"mail", "show"}, {"mail", "show", "--json"}}) {
        EXPECT_EQ(run(line), 0);
        EXPECT_THAT(out, HasSubstr("mail.example.org"));
        EXPECT_THAT(out, HasSubstr("grace"));
        EXPECT_THAT(out, HasSubstr("a@x.org, b@x.org"));
        EXPECT_THAT(out, HasSubstr("STARTTLS"));
        EXPECT_THAT(out, Not(HasSubstr("secret")));
        EXPECT_THAT(out, Not(HasSubstr("c2VjcmV0")));
    }
}

TEST_F(MailCommands, ShowsThatNothingIsSetYet) {
    EXPECT_EQ(run({"mail", "show"}), 0);
    EXPECT_THAT(out, HasSubstr("(not set)"));
}

TEST_F(MailCommands, SaysThatTheServerHasTakenTheTestMail) {
    daemon.mailEnd =
        MailSessionEnd{.sender = "", .outcome = MailOutcome::sent, .step = 11, .text = "221 bye"};
    EXPECT_EQ(run({"test-mail"}), 0);
    EXPECT_THAT(out, HasSubstr("has taken the test mail"));
    EXPECT_THAT(err, IsEmpty());
}

TEST_F(MailCommands, SaysAtWhichStepATestMailFailed) {
    const struct {
        MailOutcome outcome;
        int step;
        const char* text;
        const char* said;
    } rows[] = {
        {MailOutcome::refused, 6, "535 wrong", "the server refused the password: 535 wrong"},
        {MailOutcome::refused, 8, "550 unknown", "refused the last recipient: 550 unknown"},
        {MailOutcome::failed, 0, "Failed to connect", "at the connection: Failed to connect"},
        {MailOutcome::failed, 1, "Timeout", "at its greeting: Timeout"},
        {MailOutcome::dropped, 9, "250 OK",
         "hung up, or fell silent, instead of answering the DATA command"},
        {MailOutcome::busy, 0, "", "an earlier mail has been under way"},
        {MailOutcome::failed, 99, "\x1b[2J", "at an unknown step: \\x1b[2J"},
    };
    for (const auto& row : rows) {
        daemon.mailEnd = MailSessionEnd{
            .sender = "", .outcome = row.outcome, .step = row.step, .text = row.text};
        EXPECT_EQ(run({"test-mail"}), 6);
        EXPECT_THAT(err, HasSubstr(row.said));
    }
}

TEST_F(MailCommands, SaysThatThereIsNoDaemonToSendATestMail) {
    daemon.mailEnd = Failure{ExitStatus::noDaemon, "the daemon does not run"};
    EXPECT_EQ(run({"test-mail"}), 2);
    EXPECT_THAT(err, HasSubstr("the daemon does not run"));
}

}  // namespace
}  // namespace korvane::ctl
