// Alert mails and the test mail: who sends when, what the user is shown, and what a server that
// hangs up or falls silent does to the daemon.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "scenarios/DaemonFiles.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr char kData[] = "/Volumes/Data";
constexpr char kTestMail[] = "daemonTestSendingEmailNotification";
constexpr char kConnecting[] = "Korvane Pro is sending a test message.";
constexpr char kSent[] = "The test message has been sent. Please see whether it arrives.";

// Settings with mail, and a volume that is checked at the first tick.
void putMailSettings(Scenario& scenario, const Dictionary& more = {}) {
    Dictionary entry{{"volumeMountToName", kData},
                     {"volumeOnOff", true},
                     {"freeSpaceWarningLevel", 10},
                     {"executionIntervalUsage_minutes", 5}};
    Dictionary preferences = completePreferences();
    preferences.set("volumeArray", PropertyListArray{std::move(entry)});
    preferences.set("volumeUsageEmail", true);
    preferences.set("emailServer", "mail.example.org");
    preferences.set("emailPort", "25");
    preferences.set("emailSubject", "Korvane Pro");
    preferences.set("emailAddress", "ada@example.org");
    for (const Dictionary::Entry& setting : more) preferences.set(setting.key, setting.value);
    putPreferences(scenario, preferences);
}

Scenario& runningLow(Scenario& scenario) {
    return scenario.setSpace(kData, 1'000'000'000, 96'000'000);
}

const SimulatedMailServer& server(Scenario& scenario) { return scenario.machine().mailServer; }
SimulatedMailServer& script(Scenario& scenario) { return scenario.machine().mailServer; }

MailReply hangUp() { return {.chunks = {}, .thenCloses = true}; }

std::vector<MailOutcome> outcomes(Scenario& scenario) {
    std::vector<MailOutcome> found;
    for (const auto& end : scenario.machine().controlConnection.mailSessionEnds()) {
        found.push_back(end.outcome);
    }
    return found;
}

TEST(AlertMail, TellsOfALowVolumeOncePerEpisode) {
    Scenario s("one-volume");
    putMailSettings(s);
    runningLow(s).run(seconds(1));
    ASSERT_THAT(server(s).messages(), SizeIs(1));
    const std::string message = server(s).messages()[0];
    EXPECT_THAT(message, HasSubstr("\r\nTo: ada@example.org\r\nSubject: Korvane Pro\r\n"));
    EXPECT_THAT(message, HasSubstr("\r\n\tThe volume \u201CData\u201D has only 10% free space "
                                   "remaining."));
    EXPECT_THAT(message, HasSubstr("\r\nComputer: studio\r\n"));
    EXPECT_THAT(message, HasSubstr("\r\nUser: Ada Example\r\n"));
    EXPECT_THAT(message, HasSubstr("\r\nNetwork addresses: 192.168.1.20\r\n"));
    s.run(minutes(30));
    EXPECT_THAT(server(s).messages(), SizeIs(1));
    s.setSpace(kData, 1'000'000'000, 500'000'000).run(minutes(6));
    runningLow(s).run(minutes(6));
    EXPECT_THAT(server(s).messages(), SizeIs(2));
}

TEST(AlertMail, IsSentAfterTheCheckHasSavedItsResult) {
    Scenario s("one-volume");
    putMailSettings(s);
    script(s).setReachability(SimulatedMailServer::Reachability::noAnswer);
    runningLow(s).run(seconds(1));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed"));
    EXPECT_EQ(server(s).connections(), 1U);
}

TEST(AlertMail, ShowsNoDialogsOfItsOwn) {
    Scenario s("one-volume");
    putMailSettings(s);
    runningLow(s).run(seconds(1));
    EXPECT_THAT(s.dialogs(), ElementsAre(HasSubstr("free space")));
}

TEST(AlertMail, CanBeSwitchedOffForTheCheck) {
    Scenario s("one-volume");
    putMailSettings(s, {{"volumeUsageEmail", false}});
    runningLow(s).run(minutes(10));
    EXPECT_EQ(server(s).connections(), 0U);
    EXPECT_THAT(s.dialogs(), SizeIs(1));
}

TEST(AlertMail, DoesNotAskWhetherMailIsEnabledAsAWhole) {
    Scenario s("one-volume");
    putMailSettings(s, {{"emailEnabled", false}});
    runningLow(s).run(seconds(1));
    EXPECT_THAT(server(s).messages(), SizeIs(1));
}

TEST(AlertMail, AVolumesNameCannotSpeakToTheServer) {
    Scenario s("one-volume");
    s.run(seconds(1));
    auto mount = s.machine().volumes.describe(kData);
    ASSERT_TRUE(mount);
    mount->displayName = "Data\r\n.\r\nMAIL FROM: <mallory@example.org>\r\nx";
    s.unmount(kData);
    s.mount(*mount);
    putMailSettings(s);
    runningLow(s).send("daemonPreferencesUpdatedNotification").run(minutes(1));
    ASSERT_THAT(server(s).messages(), SizeIs(1));
    EXPECT_THAT(server(s).messages()[0],
                HasSubstr("\tThe volume \u201CData  .  MAIL FROM: <mallory@example.org>  x"));
}

// ---- The tick -----------------------------------------------------------------------------------

TEST(AlertMail, NothingIsBegunWhileAMailIsOnItsWay) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.run(seconds(30));
    script(s).setReachability(SimulatedMailServer::Reachability::noAnswer);
    s.send(kTestMail);
    runningLow(s);
    s.run(minutes(10));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
    EXPECT_THAT(s.pendingDelays(), testing::Not(IsEmpty()));  // ticks go on
}

TEST(AlertMail, NoInventoryIsTakenWhileAMailIsOnItsWay) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.run(seconds(30));
    script(s).setReachability(SimulatedMailServer::Reachability::noAnswer);
    s.send(kTestMail).run(seconds(1));
    s.mount("/Volumes/New");
    s.machine().volumes.forgetChanges();  // nobody is told, so that only a tick would find it
    s.run(minutes(10));
    EXPECT_THAT(s.supportFiles(), testing::Not(Contains("New/")));
    script(s).reportError(StreamSide::input, "Connection timed out");
    s.run(minutes(10));
    EXPECT_THAT(s.supportFiles(), Contains("New/"));
}

// Whether a mail can be sent is decided by the send alone.
TEST(AlertMail, AMailThatNobodyIsNamedForEndsInOneLine) {
    for (const auto& settings : {Dictionary{{"emailAddress", ""}},
                                 Dictionary{{"emailAddress", ""}, {"emailServer", ""}}}) {
        Scenario s("one-volume");
        putMailSettings(s, settings);
        runningLow(s).run(minutes(1));
        EXPECT_THAT(server(s).messages(), IsEmpty());
        EXPECT_THAT(s.log(), Contains(HasSubstr("cancelConnectionWithError: ")).Times(1));
        EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::failed));
        EXPECT_EQ(usageStatusIn(s, kData), "4");
    }
}

TEST(AlertMail, ADroppedConnectionSilencesNeitherTheChecksNorTheNextMail) {
    for (const char* const command : {"EHLO", "NOOP", "MAIL", "RCPT", "DATA", "message"}) {
        Scenario s("one-volume");
        putMailSettings(s);
        script(s).setReplies(command, {hangUp()});
        runningLow(s).run(minutes(1));
        EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::dropped)) << command;
        s.run(minutes(10));
        EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(testing::Ge(2U))) << command;

        script(s).setReplies(
            command,
            {{.chunks = {std::string_view{command} == "DATA" ? "354 go on\r\n" : "250 OK\r\n"}}});
        s.setSpace(kData, 1'000'000'000, 500'000'000).run(minutes(6));
        const std::size_t before = server(s).messages().size();
        runningLow(s).run(minutes(6));
        EXPECT_THAT(server(s).messages(), SizeIs(before + 1)) << command;
        EXPECT_EQ(outcomes(s).back(), MailOutcome::sent) << command;
    }
}

TEST(AlertMail, AServerThatFallsSilentIsOvercomeWhenItHangsUp) {
    Scenario s("one-volume");
    putMailSettings(s);
    script(s).setReplies("RCPT", {MailReply{}});
    runningLow(s).run(minutes(1));
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::dropped));
    s.run(minutes(20));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(testing::Ge(3U)));
}

TEST(AlertMail, AServerThatNeverSpeaksAgainIsGivenUpAndTheChecksGoOn) {
    Scenario s("one-volume");
    putMailSettings(s);
    script(s).setReplies("message", {MailReply{}});
    const double before = s.secondsNow();
    runningLow(s).run(seconds(1));
    EXPECT_NEAR(s.secondsNow() - before, 600, 2);  // nothing else was served meanwhile
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::dropped));
    s.run(minutes(20));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(testing::Ge(4U)));
    EXPECT_THAT(s.log(), Contains(HasSubstr("does not answer any more")).Times(1));
    s.send(kTestMail).run(seconds(1));  // a client of its own
    EXPECT_THAT(server(s).messages(), SizeIs(2));
}

TEST(TestMail, TheWordIsAnsweredYesThoughAnotherMailHoldsOn) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.run(seconds(30));
    script(s).setReachability(SimulatedMailServer::Reachability::noAnswer);
    s.send(kTestMail).run(seconds(1));
    s.send(kTestMail);  // waits for a minute in vain
    EXPECT_EQ(s.answer(), Scenario::Answer::yes);
    EXPECT_THAT(s.log(), Contains("no mail: SMTP controller failed to aquire lock!"));
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::busy));
}

TEST(AlertMail, ACheckWhoseMailFindsAnotherOnItsWayGoesOnWithItsWork) {
    MachineDescription machine = Scenario::describe("one-volume");
    machine.services.push_back({"drive device", "IOService", "",
                                Dictionary{{"device model", "Castor"}, {"device serial", "C1"}}});
    machine.services.push_back(
        {"drive", "IOBlockStorageDevice", "drive device", Dictionary{{"SMART Capable", true}}});
    machine.services.push_back(
        {"sdz", "IOMedia", "drive", Dictionary{{"BSD Name", "sdz"}, {"Whole", true}}});
    Scenario s(machine);
    s.run(seconds(1)).editPreferences([](Dictionary& settings) {
        settings.set("emailServer", "mail.example.org");
        settings.set("emailPort", "25");
        settings.set("emailAddress", "ada@example.org");
    });
    s.send("daemonPreferencesUpdatedNotification").age("drive", DriveCondition::failing);
    script(s).setReachability(SimulatedMailServer::Reachability::noAnswer);
    // Both are due at the same tick: the mail of one holds on, and the other's waits in vain.
    runningLow(s).run(minutes(3));
    EXPECT_THAT(s.log(), Contains("no mail: SMTP controller failed to aquire lock!"));
    EXPECT_THAT(outcomes(s), Contains(MailOutcome::busy));
    EXPECT_THAT(s.smartLog("Castor", "C1"), SizeIs(1));
    EXPECT_EQ(stringValue(s.driveEntry("C1").find("smartStatus")), "3");
    EXPECT_GT(doubleValue(s.driveEntry("C1").find("executionTimeSmart")), s.secondsNow());
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed"));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
    EXPECT_GT(executionTimeUsageIn(s, kData), s.secondsNow());
}

// ---- The test mail ------------------------------------------------------------------------------

TEST(TestMail, ShowsConnectingThenSentAndNoDialogsAfterThat) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.run(seconds(30)).send(kTestMail);
    EXPECT_EQ(s.answer(), Scenario::Answer::yes);
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting));
    s.run(seconds(1));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting, kSent));
    EXPECT_THAT(s.dialogsOnScreen(), ElementsAre(kSent));
    ASSERT_THAT(server(s).messages(), SizeIs(1));
    EXPECT_THAT(server(s).messages()[0], HasSubstr("\tThis is a test."));
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::sent));
    s.run(seconds(5));
    EXPECT_THAT(s.dialogsOnScreen(), IsEmpty());
    runningLow(s).run(minutes(6));
    EXPECT_THAT(server(s).messages(), SizeIs(2));
    EXPECT_THAT(s.dialogs(), SizeIs(3));  // the warning about the volume alone
}

TEST(TestMail, ItsDialogsAndTheWarningsOfChecksLeaveEachOtherOnTheScreen) {
    Scenario s("one-volume");
    putMailSettings(s, {{"volumeUsageEmail", false}});
    runningLow(s).run(seconds(30));
    EXPECT_THAT(s.dialogsOnScreen(), ElementsAre(HasSubstr("free space")));
    s.send(kTestMail).run(seconds(1));
    EXPECT_THAT(s.dialogsOnScreen(), UnorderedElementsAre(HasSubstr("free space"), kSent));
    s.setSpace(kData, 1'000'000'000, 500'000'000).run(minutes(6));
    s.send(kTestMail).run(seconds(1));
    s.editVolumeEntry(kData, [](Dictionary& entry) { entry.set("executionTimeUsage", 1.0); });
    runningLow(s).send("daemonPreferencesUpdatedNotification");
    s.run(std::chrono::milliseconds(3500));  // past the tick, within the dialog's 5 seconds
    // The first warning gave way to the second, and the mail's dialog to nobody.
    EXPECT_THAT(s.dialogsOnScreen(), UnorderedElementsAre(HasSubstr("free space"), kSent));
    EXPECT_THAT(s.dialogs(), SizeIs(6));
}

TEST(TestMail, ItsDialogsHaveTheseParts) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.run(seconds(30)).send(kTestMail).run(seconds(1));
    const auto& shown = s.machine().alertDialogs.shown();
    ASSERT_THAT(shown, SizeIs(2));
    EXPECT_EQ(shown[0].alert.header, "Connecting to the Mail Server");
    EXPECT_EQ(shown[0].alert.defaultButton, std::nullopt);
    EXPECT_EQ(shown[0].alert.level, AlertLevel::note);
    EXPECT_EQ(shown[0].alert.timeOut, seconds(5));
    EXPECT_EQ(shown[1].alert.header, "Message Sent");
    EXPECT_EQ(shown[1].alert.defaultButton, "OK");
    EXPECT_EQ(shown[1].alert.level, AlertLevel::note);
    EXPECT_EQ(shown[1].alert.timeOut, seconds(5));
}

TEST(TestMail, SaysSentOnceTheMessageIsHandedOver) {
    Scenario s("one-volume");
    putMailSettings(s);
    script(s).setReplies("message", {hangUp()});  // the server never says that it has taken it
    s.run(seconds(30)).send(kTestMail).run(seconds(1));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting, kSent));
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::dropped));
}

TEST(TestMail, IsSentWhateverMailsTheChecksMaySend) {
    Scenario s("one-volume");
    putMailSettings(s, {{"SMARTCheckEmail", false}, {"volumeUsageEmail", false}});
    s.run(seconds(30)).send(kTestMail).run(seconds(1));
    EXPECT_THAT(server(s).messages(), SizeIs(1));
    const auto& ends = s.machine().controlConnection.mailSessionEnds();
    ASSERT_THAT(ends, SizeIs(1));
    EXPECT_EQ(ends[0].sender, "");
}

TEST(TestMail, IsSentBeforeProtectionBegins) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.start();
    const std::size_t timers = s.pendingDelays().size();
    s.send(kTestMail).run(std::chrono::milliseconds(500));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting, kSent));
    EXPECT_THAT(server(s).messages(), SizeIs(1));
    EXPECT_GE(s.pendingDelays().size(), timers);  // the start still waits
}

TEST(TestMail, ShowsWhyItFailed) {
    Scenario s("one-volume");
    putMailSettings(s);
    script(s).setGreeting(std::nullopt);
    s.run(seconds(30)).send(kTestMail).run(seconds(5));
    ASSERT_THAT(s.dialogs(), ElementsAre(kConnecting, HasSubstr("Try double-checking")));
    const Alert& failed = s.machine().alertDialogs.shown()[1].alert;
    EXPECT_EQ(failed.header, "Sending Failed");
    EXPECT_EQ(failed.defaultButton, "OK");
    EXPECT_EQ(failed.level, AlertLevel::caution);
    EXPECT_EQ(failed.timeOut, seconds(5));
}

TEST(TestMail, WithoutAServerShowsOnlyThatItFailed) {
    Scenario s("one-volume");
    putMailSettings(s, {{"emailServer", ""}});
    s.run(seconds(30)).send(kTestMail).run(seconds(1));
    EXPECT_THAT(s.dialogs(), ElementsAre("Failed to connect to SMTP server  on port 25"));
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::failed));
}

TEST(TestMail, ARefusalShowsNothingAndKeepsTheDialogsForTheNextMail) {
    Scenario s("one-volume");
    putMailSettings(s);
    script(s).setReplies("RCPT", {{.chunks = {"550 unknown\r\n"}}, {.chunks = {"250 OK\r\n"}}});
    s.run(seconds(30));
    script(s).setReplies("RCPT", {{.chunks = {"550 unknown\r\n"}}});
    s.send(kTestMail).run(seconds(1));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting));
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::refused));
    script(s).setReplies("RCPT", {{.chunks = {"250 OK\r\n"}}});
    runningLow(s).run(minutes(6));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting, HasSubstr("free space"), kConnecting, kSent));
}

// A test mail's dialogs last until a mail is sent or fails; one that was dropped did neither.
TEST(TestMail, TheDialogsOfOneThatWasDroppedAreForTheNextMailOfACheck) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.run(seconds(30));
    script(s).setReplies("MAIL", {hangUp()});
    s.send(kTestMail).run(seconds(1));
    script(s).setReplies("MAIL", {{.chunks = {"250 OK\r\n"}}});
    runningLow(s).run(minutes(6));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting, HasSubstr("free space"), kConnecting, kSent));
}

TEST(TestMail, TheDialogsOutliveAConnectionThatWasDropped) {
    Scenario s("one-volume");
    putMailSettings(s);
    s.run(seconds(30));
    script(s).setReplies("MAIL", {hangUp()});
    s.send(kTestMail).run(seconds(1));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting));
    script(s).setReplies("MAIL", {{.chunks = {"250 OK\r\n"}}});
    s.send(kTestMail).run(seconds(1));
    EXPECT_THAT(s.dialogs(), ElementsAre(kConnecting, kConnecting, kSent));
    EXPECT_THAT(s.dialogsOnScreen(), ElementsAre(kSent));
}

TEST(TestMail, IsSentWithoutSettingsLikeAnyOther) {
    Scenario s("one-volume");
    s.put("/Library/Application Support/Korvane Protection/KorvaneProtection.plist", "no settings");
    s.run(seconds(30)).send(kTestMail).run(seconds(1));
    EXPECT_EQ(server(s).connections(), 0U);
    EXPECT_EQ(s.answer(), Scenario::Answer::yes);
    EXPECT_THAT(outcomes(s), ElementsAre(MailOutcome::failed));
}

}  // namespace
}  // namespace korvane
