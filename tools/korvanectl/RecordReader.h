// Reads a directory backup, which is a sorted record of a volume's folders in mtree lines, from its
// beginning to its end. Memory holds one line and what the record says it could not look into.
// Whatever bytes the file has: what is no such record is a failure that names the line.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "korvanectl/Outcome.h"
#include "platform/linux/UniqueFd.h"

namespace korvane::ctl {

// The order of a record's lines: each folder's names together, sorted by their bytes, and then, one
// after the other, what is in the folders among them.
[[nodiscard]] std::strong_ordering compareRecordPaths(std::string_view first,
                                                      std::string_view second);

// One entry of a volume. Until the reader goes on.
struct RecordEntry {
    std::string_view path;   // below the volume's own folder, which itself is the empty path
    std::string_view words;  // what is known of it: "type=file mode=0644 size=8"

    // The value of a word; nothing where the entry has none.
    [[nodiscard]] std::optional<std::string_view> word(std::string_view key) const;
};

class RecordReader {
  public:
    // Fills some of the room; 0 at the end, negative with errno set on an error.
    using Source = std::function<std::ptrdiff_t(std::span<char> room)>;

    [[nodiscard]] static Outcome<RecordReader> open(const std::string& path);
    // `name` is what failures call the record.
    RecordReader(Source source, std::string name);

    // The next entry; nothing at the record's end.
    [[nodiscard]] Outcome<std::optional<RecordEntry>> next();

    // What the record's head calls the volume's mount point; from the first entry on.
    [[nodiscard]] const std::string& mountPoint() const { return mountPoint_; }
    // Whether the record is silent about what is at the path, since it or a folder above it could
    // not be read or had something else mounted on it. To be asked about paths between the entry
    // before the one that next() gave last, and that one.
    [[nodiscard]] bool isSilentAbout(std::string_view path) const;
    // Whether the record says itself that it ends too early.
    [[nodiscard]] bool isCutShort() const { return isCutShort_; }

  private:
    [[nodiscard]] Outcome<bool> readLine();
    [[nodiscard]] std::optional<Failure> takeHead();
    [[nodiscard]] std::optional<Failure> takeNote();
    [[nodiscard]] Outcome<RecordEntry> takeEntry();
    [[nodiscard]] Failure damage(std::string_view what) const;

    void forgetPassed();

    struct InOrder {
        using is_transparent = void;
        bool operator()(std::string_view first, std::string_view second) const;
    };

    Source source_;
    std::string name_;
    std::string buffer_;
    std::size_t begin_ = 0;  // of what is not read yet, in the buffer
    std::string_view line_;  // within the buffer
    std::size_t number_ = 0;
    std::string path_;
    std::string previous_;
    std::string mountPoint_;
    // The paths it is silent about, in an order in which the passed ones come first.
    std::set<std::string, InOrder> silent_;
    bool isBegun_ = false;
    bool isCutShort_ = false;
};

}  // namespace korvane::ctl
