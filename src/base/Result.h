// The outcome of something that may fail in an expected way: a value, or why there is none.
#pragma once

#include <cerrno>
#include <string>
#include <utility>
#include <variant>

namespace korvane {

// What went wrong, in words fit for a log line, without a final full stop; and the errno behind it
// where there is one.
struct Error {
    std::string message;
    int number = 0;
};

// Whether the same call may succeed later, when others have given back descriptors or memory.
[[nodiscard]] inline bool maySucceedLater(const Error& error) {
    return error.number == EMFILE || error.number == ENFILE || error.number == ENOMEM;
}

template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

    [[nodiscard]] explicit operator bool() const { return state_.index() == 0; }
    [[nodiscard]] T& operator*() & { return *std::get_if<0>(&state_); }
    [[nodiscard]] const T& operator*() const& { return *std::get_if<0>(&state_); }
    [[nodiscard]] T&& operator*() && { return std::move(*std::get_if<0>(&state_)); }
    [[nodiscard]] T* operator->() { return std::get_if<0>(&state_); }
    [[nodiscard]] const T* operator->() const { return std::get_if<0>(&state_); }
    // Only where there is no value.
    [[nodiscard]] const Error& error() const { return *std::get_if<1>(&state_); }

  private:
    std::variant<T, Error> state_;
};

}  // namespace korvane
