// The rotation of a folder of 10,000 backups beside a bare look at them, and the converters of HFS
// records beside memcpy, as rows for bench/run: processor time, the best of several turns, since
// what else runs on the machine only ever adds.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "backup/BackupRotation.h"
#include "backup/ByteSwap.h"
#include "platform/linux/LinuxFolder.h"

namespace {

using namespace korvane;

namespace fs = std::filesystem;

constexpr int kTurns = 7;
// A rotation looks at every date, as the bare look does, and sorts by them.
constexpr double kRotationBound = 1.5;
// memcpy moves sixteen bytes at a time and need not know what they are.
constexpr double kByteSwapBoundNanoseconds = 20;
constexpr double kByteSwapBoundPerByte = 0.2;

double processorNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double best(int rounds, const std::function<void()>& work,
            const std::function<void()>& prepare = {}) {
    double least = 1e300;
    for (int turn = 0; turn < kTurns; ++turn) {
        if (prepare) prepare();
        const double start = processorNanoseconds();
        for (int round = 0; round < rounds; ++round) work();
        least = std::min(least, (processorNanoseconds() - start) / rounds);
    }
    return least;
}

void makeFile(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) std::exit(2);
    close(file);
}

// Every name with its date, by the calls that it takes and nothing more.
std::size_t lookAt(const std::string& folder) {
    std::size_t sum = 0;
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const auto& entry : fs::directory_iterator(folder)) {
        struct stat status {};
        if (fstatat(descriptor, entry.path().filename().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
            sum += static_cast<std::size_t>(status.st_mtim.tv_nsec) + 1;
    }
    close(descriptor);
    return sum;
}

void compareRotation(const std::string& folder, int names) {
    for (int index = 0; index < names; ++index) {
        makeFile(folder + "/Directory Backup " + std::to_string(index));
    }
    LinuxFolder place(UniqueFd{open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)},
                      folder, std::nullopt);
    const Time now = std::chrono::floor<Time::duration>(std::chrono::system_clock::now());
    const std::string spare = folder + "/Directory Backup ";
    std::size_t removed = 0;
    const double bare = best(1, [&] { removed += lookAt(folder); });
    const double ours = best(
        1, [&] { rotateBackups(place, names, now); },
        [&] {
            // The one that the turn before has removed.
            for (int index = 0; index < names; ++index) {
                const std::string path = spare + std::to_string(index);
                if (access(path.c_str(), F_OK) != 0) makeFile(path);
            }
        });
    if (removed == 0) std::exit(2);
    std::printf("rotation over %d backups\t%.2f ms\t%.1f x a look at their dates %.2f ms\t%s\n",
                names, ours / 1e6, kRotationBound, bare / 1e6,
                ours <= kRotationBound * bare ? "ok" : "over");
}

// The sizes of the records, and what stands at their heads: types and name lengths.
struct Record {
    std::uint32_t code;
    std::size_t size;
    std::vector<unsigned char> head;
};

std::vector<Record> records() {
    const std::vector<unsigned char> nameOf31{0, 68, 0, 0, 0, 2, 0, 31};
    const std::vector<unsigned char> nameOf31InHost{68, 0, 2, 0, 0, 0, 31, 0};
    return {{101, 2, {}},       {102, 4, {}},        {103, 8, {}},
            {104, 120, {}},     {107, 14, {}},       {108, 106, {}},
            {109, 52, {}},      {110, 40, {}},       {111, 162, {}},
            {112, 8, {}},       {114, 38, {}},       {115, 102, {2, 0}},
            {116, 102, {0, 2}}, {117, 512, {}},      {118, 12, {}},
            {119, 64, {}},      {120, 70, nameOf31}, {121, 70, nameOf31InHost},
            {122, 248, {0, 2}}, {123, 248, {2, 0}}};
}

void compareByteSwap(const Record& record, int rounds) {
    std::vector<unsigned char> source(record.size, 0);
    std::copy(record.head.begin(), record.head.end(), source.begin());
    std::vector<unsigned char> target(record.size);
    // Through pointers that the compiler cannot see through, or it would leave the copy out.
    unsigned char* volatile to = target.data();
    const unsigned char* volatile from = source.data();
    const double plain = best(rounds, [&] { std::memcpy(to, from, record.size); });
    const double ours =
        best(rounds, [&] { BlockMoveByteSwap(from, to, record.size, record.code); });
    const double bound = kByteSwapBoundNanoseconds +
                         kByteSwapBoundPerByte * static_cast<double>(record.size) + plain;
    std::printf("byte swap of code %u, %zu bytes\t%.1f ns, memcpy %.1f ns\t%.0f ns\t%s\n",
                record.code, record.size, ours, plain, bound, ours <= bound ? "ok" : "over");
}

}  // namespace

// A number of rounds as the argument: a short run that only shows that it works.
int main(int argumentCount, char** arguments) {
    const int rounds = argumentCount > 1 ? std::atoi(arguments[1]) : 200'000;
    std::string place = (fs::temp_directory_path() / "korvane-bench-XXXXXX").string();
    if (mkdtemp(place.data()) == nullptr) return 2;
    compareRotation(place, std::min(rounds * 10, 10'000));
    fs::remove_all(place);
    for (const Record& record : records()) compareByteSwap(record, std::max(rounds, 1));
    return 0;
}
