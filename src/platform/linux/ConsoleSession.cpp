#include "platform/linux/ConsoleSession.h"

#include <systemd/sd-login.h>

#include <cstdlib>
#include <memory>
#include <string_view>

namespace korvane {

namespace {

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

}  // namespace

std::optional<uid_t> consoleUser() {
    char* raw = nullptr;
    uid_t user = 0;
    if (sd_seat_get_active("seat0", &raw, &user) < 0) return std::nullopt;
    const Text session{raw};
    raw = nullptr;
    if (sd_session_get_class(session.get(), &raw) < 0) return std::nullopt;
    const Text sessionClass{raw};
    if (std::string_view{sessionClass.get()} != "user") return std::nullopt;
    return user;
}

}  // namespace korvane
