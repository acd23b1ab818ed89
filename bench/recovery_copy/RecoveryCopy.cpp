// Copies a file by its extents, from the device to a new file, as an item of an emptied trash is.
//   recovery_copy FILE DEVICE FOLDER NAME
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>

#include "KorvaneProDataRecovery/FileExtents.h"
#include "korvanectl/ExtentReader.h"
#include "platform/linux/UniqueFd.h"

int main(int count, char** arguments) {
    using namespace korvane;
    if (count != 5) return 2;
    const UniqueFd file{::open(arguments[1], O_RDONLY | O_CLOEXEC)};
    const UniqueFd device{::open(arguments[2], O_RDONLY | O_DIRECT | O_CLOEXEC)};
    const UniqueFd folder{::open(arguments[3], O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    struct stat status {};
    if (!file || !device || !folder || ::fstat(file.get(), &status) != 0) {
        std::perror("recovery_copy");
        return 1;
    }
    RecordedItem item{.mode = status.st_mode,
                      .size = static_cast<std::uint64_t>(status.st_size),
                      .extents = readExtents(file.get()).extents};
    const auto proof =
        ctl::recoverContents(item, device.get(), folder.get(), arguments[4], [](std::uint64_t) {});
    if (!proof) std::fprintf(stderr, "recovery_copy: %s\n", proof.failure().message.c_str());
    return proof ? 0 : 1;
}
