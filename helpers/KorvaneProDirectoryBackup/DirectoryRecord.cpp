#include "KorvaneProDirectoryBackup/DirectoryRecord.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "KorvaneProDirectoryBackup/MountPoints.h"
#include "KorvaneProDirectoryBackup/RecordLine.h"
#include "platform/linux/FolderDescent.h"

namespace korvane {

namespace {

constexpr int kLook = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
constexpr unsigned kFields = STATX_BASIC_STATS;

// The path that the kernel knows the open folder by: absolute, without links.
std::string pathOf(int folder) {
    std::array<char, PATH_MAX> path;
    const std::string link = "/proc/self/fd/" + std::to_string(folder);
    const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
    return size > 0 ? std::string(path.data(), static_cast<std::size_t>(size)) : std::string();
}

class RecordWriter {
  public:
    RecordWriter(const std::string& mountPath, RecordFile& file)
        : mountPath_(mountPath), file_(file), mountPoints_(MountPoints::ofThisProcess()) {}

    // The volume's own folder; false, with errno set, when it cannot be looked at.
    [[nodiscard]] bool begin();
    [[nodiscard]] const struct statx& top() const { return top_; }
    // Everything below it.
    [[nodiscard]] bool writeAll();

  private:
    [[nodiscard]] bool openTop(struct statx& status);
    [[nodiscard]] bool goBack();
    [[nodiscard]] bool comeBackFromTop();
    void goInto(std::string name);
    void writeNames(std::vector<FolderDescent::Name> names);
    void writeEntry(const FolderDescent::Name& name, bool& isFolderToEnter);
    void note(std::string_view name, std::string_view what);
    void noteFailure(std::string_view name, int number);
    void composePrefix();

    const std::string& mountPath_;
    RecordFile& file_;
    const MountPoints mountPoints_;
    FolderDescent descent_;
    struct statx top_ {};
    std::string topPath_;            // as the kernel knows it, without a closing "/"
    std::vector<std::string> path_;  // names, from below the top to the current folder
    std::string prefix_ = "./";      // of the current folder, escaped
    const MountPoints::Names* mountedHere_ = nullptr;  // null: nothing is mounted in it
    // Per level, the folders still to be entered, the last first.
    std::vector<std::vector<std::string>> toEnter_;
};

bool RecordWriter::openTop(struct statx& status) {
    return descent_.begin(AT_FDCWD, mountPath_) &&
           ::statx(descent_.folder(), "", AT_EMPTY_PATH, kFields, &status) == 0;
}

bool RecordWriter::begin() {
    if (!openTop(top_)) return false;
    topPath_ = pathOf(descent_.folder());
    composePrefix();
    return true;
}

bool RecordWriter::writeAll() {
    std::vector<FolderDescent::Name> names;
    if (!descent_.read(names)) return false;
    writeNames(std::move(names));
    while (file_.flush() && !toEnter_.empty()) {
        if (toEnter_.back().empty()) {
            toEnter_.pop_back();
            if (!toEnter_.empty() && !goBack()) return false;
            continue;
        }
        std::string name = std::move(toEnter_.back().back());
        toEnter_.back().pop_back();
        goInto(std::move(name));
    }
    return true;
}

void RecordWriter::goInto(std::string name) {
    switch (descent_.enter(name)) {
        case FolderDescent::Step::entered:
            break;
        case FolderDescent::Step::failed:
            return noteFailure(name, errno);
        case FolderDescent::Step::anotherFileSystem:
            return note(name, "belongs to another file system");
        case FolderDescent::Step::notAFolder:
            return;  // not any more
    }
    std::vector<FolderDescent::Name> names;
    // What was read before an error is told all the same.
    if (!descent_.read(names)) noteFailure(name, errno);
    path_.push_back(std::move(name));
    composePrefix();
    writeNames(std::move(names));
}

bool RecordWriter::goBack() {
    path_.pop_back();
    const bool isBack = descent_.leave() || comeBackFromTop();
    composePrefix();
    return isBack;
}

// Somebody has moved a folder that was on the way: the way down is taken anew, as far as it is
// there. False, with errno set, when the volume itself is gone.
bool RecordWriter::comeBackFromTop() {
    struct statx status {};
    if (!openTop(status)) return false;
    if (status.stx_dev_major != top_.stx_dev_major || status.stx_dev_minor != top_.stx_dev_minor ||
        status.stx_ino != top_.stx_ino) {
        errno = ENODEV;
        return false;
    }
    for (std::size_t level = 0; level < path_.size(); ++level) {
        if (descent_.enter(path_[level]) == FolderDescent::Step::entered) continue;
        const std::string lost = path_[level];
        path_.resize(level);
        toEnter_.resize(level + 1);
        composePrefix();
        note(lost, "was moved away: what was still to be told of it is missing");
        break;
    }
    return true;
}

void RecordWriter::composePrefix() {
    prefix_ = "./";
    std::string folder = topPath_ == "/" ? "" : topPath_;
    for (const std::string& name : path_) {
        appendEscaped(prefix_, name);
        prefix_ += '/';
        folder.append("/").append(name);
    }
    mountedHere_ = mountPoints_.in(folder.empty() ? "/" : folder);
}

void RecordWriter::writeNames(std::vector<FolderDescent::Name> names) {
    std::sort(names.begin(), names.end(),
              [](const auto& first, const auto& second) { return first.text < second.text; });
    std::vector<std::string>& folders = toEnter_.emplace_back();
    for (FolderDescent::Name& name : names) {
        bool isFolderToEnter = false;
        writeEntry(name, isFolderToEnter);
        if (isFolderToEnter) folders.push_back(std::move(name.text));
        if (!file_.flush()) return;
    }
    std::reverse(folders.begin(), folders.end());
}

void RecordWriter::writeEntry(const FolderDescent::Name& name, bool& isFolderToEnter) {
    std::string& text = file_.text();
    const auto tellMountPoint = [&](bool isFolder) {
        // What can be seen of it belongs to what is mounted there.
        text += prefix_;
        appendEscaped(text, name.text);
        text += isFolder ? " type=dir\n" : " type=file\n";
    };
    if (mountedHere_ && mountedHere_->contains(name.text)) return tellMountPoint(name.mayBeFolder);
    struct statx status {};
    if (::statx(descent_.folder(), name.text.c_str(), kLook, kFields, &status) != 0) {
        return noteFailure(name.text, errno);
    }
    // Mounted since.
    if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        return tellMountPoint(S_ISDIR(status.stx_mode));
    }
    text += prefix_;
    appendEscaped(text, name.text);
    std::array<char, PATH_MAX> target;
    std::string_view linkTarget;
    if (S_ISLNK(status.stx_mode)) {
        const ssize_t size =
            ::readlinkat(descent_.folder(), name.text.c_str(), target.data(), target.size());
        if (size > 0) linkTarget = {target.data(), static_cast<std::size_t>(size)};
    }
    appendEntry(text, "", status, linkTarget);
    isFolderToEnter = S_ISDIR(status.stx_mode);
}

void RecordWriter::note(std::string_view name, std::string_view what) {
    std::string& text = file_.text();
    text.append("# ").append(prefix_);
    appendEscaped(text, name);
    text.append(" ").append(what).append("\n");
}

// What has just vanished is no entry of the volume any more.
void RecordWriter::noteFailure(std::string_view name, int number) {
    if (number == ENOENT) return;
    note(name, "cannot be read: " + std::generic_category().message(number));
}

}  // namespace

Result<std::monostate> writeDirectoryRecord(const std::string& mountPath, Time now,
                                            RecordFile& file) {
    RecordWriter writer(mountPath, file);
    const auto failed = [&] {
        return Error{"\"" + mountPath + "\": " + std::generic_category().message(errno)};
    };
    if (!writer.begin()) return failed();
    std::string& text = file.text();
    text += "#mtree\n# ";
    appendEscaped(text, mountPath);
    text.append(" on ").append(calendarDateDescription(now)).append("\n");
    appendEntry(text, ".", writer.top(), "");
    if (!writer.writeAll()) return failed();
    return std::monostate{};
}

}  // namespace korvane
