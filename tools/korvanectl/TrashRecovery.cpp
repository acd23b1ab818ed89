// trash recover: brings an item of the trash history back, from the trash while it is there, from
// the device by its recorded extents after that.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "KorvaneProDataRecovery/VolumeIdentity.h"
#include "korvanectl/Document.h"
#include "korvanectl/Program.h"
#include "korvanectl/Progress.h"
#include "korvanectl/RecordedTree.h"
#include "korvanectl/TrashCopy.h"
#include "korvanectl/TrashHistory.h"
#include "korvanectl/TrashList.h"
#include "korvanectl/Words.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/Sysfs.h"
#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kUnknowable =
    "The device was read where the contents lay when they were recorded. Whether those blocks were "
    "used again since, or discarded as SSDs do, cannot be known without a checksum.";
constexpr std::string_view kUsedAgain =
    "has the recorded size but not the recorded contents: blocks were used again or discarded";

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
    Progress progress{program.progress, bytesInTrash(item)};
    const auto copied =
        copyFromTrash(item, target, [&progress](std::uint64_t done) { progress(done); });
    if (!copied) return copied.failure();
    if (program.json) {
        PropertyListArray missing(copied->missing.begin(), copied->missing.end());
        PropertyListArray incomplete(copied->incomplete.begin(), copied->incomplete.end());
        printJson(program, Dictionary{{"from", "trash"},
                                      {"target", target.string()},
                                      {"files", copied->files},
                                      {"folders", copied->folders},
                                      {"bytes", copied->bytes},
                                      {"missing", std::move(missing)},
                                      {"incomplete", std::move(incomplete)}});
    } else {
        if (copied->incomplete.empty() || S_ISDIR(item.status.st_mode)) {
            const std::string what = S_ISDIR(item.status.st_mode)
                                         ? fmt::format("{} in {}, ", counted(copied->files, "file"),
                                                       counted(copied->folders, "folder"))
                                         : "";
            program.print(fmt::format("Copied {}{} to {}; the item still is in the trash.\n", what,
                                      sizeWords(static_cast<double>(copied->bytes)),
                                      printable(target.string())));
        }
        for (const std::string& missing : copied->missing) {
            program.note("not copied: " + printable(missing));
        }
        for (const std::string& incomplete : copied->incomplete) {
            program.note(printable(incomplete));
        }
    }
    const bool isAll = copied->missing.empty() && copied->incomplete.empty();
    return isAll ? ExitStatus::done : ExitStatus::fileProblem;
}

// ---- After it was emptied
// ------------------------------------------------------------------------

// Nothing when the target lies on another volume than the device number's.
std::optional<Failure> objectionToTarget(const HistoryItem& item, const fs::path& target,
                                         dev_t volume) {
    struct stat status {};
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path{"."};
    if (::stat(folder.c_str(), &status) != 0) return fileFailure(folder.string(), errno);
    if (status.st_dev != volume) return std::nullopt;
    const char* beginning = "";
    if (item.isAtOrigin) {
        beginning = "to read what was recorded all the same: ";
    } else if (item.state == TrashState::removed) {
        beginning =
            "the item was put back, or moved out of the trash: look for it there; to read what was "
            "recorded all the same: ";
    }
    return Failure{ExitStatus::refused,
                   fmt::format("{}the target lies on the item's own volume, where writing may "
                               "destroy what is to be recovered; take one on another volume",
                               beginning)};
}

struct Volume {
    std::string device;
    dev_t number = 0;
    VolumeIdentity identity;
    // Its id is only its device's number (XFS, FAT and others), and no UUID says that it is the
    // same one: another volume may have had the number when the item was recorded.
    bool isKnownByNumber = false;
};

std::vector<Volume> mountedVolumes(Program& program) {
    std::vector<Volume> mounted;
    Volumes& volumes = program.volumes();
    for (const std::string& path : volumes.mountedLocalVolumePaths()) {
        const UniqueFd root{
            ::open(bytesOfText(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK)};
        struct stat status {};
        const MountEntry* const mount = volumes.mountAt(path);
        if (!root || ::fstat(root.get(), &status) != 0 || mount == nullptr) continue;
        mounted.push_back({.device = nodeNameOfKernelName(bytesOfText(mount->mountFromName)),
                           .number = status.st_dev,
                           .identity = volumeIdentityOf(root.get())});
    }
    return mounted;
}

// The mounted volume that the item was recorded on: the one with its UUID, or, where one of the two
// has none, with its id.
Outcome<Volume> volumeOf(Program& program, const RecordedItem& item) {
    std::vector<Volume> byUuid;
    std::optional<Volume> byId;
    std::string impostor;
    const bool hasUuid = item.volumeUuid != VolumeUuid{};
    for (Volume& volume : mountedVolumes(program)) {
        const bool hasSameId = item.volumeId != 0 && volume.identity.id == item.volumeId;
        if (hasUuid && volume.identity.uuid == item.volumeUuid) {
            byUuid.push_back(std::move(volume));
        } else if (hasSameId && hasUuid && volume.identity.uuid != VolumeUuid{}) {
            impostor = volume.device;
        } else if (hasSameId && !byId) {
            volume.isKnownByNumber = isDeviceNumber(item.volumeId, volume.number);
            byId = std::move(volume);
        }
    }
    const auto isOther = [&byUuid](const Volume& volume) {
        return volume.device != byUuid.front().device;
    };
    if (const auto other = std::ranges::find_if(byUuid, isOther); other != byUuid.end()) {
        return Failure{ExitStatus::refused,
                       fmt::format("{} and {} both have the UUID of the item's volume, so one is a "
                                   "copy; unmount the one that the item was not on",
                                   byUuid.front().device, other->device)};
    }
    if (!byUuid.empty()) return byUuid.front();
    if (byId) return *byId;
    return Failure{
        ExitStatus::refused,
        "the volume that the item was on is not mounted" +
            (impostor.empty() ? ""
                              : fmt::format("; {} has its device number, but is another "
                                            "one",
                                            impostor)) +
            (hasUuid ? fmt::format(" (UUID {})", textOfVolumeUuid(item.volumeUuid)) : "")};
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
        case ContentProof::incomplete:
            return "incomplete";
        case ContentProof::sizeAlone:
            break;
    }
    return "size";
}

bool isRecovered(const RecoveredFile& file) {
    return file.proof && *file.proof != ContentProof::checksumDiffers &&
           *file.proof != ContentProof::incomplete;
}

PropertyListArray filesJson(const std::vector<RecoveredFile>& files) {
    PropertyListArray json;
    for (const RecoveredFile& file : files) {
        Dictionary each{{"path", file.path}, {"verified", proofToken(file)}};
        if (file.proof) each.set("bytes", file.bytes);
        if (!file.reason.empty()) each.set("reason", file.reason);
        if (!file.missing.empty()) {
            PropertyListArray missing;
            for (const ByteRange& range : file.missing) {
                missing.emplace_back(Dictionary{{"offset", range.begin}, {"bytes", range.length}});
            }
            each.set("name", textOfBytes(file.name));
            each.set("missing", std::move(missing));
        }
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

std::string troubleWords(const RecoveredFile& file) {
    if (!file.proof) return ": " + file.reason;
    if (*file.proof != ContentProof::incomplete) return fmt::format(" {}", kUsedAgain);
    return fmt::format(" is kept as {}: zeros stand for what could not be read, {}",
                       printable(file.name), file.reason);
}

void tellRecovered(Program& program, const std::vector<RecordedItem>& items,
                   const std::vector<RecoveredFile>& files, const std::string& device,
                   const fs::path& target) {
    std::uint64_t bytes = 0;
    std::size_t recovered = 0;
    for (const RecoveredFile& file : files) {
        if (!isRecovered(file)) {
            const std::string& name = file.path.empty() ? items.front().name : file.path;
            program.note(printable(name) + troubleWords(file));
            continue;
        }
        ++recovered;
        bytes += file.bytes;
    }
    const bool isFolder = S_ISDIR(items.front().mode);
    if (isFolder || recovered > 0) {
        program.print(fmt::format(
            "Recovered {}{} from {} to {}.\n",
            isFolder ? fmt::format("{} of {}, ", recovered, counted(files.size(), "file")) : "",
            sizeWords(static_cast<double>(bytes)), device, printable(target.string())));
    }
    program.print(verification(files));
    if (isFolder && (items.front().flags & kRecordFolderCut) != 0) {
        program.note("the folder held more than was recorded");
    }
}

// What the user must know before trusting anything that was read.
void tellDoubts(Program& program, const HistoryItem& wanted, const Volume& volume,
                const std::vector<RecoveredFile>& files) {
    if (wanted.isAtOrigin) {
        program.note(
            "what was read is the item's contents as they were recorded, if nothing was written to "
            "it since");
    } else if (wanted.state == TrashState::removed) {
        program.note(
            "the item was put back, or moved out of the trash: what was read is its contents as "
            "they were recorded, if nothing was written to it since");
    }
    if (wanted.lastSeen && !wanted.isAtOrigin) {
        program.note(
            "the history has the item no longer: if it was put back, look for it there; what was "
            "read is its contents as they were recorded, if nothing was written to them since");
    }
    const bool isProven = std::none_of(files.begin(), files.end(), [](const auto& file) {
        return file.proof == ContentProof::sizeAlone;
    });
    if (volume.isKnownByNumber && !isProven) {
        program.note(fmt::format(
            "{} cannot be told from another volume that had its device number when the item was "
            "recorded: without a checksum and a UUID the contents may be those of something else",
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
    if (wanted.isAtOrigin) {
        program.note(fmt::format("the item was put back as {}, where it stands now",
                                 printable(wanted.origin)));
    }
    const std::vector<RecordedItem> items = recordsOf(program.supportFolder, wanted);
    if (items.empty()) {
        return Failure{ExitStatus::refused,
                       "the item is no longer in the trash, and where its contents lay was not "
                       "recorded"};
    }
    const fs::path target = targetOf(where, items.front().name);
    if (S_ISLNK(items.front().mode)) return runLink(program, items, target);
    const auto volume = volumeOf(program, items.front());
    if (!volume) return volume.failure();
    if (auto objection = objectionToTarget(wanted, target, volume->number)) return *objection;
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
        tellRecovered(program, items, *files, volume->device, target);
    }
    tellDoubts(program, wanted, *volume, *files);
    const bool isAll = std::all_of(files->begin(), files->end(), isRecovered) &&
                       (items.front().flags & kRecordFolderCut) == 0;
    return isAll ? ExitStatus::done : ExitStatus::fileProblem;
}

Outcome<ExitStatus> runRecover(Program& program, const std::string& wanted,
                               const std::string& where) {
    Outcome<HistoryItem> item = itemCalled(program, wanted);
    if (!item) return item.failure();
    if (const std::optional<ItemInTrash> inTrash = findInTrash(*item)) {
        return runCopy(program, *inTrash, targetOf(where, inTrash->name));
    }
    // Also what the daemon has not yet seen to have left the trash.
    item->isAtOrigin = isPutBackToOrigin(program, *item);
    return runRecovery(program, *item, where);
}

}  // namespace

void addTrashRecovery(CLI::App& group, Program& program) {
    const auto item = std::make_shared<std::string>();
    const auto target = std::make_shared<std::string>();
    CLI::App* const recover = addPrintingCommand(
        group, program, "recover", "Bring an item back, also after the trash was emptied",
        [&program, item, target] { return runRecover(program, *item, *target); });
    recover->add_option("ITEM", *item, kItemHelp)->required();
    recover
        ->add_option(
            "TARGET", *target,
            "File or folder to make, or a folder to make it in; once the trash is emptied, "
            "on another volume")
        ->required();
}

}  // namespace korvane::ctl
