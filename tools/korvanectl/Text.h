// Text on its way to a terminal: how wide it is there, what of it must not reach a terminal as it
// stands, and colour.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace korvane::ctl {

// The number of columns a terminal gives the text, which must be printable() already: 2 for wide
// characters, 0 for combining ones.
[[nodiscard]] std::size_t displayWidth(std::string_view text);

// The text with everything escaped that could move the cursor, change colours or turn the reading
// direction: control characters as "\n", "\t" or "\x1b", bytes that are not UTF-8 as "\xff". A
// backslash before an "x" and two digits stays as it is: names are shown, not stored, in this form.
[[nodiscard]] std::string printable(std::string_view text);

// The text as one word of a shell's command line, in quotation marks only where it needs them.
[[nodiscard]] std::string shellWord(std::string_view text);

enum class Tone { plain, good, bad, faint, heading };

// Puts colour around texts, or leaves them as they are.
class Paint {
  public:
    explicit Paint(bool coloured) : coloured_(coloured) {}

    // Colour only where a person looks: on a terminal that is not dumb, unless NO_COLOR is set to
    // anything but the empty text (no-color.org).
    [[nodiscard]] static Paint forDescriptor(int descriptor);

    [[nodiscard]] std::string operator()(Tone tone, std::string_view text) const;

  private:
    bool coloured_;
};

}  // namespace korvane::ctl
