#include "platform/linux/FileRights.h"

#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace korvane {

namespace {

// The kernel's group of nobody at all (/proc/sys/kernel/overflowgid).
constexpr gid_t kNoGroup = 65534;
// Room for the longest record that a name service gives out (sysconf's suggestion is 1024).
constexpr std::size_t kAccountBufferSize = 16 * 1024;

// The C library's setgroups() sets the groups of every thread; the call itself those of its own.
bool setGroupsOfThread(const std::vector<gid_t>& groups) {
    return ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

// The calls answer what was before and never fail: what holds is asked for with an impossible id.
bool takeFileIds(uid_t user, gid_t group) {
    constexpr auto kImpossible = static_cast<uid_t>(-1);
    // While the user is still root: afterwards the group could not be changed.
    (void)::setfsgid(group);
    (void)::setfsuid(user);
    return ::setfsgid(kImpossible) == static_cast<int>(group) &&
           ::setfsuid(kImpossible) == static_cast<int>(user);
}

}  // namespace

Account accountOf(uid_t user) {
    std::array<char, kAccountBufferSize> buffer;
    passwd record{};
    passwd* found = nullptr;
    const int error = ::getpwuid_r(user, &record, buffer.data(), buffer.size(), &found);
    return {user, error == 0 && found != nullptr ? record.pw_gid : kNoGroup};
}

FileRights::FileRights(const std::optional<Account>& account) {
    if (!account) return;
    areTaken_ = false;
    const int count = ::getgroups(0, nullptr);
    if (count < 0) return;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgroups(count, groups.data()) != count || !setGroupsOfThread({})) return;
    groupsBefore_ = std::move(groups);
    // With the user id the kernel takes away the capabilities that override permissions, and gives
    // them back with it (capabilities(7)).
    areTaken_ = takeFileIds(account->userId, account->groupId);
}

FileRights::~FileRights() {
    if (!groupsBefore_) return;
    // The thread's effective ids may always be taken on again.
    (void)::setfsuid(::geteuid());
    (void)::setfsgid(::getegid());
    (void)setGroupsOfThread(*groupsBefore_);  // what could drop them can set them
}

}  // namespace korvane
