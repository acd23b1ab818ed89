#include "korvanectl/Preferences.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <thread>
#include <utility>

#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"
#include "core/DefaultPreferences.h"
#include "platform/linux/UniqueFd.h"
#include "storage/SupportFolder.h"

namespace korvane::ctl {

namespace {

// The daemon saves when a check ends, a second or more apart: losing this often is no accident.
constexpr int kEditTries = 8;

// Keeps edits by several korvanectl out of each other's way: each would make sure of its own change
// and might write the other's away. The daemon knows nothing of it. Anybody who may read the folder
// may hold the lock, so it is not waited for longer than a whole edit takes.
class EditTurn {
  public:
    explicit EditTurn(const std::string& folder)
        : folder_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
        while (folder_ && flock(folder_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(kPause);
        }
    }

  private:
    static constexpr std::chrono::seconds kLongestWait{10};
    static constexpr std::chrono::milliseconds kPause{10};
    UniqueFd folder_;
};

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

Outcome<Document> Preferences::document() const {
    Outcome<std::optional<Document>> found = readDocument(path_);
    if (!found) {
        return found.failure();
    }
    if (!*found) {
        return Failure{ExitStatus::fileProblem,
                       fmt::format("there is no {}; the daemon makes it when it starts", path_)};
    }
    return std::move(**found);
}

Outcome<Dictionary> Preferences::read() const {
    Outcome<Document> found = document();
    if (!found) {
        return found.failure();
    }
    return std::move(found->contents);
}

Outcome<std::monostate> Preferences::write(const Dictionary& preferences) const {
    // The safety copy is made beside the file, so the right to write the file alone is not enough.
    if (access(folderOf(path_).c_str(), W_OK) < 0 || access(path_.c_str(), W_OK) < 0) {
        return fileFailure(path_, errno);
    }
    const auto written = writeInPlace(path_, formatPropertyList(preferences),
                                      kSharedFilePermissions, Durability::powerLoss);
    if (!written) {
        return Failure{ExitStatus::fileProblem,
                       fmt::format("cannot write {}: {}", path_, written.error().message)};
    }
    return std::monostate{};
}

Outcome<Told> Preferences::edit(DaemonLink& daemon, const Edit& edit) const {
    const EditTurn turn{folderOf(path_)};
    for (int attempt = 0; attempt < kEditTries; ++attempt) {
        if (attempt > 0) {
            std::this_thread::sleep_for(pause_);
        }
        const Outcome<Document> before = document();
        if (!before) {
            return before.failure();
        }
        if (before->contents.size() < kFewestPreferences) {
            return Failure{ExitStatus::fileProblem,
                           fmt::format("{} holds only {} settings and the daemon will put its "
                                       "defaults over them; let it do so first with: korvanectl "
                                       "reload",
                                       path_, before->contents.size())};
        }
        Dictionary edited = before->contents;
        if (const auto applied = edit.apply(edited); !applied) {
            return applied.failure();
        }
        if (!holdsExactly(path_, before->text)) {
            continue;
        }
        if (edited != before->contents) {
            if (const auto written = write(edited); !written) {
                return written.failure();
            }
        }
        const Outcome<bool> told = daemon.send(edit.word);
        const Outcome<Dictionary> after = read();
        if (!after) {
            return after.failure();
        }
        const bool absent = !told && told.failure().status == ExitStatus::noDaemon &&
                            daemon.presence() == DaemonPresence::absent;
        if (edit.holds(*after) && (told || absent)) {
            return told ? Told::daemon : Told::nobody;
        }
        if (!told && !absent) {
            return Failure{told.failure().status,
                           fmt::format("the change {} the file, but {}",
                                       edit.holds(*after) ? "is in" : "did not stay in",
                                       told.failure().message)};
        }
    }
    return Failure{ExitStatus::fileProblem,
                   fmt::format("another program keeps writing over {}; the change was made {} "
                               "times and lost each time: stop the daemon for this edit",
                               path_, kEditTries)};
}

}  // namespace korvane::ctl
