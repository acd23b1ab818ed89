// The conversation of a session: what is sent at which step, and what each reply leads to.

#include <chrono>
#include <cstddef>

#include "base/Format.h"
#include "base/Utf8.h"
#include "mail/AlertMessage.h"
#include "mail/EmailAddress.h"
#include "mail/QLSMTPController.h"
#include "mail/SmtpCommands.h"
#include "mail/SmtpSteps.h"
#include "mail/Transformers.h"

namespace korvane {

namespace {

constexpr std::chrono::seconds kWriteLimit{2};
constexpr std::size_t kCodeLength = 3;

// UTF-16 units, the characters that texts are counted in. A byte that is no UTF-8 counts as one.
std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    while (!text.empty()) {
        const Utf8Sequence sequence = utf8SequenceAt(text);
        count += sequence.length == 4 ? 2 : 1;
        text.remove_prefix(sequence.skip);
    }
    return count;
}

int numberOf(std::string_view code) {
    const PropertyList text{code};
    return static_cast<int>(integerValue(&text));
}

}  // namespace

void QLSMTPController::recievedSMTPResponse(const Notification& notification) {
    const std::string reply = stringValue(notification.userInfo.find(kReplyKey));
    const std::string_view code = std::string_view(reply).substr(0, kCodeLength);
    // A server may refuse the greeting without ending the session: it takes mail all the same.
    if (code.starts_with('5') && smtpStepCounter_ != kStepHello) {
        smtpError_ =
            MailError{.domain = kSmtpErrorDomain,
                      .code = numberOf(code),
                      .description = localized("There was an error talking to the SMTP server"),
                      .recoverySuggestion = reply};
        endStep_ = smtpStepCounter_;
        smtpStepCounter_ = kStepQuit;
    }
    dispatchReply(code);
}

// A reply that none of the conditions of its step fits is passed over.
void QLSMTPController::dispatchReply(std::string_view code) {
    switch (smtpStepCounter_) {
        case kStepGreeting:
            if (code == "220") sendHello();
            return;
        case kStepHello:
            if (code.starts_with('2')) sendStartTLS();
            return;
        case kStepStartTls:
            if (code != "220" && code != "250") return;
            if (code == "220" && usesTls()) upgradeSocketToTLS();
            if (emailUseAuthentication_) {
                sendAuthenticationLogin();
            } else {
                smtpStepCounter_ = kStepPassword;
                sendMailFrom();
            }
            return;
        case kStepLogin:
            if (code == "334") sendAuthenticationUser();
            return;
        case kStepUserName:
            if (code == "334") sendAuthenticationPass();
            return;
        case kStepPassword:
            if (code == "235") {
                sendMailFrom();
            } else {
                throwGenericConnectionError();
            }
            return;
        case kStepMailFrom:
            if (code == "250") sendRecipients();
            return;
        case kStepRecipients:
            if (code == "250") sendDataHeader();
            return;
        case kStepData:
            if (code == "354") sendMessageData();
            return;
        case kStepMessage:
            if (code == "250") sendQuit();
            return;
        default:
            closeStreams();
            return;
    }
}

void QLSMTPController::sendEmail() { sendHello(); }

void QLSMTPController::sendHello() {
    internalStateConsistencyValidation(kStepGreeting);
    emailSentSuccessfully_ = false;
    if (sendString(std::string{kSmtpHello} + ' ' + machine_.host.hostName()))
        smtpStepCounter_ = kStepHello;
}

void QLSMTPController::sendStartTLS() {
    const bool upgrades = usesTls() && !usesImplicitTls();
    if (upgrades) internalStateConsistencyValidation(kStepHello);
    if (sendString(upgrades ? kSmtpStartTls : kSmtpNothing)) smtpStepCounter_ = kStepStartTls;
}

void QLSMTPController::upgradeSocketToTLS() {
    if (stream_) stream_->useTls(emailServer_, kReplyLimit);
}

void QLSMTPController::sendAuthenticationLogin() {
    internalStateConsistencyValidation(kStepStartTls);
    if (sendString(kSmtpLogin)) smtpStepCounter_ = kStepLogin;
}

void QLSMTPController::sendAuthenticationUser() {
    internalStateConsistencyValidation(kStepLogin);
    if (emailUserName_ && !sendString(*emailUserName_, Confidentiality::credential)) return;
    smtpStepCounter_ = kStepUserName;
}

void QLSMTPController::sendAuthenticationPass() {
    internalStateConsistencyValidation(kStepUserName);
    if (emailPassword_ && !sendString(*emailPassword_, Confidentiality::credential)) return;
    smtpStepCounter_ = kStepPassword;
}

void QLSMTPController::sendMailFrom() {
    internalStateConsistencyValidation(kStepPassword);
    const std::optional<std::string> sender = qualifiedSenderEmailAddress();
    if (!sender || sender->empty()) {
        throwGenericConnectionError();
        return;
    }
    if (sendString(formatText(kSmtpMailFrom, {std::string_view(*sender)}))) {
        smtpStepCounter_ = kStepMailFrom;
    }
}

void QLSMTPController::sendRecipients() {
    internalStateConsistencyValidation(kStepMailFrom);
    // Never past the end: without recipients there was no sender either.
    const std::string& recipient = emailAddressArray_.at(emailAddressIndex_);
    if (!sendString(formatText(kSmtpRecipient, {std::string_view(recipient)}))) return;
    ++emailAddressIndex_;
    if (emailAddressIndex_ == emailAddressArray_.size()) {
        emailAddressIndex_ = 0;
        smtpStepCounter_ = kStepRecipients;
    }
}

void QLSMTPController::sendDataHeader() {
    internalStateConsistencyValidation(kStepRecipients);
    if (sendString(kSmtpData)) smtpStepCounter_ = kStepData;
}

void QLSMTPController::sendMessageData() {
    internalStateConsistencyValidation(kStepData);
    AlertMessage message;
    message.now = machine_.clock.now();
    message.sender = qualifiedSenderEmailAddress().value_or("");
    message.recipients = emailAddressArray_;
    message.subject = emailSubject_;
    for (std::size_t i = 0; i < message.items.size(); ++i) {
        const std::string key = "emailContentItem" + std::to_string(i + 1);
        message.items[i] = machine_.bundle.localizedString(kDefaultStringsTable, key, key);
    }
    message.consoleUser = QLConsoleUserName(machine_.host);
    message.computer = localComputerName(machine_.host.names());
    message.networkAddresses = networkAddresses(machine_.host.addresses());
    message.systemVersion = machine_.host.systemVersionText();
    message.alert = errorMessage_;
    if (!sendString(composeAlertMessage(message))) return;
    smtpStepCounter_ = kStepMessage;
    emailSentSuccessfully_ = true;
    notificationCenter_.post(kQLSMTPSentEmail, this);
}

void QLSMTPController::sendQuit() {
    isAccepted_ = true;
    if (sendString(kSmtpQuit)) smtpStepCounter_ = kStepQuit;
}

void QLSMTPController::internalStateConsistencyValidation(int expectedStep) {
    if (expectedStep == smtpStepCounter_) return;
    machine_.systemLog.write(
        LogMessage::mailInconsistent,
        {"QLSMTPController", std::int64_t{expectedStep}, std::int64_t{smtpStepCounter_}});
}

// One bounded write on this thread, which would only wait for another one that did it.
bool QLSMTPController::sendString(std::string_view text, Confidentiality confidentiality) {
    const std::string line = std::string{text} + "\r\n";
    if (const std::size_t characters = characterCount(line); characters != line.size()) {
        machine_.systemLog.write(
            LogMessage::mailLengthsDiffer,
            {static_cast<std::int64_t>(line.size()), static_cast<std::int64_t>(characters)});
    }
    // Closed meanwhile: given up silently.
    if (!stream_) return false;
    const StreamWrite outcome = stream_->write(line, kWriteLimit);
    expectReply();
    if (outcome == StreamWrite::written || outcome == StreamWrite::notOpen) return true;
    if (outcome != StreamWrite::timedOut) {
        machine_.systemLog.write(confidentiality == Confidentiality::credential
                                     ? LogMessage::mailCredentialWriteFailed
                                     : LogMessage::mailWriteFailed,
                                 {text});
    }
    if (outcome == StreamWrite::full) {
        machine_.systemLog.write(LogMessage::mailStreamFull);
    }
    throwGenericConnectionError();
    return false;
}

std::optional<std::string> QLSMTPController::qualifiedSenderEmailAddress() {
    if (emailAddressArray_.empty()) return std::nullopt;
    if (emailUseAuthentication_) {
        const std::string userName =
            QLBase64StringTransformer::base64DecodedString(emailUserName_.value_or(""))
                .value_or("");
        if (isEmailAddress(userName)) return userName;
        machine_.systemLog.write(LogMessage::mailUserNameNoAddress, {userName});
    }
    return emailAddressArray_.front();
}

}  // namespace korvane
