// Records where on its device each item that was put into the trash lies, while it is still there.
//   KorvaneProDataRecovery inFile FILE
// Yields to everything else on the machine. SIGTERM ends it at once; a result file is whole or
// absent.

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "KorvaneProDataRecovery/Recovery.h"
#include "KorvaneProDataRecovery/ResultFile.h"
#include "platform/linux/ThreadPriority.h"
#include "storage/SupportFolder.h"
#include "trash/TrashFormats.h"

namespace {

using namespace korvane;

constexpr int kDone = 0;
constexpr int kBadInput = 2;

void tell(const std::string& line) {
    (void)std::fprintf(stderr, "KorvaneProDataRecovery: %s\n", line.c_str());
}

int run(const std::string& inputPath) {
    // One record more than are taken, so that a longer file is noticed.
    const Result<std::string> input = readOwnFile(inputPath, (kMostJobs + 1) * kSearchJobBytes);
    if (!input) {
        tell(input.error().message);
        return kBadInput;
    }
    recordJobs(parseJobFile(*input), MachinePlaces{}, recordFolderOf(kSupportFolder, inputPath),
               kResultFolder, tell);
    return kDone;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3 || std::string_view{arguments[1]} != kInFileArgument) {
        tell("takes \"inFile\" and the path of a job file");
        return kBadInput;
    }
    yieldToEverything();
    try {
        return run(arguments[2]);
    } catch (const std::exception& failure) {
        // Out of memory: nothing that a job file within its limits expects.
        tell(failure.what());
        return kBadInput;
    }
}
