// The session: settings, lock, connection, reading, errors and the end.

#include "mail/QLSMTPController.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "base/Format.h"
#include "mail/SmtpSteps.h"
#include "mail/Transformers.h"

namespace korvane {

using std::chrono::microseconds;
using std::chrono::seconds;

namespace {

constexpr char kStringsTable[] = "SMTPLocalizableStrings";
// How long a session may keep the next one waiting.
constexpr seconds kLockLimit{60};
// From the connection to the server's greeting.
constexpr seconds kGreetingLimit{4};
constexpr std::size_t kChunkSize = 1024;
// The port whose servers speak TLS from the first byte on (RFC 8314, section 7.3).
constexpr char kImplicitTlsPort[] = "465";

// The domain of an error that concerns the client itself.
constexpr char kControllerDomain[] = "QLSMTPController";

// A flag as a setting stores it: only the low byte of the number counts.
bool flag(const Dictionary& configuration, std::string_view key) {
    const PropertyList* const value = configuration.find(key);
    return value != nullptr && (static_cast<std::uint64_t>(integerValue(value)) & 0xFFU) != 0;
}

std::optional<std::string> text(const Dictionary& configuration, std::string_view key) {
    const PropertyList* const value = configuration.find(key);
    if (value == nullptr) return std::nullopt;
    return stringValue(value);
}

std::vector<std::string> recipientsOf(const Dictionary& configuration) {
    const std::optional<PropertyList> transformed =
        QLEmailArrayValueTransformer::transformedValue(configuration.find("emailAddress"));
    const PropertyListArray* const array = transformed ? transformed->array() : nullptr;
    std::vector<std::string> recipients;
    if (array == nullptr) return recipients;
    for (const PropertyList& element : *array) recipients.push_back(stringValue(&element));
    return recipients;
}

// What is no port stays none: 0 and 65536 are none either.
int portNumber(const std::string& port) {
    const PropertyList text{port};
    return static_cast<int>(std::clamp<std::int64_t>(integerValue(&text), 0, 65536));
}

bool isAscii(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

}  // namespace

QLSMTPController::QLSMTPController(const Machine& machine, NotificationCenter& notificationCenter,
                                   SessionDidEnd sessionDidEnd)
    : machine_(machine),
      notificationCenter_(notificationCenter),
      sessionDidEnd_(std::move(sessionDidEnd)),
      smtpLock_(machine.runLoop.makeLock()) {}

QLSMTPController::~QLSMTPController() { notificationCenter_.removeObserver(this); }

void QLSMTPController::sendSMTPAlertMessage(const std::string& message, const std::string& sender,
                                            const Dictionary* configuration) {
    if (configuration == nullptr) return;
    if (sender == kSenderSmartCheck && !flag(*configuration, "SMARTCheckEmail")) return;
    if (sender == kSenderVolumeUsage && !flag(*configuration, "volumeUsageEmail")) return;

    emailSendIsBusy_ = true;
    emailSentSuccessfully_ = false;
    emailSubject_ = text(*configuration, "emailSubject").value_or("");
    emailAddressArray_ = recipientsOf(*configuration);
    emailUserName_ = text(*configuration, "emailUserName");
    emailPassword_ = text(*configuration, "emailPassword");
    errorMessage_ = message;
    emailSendingFunction_ = sender;
    emailPort_ = text(*configuration, "emailPort").value_or("");
    emailServer_ = text(*configuration, "emailServer").value_or("");
    emailUseAuthentication_ = flag(*configuration, "emailUseAuthentication");
    emailUseSSLAuthentication_ = flag(*configuration, "emailUseSSLAuthentication");
    openConnectionToHost(*configuration);
}

void QLSMTPController::openConnectionToHost(const Dictionary& configuration) {
    if (!smtpLock_->take(kLockLimit)) throw QLSMTPAquireLockTimeoutException(configuration);
    isEndTold_ = false;
    sessionSender_ = emailSendingFunction_;
    isAccepted_ = false;
    smtpStepCounter_ = kStepNone;
    endStep_ = kStepNone;
    emailAddressIndex_ = 0;
    if (emailServer_.empty()) {
        throwGenericConnectionError();
        return;
    }
    notificationCenter_.post(kQLSMTPBeginConnection, this);
    smtpResponse_.clear();
    smtpError_.reset();

    const int port = portNumber(emailPort_);
    stream_ = machine_.socketStreams.streamsToHost(emailServer_, port);
    if (!stream_) {
        cancelConnectionWithError(MailError{
            .domain = kControllerDomain,
            .code = kSmtpErrorGeneric,
            .description = formatText(localized("SMTP could not open streams to host "
                                                "%@:%ld"),
                                      {std::string_view(emailServer_), std::int64_t{port}}),
            .recoverySuggestion = {}});
        return;
    }
    if (usesImplicitTls()) stream_->useTls(emailServer_, kReplyLimit);
    notificationCenter_.addObserver(
        this, kQLRecievedSMTPResponse, this,
        [this](const Notification& notification) { recievedSMTPResponse(notification); });
    stream_->open([this](StreamSide side, StreamEvent event) { streamHandleEvent(side, event); });
}

bool QLSMTPController::usesTls() const {
    return emailUseAuthentication_ && emailUseSSLAuthentication_;
}

bool QLSMTPController::usesImplicitTls() const {
    return usesTls() && emailPort_ == kImplicitTlsPort;
}

void QLSMTPController::streamHandleEvent(StreamSide side, StreamEvent event) {
    switch (event) {
        case StreamEvent::openCompleted:
            if (side == StreamSide::output) streamOpened();
            return;
        case StreamEvent::hasBytesAvailable:
            readReplies();
            return;
        case StreamEvent::endEncountered:
            // Before the greeting its timer ends the session; afterwards nothing would.
            if (!timeoutTimer_) peerHasGone_ = true;
            return;
        case StreamEvent::errorOccurred:
            streamFailed(side);
            return;
    }
}

void QLSMTPController::streamOpened() {
    smtpStepCounter_ = kStepGreeting;
    timeoutTimer_ =
        machine_.runLoop.startTimer(kGreetingLimit, Repeat::once, [this] { timerTimeout(); });
}

void QLSMTPController::streamFailed(StreamSide side) {
    const std::string reason = stream_ ? stream_->error(side) : std::string{};
    machine_.systemLog.write(LogMessage::mailStreamEvent);
    machine_.systemLog.write(LogMessage::mailStreamError, {reason});
    if (side == StreamSide::output && !reason.empty()) {
        cancelConnectionWithError(MailError{.domain = kControllerDomain,
                                            .code = kSmtpErrorGeneric,
                                            .description = reason,
                                            .recoverySuggestion = {}});
    } else {
        throwGenericConnectionError();
    }
}

void QLSMTPController::readReplies() {
    timeoutTimer_.reset();
    expectReply();
    // Held for the time of the loop, since the session may let go of it in the middle.
    const std::shared_ptr<SocketStream> stream = stream_;
    while (stream && stream_ == stream && stream->hasBytesAvailable()) readChunks(stream);
}

// Stays here from the greeting on: each reply makes the dispatcher send the next command, and the
// next read waits for the reply to that.
void QLSMTPController::readChunks(const std::shared_ptr<SocketStream>& stream) {
    while (stream_ == stream) {
        std::array<char, kChunkSize> buffer{};
        const std::ptrdiff_t count = readWithinLimit(*stream, buffer);
        if (count < 0) {
            machine_.systemLog.write(LogMessage::mailReadError, {std::int64_t{count}});
            return;
        }
        if (count == 0) {
            peerHasGone_ = true;
            stream_.reset();
            tellEnd(MailOutcome::dropped, smtpResponse_);
            return;
        }
        takeChunk(*stream, std::string_view(buffer.data(), static_cast<std::size_t>(count)));
    }
}

std::ptrdiff_t QLSMTPController::readWithinLimit(SocketStream& stream, std::span<char> buffer) {
    const auto remaining = [this] {
        const microseconds now(machine_.clock.microsecondsSinceBoot());
        return std::max(replyDueAt_ - now, microseconds{0});
    };
    // Whatever comes instead of a reply that leads on does not lengthen the wait.
    const std::ptrdiff_t count =
        remaining() == microseconds{0} ? 0 : stream.read(buffer, remaining());
    if (count == 0 && remaining() == microseconds{0}) {
        machine_.systemLog.write(LogMessage::mailServerSilent, {emailServer_});
    }
    return count;
}

void QLSMTPController::expectReply() {
    const microseconds now(machine_.clock.microsecondsSinceBoot());
    replyDueAt_ = now + (smtpStepCounter_ == kStepData ? kAcceptanceLimit : kReplyLimit);
}

// Of the lines of a reply that came together only the first counts: its code is that of the others.
void QLSMTPController::takeChunk(const SocketStream& stream, std::string_view chunk) {
    if (!isAscii(chunk)) {
        const std::string reason = stream.error(StreamSide::input);
        if (reason.empty()) {
            throwGenericConnectionError();
        } else {
            cancelConnectionWithError(MailError{.domain = kControllerDomain,
                                                .code = kSmtpErrorGeneric,
                                                .description = reason,
                                                .recoverySuggestion = {}});
        }
        return;
    }
    smtpResponse_ = chunk.substr(0, chunk.find("\r\n"));
    notificationCenter_.post(kQLRecievedSMTPResponse, this,
                             Dictionary{{kReplyKey, std::string_view(smtpResponse_)}});
}

void QLSMTPController::closeStreams() {
    notificationCenter_.removeObserver(this);
    timeoutTimer_.reset();
    stream_.reset();
    emailAddressIndex_ = 0;
    emailSendIsBusy_ = false;
    smtpLock_->release();
    if (isAccepted_) {
        tellEnd(MailOutcome::sent, smtpResponse_);
    } else if (smtpError_ && smtpError_->code >= kLowestRefusal) {
        tellEnd(MailOutcome::refused, smtpResponse_);
    } else {
        tellEnd(MailOutcome::failed,
                smtpError_ ? smtpError_->recoverySuggestion.value_or(smtpError_->description)
                           : smtpResponse_);
    }
}

// Once a session, with what was known first.
void QLSMTPController::tellEnd(MailOutcome outcome, std::string text) {
    if (std::exchange(isEndTold_, true) || !sessionDidEnd_) return;
    sessionDidEnd_({.sender = sessionSender_,
                    .outcome = isAccepted_ ? MailOutcome::sent : outcome,
                    .step = outcome == MailOutcome::refused ? endStep_ : smtpStepCounter_,
                    .text = std::move(text)});
}

std::string QLSMTPController::localized(std::string_view key) {
    return machine_.bundle.localizedString(kStringsTable, key, key);
}

MailError QLSMTPController::genericConnectionError() {
    return {.domain = kSmtpErrorDomain,
            .code = kSmtpErrorGeneric,
            .description = localized("Failed to connect to SMTP server"),
            .recoverySuggestion =
                formatText(localized("Failed to connect to SMTP server %@ on port %@"),
                           {std::string_view(emailServer_), std::string_view(emailPort_)})};
}

void QLSMTPController::throwGenericConnectionError() {
    cancelConnectionWithError(genericConnectionError());
}

// In the way of an application's own errors: what happened as the header, what to do about it
// below, and there until the user has seen it.
void QLSMTPController::presentSMTPError() {
    if (!smtpError_) return;
    const std::unique_ptr<AlertDialog> shown = machine_.alertDialogs.show(
        {.header = smtpError_->description,
         .message = smtpError_->recoverySuggestion.value_or(""),
         .defaultButton = machine_.bundle.localizedString(kDefaultStringsTable, "okay", "okay"),
         .level = AlertLevel::caution,
         .timeOut = {}},
        nullptr);
}

void QLSMTPController::timerTimeout() {
    cancelConnectionWithError(
        {.domain = kSmtpErrorDomain,
         .code = kSmtpErrorTimeOut,
         .description = localized("Timeout when trying to connect to SMTP server"),
         .recoverySuggestion = formatText(
             localized("Failed to connect to SMTP server %@ on port %@. Try double-checking the "
                       "server's port and authentication settings."),
             {std::string_view(emailServer_), std::string_view(emailPort_)})});
}

void QLSMTPController::cancelConnectionWithError(const MailError& error) {
    const std::string suggestion = error.recoverySuggestion.value_or("Unknown Error");
    notificationCenter_.post(kQLSMTPError, this,
                             Dictionary{{kRecoverySuggestionKey, std::string_view(suggestion)}});
    machine_.systemLog.write(LogMessage::mailCancelled, {suggestion});
    smtpError_ = error;
    closeStreams();
}

}  // namespace korvane
