// Folders and files in places that other users write, opened without ever following a link: neither
// the last component of a path nor one above it.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

#include "platform/Folder.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

// The folder, opened for reading; empty, with errno set, when it is none or a link is in the way.
[[nodiscard]] UniqueFd openFolderAt(int base, const std::string& path);
// The same only to look names up in; opening it needs no right to read it.
[[nodiscard]] UniqueFd openPlaceAt(int base, const std::string& path);
// A folder directly in another one, to look names up in; `name` is a single name. With mounts
// refused it is on the same file system, and nothing that is mounted there is even asked.
[[nodiscard]] UniqueFd openPlaceBelow(int folder, const std::string& name, Mounts mounts);
// A regular file, opened for reading; empty when it is none. A pipe in its place holds nobody up.
[[nodiscard]] UniqueFd openRegularFileAt(int base, const std::string& path);

struct FolderStreamCloser {
    // Nothing was written through the stream, so nothing can be lost by its closing.
    void operator()(DIR* stream) const { (void)::closedir(stream); }
};
using FolderStream = std::unique_ptr<DIR, FolderStreamCloser>;
// Null when there is no folder.
[[nodiscard]] FolderStream streamOf(UniqueFd folder);

}  // namespace korvane
