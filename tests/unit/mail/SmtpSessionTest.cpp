// The session around the conversation: settings, lock, connection, time-outs, errors and the end.

#include "mail/SmtpSteps.h"
#include "unit/mail/MailSession.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using SmtpSession = MailSession;
using Reachability = SimulatedMailServer::Reachability;

constexpr char kCannotConnect[] = "Failed to connect to SMTP server mail.example.org on port 25";

// ---- The gate -----------------------------------------------------------------------------------

TEST_F(SmtpSession, AChecksMailsCanBeSwitchedOff) {
    const struct {
        const char* sender;
        const char* key;
    } rows[] = {{kSenderSmartCheck, "SMARTCheckEmail"}, {kSenderVolumeUsage, "volumeUsageEmail"}};
    for (const auto& row : rows) {
        Dictionary missing = settings();
        missing.remove(row.key);
        send(missing, "message", row.sender);
        send(settings({{row.key, 0}}), "message", row.sender);
        send(settings({{row.key, 256}}), "message", row.sender);  // only the low byte counts
    }
    EXPECT_THAT(notifications_, IsEmpty());
    EXPECT_FALSE(controller_->emailSendIsBusy());
    send(settings({{"volumeUsageEmail", 0}}), "message", kSenderSmartCheck);
    send(settings({{"SMARTCheckEmail", 0}, {"volumeUsageEmail", 257}}), "m", kSenderVolumeUsage);
    send(settings({{"SMARTCheckEmail", 0}, {"volumeUsageEmail", 0}}), "message", "");
    send(settings({{"SMARTCheckEmail", 0}, {"volumeUsageEmail", 0}}), "message", "another");
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(4));
}

TEST_F(SmtpSession, DoesNothingWithoutAConfiguration) {
    controller_->sendSMTPAlertMessage("message", "", nullptr);
    EXPECT_FALSE(controller_->emailSendIsBusy());
    EXPECT_THAT(notifications_, IsEmpty());
}

TEST_F(SmtpSession, FlagsCountByTheirLowByte) {
    send(withLogin({{"emailUseAuthentication", 256}}));
    EXPECT_THAT(commands(), testing::Not(Contains("AUTH LOGIN")));
    send(withLogin({{"emailUseAuthentication", 513}}));
    EXPECT_THAT(commands(), Contains("AUTH LOGIN"));
}

// ---- Connecting ---------------------------------------------------------------------------------

TEST_F(SmtpSession, WithoutAServerFailsBeforeItBegins) {
    Dictionary missing = settings();
    missing.remove("emailServer");
    for (const Dictionary& configuration : {settings({{"emailServer", ""}}), missing}) {
        notifications_.clear();
        suggestions_.clear();
        send(configuration);
        EXPECT_THAT(notifications_, ElementsAre(kQLSMTPError));
        EXPECT_THAT(suggestions_, ElementsAre("Failed to connect to SMTP server  on port 25"));
        EXPECT_FALSE(controller_->emailSendIsBusy());
    }
    EXPECT_EQ(controller_->smtpError()->description, "Failed to connect to SMTP server");
    send(settings());  // the lock is free again
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(1));
}

TEST_F(SmtpSession, FailsWhereThereCanBeNoStreams) {
    machine_.mailServer.setReachability(Reachability::noStreams);
    send(settings());
    EXPECT_THAT(notifications_, ElementsAre(kQLSMTPBeginConnection, kQLSMTPError));
    EXPECT_THAT(suggestions_, ElementsAre("Unknown Error"));
    EXPECT_EQ(controller_->smtpError()->domain, "QLSMTPController");
    EXPECT_EQ(controller_->smtpError()->code, -1);
    EXPECT_EQ(controller_->smtpError()->description,
              "SMTP could not open streams to host mail.example.org:25");
    EXPECT_THAT(log(), Contains("cancelConnectionWithError: Unknown Error"));
    EXPECT_EQ(ends_.back().text, "SMTP could not open streams to host mail.example.org:25");
}

TEST_F(SmtpSession, AnErrorOfTheInputIsAConnectionError) {
    machine_.mailServer.setReachability(Reachability::inputError);
    send(settings());
    EXPECT_THAT(suggestions_, ElementsAre(kCannotConnect));
    EXPECT_THAT(log(), ElementsAre("NSStreamEventErrorOccurred", "streamError: Connection refused",
                                   std::string("cancelConnectionWithError: ") + kCannotConnect));
    EXPECT_EQ(controller_->smtpError()->domain, "com.quorlen.protectiontool.smtp");
    EXPECT_EQ(controller_->smtpError()->code, -1);
    EXPECT_EQ(ends_.back().outcome, MailOutcome::failed);
}

TEST_F(SmtpSession, AnErrorOfTheOutputIsPassedOnAsItIs) {
    machine_.mailServer.setReachability(Reachability::outputError);
    send(settings());
    EXPECT_THAT(suggestions_, ElementsAre("Unknown Error"));
    EXPECT_EQ(controller_->smtpError()->description, "Network is unreachable");
    EXPECT_THAT(log(), Contains("streamError: Network is unreachable"));
}

TEST_F(SmtpSession, GivesTheServerFourSecondsForItsGreeting) {
    machine_.mailServer.setGreeting(std::nullopt);
    const Dictionary configuration = settings();
    controller_->sendSMTPAlertMessage("message", "", &configuration);
    machine_.runLoop.runFor(milliseconds{3999});
    EXPECT_TRUE(controller_->emailSendIsBusy());
    EXPECT_EQ(controller_->smtpStepCounter(), kStepGreeting);
    machine_.runLoop.runFor(milliseconds{1});
    EXPECT_THAT(suggestions_,
                ElementsAre("Failed to connect to SMTP server mail.example.org on port 25. Try "
                            "double-checking the server's port and authentication settings."));
    EXPECT_EQ(controller_->smtpError()->code, -2);
    EXPECT_EQ(controller_->smtpError()->description,
              "Timeout when trying to connect to SMTP server");
    EXPECT_FALSE(controller_->emailSendIsBusy());
    EXPECT_EQ(machine_.mailServer.openStreams(), 0U);
}

TEST_F(SmtpSession, AServerThatHangsUpInsteadOfGreetingEndsInTheSameTimeOut) {
    machine_.mailServer.setGreeting(MailReply{.chunks = {}, .thenCloses = true});
    send(settings());
    EXPECT_THAT(suggestions_, ElementsAre(HasSubstr("Try double-checking")));
    EXPECT_FALSE(controller_->peerHasGone());
}

TEST_F(SmtpSession, LeavesNoTimerBehind) {
    send(settings());
    EXPECT_THAT(machine_.runLoop.pendingTimers(), IsEmpty());
}

// ---- Writing ------------------------------------------------------------------------------------

TEST_F(SmtpSession, AWriteThatTakesTooLongEndsTheSession) {
    machine_.mailServer.failWrites("MAIL", StreamWrite::timedOut);
    const auto before = machine_.clock.now();
    const Dictionary configuration = settings();
    controller_->sendSMTPAlertMessage("message", "", &configuration);
    while (controller_->emailSendIsBusy() && machine_.runLoop.runOnce()) {
    }
    EXPECT_EQ(machine_.clock.now() - before, seconds{2});
    EXPECT_THAT(suggestions_, ElementsAre(kCannotConnect));
    EXPECT_THAT(log(), ElementsAre(std::string("cancelConnectionWithError: ") + kCannotConnect));
}

TEST_F(SmtpSession, AWriteThatFailsEndsTheSessionAtEveryStep) {
    for (const char* const command :
         {"EHLO", "NOOP", "AUTH", "MAIL", "RCPT", "DATA", "message", "QUIT"}) {
        SimulatedMachine machine(MachineDescription{});
        NotificationCenter center;
        std::vector<MailSessionEnd> ends;
        QLSMTPController controller(machine.machine(), center,
                                    [&](const MailSessionEnd& end) { ends.push_back(end); });
        machine.mailServer.failWrites(command, StreamWrite::failed);
        const Dictionary configuration = withLogin();
        controller.sendSMTPAlertMessage("message", "", &configuration);
        machine.runLoop.runFor(minutes{1});
        EXPECT_FALSE(controller.emailSendIsBusy()) << command;
        EXPECT_FALSE(controller.peerHasGone()) << command;
        EXPECT_EQ(machine.mailServer.openStreams(), 0U) << command;
        ASSERT_THAT(ends, SizeIs(1)) << command;
        EXPECT_EQ(ends[0].outcome,
                  std::string_view{command} == "QUIT" ? MailOutcome::sent : MailOutcome::failed);
    }
}

TEST_F(SmtpSession, SaysWhatCouldNotBeWritten) {
    machine_.mailServer.failWrites("DATA", StreamWrite::failed);
    send(settings());
    EXPECT_EQ(log()[0], "Error writing to outStream while sending: \"DATA\"");
    machine_.systemLog.clear();
    machine_.mailServer.failWrites("EHLO", StreamWrite::full);
    send(settings());
    EXPECT_EQ(log()[0], "Error writing to outStream while sending: \"EHLO studio.example.org\"");
    EXPECT_EQ(log()[1], "The stream has been filled to capacity!");
}

TEST_F(SmtpSession, ACredentialThatCouldNotBeWrittenIsLoggedInConfidence) {
    machine_.mailServer.failWrites("login", StreamWrite::failed);
    send(withLogin());
    const auto& line = machine_.systemLog.lines()[0];
    EXPECT_EQ(line.text, "Error writing to outStream while sending: \"Z3JhY2VAZXhhbXBsZS5vcmc=\"");
    EXPECT_TRUE(line.isConfidential);
    for (const auto& other : machine_.systemLog.lines()) {
        EXPECT_EQ(other.isConfidential, &other == &line) << other.text;
    }
}

TEST_F(SmtpSession, AMessageThatCouldNotBeWrittenHasNotBeenSent) {
    machine_.mailServer.failWrites("message", StreamWrite::failed);
    send(settings());
    EXPECT_THAT(progress(), ElementsAre(kQLSMTPBeginConnection, kQLSMTPError));
    EXPECT_FALSE(controller_->emailSentSuccessfully());
}

// ---- Ends ---------------------------------------------------------------------------------------

TEST_F(SmtpSession, AConnectionDroppedAtAnyStepEndsTheReadingAndNothingElse) {
    for (const char* const command : {"EHLO", "NOOP", "AUTH", "MAIL", "RCPT", "DATA"}) {
        SimulatedMachine machine(MachineDescription{});
        NotificationCenter center;
        std::vector<MailSessionEnd> ends;
        std::vector<std::string> errors;
        QLSMTPController controller(machine.machine(), center,
                                    [&](const MailSessionEnd& end) { ends.push_back(end); });
        center.addObserver(&errors, kQLSMTPError, &controller,
                           [&](const Notification&) { errors.emplace_back("error"); });
        machine.mailServer.setReplies(command, {MailReply{.chunks = {}, .thenCloses = true}});
        const Dictionary configuration = withLogin();
        controller.sendSMTPAlertMessage("message", "", &configuration);
        machine.runLoop.runFor(seconds{10});
        EXPECT_TRUE(controller.peerHasGone()) << command;
        EXPECT_TRUE(controller.emailSendIsBusy()) << command;
        EXPECT_THAT(errors, IsEmpty()) << command;
        ASSERT_THAT(ends, SizeIs(1)) << command;
        EXPECT_EQ(ends[0].outcome, MailOutcome::dropped) << command;
        EXPECT_THROW(controller.sendSMTPAlertMessage("message", "", &configuration),
                     QLSMTPAquireLockTimeoutException);
    }
}

TEST_F(SmtpSession, AServerThatFallsSilentIsGivenUpAfterTheTimeThatItIsDue) {
    const std::pair<const char*, minutes> rows[] = {
        {"EHLO", minutes{5}},  {"NOOP", minutes{5}},     {"AUTH", minutes{5}},
        {"login", minutes{5}}, {"MAIL", minutes{5}},     {"RCPT", minutes{5}},
        {"DATA", minutes{5}},  {"message", minutes{10}}, {"QUIT", minutes{5}}};
    for (const auto& [command, limit] : rows) {
        SimulatedMachine machine(MachineDescription{});
        NotificationCenter center;
        std::vector<MailSessionEnd> ends;
        QLSMTPController controller(machine.machine(), center,
                                    [&](const MailSessionEnd& end) { ends.push_back(end); });
        machine.mailServer.setReplies(command, {MailReply{}});
        const auto before = machine.clock.now();
        const Dictionary configuration = withLogin();
        controller.sendSMTPAlertMessage("message", "", &configuration);
        while (ends.empty() && machine.runLoop.runOnce()) {
        }
        EXPECT_EQ(machine.clock.now() - before, limit) << command;
        EXPECT_TRUE(controller.peerHasGone()) << command;
        EXPECT_EQ(machine.mailServer.openStreams(), 0U) << command;
        ASSERT_THAT(ends, SizeIs(1)) << command;
        EXPECT_EQ(ends[0].outcome,
                  std::string_view{command} == "QUIT" ? MailOutcome::sent : MailOutcome::dropped);
        ASSERT_THAT(machine.systemLog.lines(), SizeIs(1)) << command;
        EXPECT_EQ(machine.systemLog.lines()[0].text,
                  "The mail server mail.example.org does not answer any more: its session is given "
                  "up.");
    }
}

TEST_F(SmtpSession, WhatTheServerSaysBesideThePointGivesItNoMoreTime) {
    machine_.mailServer.setReplies(
        "MAIL",
        {MailReply{.chunks = std::vector<std::string>(100, "450 wait\r\n"), .pause = seconds{50}}});
    const auto before = machine_.clock.now();
    const Dictionary configuration = settings();
    controller_->sendSMTPAlertMessage("message", "", &configuration);
    while (ends_.empty() && machine_.runLoop.runOnce()) {
    }
    EXPECT_EQ(machine_.clock.now() - before, minutes{5});
    EXPECT_EQ(ends_.back().outcome, MailOutcome::dropped);
    EXPECT_TRUE(controller_->peerHasGone());
}

TEST_F(SmtpSession, EachCommandGivesTheServerItsWholeTime) {
    for (const char* const command : {"EHLO", "NOOP", "MAIL", "RCPT"}) {
        machine_.mailServer.setReplies(
            command, {MailReply{.chunks = {"250 OK\r\n"}, .pause = seconds{299}}});
    }
    machine_.mailServer.setReplies("message",
                                   {MailReply{.chunks = {"250 OK\r\n"}, .pause = seconds{599}}});
    send(settings());
    EXPECT_EQ(ends_.back().outcome, MailOutcome::sent);
}

TEST_F(SmtpSession, NothingElseIsServedWhileItLasts) {
    machine_.mailServer.setReplies("RCPT",
                                   {MailReply{.chunks = {"250 OK\r\n"}, .pause = minutes{3}}});
    std::vector<std::size_t> endsAtTimer;
    const auto timer = machine_.runLoop.startTimer(minutes{1}, Repeat::once,
                                                   [&] { endsAtTimer.push_back(ends_.size()); });
    send(settings());
    EXPECT_THAT(endsAtTimer, ElementsAre(1U));
}

TEST_F(SmtpSession, AnErrorIsPostedThenLoggedAndThenTheSessionIsClosed) {
    machine_.mailServer.setGreeting(std::nullopt);  // so that nobody is reading
    std::vector<std::string> linesWhenPosted;
    std::size_t openWhenPosted = 0;
    bool busyWhenPosted = false;
    center_.addObserver(&linesWhenPosted, kQLSMTPError, controller_.get(),
                        [&](const Notification&) {
                            linesWhenPosted = log();
                            openWhenPosted = machine_.mailServer.openStreams();
                            busyWhenPosted = controller_->emailSendIsBusy();
                        });
    send(settings());
    EXPECT_THAT(linesWhenPosted, IsEmpty());
    EXPECT_EQ(openWhenPosted, 1U);
    EXPECT_TRUE(busyWhenPosted);
    const std::string journal = machine_.journal.text();
    const std::size_t logged = journal.find("cancelConnectionWithError");
    const std::size_t closed = journal.find("mail connection closed");
    ASSERT_NE(logged, std::string::npos);
    ASSERT_NE(closed, std::string::npos);
    EXPECT_LT(logged, closed);
    center_.removeObserver(&linesWhenPosted);
}

TEST_F(SmtpSession, AServerThatHangsUpAfterTheMessageHasTakenIt) {
    machine_.mailServer.setReplies("QUIT", {MailReply{.chunks = {}, .thenCloses = true}});
    send(settings());
    EXPECT_EQ(ends_.back().outcome, MailOutcome::sent);
    EXPECT_TRUE(controller_->peerHasGone());
}

TEST_F(SmtpSession, AReadThatFailsIsLoggedAndThenToldAsAnError) {
    machine_.mailServer.setReplies("MAIL", {MailReply{.chunks = {}, .thenResets = true}});
    send(settings());
    EXPECT_THAT(log(),
                ElementsAre("An error occured reading the stream, result: -1",
                            "NSStreamEventErrorOccurred", "streamError: Connection reset by peer",
                            std::string("cancelConnectionWithError: ") + kCannotConnect));
    EXPECT_FALSE(controller_->emailSendIsBusy());
    EXPECT_FALSE(controller_->peerHasGone());
}

TEST_F(SmtpSession, ASecondSendWaitsAMinuteForTheFirstAndThenThrows) {
    machine_.mailServer.setReachability(Reachability::noAnswer);
    const Dictionary configuration = settings();
    controller_->sendSMTPAlertMessage("first", "", &configuration);
    machine_.runLoop.runFor(seconds{1});
    const auto before = machine_.clock.now();
    try {
        controller_->sendSMTPAlertMessage("second", "", &configuration);
        FAIL() << "no exception";
    } catch (const QLSMTPAquireLockTimeoutException& failure) {
        EXPECT_STREQ(failure.what(), "SMTP controller failed to aquire lock!");
        EXPECT_STREQ(failure.selector(), "openConnectionToHost");
        EXPECT_EQ(failure.configuration(), configuration);
    }
    EXPECT_EQ(machine_.clock.now() - before, seconds{60});
    EXPECT_TRUE(controller_->emailSendIsBusy());
    EXPECT_THAT(progress(), ElementsAre(kQLSMTPBeginConnection));
}

TEST_F(SmtpSession, ASendInVainHasOverwrittenTheSettingsButNotWhoseSessionItIs) {
    machine_.mailServer.setReachability(Reachability::noAnswer);
    const Dictionary first = settings();
    const Dictionary second = settings({{"emailServer", "other.example.org"}});
    controller_->sendSMTPAlertMessage("first", kSenderSmartCheck, &first);
    machine_.runLoop.runFor(seconds{1});
    EXPECT_THROW(controller_->sendSMTPAlertMessage("second", "", &second),
                 QLSMTPAquireLockTimeoutException);
    machine_.mailServer.reportError(StreamSide::input, "Connection timed out");
    machine_.runLoop.runFor(seconds{1});
    EXPECT_THAT(suggestions_,
                ElementsAre("Failed to connect to SMTP server other.example.org on port 25"));
    ASSERT_THAT(ends_, SizeIs(1));
    EXPECT_EQ(ends_[0].sender, kSenderSmartCheck);
}

TEST_F(SmtpSession, EachOpeningOfTheOutputBeginsTheWaitForTheGreetingAnew) {
    machine_.mailServer.setGreeting(std::nullopt);
    const Dictionary configuration = settings();
    controller_->sendSMTPAlertMessage("message", "", &configuration);
    machine_.runLoop.runFor(seconds{3});
    machine_.mailServer.completeOpening(StreamSide::input);
    machine_.runLoop.runFor(milliseconds{500});
    machine_.mailServer.completeOpening(StreamSide::output);
    EXPECT_EQ(controller_->smtpStepCounter(), kStepGreeting);
    machine_.runLoop.runFor(milliseconds{3900});
    EXPECT_THAT(suggestions_, IsEmpty());
    machine_.runLoop.runFor(milliseconds{200});
    EXPECT_THAT(suggestions_, SizeIs(1));
}

TEST_F(SmtpSession, AWordOfTheServerBeforeTheConnectionStandsClosesIt) {
    machine_.mailServer.setReachability(Reachability::noAnswer);
    const Dictionary configuration = settings();
    controller_->sendSMTPAlertMessage("message", "", &configuration);
    machine_.mailServer.speak("220 too soon\r\n");
    machine_.runLoop.runFor(seconds{1});
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_FALSE(controller_->emailSendIsBusy());
    EXPECT_EQ(machine_.mailServer.openStreams(), 0U);
}

TEST_F(SmtpSession, OneControllerSendsManyMessages) {
    for (int i = 1; i <= 20; ++i) send(withLogin());
    EXPECT_THAT(machine_.mailServer.messages(), SizeIs(20));
    EXPECT_EQ(machine_.mailServer.openStreams(), 0U);
}

}  // namespace
}  // namespace korvane
