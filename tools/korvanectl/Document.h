// Property-list files that the daemon rewrites in place, as another program reads them: a reading
// may come in the middle of a rewriting, or after one that was cut short.
#pragma once

#include <optional>
#include <string>

#include "base/PropertyList.h"
#include "korvanectl/Outcome.h"

namespace korvane::ctl {

struct Document {
    std::string text;  // the file, byte for byte
    Dictionary contents;
};

// The file's document; nothing where there is no file. A file that is being rewritten is waited
// for; one that was torn is restored where a whole copy stands beside it. Any other that does not
// parse is left as it is, and is a failure.
[[nodiscard]] Outcome<std::optional<Document>> readDocument(const std::string& path);

// Whether the file holds exactly this text.
[[nodiscard]] bool holdsExactly(const std::string& path, const std::string& text);

// The failure for an error number of a call on the path, with what to do about it.
[[nodiscard]] Failure fileFailure(const std::string& path, int error);

}  // namespace korvane::ctl
