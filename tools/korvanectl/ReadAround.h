// Reads a file or a device past the places that it cannot read, and keeps what those are: of a disk
// that begins to fail, what can still be had is had.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace korvane::ctl {

struct ByteRange {
    std::uint64_t begin = 0;
    std::uint64_t length = 0;
    friend bool operator==(const ByteRange&, const ByteRange&) = default;
};

// "8.2 kB: bytes 4096 to 12287"; of many ranges the first ones, and how many more there are.
[[nodiscard]] std::string rangesWords(const std::vector<ByteRange>& ranges);

class ReadAround {
  public:
    // The descriptor must outlive this. One opened for direct reads wants buffers, offsets and
    // lengths that are multiples of kPiece.
    explicit ReadAround(int file) : file_(file) {}

    // The bytes from `offset` on, zeros where they cannot be read; what is missing is kept as from
    // `place` on, at most `wanted` bytes of it. False when the file ends before that.
    [[nodiscard]] bool read(std::span<std::uint8_t> bytes, std::uint64_t offset,
                            std::uint64_t place, std::uint64_t wanted);

    [[nodiscard]] const std::vector<ByteRange>& missing() const { return missing_; }
    // Of the last place that could not be read; 0 for none.
    [[nodiscard]] int error() const { return error_; }

    // What a disk reads and keeps at once.
    static constexpr std::size_t kPiece = 4096;

  private:
    enum class Part { read, failed, ended };
    Part readPart(std::span<std::uint8_t> bytes, std::uint64_t offset);
    void miss(std::uint64_t begin, std::uint64_t length);

    int file_;
    std::vector<ByteRange> missing_;
    std::size_t failures_ = 0;
    int error_ = 0;
};

}  // namespace korvane::ctl
