// Property lists beside libplist in the same run, as rows for bench/run. Instructions are counted
// by valgrind, which runs this program again with the arguments OPERATION LIBRARY COUNT and looks
// at measuredParse and measuredWrite alone; they are the same on a quiet machine and on a busy one.
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "Records.h"
#include "base/PropertyListFile.h"

// With C names and not inlined: valgrind is told these names.
extern "C" {

__attribute__((noinline)) void measuredParse(const std::string& text,
                                             korvane::Result<korvane::PropertyList>* ours,
                                             plist_t* theirs) {
    if (ours != nullptr) {
        *ours = korvane::parsePropertyList(text);
    } else {
        plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), theirs);
    }
}

__attribute__((noinline)) void measuredWrite(const korvane::PropertyList* ours, plist_t theirs,
                                             std::string* text, char** theirText) {
    if (ours != nullptr) {
        *text = korvane::formatPropertyList(*ours);
    } else {
        uint32_t length = 0;
        plist_to_xml(theirs, theirText, &length);
    }
}
}

namespace {

using korvane::Dictionary;
using korvane::PropertyList;
using korvane::Result;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bench_property_lists: %s\n", what);
    std::exit(2);
}

// One operation, for valgrind to look at.
int operate(std::string_view operation, std::string_view library, int count) {
    const std::string text = korvane::formatPropertyList(korvane::records(count));
    const bool isOurs = library == "ours";
    Result<PropertyList> ours = PropertyList();
    plist_t theirs = nullptr;
    if (operation == "parse") {
        measuredParse(text, isOurs ? &ours : nullptr, &theirs);
        if (isOurs ? !ours : theirs == nullptr) fail("parsing failed");
    } else {
        ours = korvane::parsePropertyList(text);
        plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &theirs);
        std::string ourText;
        char* theirText = nullptr;
        measuredWrite(isOurs ? &*ours : nullptr, theirs, &ourText, &theirText);
        if (isOurs ? ourText != text : theirText == nullptr) fail("writing failed");
        std::free(theirText);
    }
    plist_free(theirs);
    return 0;
}

long long instructionsOf(const std::string& operation, const std::string& library, int count) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command =
        "valgrind --tool=callgrind --callgrind-out-file=/dev/null --collect-atstart=no "
        "--toggle-collect=" +
        std::string(operation == "parse" ? "measuredParse" : "measuredWrite") + " '" + self + "' " +
        operation + " " + library + " " + std::to_string(count) + " 2>&1";
    FILE* output = popen(command.c_str(), "r");
    if (output == nullptr) fail("valgrind does not start");
    std::string text;
    char buffer[4096];
    std::size_t length = 0;
    while ((length = fread(buffer, 1, sizeof buffer, output)) > 0) text.append(buffer, length);
    const std::size_t place = text.find("Collected : ");
    if (pclose(output) != 0 || place == std::string::npos) {
        std::fprintf(stderr, "%s\n", text.c_str());
        fail("valgrind did not count");
    }
    return std::atoll(text.c_str() + place + 12);
}

void printRow(const std::string& what, double ours, double theirs, const char* unit, double bound) {
    const double ratio = ours / theirs;
    std::printf("%s\t%.2f of %.2f %s: %.2f\tat most %.2f of libplist's\t%s\n", what.c_str(), ours,
                theirs, unit, ratio, bound, ratio <= bound ? "ok" : "over");
    (void)std::fflush(stdout);  // A row that cannot be shown has nobody to be told to.
}

double processorMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

constexpr int kRounds = 100;
constexpr const char* kChanged = "System_500";

// Rounds of reading the file, changing one record and writing the file, in milliseconds.
double ourRounds(const std::string& path) {
    const double start = processorMilliseconds();
    korvane::PropertyListFiles files;
    for (int round = 0; round < kRounds; ++round) {
        const auto changed = files.change(
            path,
            [&](PropertyList& value) {
                value.dictionary()->find(kChanged)->dictionary()->set("size", round);
                return true;
            },
            0666, korvane::Durability::process);
        if (!changed) fail(changed.error().message.c_str());
    }
    return processorMilliseconds() - start;
}

double theirRounds(const std::string& path) {
    const double start = processorMilliseconds();
    for (int round = 0; round < kRounds; ++round) {
        std::ifstream file(path, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        plist_t root = nullptr;
        plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &root);
        plist_t record = plist_dict_get_item(root, kChanged);
        if (record == nullptr) fail("libplist lost the record");
        plist_dict_set_item(record, "size", plist_new_uint(static_cast<uint64_t>(round)));
        char* written = nullptr;
        uint32_t length = 0;
        plist_to_xml(root, &written, &length);
        std::ofstream(path, std::ios::binary | std::ios::trunc).write(written, length);
        std::free(written);
        plist_free(root);
    }
    return processorMilliseconds() - start;
}

void compareRounds() {
    std::string form = std::filesystem::temp_directory_path() / "korvane-bench-XXXXXX";
    const std::string folder = mkdtemp(form.data());
    const std::string path = folder + "/Records.plist";
    double ours = 1e300;
    double theirs = 1e300;
    // The best of three, taken in turn: what else runs on the machine only ever adds.
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::ofstream(path, std::ios::binary)
            << korvane::formatPropertyList(korvane::records(1000));
        theirs = std::min(theirs, theirRounds(path));
        ours = std::min(ours, ourRounds(path));
    }
    std::filesystem::remove_all(folder);
    printRow("100 changes of one record of 1000", ours, theirs, "ms CPU", 0.1);
}

}  // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount == 4) return operate(arguments[1], arguments[2], std::atoi(arguments[3]));
    if (argumentCount != 1) fail("takes no arguments, or OPERATION LIBRARY COUNT");
    for (const int count : {100, 1000, 10'000}) {
        for (const char* operation : {"parse", "write"}) {
            const auto ours = static_cast<double>(instructionsOf(operation, "ours", count));
            const auto theirs = static_cast<double>(instructionsOf(operation, "theirs", count));
            printRow(std::string(operation) + " " + std::to_string(count) + " records of 8 keys",
                     ours / 1e6, theirs / 1e6, "M instructions",
                     std::string_view(operation) == "parse" ? 0.6 : 0.25);
        }
    }
    compareRounds();
    return 0;
}
