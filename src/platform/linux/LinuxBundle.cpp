#include "platform/linux/LinuxBundle.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/PropertyListFile.h"

namespace korvane {

namespace {

std::string folderOfExecutable() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
}

// The language that the environment's locale asks for messages: "de_DE.UTF-8" is "de". The
// variables are POSIX's, in its order of precedence.
std::vector<std::string> languagesOfEnvironment() {
    for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets
        if (value == nullptr || *value == '\0') continue;
        const std::string_view locale{value};
        const std::string_view language = locale.substr(0, locale.find_first_of("_.@"));
        // The name becomes part of a path.
        if (language.find('/') != std::string_view::npos || language == "C" ||
            language == "POSIX" || language.empty()) {
            return {};
        }
        return {std::string{language}};
    }
    return {};
}

}  // namespace

LinuxBundle::LinuxBundle() : LinuxBundle(folderOfExecutable(), languagesOfEnvironment()) {}

LinuxBundle::LinuxBundle(std::string folder, std::vector<std::string> languages)
    : folder_(std::move(folder)), languages_(std::move(languages)) {
    languages_.emplace_back("en");
}

std::string LinuxBundle::plugIn(std::string_view name) {
    std::string path = folder_ + "/PlugIns/" + std::string{name};
    return ::access(path.c_str(), X_OK) == 0 ? path : std::string{};
}

std::string LinuxBundle::localizedString(std::string_view tableName, std::string_view key,
                                         std::string_view fallback) {
    return table(tableName).text(key, fallback);
}

const StringsTable& LinuxBundle::table(std::string_view name) {
    const auto known = tables_.find(name);
    if (known != tables_.end()) return known->second;
    PropertyListFiles files;
    for (const std::string& language : languages_) {
        Result<PropertyList> list = files.read(folder_ + "/Resources/" + language + ".lproj/" +
                                               std::string{name} + ".strings");
        Dictionary* const texts = list ? list->dictionary() : nullptr;
        if (texts != nullptr) {
            return tables_.emplace(std::string{name}, StringsTable{std::move(*texts)})
                .first->second;
        }
    }
    return tables_.emplace(std::string{name}, StringsTable{}).first->second;
}

}  // namespace korvane
