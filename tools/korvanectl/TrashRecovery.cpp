// trash recover: brings an item of the trash history back, from the trash while it is there, from
// the device by its recorded extents after that.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"
#include "korvanectl/Document.h"
#include "korvanectl/ExtentReader.h"
#include "korvanectl/Program.h"
#include "korvanectl/Words.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/UniqueFd.h"
#include "storage/SupportFolder.h"

namespace korvane::ctl {

namespace {

namespace fs = std::filesystem;

constexpr char kTrashUsageFile[] = "Trash Usage.plist";
constexpr char kUnknowable[] =
    "The device was read where the contents lay when they were recorded. Whether those blocks were "
    "used again since, or discarded as SSDs do, cannot be known from the device";

// An item of the history, as far as it is needed to find it again.
struct HistoryItem {
    std::string key;
    std::string name;
    std::string folder;
    std::string volumeName;
    std::string node;
};

std::string textAt(const Dictionary& record, std::string_view key) {
    const PropertyList* const value = record.find(key);
    const std::string* const text = value != nullptr ? value->string() : nullptr;
    return text != nullptr ? *text : std::string();
}

Outcome<HistoryItem> findItem(const Program& program, const std::string& wanted) {
    const auto document = readDocument(program.supportFolder + "/" + kTrashUsageFile);
    if (!document) return document.failure();
    std::vector<HistoryItem> found;
    if (*document) {
        for (const auto& [key, value] : (*document)->contents) {
            const Dictionary* const record = value.dictionary();
            if (record == nullptr) continue;
            HistoryItem item{key, textAt(*record, "itemName"), textAt(*record, "dirPath"),
                             textAt(*record, "volumeName"), textAt(*record, "nodeID")};
            if (key == wanted || item.name == wanted || item.node == wanted) {
                found.push_back(std::move(item));
            }
        }
    }
    if (found.size() == 1) return found.front();
    if (found.empty()) {
        return Failure{ExitStatus::refused,
                       fmt::format("the trash history has no \"{}\"", printable(wanted))};
    }
    std::string keys;
    for (const HistoryItem& item : found) keys += " " + shellWord(printable(item.key));
    return Failure{
        ExitStatus::refused,
        fmt::format("several items are called \"{}\"; take one of{}", printable(wanted), keys)};
}

// The newest records of the item in the volume's files: the item, then what it held.
std::vector<RecordedItem> recordsOf(const Program& program, const HistoryItem& wanted) {
    std::vector<std::string> files;
    std::error_code none;
    const fs::path folder = fs::path{program.supportFolder} / wanted.volumeName;
    for (const auto& entry : fs::directory_iterator{folder, none}) {
        const bool isOne = entry.path().filename().string().starts_with(kTrashDeletesPrefix) &&
                           entry.symlink_status().type() == fs::file_type::regular;
        if (isOne) files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());  // their names end in the date, the year first
    std::vector<RecordedItem> newest;
    for (const std::string& path : files) {
        std::ifstream in{path, std::ios::binary};
        ItemAssembly assembly;
        std::array<std::uint8_t, kResultRecordSize> bytes;
        while (in.read(reinterpret_cast<char*>(bytes.data()), bytes.size())) {
            const auto record = decodeRecord(bytes);
            if (!record) assembly.interrupt();
            auto collected = record ? assembly.add(*record) : std::nullopt;
            if (!collected || std::to_string(collected->item.trashNode) != wanted.node) continue;
            if (collected->item.node == collected->item.trashNode) newest.clear();
            newest.push_back(std::move(collected->item));
        }
    }
    const bool isIt = !newest.empty() && newest.front().node == newest.front().trashNode &&
                      newest.front().name == wanted.name;
    return isIt ? newest : std::vector<RecordedItem>{};
}

// Where the item lies in the trash, opened without following a link; nothing when it is gone.
UniqueFd openInTrash(const HistoryItem& item, struct stat& status) {
    UniqueFd folder{::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    for (const fs::path& step : fs::path{bytesOfText(item.folder)}.relative_path()) {
        if (folder) {
            folder = UniqueFd{::openat(folder.get(), step.c_str(),
                                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
        }
    }
    const std::string name = bytesOfText(item.name);
    if (!folder || name.find('/') != std::string::npos) return {};
    UniqueFd file{::openat(folder.get(), name.c_str(),
                           O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    const bool isIt =
        file && ::fstat(file.get(), &status) == 0 && std::to_string(status.st_ino) == item.node;
    return isIt ? std::move(file) : UniqueFd{};
}

// A line that is drawn over itself on a terminal, once the work takes longer than a moment.
class Progress {
  public:
    explicit Progress(std::uint64_t whole)
        : whole_(whole), isTerminal_(::isatty(STDERR_FILENO) == 1) {}
    ~Progress() {
        if (isDrawn_) fmt::print(stderr, "\r\x1b[K");
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void operator()(std::uint64_t done) {
        using namespace std::chrono_literals;
        const auto now = std::chrono::steady_clock::now();
        if (!isTerminal_ || whole_ == 0 || now < next_) return;
        next_ = now + 200ms;
        isDrawn_ = true;
        constexpr std::uint64_t kWidth = 30;
        const double part = static_cast<double>(done) / static_cast<double>(whole_);
        const auto full = static_cast<std::size_t>(std::min(part, 1.0) * kWidth);
        fmt::print(stderr, "\r[{:-<{}}] {} of {}\x1b[K", std::string(full, '#'), kWidth,
                   sizeWords(static_cast<double>(done)), sizeWords(static_cast<double>(whole_)));
    }

  private:
    std::uint64_t whole_;
    bool isTerminal_;
    bool isDrawn_ = false;
    std::chrono::steady_clock::time_point next_ =
        std::chrono::steady_clock::now() + std::chrono::seconds{1};
};

// Nothing when the target lies on another volume than the device number's.
std::optional<Failure> objectionToTarget(const fs::path& target, dev_t volume) {
    struct stat status {};
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path{"."};
    if (::stat(folder.c_str(), &status) != 0) {
        return Failure{ExitStatus::fileProblem,
                       fmt::format("{}: {}", printable(folder.string()), std::strerror(errno))};
    }
    if (status.st_dev != volume) return std::nullopt;
    return Failure{ExitStatus::refused,
                   "the target lies on the item's own volume, where writing may destroy what is to "
                   "be recovered; take one on another volume"};
}

Outcome<ExitStatus> copyFromTrash(Program& program, int source, const struct stat& status,
                                  const fs::path& target) {
    if (auto objection = objectionToTarget(target, status.st_dev)) return *objection;
    if (!S_ISREG(status.st_mode)) {
        return Failure{ExitStatus::refused,
                       "the item is still in the trash and is not a file; copy it from there"};
    }
    const UniqueFd file{
        ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)};
    if (!file) return fileFailure(target.string(), errno);
    Progress progress{static_cast<std::uint64_t>(status.st_size)};
    std::uint64_t done = 0;
    std::vector<char> block(1 << 20);
    for (;;) {
        const ssize_t length = ::read(source, block.data(), block.size());
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return fileFailure(target.string(), errno);
        if (length == 0) break;
        for (ssize_t written = 0; written < length;) {
            const ssize_t part = ::write(file.get(), block.data() + written,
                                         static_cast<std::size_t>(length - written));
            if (part < 0 && errno != EINTR) return fileFailure(target.string(), errno);
            written += std::max<ssize_t>(part, 0);
        }
        done += static_cast<std::uint64_t>(length);
        progress(done);
    }
    if (::fsync(file.get()) != 0) return fileFailure(target.string(), errno);
    program.print(fmt::format("Copied {} from the trash, where it still is.\n",
                              sizeWords(static_cast<double>(done))));
    return ExitStatus::done;
}

// The mounted volume with the recorded file system's id.
struct Volume {
    std::string device;
    dev_t number = 0;
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
            return Volume{bytesOfText(mount->mountFromName), status.st_dev};
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

Outcome<ExitStatus> recoverFromDevice(Program& program, const HistoryItem& wanted,
                                      const fs::path& target) {
    const std::vector<RecordedItem> items = recordsOf(program, wanted);
    if (items.empty()) {
        return Failure{ExitStatus::refused,
                       "the item is gone, and where its contents lay was not recorded"};
    }
    if (S_ISDIR(items.front().mode)) {
        return Failure{ExitStatus::refused, "the item was a folder; only files can be recovered"};
    }
    const auto volume = volumeOf(program, items.front().volumeId);
    if (!volume) {
        return Failure{ExitStatus::refused, "the volume that the item was on is not mounted"};
    }
    if (auto objection = objectionToTarget(target, volume->number)) return *objection;
    const UniqueFd device = openDevice(volume->device);
    if (!device) return fileFailure(volume->device, errno);
    Progress progress{items.front().size};
    const auto proof = recoverContents(items.front(), device.get(), target.string(),
                                       [&](std::uint64_t done) { progress(done); });
    if (!proof) return proof.failure();
    if (*proof == ContentProof::checksumDiffers) {
        return Failure{ExitStatus::fileProblem,
                       fmt::format("{} has the recorded size but not the recorded contents: blocks "
                                   "were used again or discarded",
                                   printable(target.string()))};
    }
    program.print(fmt::format(
        "Recovered {} from {}.\n{}\n", sizeWords(static_cast<double>(items.front().size)),
        volume->device,
        *proof == ContentProof::checksumMatches
            ? std::string("Verified: the size, and the SHA-256 of the contents as recorded.")
            : fmt::format("Verified: the size alone; no checksum was recorded.\n{}.",
                          kUnknowable)));
    return ExitStatus::done;
}

Outcome<ExitStatus> runRecover(Program& program, const std::string& wanted,
                               const std::string& where) {
    const Outcome<HistoryItem> item = findItem(program, wanted);
    if (!item) return item.failure();
    std::error_code none;
    fs::path target = where;
    if (fs::is_directory(target, none)) target /= bytesOfText(item->name);
    struct stat status {};
    const UniqueFd file = openInTrash(*item, status);
    return file ? copyFromTrash(program, file.get(), status, target)
                : recoverFromDevice(program, *item, target);
}

}  // namespace

void addTrashRecovery(CLI::App& group, Program& program) {
    const auto item = std::make_shared<std::string>();
    const auto target = std::make_shared<std::string>();
    CLI::App* const recover = addCommand(
        group, program, "recover", "Bring an item back, also after the trash was emptied",
        [&program, item, target] { return runRecover(program, *item, *target); });
    recover->add_option("ITEM", *item, "Name, node number or key of an item of the trash history")
        ->required();
    recover->add_option("TARGET", *target, "File or folder to write to, on another volume")
        ->required();
}

}  // namespace korvane::ctl
