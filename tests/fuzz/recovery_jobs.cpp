// Job files of any bytes: every job taken from one may be written to and looked for.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "KorvaneProDataRecovery/JobFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const korvane::JobFile file =
        korvane::parseJobFile({reinterpret_cast<const char*>(data), size});
    if (file.jobs.size() > korvane::kMostJobs) std::abort();
    for (const korvane::RecoveryJob& job : file.jobs) {
        if (job.resultName.find('/') != std::string::npos) std::abort();
        if (!job.resultName.starts_with('.') || !job.resultName.ends_with(".dat")) std::abort();
    }
    return 0;
}
