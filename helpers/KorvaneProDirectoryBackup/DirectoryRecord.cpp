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

#include "KorvaneProDirectoryBackup/RecordLine.h"
#include "platform/linux/FolderDescent.h"

namespace korvane {

namespace {

constexpr int kLook = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
constexpr unsigned kFields = STATX_BASIC_STATS;

class RecordWriter {
  public:
    RecordWriter(FolderDescent& descent, RecordFile& file) : descent_(descent), file_(file) {}

    // Everything below the folder that the descent stands in.
    bool writeAll();

  private:
    void writeNames(std::vector<FolderDescent::Name> names);
    void writeEntry(const std::string& name, bool& isFolderToEnter);
    void note(std::string_view name, int number);

    FolderDescent& descent_;
    RecordFile& file_;
    std::string prefix_ = "./";  // of the current folder, escaped
    // Per level, the folders still to be entered, the last first.
    std::vector<std::vector<std::string>> toEnter_;
};

bool RecordWriter::writeAll() {
    std::vector<FolderDescent::Name> names;
    if (!descent_.read(names)) return false;
    writeNames(std::move(names));
    while (file_.flush() && !toEnter_.empty()) {
        if (toEnter_.back().empty()) {
            toEnter_.pop_back();
            if (toEnter_.empty()) break;
            prefix_.resize(prefix_.rfind('/', prefix_.size() - 2) + 1);
            if (!descent_.leave()) {
                file_.text() += "# The way back up was moved: the record ends here.\n";
                break;
            }
            continue;
        }
        const std::string name = std::move(toEnter_.back().back());
        toEnter_.back().pop_back();
        const FolderDescent::Step step = descent_.enter(name);
        if (step == FolderDescent::Step::failed) note(name, errno);
        if (step != FolderDescent::Step::entered) continue;
        names.clear();
        // What was read before an error is told all the same.
        if (!descent_.read(names)) note(name, errno);
        appendEscaped(prefix_, name);
        prefix_ += '/';
        writeNames(std::move(names));
    }
    return true;
}

void RecordWriter::writeNames(std::vector<FolderDescent::Name> names) {
    std::sort(names.begin(), names.end(),
              [](const auto& first, const auto& second) { return first.text < second.text; });
    std::vector<std::string>& folders = toEnter_.emplace_back();
    for (FolderDescent::Name& name : names) {
        bool isFolderToEnter = false;
        writeEntry(name.text, isFolderToEnter);
        if (isFolderToEnter) folders.push_back(std::move(name.text));
        if (!file_.flush()) return;
    }
    std::reverse(folders.begin(), folders.end());
}

void RecordWriter::writeEntry(const std::string& name, bool& isFolderToEnter) {
    struct statx status {};
    if (::statx(descent_.folder(), name.c_str(), kLook, kFields, &status) != 0) {
        note(name, errno);
        return;
    }
    std::string& text = file_.text();
    text += prefix_;
    appendEscaped(text, name);
    if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        // What can be seen of it belongs to what is mounted there.
        text += S_ISDIR(status.stx_mode) ? " type=dir\n" : " type=file\n";
        return;
    }
    std::array<char, PATH_MAX> target;
    std::string_view linkTarget;
    if (S_ISLNK(status.stx_mode)) {
        const ssize_t size =
            ::readlinkat(descent_.folder(), name.c_str(), target.data(), target.size());
        if (size > 0) linkTarget = {target.data(), static_cast<std::size_t>(size)};
    }
    appendEntry(text, "", status, linkTarget);
    isFolderToEnter = S_ISDIR(status.stx_mode);
}

// What has just vanished is no entry of the volume any more.
void RecordWriter::note(std::string_view name, int number) {
    if (number == ENOENT) return;
    std::string& text = file_.text();
    text.append("# ").append(prefix_);
    appendEscaped(text, name);
    text.append(" cannot be read: ").append(std::generic_category().message(number)).append("\n");
}

}  // namespace

Result<std::monostate> writeDirectoryRecord(const std::string& mountPath, Time now,
                                            RecordFile& file) {
    FolderDescent descent;
    struct statx status {};
    if (!descent.begin(AT_FDCWD, mountPath) ||
        ::statx(descent.folder(), "", AT_EMPTY_PATH, kFields, &status) != 0) {
        return Error{"\"" + mountPath + "\": " + std::generic_category().message(errno)};
    }
    std::string& text = file.text();
    text += "#mtree\n# ";
    appendEscaped(text, mountPath);
    text.append(" on ").append(calendarDateDescription(now)).append("\n");
    appendEntry(text, ".", status, "");
    if (!RecordWriter(descent, file).writeAll()) {
        return Error{"\"" + mountPath + "\": " + std::generic_category().message(errno)};
    }
    return std::monostate{};
}

}  // namespace korvane
