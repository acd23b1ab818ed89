// One line of a directory record, as mtree(5) has it: a path and what is known of the entry there.
// The format knows one time, that of the last change of the contents.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

namespace korvane {

// Appends text with everything that would mean something to a reader of lines, words, comments or
// patterns as a backslash and three octal digits.
void appendEscaped(std::string& line, std::string_view text);

// Appends the words of an entry and the line's end. `linkTarget` is told of links alone.
void appendEntry(std::string& line, std::string_view escapedPath, const struct statx& status,
                 std::string_view linkTarget);

}  // namespace korvane
