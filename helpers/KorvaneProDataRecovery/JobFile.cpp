#include "KorvaneProDataRecovery/JobFile.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>
#include <utility>

namespace korvane {

namespace {

constexpr std::size_t kTagSize = 4;
constexpr std::size_t kNodeAt = 4;
constexpr std::size_t kParentAt = 8;
constexpr std::size_t kDeviceAt = 12;
constexpr std::size_t kResultPathAt = 44;
constexpr std::size_t kTextSize = 32;
constexpr std::string_view kTag{"id\0\0", kTagSize};

// A text of a record: ended by a zero and followed by nothing but zeros.
std::optional<std::string_view> textAt(std::string_view record, std::size_t offset) {
    const std::string_view field = record.substr(offset, kTextSize);
    const std::size_t end = field.find('\0');
    if (end == 0 || end == std::string_view::npos) return std::nullopt;
    if (field.find_first_not_of('\0', end) != std::string_view::npos) return std::nullopt;
    return field.substr(0, end);
}

// ".NUMBER.dat" of "/tmp/.NUMBER.dat": nothing else may be written to.
std::optional<std::string> resultName(std::string_view path) {
    constexpr std::string_view kBegin = "/tmp/.";
    constexpr std::string_view kEnd = ".dat";
    constexpr std::size_t kMostDigits = 20;  // of a 64-bit number
    if (!path.starts_with(kBegin) || !path.ends_with(kEnd) ||
        path.size() <= kBegin.size() + kEnd.size()) {
        return std::nullopt;
    }
    const std::string_view digits =
        path.substr(kBegin.size(), path.size() - kBegin.size() - kEnd.size());
    if (digits.size() > kMostDigits ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return std::string(path.substr(path.rfind('/') + 1));
}

std::optional<RecoveryJob> parseJob(std::string_view record) {
    const auto device = textAt(record, kDeviceAt);
    const auto path = textAt(record, kResultPathAt);
    if (!record.starts_with(kTag) || !device || !path) return std::nullopt;
    auto name = resultName(*path);
    if (!name) return std::nullopt;
    RecoveryJob job{.device = std::string(*device), .resultName = std::move(*name)};
    std::memcpy(&job.node, record.data() + kNodeAt, sizeof job.node);
    std::memcpy(&job.parent, record.data() + kParentAt, sizeof job.parent);
    return job;
}

}  // namespace

JobFile parseJobFile(std::string_view bytes) {
    JobFile file;
    std::set<std::string> names;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), kJobRecordSize))) {
        if (file.jobs.size() == kMostJobs) {
            ++file.refused;
            break;
        }
        auto job = bytes.size() < kJobRecordSize ? std::nullopt
                                                 : parseJob(bytes.substr(0, kJobRecordSize));
        if (job && names.insert(job->resultName).second) {
            file.jobs.push_back(std::move(*job));
        } else {
            ++file.refused;
        }
    }
    return file;
}

}  // namespace korvane
