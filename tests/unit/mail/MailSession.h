// A mail client on a simulated machine beside a scripted server: what the tests of the session
// share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "base/NotificationCenter.h"
#include "mail/Base64.h"
#include "mail/QLSMTPController.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {

class MailSession : public testing::Test {
  protected:
    MailSession() : machine_(MachineDescription{}) {
        makeController();
        for (const char* const name :
             {kQLSMTPBeginConnection, kQLSMTPSentEmail, kQLSMTPError, kQLRecievedSMTPResponse}) {
            center_.addObserver(this, name, controller_.get(), [this](const Notification& heard) {
                notifications_.emplace_back(heard.name);
                if (heard.name == kQLRecievedSMTPResponse) {
                    replies_.push_back(stringValue(heard.userInfo.find(kReplyKey)));
                }
                if (heard.name == kQLSMTPError) {
                    suggestions_.push_back(
                        stringValue(heard.userInfo.find(kRecoverySuggestionKey)));
                }
            });
        }
    }

    void makeController() {
        controller_ = std::make_unique<QLSMTPController>(
            machine_.machine(), center_,
            [this](const MailSessionEnd& end) { ends_.push_back(end); });
    }

    static Dictionary settings(const Dictionary& more = {}) {
        Dictionary configuration{
            {"emailServer", "mail.example.org"}, {"emailPort", "25"},
            {"emailSubject", "Korvane Pro"},     {"emailAddress", "ada@example.org"},
            {"SMARTCheckEmail", true},           {"volumeUsageEmail", true}};
        for (const Dictionary::Entry& entry : more) configuration.set(entry.key, entry.value);
        return configuration;
    }

    static Dictionary withLogin(const Dictionary& more = {}) {
        Dictionary configuration =
            settings({{"emailUseAuthentication", true},
                      {"emailUserName", NewBase64Encode("grace@example.org", LineSeparation::on)},
                      {"emailPassword", NewBase64Encode("secret", LineSeparation::on)}});
        for (const Dictionary::Entry& entry : more) configuration.set(entry.key, entry.value);
        return configuration;
    }

    // One send, and everything that follows from it within some time.
    void send(const Dictionary& configuration, const std::string& message = "The drive fails.",
              const std::string& sender = "") {
        controller_->sendSMTPAlertMessage(message, sender, &configuration);
        machine_.runLoop.runFor(std::chrono::minutes{1});
    }

    // The first words of what the server has received, the message as "message".
    [[nodiscard]] std::vector<std::string> commands() const {
        std::vector<std::string> words;
        for (const std::string& line : machine_.mailServer.lines()) {
            words.push_back(line.find('\n') == std::string::npos ? line : "message");
        }
        return words;
    }

    [[nodiscard]] std::vector<std::string> log() const {
        std::vector<std::string> lines;
        for (const auto& line : machine_.systemLog.lines()) lines.push_back(line.text);
        return lines;
    }

    // Without the replies, of which there is one for every chunk.
    [[nodiscard]] std::vector<std::string> progress() const {
        std::vector<std::string> names = notifications_;
        std::erase(names, std::string{kQLRecievedSMTPResponse});
        return names;
    }

    static MailReply reply(const std::string& line) { return {.chunks = {line + "\r\n"}}; }

    SimulatedMachine machine_;
    NotificationCenter center_;
    std::unique_ptr<QLSMTPController> controller_;
    std::vector<std::string> notifications_;
    std::vector<std::string> replies_;
    std::vector<std::string> suggestions_;
    std::vector<MailSessionEnd> ends_;
};

}  // namespace korvane
