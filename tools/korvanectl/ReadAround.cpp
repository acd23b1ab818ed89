#include "korvanectl/ReadAround.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "korvanectl/Words.h"

namespace korvane::ctl {

namespace {

// Each may take a dying disk seconds. After so many, what surrounds a bad place is given up with
// it.
constexpr std::size_t kMostFailures = 1000;
constexpr std::size_t kMostNamed = 5;

}  // namespace

std::string rangesWords(const std::vector<ByteRange>& ranges) {
    std::uint64_t whole = 0;
    std::string named;
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        whole += ranges[i].length;
        if (i >= kMostNamed) continue;
        named += fmt::format("{}{} to {}", i == 0 ? "bytes " : ", ", ranges[i].begin,
                             ranges[i].begin + ranges[i].length - 1);
    }
    if (ranges.size() > kMostNamed) {
        named += fmt::format(" and {} more ranges", ranges.size() - kMostNamed);
    }
    return fmt::format("{}: {}", sizeWords(static_cast<double>(whole)), named);
}

ReadAround::Part ReadAround::readPart(std::span<std::uint8_t> bytes, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = ::pread(file_, bytes.data() + done, bytes.size() - done,
                                    static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            error_ = errno;
            ++failures_;
        }
        if (got <= 0) {
            std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(done), bytes.end(), 0);
            return got < 0 ? Part::failed : Part::ended;
        }
        done += static_cast<std::size_t>(got);
    }
    return Part::read;
}

bool ReadAround::read(std::span<std::uint8_t> bytes, std::uint64_t offset, std::uint64_t place,
                      std::uint64_t wanted) {
    const Part part = readPart(bytes, offset);
    if (part == Part::read) return true;
    if (part == Part::failed && bytes.size() > kPiece && failures_ < kMostFailures) {
        const std::size_t half = (bytes.size() / 2 + kPiece - 1) / kPiece * kPiece;
        const std::uint64_t wantedHere = std::min<std::uint64_t>(half, wanted);
        const bool isThere = read(bytes.first(half), offset, place, wantedHere);
        return read(bytes.subspan(half), offset + half, place + half, wanted - wantedHere) &&
               isThere;
    }
    std::uint64_t gone = 0;
    if (part == Part::ended) {
        // What came before the end was read: the zeros behind it are not the file's.
        const ssize_t last = ::lseek(file_, 0, SEEK_END);
        const auto end = static_cast<std::uint64_t>(std::max<ssize_t>(last, 0));
        gone = end > offset ? std::min(end - offset, wanted) : 0;
    }
    if (wanted > gone) miss(place + gone, wanted - gone);
    return part != Part::ended || wanted <= gone;
}

void ReadAround::miss(std::uint64_t begin, std::uint64_t length) {
    if (!missing_.empty() && missing_.back().begin + missing_.back().length == begin) {
        missing_.back().length += length;
    } else {
        missing_.push_back({begin, length});
    }
}

}  // namespace korvane::ctl
