// The control connection without a bus: the test is the main application that calls.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/ControlConnection.h"
#include "platform/simulated/SimulatedJournal.h"

namespace korvane {

class SimulatedControlConnection final : public ControlConnection {
  public:
    enum class Caller { root, daemonUser, other };
    enum class Answer { yes, no, refused, nobody };

    explicit SimulatedControlConnection(SimulatedJournal& journal);

    [[nodiscard]] std::unique_ptr<RegisteredConnection> registerName(
        ControlTarget& target) override;

    // Another process holds the name, or there is no bus: registering fails.
    void setUnavailable(bool isUnavailable);
    // Delivers the word as a call from outside, on the loop's thread. `nobody`: no name is
    // registered.
    Answer send(const std::string& word, Caller caller = Caller::root);
    // Likewise for the lists of paths; an empty answer is `yes`.
    Answer createItems(const std::vector<std::string>& paths, Caller caller = Caller::root);
    Answer deleteItems(const std::vector<std::string>& paths, Caller caller = Caller::root);
    [[nodiscard]] bool isRegistered() const;
    // What the daemon has told of its mail sessions.
    [[nodiscard]] const std::vector<MailSessionEnd>& mailSessionEnds() const;
    // And of items that it could not create or remove.
    [[nodiscard]] const std::vector<ItemFailure>& itemFailures() const;

  private:
    class Registration;

    // What became of a call, when it is not let through.
    [[nodiscard]] std::optional<Answer> refusal(Caller caller, const std::string& what);

    SimulatedJournal& journal_;
    ControlTarget* target_ = nullptr;
    bool isUnavailable_ = false;
    std::vector<MailSessionEnd> mailSessionEnds_;
    std::vector<ItemFailure> itemFailures_;
};

}  // namespace korvane
