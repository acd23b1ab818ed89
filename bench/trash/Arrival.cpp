// How long it takes from an item's arrival in a trash folder until its record is in a file: for the
// real daemon, and for a bare reader of the same events that writes the same bytes and spawns the
// same program.   bench/arrival runs both in turn.
//   trash_arrival bare TRASH RECORDS TEXT PROGRAM DEVICE   the bare reader; TEXT is what it writes
//   trash_arrival measure TRASH RECORDS COUNT              prints the median, in microseconds
#include <fcntl.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "trash/TrashFormats.h"

namespace {

using namespace korvane;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kInput[] = "/tmp/.KVDataRec_bare.dat";
// The bare reader puts an item's name in this one's place.
constexpr std::string_view kNamePlace = "NAME-OF-THE-ITEM";

[[noreturn]] void fail(const std::string& what) {
    (void)std::fprintf(stderr, "trash_arrival: %s\n", what.c_str());
    std::exit(1);
}

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

int watchOn(const std::string& folder, std::uint32_t events) {
    const int queue = ::inotify_init1(IN_CLOEXEC);
    if (queue < 0 || ::inotify_add_watch(queue, folder.c_str(), events) < 0) fail(folder);
    return queue;
}

// The name in the first of the events that are there.
std::string nextName(int queue) {
    alignas(inotify_event) char buffer[16 * 1024];
    if (::read(queue, buffer, sizeof buffer) <= 0) fail("reading events");
    const auto* const event = reinterpret_cast<const inotify_event*>(buffer);
    return event->len > 0 ? event->name : "";
}

void writeFile(const std::string& path, std::string_view text) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0 || ::pwrite(file, text.data(), text.size(), 0) < 0 ||
        ::ftruncate(file, static_cast<off_t>(text.size())) != 0) {
        fail(path);
    }
    (void)::close(file);
}

std::uint64_t numberOf(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) fail(path);
    return status.st_ino;
}

struct Bare {
    std::string trash;
    std::string records;
    std::string text;
    std::string program;
    std::string device;
};

[[noreturn]] void readBare(const Bare& bare) {
    const int queue = watchOn(bare.trash, IN_MOVED_TO);
    writeFile(bare.records, bare.text);  // there must be something to watch
    while (true) {
        const std::string name = nextName(queue);
        const std::uint64_t node = numberOf(bare.trash + '/' + name);
        const std::string result = searchResultPathOf(node);
        const SearchJobBytes job =
            encodeSearchJob({.nodeId = static_cast<std::uint32_t>(node),
                             .parentId = static_cast<std::uint32_t>(numberOf(bare.trash)),
                             .deviceName = bare.device,
                             .searchResultPath = result});
        writeFile(kInput, {job.data(), job.size()});
        std::string path = bare.program;
        std::string word = "inFile";
        std::string input = kInput;
        char* const arguments[] = {path.data(), word.data(), input.data(), nullptr};
        pid_t child = 0;
        if (::posix_spawn(&child, path.c_str(), nullptr, nullptr, arguments, environ) != 0) {
            fail(path);
        }
        std::string record = bare.text;
        record.replace(record.find(kNamePlace), kNamePlace.size(), name);
        writeFile(bare.records, record);
        (void)::waitpid(child, nullptr, 0);
        // The next item's are new files, as the daemon's are.
        (void)::unlink(kInput);
        (void)::unlink(result.c_str());
    }
}

// Waits until the file is whole and speaks of the name.
void waitFor(const std::string& records, const std::string& name, int queue) {
    while (true) {
        const std::string text = contentsOf(records);
        if (text.starts_with('<') && text.find("</plist>") != std::string::npos &&
            text.find('>' + name + '<') != std::string::npos) {
            return;
        }
        (void)nextName(queue);
    }
}

void measure(const std::string& trash, const std::string& records, int count) {
    using namespace std::chrono_literals;
    // Both write it in place. Of what comes and goes beside it there are no events: looking at
    // those would take the processor from who is measured.
    const int queue = watchOn(records, IN_MODIFY);
    const fs::path beside = fs::path(trash).parent_path() / "beside";
    std::vector<long> microseconds;
    for (int i = 0; i < count; ++i) {
        const std::string name = "item-" + std::to_string(::getpid()) + '-' + std::to_string(i);
        std::ofstream(beside) << "x";
        // The folder is watched and everything before is over; and the daemon runs no more than
        // four of these programs in the two seconds between two looks at them.
        std::this_thread::sleep_for(700ms);
        const Clock::time_point began = Clock::now();
        fs::rename(beside, fs::path(trash) / name);
        waitFor(records, name, queue);
        microseconds.push_back(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began).count());
        fs::remove(fs::path(trash) / name);
    }
    std::sort(microseconds.begin(), microseconds.end());
    (void)std::printf("%ld\n", microseconds[microseconds.size() / 2]);
}

}  // namespace

int main(int count, char** arguments) {
    const std::vector<std::string> words(arguments + 1, arguments + count);
    if (words.size() == 6 && words[0] == "bare") {
        readBare({.trash = words[1],
                  .records = words[2],
                  .text = contentsOf(words[3]),
                  .program = words[4],
                  .device = words[5]});
    }
    if (words.size() == 4 && words[0] == "measure") {
        measure(words[1], words[2], std::atoi(words[3].c_str()));
        return 0;
    }
    fail("see the head of its source for what it takes");
}
