// What the daemon knows of a recovery program that it has launched.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Processes.h"

namespace korvane {

// One item that the program is to look for.
struct SearchContent {
    std::uint64_t nodeId = 0;
    std::uint64_t parentId = 0;
    std::string volumePath;        // where the item's volume is mounted
    std::string outFilePath;       // the volume's folder below the support folder
    std::string searchResultPath;  // what the program leaves
};

inline constexpr std::chrono::seconds kSearchPoll{2};
// Far longer than any program that works: writing a large file back to a slow stick before its
// place is known takes a quarter of an hour.
inline constexpr std::chrono::hours kLongestSearch{1};

// Stands in the path of an input file whose results have been collected.
inline constexpr char kSearchTaskDone[] = "IGNORE";

struct SearchTask {
    std::unique_ptr<Task> searchTask;
    std::string inFilePath;
    std::vector<SearchContent> contentArray;
    // How long it has been seen to run, and when it was last seen, counted as the clock counts
    // from the machine's start. Time that the machine slept through is not among it.
    std::chrono::microseconds ran{0};
    std::uint64_t seenAt = 0;
    bool isGivenUp = false;    // it was told to end, having run for too long
    bool isOfEarlier = false;  // of a daemon before this one
};

// A search that is put off while enough programs are at work on its volume, or while the place of
// one of its results is another item's.
struct WaitingSearch {
    std::string program;
    std::string volumeName;
    std::vector<SearchContent> contentArray;
};

}  // namespace korvane
