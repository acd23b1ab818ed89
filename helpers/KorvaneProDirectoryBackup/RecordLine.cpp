#include "KorvaneProDirectoryBackup/RecordLine.h"

#include <array>
#include <charconv>
#include <cstdint>

namespace korvane {

namespace {

constexpr mode_t kPermissionBits = 07777;
constexpr std::size_t kNanosecondDigits = 9;

// Blanks end words, "#" begins a comment, "*", "?" and "[" are patterns to some readers.
bool isPlain(char byte) {
    return byte > ' ' && byte < '\x7F' && byte != '\\' && byte != '#' && byte != '*' &&
           byte != '?' && byte != '[';
}

template <typename Number>
void appendNumber(std::string& line, Number number, int base = 10) {
    std::array<char, 24> digits;  // 64 bits in octal have 22
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
    line.append(digits.data(), end);
}

void appendNanoseconds(std::string& line, std::uint32_t nanoseconds) {
    std::array<char, kNanosecondDigits> digits;
    for (std::size_t place = kNanosecondDigits; place-- > 0; nanoseconds /= 10) {
        digits[place] = static_cast<char>('0' + nanoseconds % 10);
    }
    line.append(digits.data(), digits.size());
}

std::string_view typeName(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "file";
        case S_IFDIR:
            return "dir";
        case S_IFLNK:
            return "link";
        case S_IFIFO:
            return "fifo";
        case S_IFSOCK:
            return "socket";
        case S_IFBLK:
            return "block";
        default:
            return "char";
    }
}

}  // namespace

void appendEscaped(std::string& line, std::string_view text) {
    for (const char byte : text) {
        if (isPlain(byte)) {
            line += byte;
            continue;
        }
        const auto value = static_cast<unsigned char>(byte);
        line += '\\';
        line += static_cast<char>('0' + (value >> 6));
        line += static_cast<char>('0' + (value >> 3 & 7));
        line += static_cast<char>('0' + (value & 7));
    }
}

void appendEntry(std::string& line, std::string_view escapedPath, const struct statx& status,
                 std::string_view linkTarget) {
    line.append(escapedPath).append(" type=").append(typeName(status.stx_mode)).append(" mode=0");
    appendNumber(line, static_cast<unsigned>(status.stx_mode & kPermissionBits), 8);
    line += " uid=";
    appendNumber(line, status.stx_uid);
    line += " gid=";
    appendNumber(line, status.stx_gid);
    if (S_ISREG(status.stx_mode)) {
        line += " size=";
        appendNumber(line, status.stx_size);
    }
    line += " time=";
    appendNumber(line, status.stx_mtime.tv_sec);
    line += '.';
    appendNanoseconds(line, status.stx_mtime.tv_nsec);
    line += " inode=";
    appendNumber(line, status.stx_ino);
    if (S_ISBLK(status.stx_mode) || S_ISCHR(status.stx_mode)) {
        line += " device=linux,";
        appendNumber(line, status.stx_rdev_major);
        line += ',';
        appendNumber(line, status.stx_rdev_minor);
    }
    if (S_ISLNK(status.stx_mode)) {
        line += " link=";
        appendEscaped(line, linkTarget);
    }
    line += '\n';
}

}  // namespace korvane
