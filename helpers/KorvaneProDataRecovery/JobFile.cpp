#include "KorvaneProDataRecovery/JobFile.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "trash/TrashFormats.h"

namespace korvane {

namespace {

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

// Only a record as the daemon writes them: no rubbish behind its texts.
std::optional<RecoveryJob> parseJob(std::string_view record) {
    const std::optional<SearchJob> job = decodeSearchJob(record);
    if (!job || job->deviceName.empty()) return std::nullopt;
    const SearchJobBytes written = encodeSearchJob(*job);
    if (record != std::string_view{written.data(), written.size()}) return std::nullopt;
    auto name = resultName(job->searchResultPath);
    if (!name) return std::nullopt;
    return RecoveryJob{.node = job->nodeId,
                       .parent = job->parentId,
                       .device = job->deviceName,
                       .resultName = std::move(*name)};
}

}  // namespace

JobFile parseJobFile(std::string_view bytes) {
    JobFile file;
    std::set<std::string> names;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), kSearchJobBytes))) {
        if (file.jobs.size() == kMostJobs) {
            ++file.refused;
            break;
        }
        auto job = parseJob(bytes.substr(0, kSearchJobBytes));
        if (job && names.insert(job->resultName).second) {
            file.jobs.push_back(std::move(*job));
        } else {
            ++file.refused;
        }
    }
    return file;
}

std::string volumeNameOfInput(std::string_view path) {
    // Around the name as around an empty one.
    const std::string empty = searchInputPathOf("");
    const std::size_t begin = empty.rfind('.');
    const std::string_view end = std::string_view{empty}.substr(begin);
    if (path.size() <= empty.size() || !path.starts_with(empty.substr(0, begin)) ||
        !path.ends_with(end)) {
        return {};
    }
    std::string name{path.substr(begin, path.size() - empty.size())};
    constexpr std::string_view kSlash = "%2F";
    for (std::size_t at = 0; (at = name.find(kSlash, at)) != std::string::npos; ++at) {
        name.replace(at, kSlash.size(), 1, '/');
    }
    return name;
}

}  // namespace korvane
