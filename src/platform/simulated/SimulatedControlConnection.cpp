#include "platform/simulated/SimulatedControlConnection.h"

#include <fmt/format.h>

namespace korvane {

class SimulatedControlConnection::Registration final : public RegisteredConnection {
  public:
    explicit Registration(SimulatedControlConnection& connection) : connection_(connection) {}
    ~Registration() override {
        connection_.target_ = nullptr;
        connection_.journal_.note("service name given back");
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    void mailSessionEnded(const MailSessionEnd& end) override {
        connection_.mailSessionEnds_.push_back(end);
        connection_.journal_.note("mail session ended", end.text);
    }
    void itemFailed(const ItemFailure& failure) override {
        connection_.itemFailures_.push_back(failure);
        connection_.journal_.note("item failed", failure.path);
    }

  private:
    SimulatedControlConnection& connection_;
};

SimulatedControlConnection::SimulatedControlConnection(SimulatedJournal& journal)
    : journal_(journal) {}

std::unique_ptr<RegisteredConnection> SimulatedControlConnection::registerName(
    ControlTarget& target) {
    if (isUnavailable_ || target_) {
        return nullptr;
    }
    target_ = &target;
    return std::make_unique<Registration>(*this);
}

void SimulatedControlConnection::setUnavailable(bool isUnavailable) {
    isUnavailable_ = isUnavailable;
}

std::optional<SimulatedControlConnection::Answer> SimulatedControlConnection::refusal(
    Caller caller, const std::string& what) {
    if (!target_) {
        return Answer::nobody;
    }
    if (caller == Caller::other) {
        journal_.note("word refused", what);
        return Answer::refused;
    }
    return std::nullopt;
}

SimulatedControlConnection::Answer SimulatedControlConnection::send(const std::string& word,
                                                                    Caller caller) {
    if (const std::optional<Answer> refused = refusal(caller, word)) {
        return *refused;
    }
    journal_.note("word", word);
    const bool answer = target_->messageXmitRcvr(word);
    journal_.note("answer", answer ? "YES" : "NO");
    return answer ? Answer::yes : Answer::no;
}

SimulatedControlConnection::Answer SimulatedControlConnection::createItems(
    const std::vector<std::string>& paths, Caller caller) {
    if (const std::optional<Answer> refused = refusal(caller, "create")) {
        return *refused;
    }
    journal_.note("create", std::to_string(paths.size()));
    target_->messageDoCreateItems(paths);
    return Answer::yes;
}

SimulatedControlConnection::Answer SimulatedControlConnection::deleteItems(
    const std::vector<std::string>& paths, Caller caller) {
    if (const std::optional<Answer> refused = refusal(caller, "delete")) {
        return *refused;
    }
    journal_.note("delete", std::to_string(paths.size()));
    target_->messageDoDeleteItems(paths);
    return Answer::yes;
}

bool SimulatedControlConnection::isRegistered() const { return target_ != nullptr; }

const std::vector<MailSessionEnd>& SimulatedControlConnection::mailSessionEnds() const {
    return mailSessionEnds_;
}

const std::vector<ItemFailure>& SimulatedControlConnection::itemFailures() const {
    return itemFailures_;
}

}  // namespace korvane
