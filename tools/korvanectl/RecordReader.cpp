#include "korvanectl/RecordReader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "korvanectl/Document.h"
#include "korvanectl/Text.h"

namespace korvane::ctl {

namespace {

constexpr std::size_t kBlock = 64 * 1024;
// Far above what a path of the kernel's can become with every byte escaped, twice, for a link.
constexpr std::size_t kLongestLine = 1024 * 1024;
constexpr std::string_view kFirstLine = "#mtree";
constexpr std::string_view kCannotBeRead = " cannot be read: ";
constexpr std::string_view kCutShort = "# The way back up was moved: the record ends here.";

int octalDigit(char byte) { return byte >= '0' && byte <= '7' ? byte - '0' : -1; }

// Takes back the escaping; false for what is no escaped text of a path.
bool unescape(std::string_view escaped, std::string& text) {
    text.clear();
    while (!escaped.empty()) {
        const std::size_t plain = std::min(escaped.find('\\'), escaped.size());
        text.append(escaped.substr(0, plain));
        escaped.remove_prefix(plain);
        if (escaped.empty()) {
            break;
        }
        int byte = 0;
        for (std::size_t place = 1; place <= 3; ++place) {
            const int digit = place < escaped.size() ? octalDigit(escaped[place]) : -1;
            if (digit < 0) {
                return false;
            }
            byte = byte * 8 + digit;
        }
        if (byte == 0 || byte > 0xFF) {
            return false;
        }
        text += static_cast<char>(byte);
        escaped.remove_prefix(4);
    }
    return text.find('\0') == std::string::npos;
}

// Whether it is a path as names make it: nothing empty, and no way back up.
bool isPlainPath(std::string_view path) {
    for (;;) {
        const std::size_t slash = path.find('/');
        const std::string_view name = path.substr(0, slash);
        if (name.empty() || name == "." || name == "..") {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        path.remove_prefix(slash + 1);
    }
}

// "./a/b" as "a/b" and "." as nothing; false for what is neither.
bool takePath(std::string_view escaped, std::string& path) {
    if (escaped == ".") {
        path.clear();
        return true;
    }
    return escaped.starts_with("./") && unescape(escaped.substr(2), path) && isPlainPath(path);
}

bool areWords(std::string_view words) {
    while (!words.empty()) {
        const std::size_t blank = words.find(' ');
        const std::string_view word = words.substr(0, blank);
        const std::size_t equals = word.find('=');
        if (equals == 0 || equals == std::string_view::npos) {
            return false;
        }
        words.remove_prefix(blank == std::string_view::npos ? words.size() : blank + 1);
    }
    return true;
}

}  // namespace

std::strong_ordering compareRecordPaths(std::string_view first, std::string_view second) {
    if (first == second) {
        return std::strong_ordering::equal;
    }
    const auto differs = std::mismatch(first.begin(), first.end(), second.begin(), second.end());
    const auto same = static_cast<std::size_t>(differs.first - first.begin());
    // What follows the folder that both are in.
    const std::size_t slash = same == 0 ? std::string_view::npos : first.rfind('/', same - 1);
    const std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
    const std::string_view ofFirst = first.substr(begin);
    const std::string_view ofSecond = second.substr(begin);
    const std::size_t firstEnd = ofFirst.find('/');
    const std::size_t secondEnd = ofSecond.find('/');
    const bool isFirstHere = firstEnd == std::string_view::npos;
    const bool isSecondHere = secondEnd == std::string_view::npos;
    if (isFirstHere != isSecondHere) {
        return isFirstHere ? std::strong_ordering::less : std::strong_ordering::greater;
    }
    return ofFirst.substr(0, firstEnd).compare(ofSecond.substr(0, secondEnd)) <=> 0;
}

std::optional<std::string_view> RecordEntry::word(std::string_view key) const {
    std::string_view left = words;
    while (!left.empty()) {
        const std::size_t blank = left.find(' ');
        const std::string_view each = left.substr(0, blank);
        if (each.size() > key.size() && each.starts_with(key) && each[key.size()] == '=') {
            return each.substr(key.size() + 1);
        }
        left.remove_prefix(blank == std::string_view::npos ? left.size() : blank + 1);
    }
    return std::nullopt;
}

// A path is passed when the lines have gone on to what comes after all that is below it: by names,
// from the outermost on.
bool RecordReader::InOrder::operator()(std::string_view first, std::string_view second) const {
    return std::lexicographical_compare(
        first.begin(), first.end(), second.begin(), second.end(), [](char one, char other) {
            // A "/" ends a name, so it comes before every byte of one.
            const auto rank = [](char byte) {
                return byte == '/' ? -1 : static_cast<int>(static_cast<unsigned char>(byte));
            };
            return rank(one) < rank(other);
        });
}

Outcome<RecordReader> RecordReader::open(const std::string& path) {
    // Not to be held up by a pipe that somebody put there.
    const auto file = std::make_shared<UniqueFd>(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    struct stat status {};
    if (!*file || ::fstat(file->get(), &status) < 0) {
        return fileFailure(printable(path), errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Failure{ExitStatus::fileProblem,
                       fmt::format("{} is not a file: no directory backup", printable(path))};
    }
    const auto read = [file](std::span<char> room) -> std::ptrdiff_t {
        ssize_t length = 0;
        do {
            length = ::read(file->get(), room.data(), room.size());
        } while (length < 0 && errno == EINTR);
        return length;
    };
    return RecordReader{read, path};
}

RecordReader::RecordReader(Source source, std::string name)
    : source_(std::move(source)), name_(std::move(name)) {}

Failure RecordReader::damage(std::string_view what) const {
    return {ExitStatus::fileProblem, fmt::format("{} is damaged or no directory backup: line {} {}",
                                                 printable(name_), number_, what)};
}

// False at the end.
Outcome<bool> RecordReader::readLine() {
    std::size_t searched = begin_;
    for (;;) {
        const std::size_t end = buffer_.find('\n', searched);
        if (end != std::string::npos) {
            ++number_;
            line_ = std::string_view{buffer_}.substr(begin_, end - begin_);
            begin_ = end + 1;
            return true;
        }
        buffer_.erase(0, begin_);
        begin_ = 0;
        searched = buffer_.size();
        if (searched > kLongestLine) {
            ++number_;
            return damage("is too long");
        }
        buffer_.resize(searched + kBlock);
        const std::ptrdiff_t length = source_(std::span{buffer_}.subspan(searched));
        const int error = errno;
        buffer_.resize(searched + static_cast<std::size_t>(std::max<std::ptrdiff_t>(length, 0)));
        if (length < 0) {
            return fileFailure(printable(name_), error);
        }
        if (length == 0) {
            if (!buffer_.empty()) {
                ++number_;
                return damage("has no end: the file is cut off");
            }
            return false;
        }
    }
}

std::optional<Failure> RecordReader::takeHead() {
    if (line_ != kFirstLine) {
        return damage("is not the beginning of one");
    }
    const Outcome<bool> hasLine = readLine();
    if (!hasLine) {
        return hasLine.failure();
    }
    // "# /mount/point on 2026-01-01 ..."; what is escaped has no blanks.
    std::string_view text = line_;
    if (!*hasLine || !text.starts_with("# /")) {
        return damage("does not name the volume");
    }
    text.remove_prefix(2);
    if (!unescape(text.substr(0, text.find(' ')), mountPoint_)) {
        return damage("does not name the volume");
    }
    return std::nullopt;
}

std::optional<Failure> RecordReader::takeNote() {
    if (line_ == kCutShort) {
        isCutShort_ = true;
        return std::nullopt;
    }
    const std::size_t end = line_.find(kCannotBeRead);
    if (!line_.starts_with("# ./") || end == std::string_view::npos) {
        return std::nullopt;
    }
    std::string path;
    if (!takePath(line_.substr(2, end - 2), path)) {
        return damage("names no path");
    }
    silent_.insert(std::move(path));
    return std::nullopt;
}

Outcome<RecordEntry> RecordReader::takeEntry() {
    const std::size_t blank = line_.find(' ');
    const std::string_view words = blank == std::string_view::npos ? "" : line_.substr(blank + 1);
    previous_.swap(path_);
    if (!takePath(line_.substr(0, blank), path_)) {
        return damage("names no path");
    }
    const RecordEntry entry{.path = path_, .words = words};
    if (!areWords(words) || !entry.word("type")) {
        return damage("does not say what it is about");
    }
    if (isBegun_ ? compareRecordPaths(previous_, path_) >= 0 : !path_.empty()) {
        return damage("is not in its place");
    }
    isBegun_ = true;
    // What is mounted on a folder hides what the folder holds.
    if (entry.word("type") == "dir" && !entry.word("mode")) {
        silent_.insert(path_);
    }
    return entry;
}

Outcome<std::optional<RecordEntry>> RecordReader::next() {
    forgetPassed();
    for (;;) {
        const Outcome<bool> hasLine = readLine();
        if (!hasLine) {
            return hasLine.failure();
        }
        if (!*hasLine) {
            if (number_ == 0) {
                ++number_;
                return damage("is missing: the file is empty");
            }
            return std::optional<RecordEntry>{};
        }
        std::optional<Failure> failure;
        if (number_ == 1) {
            failure = takeHead();
        } else if (line_.starts_with('#')) {
            failure = takeNote();
        } else if (!line_.empty()) {
            Outcome<RecordEntry> entry = takeEntry();
            return entry ? Outcome<std::optional<RecordEntry>>{*entry} : entry.failure();
        }
        if (failure) {
            return *failure;
        }
    }
}

bool RecordReader::isSilentAbout(std::string_view path) const {
    if (silent_.empty()) {
        return false;
    }
    for (std::size_t end = path.find('/');; end = path.find('/', end + 1)) {
        if (silent_.contains(path.substr(0, end))) {
            return true;
        }
        if (end == std::string_view::npos) {
            return false;
        }
    }
}

// A folder's names come before what is in the folders among them: so what lies before the folder of
// the path is over, unless the path is below it.
void RecordReader::forgetPassed() {
    const std::size_t slash = path_.rfind('/');
    const std::string_view folder{path_.data(), slash == std::string::npos ? 0 : slash};
    while (!silent_.empty()) {
        const std::string& first = *silent_.begin();
        const bool isAbove = folder.starts_with(first) &&
                             (folder.size() == first.size() || folder[first.size()] == '/');
        if (isAbove || !InOrder{}(first, folder)) {
            return;
        }
        silent_.erase(silent_.begin());
    }
}

}  // namespace korvane::ctl
