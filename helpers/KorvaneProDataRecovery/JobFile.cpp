#include "KorvaneProDataRecovery/JobFile.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "trash/TrashFormats.h"

namespace korvane {

namespace {

// Only a record as the daemon writes them: no rubbish behind its texts.
std::optional<RecoveryJob> parseJob(std::string_view record) {
    const std::optional<SearchJob> job = decodeSearchJob(record);
    if (!job || job->deviceName.empty()) return std::nullopt;
    const SearchJobBytes written = encodeSearchJob(*job);
    if (record != std::string_view{written.data(), written.size()}) return std::nullopt;
    // Nothing else may be written to.
    const auto node = nodeOfSearchResult(job->searchResultPath);
    if (!node) return std::nullopt;
    const bool isOfNode = static_cast<std::uint32_t>(*node) == job->nodeId;
    return RecoveryJob{
        .node = isOfNode ? *node : job->nodeId,
        .parent = job->parentId,
        .device = job->deviceName,
        .resultName = job->searchResultPath.substr(job->searchResultPath.rfind('/') + 1)};
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
