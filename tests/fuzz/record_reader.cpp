// Directory backups of any bytes, read in pieces of any size: read to the end or refused, the paths
// in their order; and compared, with themselves, which never tells of anything, and with each
// other.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "korvanectl/RecordComparison.h"
#include "korvanectl/RecordReader.h"

namespace {

using namespace korvane::ctl;

RecordReader readerOf(std::string_view text, std::size_t piece) {
    return RecordReader{[text, piece](std::span<char> room) mutable -> std::ptrdiff_t {
                            const std::size_t length = std::min({piece, room.size(), text.size()});
                            std::memcpy(room.data(), text.data(), length);
                            text.remove_prefix(length);
                            return static_cast<std::ptrdiff_t>(length);
                        },
                        "fuzz"};
}

// Whether it was read to its end.
bool read(std::string_view text, std::size_t piece) {
    RecordReader reader = readerOf(text, piece);
    std::string before;
    bool isFirst = true;
    for (;;) {
        const auto entry = reader.next();
        if (!entry || !*entry) {
            return static_cast<bool>(entry);
        }
        const std::string path{(*entry)->path};
        if (!isFirst && compareRecordPaths(before, path) >= 0) std::abort();
        if (!(*entry)->word("type")) std::abort();
        before = path;
        isFirst = false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t piece = data[0] + std::size_t{1};
    const std::string_view text{reinterpret_cast<const char*>(data) + 1, size - 1};
    const bool isWhole = read(text, piece);
    if (read(text, size) != isWhole) std::abort();

    const auto ignore = [](const Change&) {};
    RecordReader first = readerOf(text, piece);
    RecordReader same = readerOf(text, size);
    const auto none = compareRecords(first, same, ignore);
    if (static_cast<bool>(none) != isWhole) std::abort();
    if (none && none->appeared + none->vanished + none->changed > 0) std::abort();

    // The halves, each with the head that a record has.
    constexpr std::string_view kHead = "#mtree\n# / on today\n";
    const std::size_t half = text.size() / 2;
    const std::string one = std::string{kHead}.append(text.substr(0, half));
    const std::string other = std::string{kHead}.append(text.substr(half));
    RecordReader before = readerOf(one, piece);
    RecordReader after = readerOf(other, piece);
    (void)compareRecords(before, after, ignore);  // whatever comes of it, it comes to an end
    return 0;
}
