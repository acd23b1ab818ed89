#include "platform/linux/MountTable.h"

#include <algorithm>
#include <charconv>
#include <unordered_map>
#include <unordered_set>

namespace korvane {
namespace {

bool isOctalDigit(char c) { return c >= '0' && c <= '7'; }

// Whether a backslash and three octal digits of one byte stand at this position.
bool isEscape(std::string_view text, std::size_t at) {
    return at + 3 < text.size() && text[at] == '\\' && text[at + 1] >= '0' && text[at + 1] <= '3' &&
           isOctalDigit(text[at + 2]) && isOctalDigit(text[at + 3]);
}

void appendEscape(std::string& text, unsigned char byte) {
    text += '\\';
    text += static_cast<char>('0' + (byte >> 6U));
    text += static_cast<char>('0' + ((byte >> 3U) & 7U));
    text += static_cast<char>('0' + (byte & 7U));
}

// The length of the well-formed UTF-8 sequence at this position whose character a text can carry,
// or 0 (Unicode 15, table 3-7: no overlong forms, no surrogates, nothing above U+10FFFF).
std::size_t carriedLength(std::string_view bytes, std::size_t at) {
    const auto byteAt = [&](std::size_t offset) {
        return at + offset < bytes.size() ? static_cast<unsigned char>(bytes[at + offset]) : 0U;
    };
    const unsigned first = byteAt(0);
    if (first < 0x80) {
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    }
    const std::size_t length = first >= 0xc2 && first <= 0xdf   ? 2
                               : first >= 0xe0 && first <= 0xef ? 3
                               : first >= 0xf0 && first <= 0xf4 ? 4
                                                                : 0;
    if (length == 0) {
        return 0;
    }
    std::uint32_t point = first & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(i) & 0xc0U) != 0x80U) {
            return 0;
        }
        point = (point << 6U) | (byteAt(i) & 0x3fU);
    }
    constexpr std::uint32_t kSmallestOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = point >= 0xd800 && point <= 0xdfff;
    const bool isControl = point < 0xa0;
    const bool isRefusedByXml = point == 0xfffe || point == 0xffff;
    if (point < kSmallestOfLength[length] || point > 0x10ffff || isSurrogate || isControl ||
        isRefusedByXml) {
        return 0;
    }
    return length;
}

// Takes the text up to the next space, or to the end, off the front.
std::string_view nextField(std::string_view& line) {
    const std::size_t end = std::min(line.find(' '), line.size());
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return field;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size();
}

bool parseDeviceNumber(std::string_view text, DeviceNumber& device) {
    const std::size_t colon = text.find(':');
    return colon != std::string_view::npos && parseNumber(text.substr(0, colon), device.major) &&
           parseNumber(text.substr(colon + 1), device.minor);
}

bool hasOption(std::string_view options, std::string_view wanted) {
    while (!options.empty()) {
        const std::size_t end = std::min(options.find(','), options.size());
        if (options.substr(0, end) == wanted) {
            return true;
        }
        options.remove_prefix(std::min(end + 1, options.size()));
    }
    return false;
}

std::optional<MountRow> parseRow(std::string_view line) {
    MountRow row;
    if (!parseNumber(nextField(line), row.mountId) || !parseNumber(nextField(line), row.parentId) ||
        !parseDeviceNumber(nextField(line), row.device)) {
        return std::nullopt;
    }
    (void)nextField(
        line);  // The folder within the file system: a volume is one whatever part shows.
    row.mountPoint = bytesOfText(nextField(line));
    const std::string_view mountOptions = nextField(line);
    // Any number of optional fields, closed by a lone hyphen.
    while (!line.empty() && nextField(line) != "-") {
    }
    if (line.empty()) {
        return std::nullopt;
    }
    row.typeName = bytesOfText(nextField(line));
    row.source = bytesOfText(nextField(line));
    row.readOnly = hasOption(mountOptions, "ro") || hasOption(nextField(line), "ro");
    if (row.mountPoint.empty() || row.mountPoint.front() != '/' || row.typeName.empty() ||
        row.mountPoint.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    return row;
}

struct Place {
    std::uint64_t parentId;
    std::string_view path;
    friend bool operator==(const Place&, const Place&) = default;
};
struct PlaceHash {
    std::size_t operator()(const Place& place) const noexcept {
        return std::hash<std::string_view>{}(place.path) ^
               std::hash<std::uint64_t>{}(place.parentId * 0x9e3779b97f4a7c15U);
    }
};

// Answers, for each row, whether paths lead to it.
class Reachability {
  public:
    explicit Reachability(const std::vector<MountRow>& rows) : rows_(rows), states_(rows.size()) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            indexOfId_.emplace(rows[i].mountId, i);
            // The first root of all is its own parent, but is not mounted on itself.
            if (rows[i].parentId != rows[i].mountId) {
                places_.insert({rows[i].parentId, rows[i].mountPoint});
            }
        }
    }

    [[nodiscard]] bool isReachable(std::size_t index) {
        const MountRow& row = rows_[index];
        const bool isCovered = places_.contains({row.mountId, std::string_view{row.mountPoint}});
        return !isCovered && isWayOpen(index);
    }

  private:
    enum class State : std::uint8_t { unknown, open, closed };

    // Whether the mounts above let a path through to where this one is mounted. Walks up to the
    // first row whose answer is known, then gives all rows below it theirs.
    bool isWayOpen(std::size_t index) {
        std::vector<std::size_t> pending;
        State state = State::unknown;
        while (state == State::unknown) {
            state = states_[index];
            if (state != State::unknown) {
                break;
            }
            pending.push_back(index);
            const auto parent = indexOfId_.find(rows_[index].parentId);
            // The root's parent is outside the table; a malformed table may hold a ring.
            if (parent == indexOfId_.end() || pending.size() > rows_.size() ||
                parent->second == index) {
                state = State::open;
            } else {
                index = parent->second;
            }
        }
        for (auto each = pending.rbegin(); each != pending.rend(); ++each) {
            if (state == State::open && isBelowSibling(rows_[*each])) {
                state = State::closed;
            }
            states_[*each] = state;
        }
        return state == State::open;
    }

    // Whether another mount on the same parent hides the folder that this one is mounted on.
    bool isBelowSibling(const MountRow& row) const {
        const std::string_view path = row.mountPoint;
        for (std::size_t end = path.rfind('/'); end != std::string_view::npos && path != "/";
             end = end == 0 ? std::string_view::npos : path.rfind('/', end - 1)) {
            const Place above{row.parentId, end == 0 ? std::string_view{"/"} : path.substr(0, end)};
            if (places_.contains(above)) {
                return true;
            }
        }
        return false;
    }

    const std::vector<MountRow>& rows_;
    std::vector<State> states_;
    std::unordered_map<std::uint64_t, std::size_t> indexOfId_;
    std::unordered_set<Place, PlaceHash> places_;
};

}  // namespace

std::vector<MountRow> parseMountTable(std::string_view text) {
    std::vector<MountRow> rows;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        if (auto row = parseRow(text.substr(0, end))) {
            rows.push_back(std::move(*row));
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return rows;
}

std::vector<std::size_t> reachableMounts(const std::vector<MountRow>& rows) {
    Reachability reachability(rows);
    std::vector<std::size_t> reachable;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (reachability.isReachable(i)) {
            reachable.push_back(i);
        }
    }
    return reachable;
}

std::string textOfBytes(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size();) {
        const std::size_t length = isEscape(bytes, i) ? 0 : carriedLength(bytes, i);
        if (length == 0) {
            appendEscape(text, static_cast<unsigned char>(bytes[i]));
            ++i;
        } else {
            text.append(bytes, i, length);
            i += length;
        }
    }
    return text;
}

std::string bytesOfText(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (isEscape(text, i)) {
            bytes += static_cast<char>(((text[i + 1] - '0') << 6) | ((text[i + 2] - '0') << 3) |
                                       (text[i + 3] - '0'));
            i += 4;
        } else {
            bytes += text[i++];
        }
    }
    return bytes;
}

}  // namespace korvane
