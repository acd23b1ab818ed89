// The daemon's own SMTP client: one session at a time, driven by the events of its connection and
// by the server's replies, one step a reply. It tells its progress by notifications alone; that a
// session has ended, and how, is told besides to whoever asked for it. From the greeting on a
// session keeps its thread, waiting for the server, until it ends. Everything runs on the loop's
// thread, or on a background thread that the loop's thread waits for.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "base/NotificationCenter.h"
#include "base/PropertyList.h"
#include "mail/MailError.h"
#include "platform/Machine.h"

namespace korvane {

// The names of the notifications. An error carries kRecoverySuggestionKey, a reply kReplyKey.
inline constexpr char kQLSMTPBeginConnection[] = "kQLSMTPBeginConnection";
inline constexpr char kQLSMTPSentEmail[] = "kQLSMTPSentEmail";
inline constexpr char kQLSMTPError[] = "kQLSMTPError";
inline constexpr char kQLRecievedSMTPResponse[] = "kQLRecievedSMTPResponse";
inline constexpr char kRecoverySuggestionKey[] = "NSLocalizedRecoverySuggestion";
inline constexpr char kReplyKey[] = "smtpResponse";

// Who asks for a mail. Any other word, the empty one too, is let through without a question.
inline constexpr char kSenderSmartCheck[] = "SMARTCheck";
inline constexpr char kSenderVolumeUsage[] = "volumeUsage";

// A session holds the lock for longer than a new one waits for it.
class QLSMTPAquireLockTimeoutException : public std::runtime_error {
  public:
    explicit QLSMTPAquireLockTimeoutException(Dictionary configuration)
        : std::runtime_error("SMTP controller failed to aquire lock!"),
          configuration_(std::move(configuration)) {}
    [[nodiscard]] static const char* selector() { return "openConnectionToHost"; }
    [[nodiscard]] const Dictionary& configuration() const { return configuration_; }

  private:
    Dictionary configuration_;
};

class QLSMTPController {
  public:
    using SessionDidEnd = std::function<void(const MailSessionEnd&)>;

    // Machine and centre outlive the controller.
    QLSMTPController(const Machine& machine, NotificationCenter& notificationCenter,
                     SessionDidEnd sessionDidEnd);
    ~QLSMTPController();
    QLSMTPController(const QLSMTPController&) = delete;
    QLSMTPController& operator=(const QLSMTPController&) = delete;

    // Starts one send with the settings of the configuration, unless they switch this sender's
    // mails off; no configuration, no send. Waits up to a minute for a session that is under way,
    // and throws QLSMTPAquireLockTimeoutException when it does not end.
    void sendSMTPAlertMessage(const std::string& message, const std::string& sender,
                              const Dictionary* configuration);

    // Says the first words of a session that stands connected, without waiting for the server's
    // greeting.
    void sendEmail();
    // Shows what ended the last session to the user, if it was an error.
    void presentSMTPError();

    // From a send until its session is over.
    [[nodiscard]] bool emailSendIsBusy() const { return emailSendIsBusy_; }
    // The message of the last session was handed to the server.
    [[nodiscard]] bool emailSentSuccessfully() const { return emailSentSuccessfully_; }
    // What ended the last session, if it was an error.
    [[nodiscard]] const std::optional<MailError>& smtpError() const { return smtpError_; }
    [[nodiscard]] int smtpStepCounter() const { return smtpStepCounter_; }
    // The server has closed the connection in the middle of the session, or has fallen silent; the
    // session therefore never ends.
    [[nodiscard]] bool peerHasGone() const { return peerHasGone_; }

  private:
    // ---- Session (QLSMTPController.cpp) ---------------------------------------------------------

    void openConnectionToHost(const Dictionary& configuration);
    // Whether the settings ask for TLS, which goes with authentication alone, and on a port that
    // speaks it from the first byte on.
    [[nodiscard]] bool usesTls() const;
    [[nodiscard]] bool usesImplicitTls() const;
    void streamHandleEvent(StreamSide side, StreamEvent event);
    void streamOpened();
    void streamFailed(StreamSide side);
    // Reads and answers until the session is over or the connection gives nothing more.
    void readReplies();
    void readChunks(const std::shared_ptr<SocketStream>& stream);
    // Nothing, as at the end of the stream, once the reply to the last command is overdue.
    [[nodiscard]] std::ptrdiff_t readWithinLimit(SocketStream& stream, std::span<char> buffer);
    // Something is sent at this step, and from now on the server may take its time to answer.
    void expectReply();
    void takeChunk(const SocketStream& stream, std::string_view chunk);
    void closeStreams();
    void tellEnd(MailOutcome outcome, std::string text);

    [[nodiscard]] std::string localized(std::string_view key);
    [[nodiscard]] MailError genericConnectionError();
    void throwGenericConnectionError();
    void cancelConnectionWithError(const MailError& error);
    void timerTimeout();

    // ---- Conversation (SmtpConversation.cpp) ----------------------------------------------------

    void recievedSMTPResponse(const Notification& notification);
    void dispatchReply(std::string_view code);
    void sendHello();
    void sendStartTLS();
    void upgradeSocketToTLS();
    void sendAuthenticationLogin();
    void sendAuthenticationUser();
    void sendAuthenticationPass();
    void sendMailFrom();
    void sendRecipients();
    void sendDataHeader();
    void sendMessageData();
    void sendQuit();
    void internalStateConsistencyValidation(int expectedStep);

    enum class Confidentiality { open, credential };
    // Appends the line's end and hands it over whole; gives up silently where the connection is not
    // open any more. False when it failed, which has ended the session.
    [[nodiscard]] bool sendString(std::string_view text,
                                  Confidentiality confidentiality = Confidentiality::open);
    // The login name if that is an address, else the first recipient; nothing without recipients.
    [[nodiscard]] std::optional<std::string> qualifiedSenderEmailAddress();

    const Machine machine_;
    NotificationCenter& notificationCenter_;
    const SessionDidEnd sessionDidEnd_;

    // The settings of the last send.
    std::string emailSubject_;
    std::vector<std::string> emailAddressArray_;
    std::size_t emailAddressIndex_ = 0;  // of the next recipient to name; 0 between sessions
    bool emailUseAuthentication_ = false;
    bool emailUseSSLAuthentication_ = false;
    std::string emailPort_;
    std::string emailServer_;
    std::string emailSendingFunction_;
    std::optional<std::string> emailUserName_;  // in Base64, as it is sent
    std::optional<std::string> emailPassword_;  // likewise
    std::string errorMessage_;                  // the alert that the message is about

    // The session.
    int smtpStepCounter_ = 0;
    bool emailSentSuccessfully_ = false;
    bool emailSendIsBusy_ = false;
    bool peerHasGone_ = false;
    bool isAccepted_ = false;  // the server has taken the message
    bool isEndTold_ = true;
    std::string sessionSender_;  // a send that never gets the lock has a word of its own
    int endStep_ = 0;            // where a refusal came
    std::chrono::microseconds replyDueAt_{};  // since boot
    std::string smtpResponse_;
    std::optional<MailError> smtpError_;
    std::unique_ptr<HandoverLock> smtpLock_;
    std::unique_ptr<Timer> timeoutTimer_;
    std::shared_ptr<SocketStream> stream_;
};

}  // namespace korvane
