// Copies a file into a folder with the file rights of the folder's owner and no others.
//   KorvaneProCopy USER-ID GROUP-ID NAME < FILE > FOLDER
// Neither the file nor the folder is named: both are handed over open, so nobody can exchange them.
// The copy gets its name when it is whole, keeps the file's date and permissions, and replaces
// nothing. Ends with 0 then, else with 1, one line on standard error and no copy.
//
// The user id of the process stays that of the daemon, so the account can neither stop nor trace
// it.
#include <linux/capability.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "KorvaneProDirectoryBackup/RecordFile.h"

namespace {

using namespace korvane;

// The folder in the place of the standard output. By this path it is reached however it is renamed
// (proc_pid_fd(5)).
constexpr char kFolder[] = "/proc/self/fd/1/";
constexpr std::size_t kPieceSize = 64 * 1024;

int fail(const std::string& why) {
    (void)std::fprintf(stderr, "KorvaneProCopy: %s\n", why.c_str());
    return EXIT_FAILURE;
}

int fail(const char* what, int number) {
    return fail(what + (": " + std::generic_category().message(number)));
}

std::optional<unsigned> idFrom(std::string_view text) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

bool isName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// From here on the kernel sees this account in every check of a file, and nothing else is allowed.
bool becomeOf(unsigned user, unsigned group) {
    constexpr auto kImpossible = static_cast<uid_t>(-1);
    const bool isPrivileged = ::geteuid() == 0;
    if (isPrivileged && ::syscall(SYS_setgroups, 0, nullptr) != 0) return false;
    (void)::setfsgid(group);
    (void)::setfsuid(user);
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    return ::syscall(SYS_capset, &header, none.data()) == 0 &&
           ::setfsgid(kImpossible) == static_cast<int>(group) &&
           ::setfsuid(kImpossible) == static_cast<int>(user);
}

int copyTo(const std::string& name) {
    struct stat source {};
    if (::fstat(STDIN_FILENO, &source) != 0) return fail("standard input", errno);
    if (!S_ISREG(source.st_mode)) return fail("standard input is no file");
    Result<RecordFile> copy = RecordFile::create(kFolder + name);
    if (!copy) return fail(copy.error().message);
    std::array<char, kPieceSize> piece;
    while (true) {
        const ssize_t got = ::read(STDIN_FILENO, piece.data(), piece.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return fail("standard input", errno);
        if (got == 0) break;
        copy->text().append(piece.data(), static_cast<std::size_t>(got));
        if (!copy->flush()) break;  // commit() says why
    }
    copy->resemble(source);
    const Result<std::monostate> committed = copy->commit();
    return committed ? EXIT_SUCCESS : fail(committed.error().message);
}

}  // namespace

int main(int count, char** arguments) {
    const std::optional<unsigned> user = count == 4 ? idFrom(arguments[1]) : std::nullopt;
    const std::optional<unsigned> group = count == 4 ? idFrom(arguments[2]) : std::nullopt;
    if (!user || !group || !isName(arguments[3])) {
        return fail("takes a user id, a group id and the name of the copy");
    }
    try {
        if (!becomeOf(*user, *group)) return fail("the account's rights", errno);
        return copyTo(arguments[3]);
    } catch (const std::exception& failure) {
        return fail(failure.what());
    }
}
