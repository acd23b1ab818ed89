// How a command ends: with a value, or with a failure that carries the exit status and the one line
// that the person at the terminal gets to read.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace korvane::ctl {

// The program's exit statuses, part of its manual: scripts rely on the numbers.
enum class ExitStatus : int {
    done = 0,
    refused = 1,      // bad usage, an unknown name, or a value that the daemon would misread
    noDaemon = 2,     // the daemon does not run, or cannot be reached over the bus
    notAllowed = 3,   // another user's daemon or files
    noReply = 4,      // the daemon did not answer in time
    fileProblem = 5,  // a file is missing, damaged, cannot be written, or keeps being overwritten
    notSent = 6,      // the test mail did not reach the server
};

// The message says what is wrong and what to do about it, in one line without a final full stop.
struct Failure {
    ExitStatus status = ExitStatus::refused;
    std::string message;
};

template <typename T>
class [[nodiscard]] Outcome {
  public:
    Outcome(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Outcome(Failure failure) : state_(std::in_place_index<1>, std::move(failure)) {}

    [[nodiscard]] explicit operator bool() const { return state_.index() == 0; }
    [[nodiscard]] T& operator*() { return *std::get_if<0>(&state_); }
    [[nodiscard]] const T& operator*() const { return *std::get_if<0>(&state_); }
    [[nodiscard]] T* operator->() { return std::get_if<0>(&state_); }
    [[nodiscard]] const T* operator->() const { return std::get_if<0>(&state_); }
    // Only where there is no value.
    [[nodiscard]] const Failure& failure() const { return *std::get_if<1>(&state_); }

  private:
    std::variant<T, Failure> state_;
};

}  // namespace korvane::ctl
