#include "korvanectl/Text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <cwchar>

#include "korvanectl/Utf8.h"

namespace korvane::ctl {

namespace {

// Widths come from the C library's tables, which speak UTF-8 only under a UTF-8 locale; the user's
// own locale stays out of it.
class Utf8Locale {
  public:
    Utf8Locale() {
        static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        if (utf8 != nullptr) {
            previous_ = uselocale(utf8);
        }
    }
    ~Utf8Locale() {
        if (previous_ != nullptr) {
            uselocale(previous_);
        }
    }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

  private:
    locale_t previous_ = nullptr;
};

// Marks that turn the reading direction can make a name look like another one (UAX #9).
bool turnsDirection(char32_t character) {
    return character == 0x061C || character == 0x200E || character == 0x200F ||
           (character >= 0x202A && character <= 0x202E) ||
           (character >= 0x2066 && character <= 0x2069);
}

void appendEscaped(std::string& out, std::string_view bytes) {
    if (bytes == "\n" || bytes == "\t" || bytes == "\r") {
        out += bytes == "\n" ? "\\n" : bytes == "\t" ? "\\t" : "\\r";
        return;
    }
    for (const char byte : bytes) {
        out += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
}

}  // namespace

std::size_t displayWidth(std::string_view text) {
    const Utf8Locale locale;
    std::size_t width = 0;
    while (!text.empty()) {
        const Utf8Character character = firstUtf8Character(text);
        const int columns =
            character.length == 0 ? 1 : wcwidth(static_cast<wchar_t>(character.code));
        width += columns > 0 ? static_cast<std::size_t>(columns) : 0;
        text.remove_prefix(character.length == 0 ? 1 : character.length);
    }
    return width;
}

std::string printable(std::string_view text) {
    const Utf8Locale locale;
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const auto [code, length] = firstUtf8Character(text);
        const std::string_view bytes = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || code == 0 || wcwidth(static_cast<wchar_t>(code)) < 0 ||
            turnsDirection(code)) {
            appendEscaped(out, bytes);
        } else {
            out += bytes;
        }
        text.remove_prefix(bytes.size());
    }
    return out;
}

std::string shellWord(std::string_view text) {
    constexpr std::string_view harmless =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/_.,:@%+-";
    if (!text.empty() && text.find_first_not_of(harmless) == std::string_view::npos) {
        return std::string{text};
    }
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') {
            word += "'\\''";
        } else {
            word += c;
        }
    }
    return word + '\'';
}

Paint Paint::forDescriptor(int descriptor) {
    const char* const noColour = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool wanted = noColour == nullptr || *noColour == '\0';
    const bool able = terminal != nullptr && std::string_view{terminal} != "dumb";
    return Paint{wanted && able && isatty(descriptor) == 1};
}

std::string Paint::operator()(Tone tone, std::string_view text) const {
    if (!coloured_ || tone == Tone::plain || text.empty()) {
        return std::string{text};
    }
    // ECMA-48 SGR: 1 bold, 2 faint, 31 red, 32 green.
    const char* const code = tone == Tone::good    ? "32"
                             : tone == Tone::bad   ? "1;31"
                             : tone == Tone::faint ? "2"
                                                   : "1";
    return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

}  // namespace korvane::ctl
