// trash recover: brings an item of the trash history back, from the trash while it is there, from
// the device by its recorded extents after that.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "korvanectl/Document.h"
#include "korvanectl/Program.h"
#include "korvanectl/Progress.h"
#include "korvanectl/RecordedTree.h"
#include "korvanectl/TrashCopy.h"
#include "korvanectl/TrashHistory.h"
#include "korvanectl/Words.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kUnknowable =
    "The device was read where the contents lay when they were recorded. Whether those blocks were "
    "used again since, or discarded as SSDs do, cannot be known without a checksum.";
constexpr std::string_view kUsedAgain =
    "has the recorded size but not the recorded contents: blocks were used again or discarded";

std::string counted(std::uint64_t count, std::string_view one) {
    return fmt::format("{} {}{}", count, one, count == 1 ? "" : "s");
}

// In a folder that is there, under the item's own name.
fs::path targetOf(const std::string& where, const std::string& name) {
    std::error_code none;
    if (fs::is_directory(where, none)) return fs::path{where} / name;
    const fs::path target = where;
    return target.has_filename() ? target : target.parent_path();
}

// ---- While it is in the trash
// --------------------------------------------------------------------

Outcome<ExitStatus> runCopy(Program& program, const ItemInTrash& item, const fs::path& target) {
    const bool isFile = S_ISREG(item.status.st_mode);
    Progress progress{program.progress,
                      isFile ? static_cast<std::uint64_t>(item.status.st_size) : 0};
    const auto copied =
        copyFromTrash(item, target, [&progress](std::uint64_t done) { progress(done); });
    if (!copied) return copied.failure();
    if (program.json) {
        PropertyListArray missing(copied->missing.begin(), copied->missing.end());
        printJson(program, Dictionary{{"from", "trash"},
                                      {"target", target.string()},
                                      {"files", copied->files},
                                      {"folders", copied->folders},
                                      {"bytes", copied->bytes},
                                      {"missing", std::move(missing)}});
    } else {
        const std::string what = S_ISDIR(item.status.st_mode)
                                     ? fmt::format("{} in {}", counted(copied->files, "file"),
                                                   counted(copied->folders, "folder"))
                                     : "it";
        program.print(fmt::format("Copied {}, {}, from the trash, where it still is.\n", what,
                                  sizeWords(static_cast<double>(copied->bytes))));
        for (const std::string& missing : copied->missing) {
            program.note("not copied: " + printable(missing));
        }
    }
    return copied->missing.empty() ? ExitStatus::done : ExitStatus::fileProblem;
}

// ---- After it was emptied
// ------------------------------------------------------------------------

// Nothing when the target lies on another volume than the device number's.
std::optional<Failure> objectionToTarget(const fs::path& target, dev_t volume) {
    struct stat status {};
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path{"."};
    if (::stat(folder.c_str(), &status) != 0) return fileFailure(folder.string(), errno);
    if (status.st_dev != volume) return std::nullopt;
    return Failure{ExitStatus::refused,
                   "the target lies on the item's own volume, where writing may destroy what is to "
                   "be recovered; take one on another volume"};
}

// The mounted volume with the recorded file system's id.
struct Volume {
    std::string device;
    dev_t number = 0;
    // The id is only the device's number (XFS, FAT and others): another volume may have had it when
    // the item was recorded.
    bool isKnownByNumber = false;
};
std::optional<Volume> volumeOf(Program& program, std::uint64_t id) {
    Volumes& volumes = program.volumes();
    for (const std::string& path : volumes.mountedLocalVolumePaths()) {
        struct statfs system {};
        struct stat status {};
        std::uint64_t found = 0;
        const std::string bytes = bytesOfText(path);
        if (::statfs(bytes.c_str(), &system) != 0 || ::stat(bytes.c_str(), &status) != 0) continue;
        std::memcpy(&found, &system.f_fsid, sizeof found);
        const MountEntry* const mount = volumes.mountAt(path);
        if (found == id && id != 0 && mount != nullptr) {
            return Volume{bytesOfText(mount->mountFromName), status.st_dev,
                          isDeviceNumber(id, status.st_dev)};
        }
    }
    return std::nullopt;
}

// Past the page cache, which may hold what the device held before.
UniqueFd openDevice(const std::string& path) {
    UniqueFd device{::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC)};
    struct stat status {};
    const bool isDevice = device && ::fstat(device.get(), &status) == 0 && S_ISBLK(status.st_mode);
    return isDevice ? std::move(device) : UniqueFd{};
}

std::string proofToken(const RecoveredFile& file) {
    if (!file.proof) return "notRecovered";
    switch (*file.proof) {
        case ContentProof::checksumMatches:
            return "sizeAndChecksum";
        case ContentProof::checksumDiffers:
            return "checksumDiffers";
        case ContentProof::sizeAlone:
            break;
    }
    return "size";
}

bool isRecovered(const RecoveredFile& file) {
    return file.proof && *file.proof != ContentProof::checksumDiffers;
}

PropertyListArray filesJson(const std::vector<RecoveredFile>& files) {
    PropertyListArray json;
    for (const RecoveredFile& file : files) {
        Dictionary each{{"path", file.path}, {"verified", proofToken(file)}};
        if (file.proof) each.set("bytes", file.bytes);
        if (!file.reason.empty()) each.set("reason", file.reason);
        json.emplace_back(std::move(each));
    }
    return json;
}

// What was verified, and what cannot be known.
std::string verification(const std::vector<RecoveredFile>& files) {
    const auto count = [&files](ContentProof proof) {
        return static_cast<std::size_t>(
            std::count_if(files.begin(), files.end(),
                          [proof](const RecoveredFile& file) { return file.proof == proof; }));
    };
    const std::size_t whole = count(ContentProof::checksumMatches);
    const std::size_t bySize = count(ContentProof::sizeAlone);
    std::string text;
    if (whole > 0) {
        text += files.size() == 1
                    ? "Verified: the size, and the SHA-256 of the contents as recorded.\n"
                    : fmt::format("Verified by size and SHA-256 as recorded: {}.\n",
                                  counted(whole, "file"));
    }
    if (bySize > 0) {
        text += files.size() == 1 ? "Verified: the size alone; no checksum was recorded.\n"
                                  : fmt::format(
                                        "Verified by size alone, for want of a checksum: "
                                        "{}.\n",
                                        counted(bySize, "file"));
        text += fmt::format("{}\n", kUnknowable);
    }
    return text;
}

void tellRecovered(Program& program, const std::vector<RecordedItem>& items,
                   const std::vector<RecoveredFile>& files, const std::string& device) {
    std::uint64_t bytes = 0;
    std::size_t recovered = 0;
    for (const RecoveredFile& file : files) {
        if (!isRecovered(file)) {
            const std::string& name = file.path.empty() ? items.front().name : file.path;
            program.note(printable(name) +
                         (file.proof ? fmt::format(" {}", kUsedAgain) : ": " + file.reason));
            continue;
        }
        ++recovered;
        bytes += file.bytes;
    }
    const bool isFolder = S_ISDIR(items.front().mode);
    if (isFolder || recovered > 0) {
        program.print(fmt::format(
            "Recovered {}{} from {}.\n",
            isFolder ? fmt::format("{} of {}, ", recovered, counted(files.size(), "file")) : "",
            sizeWords(static_cast<double>(bytes)), device));
    }
    program.print(verification(files));
    if (isFolder && (items.front().flags & kRecordFolderCut) != 0) {
        program.note("the folder held more than was recorded");
    }
}

// What the user must know before trusting anything that was read.
void tellDoubts(Program& program, const HistoryItem& wanted, const Volume& volume,
                const std::vector<RecoveredFile>& files) {
    if (wanted.state == TrashState::removed) {
        program.note(
            "the item was put back, or moved out of the trash: what was read is its contents as "
            "they were recorded, if nothing was written to it since");
    }
    const bool isProven = std::none_of(files.begin(), files.end(), [](const auto& file) {
        return file.proof == ContentProof::sizeAlone;
    });
    if (volume.isKnownByNumber && !isProven) {
        program.note(fmt::format(
            "{} cannot be told from another volume that had its device number when the item was "
            "recorded: without a checksum the contents may be those of something else",
            volume.device));
    }
}

// Made again from its record, from no volume.
Outcome<ExitStatus> runLink(Program& program, const std::vector<RecordedItem>& items,
                            const fs::path& target) {
    const auto made = recoverTree(items, -1, target, [](std::uint64_t) {});
    if (!made) return made.failure();
    const std::string& leadsTo = items.front().linkTarget;
    if (program.json) {
        printJson(
            program,
            Dictionary{{"from", "record"}, {"target", target.string()}, {"linkTarget", leadsTo}});
    } else {
        program.print(
            fmt::format("Made the link to {} again, as it was recorded.\n", printable(leadsTo)));
    }
    return ExitStatus::done;
}

Outcome<ExitStatus> runRecovery(Program& program, const HistoryItem& wanted,
                                const std::string& where) {
    const std::vector<RecordedItem> items = recordsOf(program.supportFolder, wanted);
    if (items.empty()) {
        return Failure{ExitStatus::refused,
                       "the item is no longer in the trash, and where its contents lay was not "
                       "recorded"};
    }
    const fs::path target = targetOf(where, items.front().name);
    if (S_ISLNK(items.front().mode)) return runLink(program, items, target);
    const auto volume = volumeOf(program, items.front().volumeId);
    if (!volume) {
        return Failure{ExitStatus::refused, "the volume that the item was on is not mounted"};
    }
    if (auto objection = objectionToTarget(target, volume->number)) return *objection;
    const UniqueFd device = openDevice(volume->device);
    if (!device) return fileFailure(volume->device, errno);
    std::uint64_t whole = 0;
    for (const RecordedItem& item : items) whole += S_ISREG(item.mode) ? item.size : 0;
    Progress progress{program.progress, whole};
    const auto files = recoverTree(items, device.get(), target,
                                   [&progress](std::uint64_t done) { progress(done); });
    if (!files) return files.failure();
    if (program.json) {
        printJson(program, Dictionary{{"from", "device"},
                                      {"device", volume->device},
                                      {"volumeIsKnownByNumber", volume->isKnownByNumber},
                                      {"target", target.string()},
                                      {"files", filesJson(*files)}});
    } else {
        tellRecovered(program, items, *files, volume->device);
    }
    tellDoubts(program, wanted, *volume, *files);
    const bool isAll = std::all_of(files->begin(), files->end(), isRecovered) &&
                       (items.front().flags & kRecordFolderCut) == 0;
    return isAll ? ExitStatus::done : ExitStatus::fileProblem;
}

Outcome<ExitStatus> runRecover(Program& program, const std::string& wanted,
                               const std::string& where) {
    const auto history = readTrashHistory(program.supportFolder);
    if (!history) return history.failure();
    const Outcome<HistoryItem> item = findHistoryItem(*history, wanted);
    if (!item) return item.failure();
    const std::optional<ItemInTrash> inTrash = findInTrash(*item);
    return inTrash ? runCopy(program, *inTrash, targetOf(where, inTrash->name))
                   : runRecovery(program, *item, where);
}

}  // namespace

void addTrashRecovery(CLI::App& group, Program& program) {
    const auto item = std::make_shared<std::string>();
    const auto target = std::make_shared<std::string>();
    CLI::App* const recover = addPrintingCommand(
        group, program, "recover", "Bring an item back, also after the trash was emptied",
        [&program, item, target] { return runRecover(program, *item, *target); });
    recover->add_option("ITEM", *item, "Name, node number or key of an item")->required();
    recover
        ->add_option(
            "TARGET", *target,
            "File or folder to make, or a folder to make it in; once the trash is emptied, "
            "on another volume")
        ->required();
}

}  // namespace korvane::ctl
