#include "platform/linux/VolumeLinks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <optional>
#include <set>
#include <tuple>

#include "platform/linux/Sysfs.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {
namespace {

constexpr char kNameOfRoot[] = "System";
constexpr mode_t kFolderMode = 0755;

std::optional<std::string> targetOfLink(int folder, const std::string& name) {
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(folder, name.c_str(), target.data(), target.size());
    if (length < 0) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(length));
}

bool isAbsent(int folder, const std::string& name) {
    struct stat status {};
    return ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

std::string ownNameOf(const std::string& mountPoint) {
    return mountPoint == "/" ? kNameOfRoot : lastComponent(mountPoint);
}

// Whether the name is that of the volume, or that with a number behind it.
bool isNameOf(const std::string& mountPoint, const std::string& name) {
    const std::string own = ownNameOf(mountPoint);
    if (!name.starts_with(own)) {
        return false;
    }
    const std::string_view rest = std::string_view{name}.substr(own.size());
    return rest.empty() || (rest.size() > 1 && rest.front() == ' ' &&
                            rest.find_first_not_of("0123456789", 1) == std::string_view::npos);
}

// NAME, else NAME 1, NAME 2 and so on.
std::string firstFreeName(const std::string& name,
                          const std::function<bool(const std::string& name)>& isTaken) {
    std::string free = name;
    for (int number = 1; isTaken(free); ++number) {
        free = name + " " + std::to_string(number);
    }
    return free;
}

}  // namespace

std::map<std::string, std::string> namesForVolumes(
    const std::string& folder, const std::vector<std::string>& mountPoints,
    const std::map<std::string, std::string>& namesSoFar) {
    std::map<std::string, std::string> names{{"/", kNameOfRoot}};
    std::set<std::string> taken{kNameOfRoot};
    const auto give = [&](const std::string& mountPoint, const std::string& name) {
        if (!names.contains(mountPoint) && taken.insert(name).second) {
            names.emplace(mountPoint, name);
        }
    };
    for (const std::string& mountPoint : mountPoints) {
        if (parentFolder(mountPoint) == folder) {
            give(mountPoint, lastComponent(mountPoint));
        }
    }
    for (const std::string& mountPoint : mountPoints) {
        if (const auto name = namesSoFar.find(mountPoint); name != namesSoFar.end()) {
            give(mountPoint, name->second);
        }
    }
    for (const std::string& mountPoint : mountPoints) {
        give(mountPoint, firstFreeName(ownNameOf(mountPoint), [&](const std::string& name) {
                 return taken.contains(name);
             }));
    }
    return names;
}

std::map<std::string, std::string> volumeLinksIn(const std::string& folder) {
    std::map<std::string, std::string> names;
    const Sysfs links{folder};
    for (const std::string& name : links.list(".")) {
        if (auto target = links.linkText(name); target && isNameOf(*target, name)) {
            names.emplace(std::move(*target), name);
        }
    }
    return names;
}

std::map<std::string, std::string> linksForVolumes(
    const std::string& folder, const std::vector<std::string>& mountPoints,
    const std::map<std::string, std::string>& standing,
    const std::function<bool(const std::string& name)>& isTaken) {
    std::set<std::string> wanted;
    std::set<std::string> taken;
    for (const std::string& mountPoint : mountPoints) {
        if (parentFolder(mountPoint) == folder && mountPoint != "/") {
            taken.insert(lastComponent(mountPoint));
        } else {
            wanted.insert(mountPoint);
        }
    }
    std::map<std::string, std::string> links;
    for (const auto& [name, target] : standing) {
        if (wanted.contains(target) && !taken.contains(name)) {
            links.emplace(name, target);
            wanted.erase(target);
        }
    }
    for (const std::string& mountPoint : mountPoints) {
        if (wanted.erase(mountPoint) == 0) {
            continue;
        }
        links.emplace(firstFreeName(ownNameOf(mountPoint),
                                    [&](const std::string& name) {
                                        return links.contains(name) || taken.contains(name) ||
                                               isTaken(name);
                                    }),
                      mountPoint);
    }
    return links;
}

// Without the volumes that others have made a link to, or that this object has forgotten it made.
std::vector<std::string> VolumeLinks::withoutLink(
    std::vector<std::string> mountPoints, const std::map<std::string, std::string>& own) const {
    const std::map<std::string, std::string> there = volumeLinksIn(folder_);
    std::erase_if(mountPoints, [&](const std::string& mountPoint) {
        const auto name = there.find(mountPoint);
        return name != there.end() && !own.contains(name->second);
    });
    return mountPoints;
}

bool VolumeLinks::update(const std::vector<std::string>& mountPoints) {
    if (folder_.empty() || (isCurrent_ && mountPoints == current_)) {
        return true;
    }
    // Refused where something else stands in its place; then opening it is, too.
    (void)::mkdir(folder_.c_str(), kFolderMode);
    const UniqueFd folder{::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!folder) {
        return true;
    }
    std::map<std::string, std::string> standing;
    for (const auto& [name, target] : memory_.links()) {
        if (isAbsent(folder.get(), name) || targetOfLink(folder.get(), name) == target) {
            standing.emplace(name, target);
        }
    }
    const std::map<std::string, std::string> links = linksForVolumes(
        folder_, withoutLink(mountPoints, standing), standing, [&](const std::string& name) {
            return !standing.contains(name) && !isAbsent(folder.get(), name);
        });
    for (const auto& [name, target] : standing) {
        const auto stays = links.find(name);
        if (stays == links.end() || stays->second != target) {
            (void)::unlinkat(folder.get(), name.c_str(), 0);  // gone already is as good
        }
    }
    memory_.setLinks(links);
    if (!memory_.save()) {
        return false;
    }
    for (const auto& [name, target] : links) {
        // Stands already, or cannot be made and is tried again at the next change.
        std::ignore = ::symlinkat(target.c_str(), folder.get(), name.c_str());
    }
    current_ = mountPoints;
    isCurrent_ = true;
    return true;
}

}  // namespace korvane
