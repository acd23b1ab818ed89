#include "KorvaneProDirectoryBackup/RecordFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

namespace korvane {

namespace {

// Few calls for much text; a page cache takes this size as one piece.
constexpr std::size_t kFlushSize = 256 * 1024;
// As an ordinary program's new file; the umask takes away what is not wanted.
constexpr mode_t kPermissions = 0666;

Error errorAt(const std::string& path, int number) {
    return Error{"\"" + path + "\": " + std::generic_category().message(number)};
}

// What the signal handler removes; empty: nothing.
std::array<char, PATH_MAX> pathToRemove{};

void removeAndEnd(int signal) {
    if (pathToRemove[0] != '\0') (void)::unlink(pathToRemove.data());
    ::_exit(128 + signal);  // as a shell tells of a signal
}

void removeOnSignal(const std::string& path) {
    if (path.size() >= pathToRemove.size()) return;
    std::memcpy(pathToRemove.data(), path.c_str(), path.size() + 1);
    struct sigaction action {};
    action.sa_handler = removeAndEnd;
    (void)::sigaction(SIGINT, &action, nullptr);
    (void)::sigaction(SIGTERM, &action, nullptr);
}

constexpr std::string_view kHiddenEnd = ".partial";

std::string hiddenName(pid_t process) { return '.' + std::to_string(process).append(kHiddenEnd); }

// The process whose hidden file has this name; 0 when it is no such name.
pid_t processOfHiddenName(std::string_view name) {
    if (!name.starts_with('.') || !name.ends_with(kHiddenEnd)) return 0;
    pid_t process = 0;
    const char* const end = name.data() + name.size() - kHiddenEnd.size();
    const auto [rest, error] = std::from_chars(name.data() + 1, end, process);
    return error == std::errc() && rest == end && process > 0 ? process : 0;
}

// What was left in the folder by helpers that were killed.
void removeOrphans(const std::string& folder) {
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        const pid_t process = processOfHiddenName(it->path().filename().native());
        const bool isOver = process != 0 && ::kill(process, 0) != 0 && errno == ESRCH;
        if (isOver) (void)::unlink(it->path().c_str());  // the next helper tries again
    }
}

// Neither replaces what is there.
int nameFile(int file, const std::string& hiddenPath, const std::string& path) {
    if (hiddenPath.empty()) {
        const std::string nameless = "/proc/self/fd/" + std::to_string(file);
        return ::linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
    }
    const int status =
        ::renameat2(AT_FDCWD, hiddenPath.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE);
    // rename(2): the file system does not know the flag.
    if (status == 0 || errno != EINVAL) return status;
    if (::link(hiddenPath.c_str(), path.c_str()) != 0) return -1;
    (void)::unlink(hiddenPath.c_str());  // a second name of a whole file, which no one counts
    return 0;
}

}  // namespace

Result<RecordFile> RecordFile::create(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return Error{"\"" + path + "\" is no full path"};
    if (::access(path.c_str(), F_OK) == 0) return errorAt(path, EEXIST);
    const std::string folder = path.substr(0, slash + 1);
    UniqueFd file{::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kPermissions)};
    if (file) return RecordFile(path, "", std::move(file));
    // EISDIR comes from file systems and kernels that do not know the flag (open(2)).
    if (errno != EOPNOTSUPP && errno != EISDIR) return errorAt(path, errno);
    removeOrphans(folder);
    const std::string hidden = folder + hiddenName(::getpid());
    removeOnSignal(hidden);
    file = UniqueFd{
        ::open(hidden.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, kPermissions)};
    if (!file) return errorAt(hidden, errno);
    return RecordFile(path, hidden, std::move(file));
}

RecordFile::RecordFile(std::string path, std::string hiddenPath, UniqueFd file)
    : path_(std::move(path)), hiddenPath_(std::move(hiddenPath)), file_(std::move(file)) {
    text_.reserve(kFlushSize + PATH_MAX);
}

RecordFile::RecordFile(RecordFile&& other) noexcept
    : path_(std::move(other.path_)),
      hiddenPath_(std::exchange(other.hiddenPath_, {})),
      file_(std::move(other.file_)),
      text_(std::move(other.text_)),
      failure_(other.failure_) {}

RecordFile::~RecordFile() {
    if (!hiddenPath_.empty()) (void)::unlink(hiddenPath_.c_str());  // nothing more can be done
}

bool RecordFile::flush() {
    if (text_.size() >= kFlushSize) write();
    return failure_ == 0;
}

void RecordFile::write() {
    std::string_view left = text_;
    while (!left.empty() && failure_ == 0) {
        const ssize_t written = ::write(file_.get(), left.data(), left.size());
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            failure_ = errno;
        }
    }
    text_.clear();
}

void RecordFile::resemble(const struct stat& other) {
    write();  // the date is that of the last write otherwise
    (void)::fchmod(file_.get(), other.st_mode & 0777);
    const std::array<timespec, 2> times{other.st_atim, other.st_mtim};
    (void)::futimens(file_.get(), times.data());
}

Result<std::monostate> RecordFile::commit() {
    write();
    if (failure_ == 0 && ::fsync(file_.get()) != 0) failure_ = errno;
    if (failure_ != 0) return errorAt(path_, failure_);
    if (nameFile(file_.get(), hiddenPath_, path_) != 0) return errorAt(path_, errno);
    hiddenPath_.clear();
    return std::monostate{};
}

}  // namespace korvane
