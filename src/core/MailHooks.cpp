// The daemon and its mail client: who sends what, what becomes of a client that hangs, and the
// dialogs about a test mail.

#include "core/KorvaneProDaemon.h"

namespace korvane {

namespace {

constexpr std::chrono::seconds kMailDialogTimeOut{5};

}  // namespace

std::unique_ptr<QLSMTPController> KorvaneProDaemon::newSmtpController() {
    return std::make_unique<QLSMTPController>(
        machine_, notificationCenter,
        [this](const MailSessionEnd& end) { tellMailSessionEnd(end); });
}

void KorvaneProDaemon::replaceAbandonedSmtpController() {
    if (!smtpController->peerHasGone()) return;
    std::unique_ptr<QLSMTPController> fresh = newSmtpController();
    notificationCenter.moveSender(this, smtpController.get(), fresh.get());
    smtpController = std::move(fresh);
}

bool KorvaneProDaemon::emailSendIsBusy() const {
    return smtpController && smtpController->emailSendIsBusy() && !smtpController->peerHasGone();
}

void KorvaneProDaemon::sendAlertMail(const std::string& message, const std::string& sender) {
    try {
        replaceAbandonedSmtpController();
        smtpController->sendSMTPAlertMessage(
            message, sender, preferenceDictionary ? &*preferenceDictionary : nullptr);
    } catch (const QLSMTPAquireLockTimeoutException& failure) {
        machine_.systemLog.write(LogMessage::mailFailed, {failure.what()});
        tellMailSessionEnd(
            {.sender = sender, .outcome = MailOutcome::busy, .step = 0, .text = failure.what()});
    } catch (const std::exception& failure) {
        // Whoever sends has more to do than to mail.
        machine_.systemLog.write(LogMessage::mailFailed, {failure.what()});
        tellMailSessionEnd(
            {.sender = sender, .outcome = MailOutcome::failed, .step = 0, .text = failure.what()});
    }
}

void KorvaneProDaemon::tellMailSessionEnd(const MailSessionEnd& end) {
    if (destConnection) destConnection->mailSessionEnded(end);
}

// The empty name passes every question whether this check's mails are wanted.
void KorvaneProDaemon::daemonTestSendingEmailNotification() {
    replaceAbandonedSmtpController();
    registerForSMTPNotifications();
    sendAlertMail(localized("emailFailureTestMessage"), "");
    // Nothing was begun then, and so nothing will end.
    if (!preferenceDictionary) {
        tellMailSessionEnd({.sender = "",
                            .outcome = MailOutcome::failed,
                            .step = 0,
                            .text = "the settings could not be read"});
    }
}

void KorvaneProDaemon::registerForSMTPNotifications() {
    const QLSMTPController* const sender = smtpController.get();
    notificationCenter.addObserver(this, kQLSMTPBeginConnection, sender,
                                   [this](const Notification&) { smtpDidBegin(); });
    notificationCenter.addObserver(this, kQLSMTPSentEmail, sender,
                                   [this](const Notification&) { smtpDidFinish(); });
    notificationCenter.addObserver(
        this, kQLSMTPError, sender,
        [this](const Notification& notification) { smtpDidError(notification); });
}

void KorvaneProDaemon::unregisterForSMTPNotifications() { notificationCenter.removeObserver(this); }

void KorvaneProDaemon::smtpDidBegin() {
    showMailDialog({.header = localized("email_Connecting_message_header"),
                    .message = localized("email_Connecting_message"),
                    .defaultButton = {},
                    .level = AlertLevel::note,
                    .timeOut = kMailDialogTimeOut});
}

void KorvaneProDaemon::smtpDidFinish() {
    showMailDialog({.header = localized("email_Completed_success_header"),
                    .message = localized("email_Completed_success"),
                    .defaultButton = localized("okay"),
                    .level = AlertLevel::note,
                    .timeOut = kMailDialogTimeOut});
    unregisterForSMTPNotifications();
}

void KorvaneProDaemon::smtpDidError(const Notification& notification) {
    const PropertyList* const suggestion = notification.userInfo.find(kRecoverySuggestionKey);
    showMailDialog(
        {.header = localized("email_Completed_error_header"),
         .message = suggestion ? stringValue(suggestion) : localized("email_Completed_error"),
         .defaultButton = localized("okay"),
         .level = AlertLevel::caution,
         .timeOut = kMailDialogTimeOut});
    unregisterForSMTPNotifications();
}

void KorvaneProDaemon::showMailDialog(const Alert& alert) {
    emailNotificationRef = machine_.alertDialogs.show(alert, std::move(emailNotificationRef));
}

}  // namespace korvane
