#include "platform/simulated/SimulatedControlConnection.h"

#include <fmt/format.h>

namespace korvane {

class SimulatedControlConnection::Registration final : public RegisteredConnection {
  public:
    explicit Registration(SimulatedControlConnection& connection) : connection_(connection) {}
    ~Registration() override { connection_.target_ = nullptr; }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

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

SimulatedControlConnection::Answer SimulatedControlConnection::send(const std::string& word,
                                                                    Caller caller) {
    if (!target_) {
        return Answer::nobody;
    }
    if (caller == Caller::other) {
        journal_.note("word refused", word);
        return Answer::refused;
    }
    journal_.note("word", word);
    const bool answer = target_->messageXmitRcvr(word);
    journal_.note("answer", answer ? "YES" : "NO");
    return answer ? Answer::yes : Answer::no;
}

bool SimulatedControlConnection::isRegistered() const { return target_ != nullptr; }

}  // namespace korvane
