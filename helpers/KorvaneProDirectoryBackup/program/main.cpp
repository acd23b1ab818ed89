// Writes a record of a volume's folders into a new file.
//   KorvaneProDirectoryBackup quorlen FILE MOUNT-PATH
// Ends with 0 when the whole file is there, else with 1, one line on standard error and no file.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "KorvaneProDirectoryBackup/DirectoryRecord.h"
#include "KorvaneProDirectoryBackup/RecordFile.h"
#include "platform/linux/ThreadPriority.h"

namespace {

using namespace korvane;

// Who does not know it has not read what the program does.
constexpr std::string_view kCallersWord = "quorlen";

int fail(const std::string& why) {
    (void)std::fprintf(stderr, "KorvaneProDirectoryBackup: %s\n", why.c_str());
    return EXIT_FAILURE;
}

int record(const std::string& path, const std::string& mountPath) {
    const Time now = std::chrono::floor<Time::duration>(std::chrono::system_clock::now());
    Result<RecordFile> file = RecordFile::create(path);
    if (!file) return fail(file.error().message);
    yieldToEverything();
    const Result<std::monostate> written = writeDirectoryRecord(mountPath, now, *file);
    if (!written) return fail(written.error().message);
    const Result<std::monostate> committed = file->commit();
    return committed ? EXIT_SUCCESS : fail(committed.error().message);
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 4 || arguments[1] != kCallersWord) {
        return fail("takes the word \"quorlen\", the file to create and the mount path");
    }
    try {
        return record(arguments[2], arguments[3]);
    } catch (const std::exception& failure) {
        return fail(failure.what());
    }
}
