// What it costs to keep the records of the trash: a scan's hundred items onto many stored records,
// written once, beside the file written bare from what is in memory and beside another library that
// reads and writes it; and the records of items that are still there gone through, beside looking
// at the same items and writing the file.
// Counts the processor's time of this process, which other work on the machine hardly changes;
// runs alternate and the shortest of each counts.
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"
#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxSystemLog.h"
#include "platform/simulated/SimulatedMachine.h"
#include "trash/TrashRecords.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kItems = 100;  // as many as a scan records
constexpr int kRounds = 3;
const Time kNow{std::chrono::seconds(1'772'438'400)};

TrashItem itemNumbered(std::size_t number, const std::string& folder) {
    TrashItem item;
    item.itemName = "A file that somebody has thrown away, " + std::to_string(number);
    item.nodeId = 1'000'000 + number;
    item.volRefNum = 7;
    item.dirPath = folder;
    item.volumeName = "System";
    return item;
}

// No item has the number of another one.
std::vector<ResolvedNode> nobodyAsked(std::span<const SeenItem> /*items*/) { return {}; }

PropertyList stored(std::size_t records, const std::string& folder) {
    std::vector<FoundItem> items;
    for (std::size_t i = 0; i < records; ++i) items.push_back({itemNumbered(i, folder)});
    Dictionary usage;
    storeTrashRecords(usage, items, nobodyAsked, kNow);
    return usage;
}

double processorSeconds() {
    rusage usage{};
    (void)::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double measured(const std::function<void()>& work) {
    const double began = processorSeconds();
    work();
    return processorSeconds() - began;
}

void failUnless(bool isRight, const char* what) {
    if (isRight) return;
    (void)std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

void writeBare(int file, const std::string& text) {
    failUnless(::pwrite(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
                   ::ftruncate(file, static_cast<off_t>(text.size())) == 0,
               "writing");
}

std::string textOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void recordByLibplist(plist_t usage, const TrashItem& item) {
    plist_t record = plist_new_dict();
    plist_dict_set_item(record, "itemName", plist_new_string(item.itemName.c_str()));
    plist_dict_set_item(record, "nodeID", plist_new_string(std::to_string(item.nodeId).c_str()));
    plist_dict_set_item(record, "volRefNum", plist_new_string("7"));
    plist_dict_set_item(record, "dirPath", plist_new_string(item.dirPath.c_str()));
    plist_dict_set_item(record, "volumeName", plist_new_string("System"));
    plist_dict_set_item(record, "totalSize", plist_new_real(0));
    plist_dict_set_item(record, "addDate", plist_new_date(0, 0));
    plist_dict_set_item(usage, trashEntryKey(item).c_str(), record);
}

// The items by the other library: the file read, the records put in, the file written.
void recordAllByLibplist(const std::string& path, const std::vector<FoundItem>& items) {
    const std::string text = textOf(path);
    plist_t usage = nullptr;
    plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &usage);
    for (const FoundItem& found : items) recordByLibplist(usage, found.item);
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(usage, &xml, &length);
    std::ofstream(path, std::ios::binary).write(xml, length);
    std::free(xml);
    plist_free(usage);
}

void show(const std::string& what, double ours, double theirs, double bound) {
    const double ratio = ours / theirs;
    (void)std::printf("%s\t%.1f ms, ratio %.2f\t%.1f ms, at most %.2f\t%s\n", what.c_str(),
                      ours * 1e3, ratio, theirs * 1e3, bound, ratio <= bound ? "ok" : "over");
}

void compareScans(const std::string& folder, std::size_t records, int rounds) {
    const std::string path = folder + "/Trash Usage.plist";
    const PropertyList image = stored(records, folder);
    std::vector<FoundItem> items;
    for (std::size_t i = 0; i < kItems; ++i) {
        items.push_back({itemNumbered(records + i * 7, folder)});
    }
    double ours = std::numeric_limits<double>::max();
    double bare = ours;
    double libplist = ours;
    for (int round = 0; round < rounds; ++round) {
        PropertyListFiles files;
        failUnless(bool{files.write(path, image, 0666, Durability::process)}, "writing");
        ours =
            std::min(ours, measured([&] {
                         const auto done = files.change(
                             path,
                             [&](PropertyList& usage) {
                                 storeTrashRecords(*usage.dictionary(), items, nobodyAsked, kNow);
                                 return true;
                             },
                             0666, Durability::process);
                         failUnless(bool{done}, "recording");
                     }));
        PropertyList copy = image;
        const int file = ::open(path.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC);
        bare = std::min(bare, measured([&] {
                            storeTrashRecords(*copy.dictionary(), items, nobodyAsked, kNow);
                            writeBare(file, formatPropertyList(copy));
                        }));
        (void)::close(file);
        failUnless(bool{files.write(path, image, 0666, Durability::process)}, "writing");
        libplist = std::min(libplist, measured([&] { recordAllByLibplist(path, items); }));
    }
    const std::string what = "trash: 100 items onto " + std::to_string(records) + " records, ";
    // Two writes instead of one, so that a kill at any moment loses nothing.
    show(what + "beside a bare write", ours, bare, 2.0);
    show(what + "beside libplist", ours, libplist, 0.5);
}

// Items in a trash folder of a volume of their own, and the watch that the daemon asks for them.
class Trash {
  public:
    Trash(const std::string& top, std::size_t count) : folder_(top + "/.Trash-0/files") {
        MountDescription mount;
        mount.path = top;
        mount.device = "/dev/sdz1";
        mount.type = "ext4";
        machine_.volumes.mount(mount);
        const auto volume = machine_.volumes.volumeInfoByDevice("sdz1").value.referenceNumber;
        fs::create_directories(folder_);
        std::vector<CatalogItem> seen;
        for (std::size_t i = 0; i < count; ++i) {
            TrashItem item = itemNumbered(i, folder_);
            const std::string path = folder_ + '/' + item.itemName;
            const int file = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
            struct stat status {};
            failUnless(file >= 0 && ::fstat(file, &status) == 0 && ::close(file) == 0, "an item");
            item.nodeId = status.st_ino;
            item.volRefNum = volume;
            seen.push_back({.name = item.itemName, .nodeId = item.nodeId});
            items_.push_back(std::move(item));
        }
        watch_.remember(volume, folder_, seen);
    }

    [[nodiscard]] const std::vector<TrashItem>& items() const { return items_; }
    std::vector<ResolvedNode> resolve(std::span<const SeenItem> items) {
        std::vector<ResolvedNode> nodes = watch_.resolve(items);
        for (const ResolvedNode& node : nodes) {
            failUnless(node.state == NodeState::found, "finding an item");
        }
        return nodes;
    }

  private:
    std::string folder_;
    SimulatedMachine machine_{MachineDescription{}};
    LinuxSystemLog log_;
    LinuxRunLoop loop_{log_};
    LinuxDirectoryWatch watch_{loop_, machine_.volumes,
                               LinuxTrashPlaces{.tracesFile = folder_ + ".traces"}};
    std::vector<TrashItem> items_;
};

// The records of items that are all still there.
void compareUpkeep(const std::string& folder, std::size_t records, int rounds) {
    const std::string path = folder + "/Trash Usage.plist";
    Trash trash(folder, records);
    Dictionary usage;
    std::vector<FoundItem> found;
    for (const TrashItem& item : trash.items()) found.push_back({item});
    storeTrashRecords(usage, found, nobodyAsked, kNow);
    const PropertyList image(std::move(usage));
    double ours = std::numeric_limits<double>::max();
    double bare = ours;
    for (int round = 0; round < rounds; ++round) {
        PropertyListFiles files;
        failUnless(bool{files.write(path, image, 0666, Durability::process)}, "writing");
        ours = std::min(ours, measured([&] {
                            const auto resolve = [&](std::span<const SeenItem> items) {
                                return trash.resolve(items);
                            };
                            const auto done = files.change(
                                path,
                                [&](PropertyList& value) {
                                    (void)updateTrashRecords(*value.dictionary(), resolve, kNow, 5);
                                    return true;
                                },
                                0666, Durability::process);
                            failUnless(bool{done}, "the upkeep");
                        }));
        const int file = ::open(path.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC);
        bare = std::min(bare, measured([&] {
                            for (const TrashItem& item : trash.items()) {
                                struct stat status {};
                                const std::string place = item.dirPath + '/' + item.itemName;
                                failUnless(::lstat(place.c_str(), &status) == 0, "looking");
                            }
                            writeBare(file, formatPropertyList(image));
                        }));
        (void)::close(file);
    }
    // Two writes instead of one, so that a kill at any moment loses nothing.
    show("trash: upkeep of " + std::to_string(records) + " records, beside bare", ours, bare, 2.0);
}

}  // namespace
}  // namespace korvane

int main(int argumentCount, char**) {
    using namespace korvane;
    // With any argument: one small turn, so that this cannot rot unseen.
    const bool isTrial = argumentCount > 1;
    std::string folder = (fs::temp_directory_path() / "korvane-trash-XXXXXX").string();
    failUnless(::mkdtemp(folder.data()) != nullptr, "mkdtemp");
    for (const std::size_t records :
         isTrial ? std::vector<std::size_t>{10} : std::vector<std::size_t>{1'000, 10'000}) {
        compareScans(folder, records, isTrial ? 1 : kRounds);
    }
    compareUpkeep(folder, isTrial ? 10 : 10'000, isTrial ? 1 : kRounds);
    fs::remove_all(folder);
    return 0;
}
