// Property lists against an independent reader and writer: Python's plistlib, run once.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <random>

#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"

namespace korvane {
namespace {

constexpr int kDocuments = 200;

// Reads ours and writes them again as "N.again"; writes its own as "N.theirs".
constexpr std::string_view kPeer = R"(
import datetime, plistlib, random, struct, sys

folder, count = sys.argv[1], int(sys.argv[2])
r = random.Random(5)

def text():
    return ''.join(r.choice('ab <>&"\'\n\tzüß€𝄞\x7f\x85') for _ in range(r.randrange(20)))

def value(depth):
    kind = r.randrange(10 if depth < 5 else 8)
    if kind == 0: return r.random() < .5
    if kind == 1: return r.randrange(-2**63, 2**64)
    if kind == 2: return r.randrange(-100, 100)
    if kind == 3: return struct.unpack('d', r.randbytes(8))[0]
    if kind == 4: return round(r.uniform(-1e6, 1e6), r.randrange(6))
    if kind == 5: return datetime.datetime(1, 1, 1) + datetime.timedelta(0, r.randrange(315537897600))
    if kind == 6: return r.randbytes(r.randrange(200))
    if kind == 7: return text()
    if kind == 8: return [value(depth + 1) for _ in range(r.randrange(6))]
    return {text(): value(depth + 1) for _ in range(r.randrange(6))}

for i in range(count):
    with open(f'{folder}/{i}.ours', 'rb') as file:
        again = plistlib.dumps(plistlib.load(file), sort_keys=True)
    with open(f'{folder}/{i}.again', 'wb') as file:
        file.write(again)
    with open(f'{folder}/{i}.theirs', 'wb') as file:
        plistlib.dump(value(0), file, sort_keys=True)
)";

class RandomValues {
  public:
    PropertyList value(int depth) {
        switch (below(depth < 5 ? 10 : 8)) {
            case 0:
                return below(2) == 0;
            case 1:
                return static_cast<std::uint64_t>(random_());
            case 2:
                return static_cast<std::int64_t>(random_());
            case 3:
                return std::bit_cast<double>(std::uint64_t{random_()});
            case 4:
                return static_cast<double>(below(2'000'000)) / 1000 - 1000;
            case 5:
                return PropertyListDate(std::chrono::seconds(below(8'000'000'000) - 4'000'000'000));
            case 6: {
                PropertyListData data(static_cast<std::size_t>(below(200)));
                for (auto& byte : data) byte = static_cast<std::byte>(random_());
                return data;
            }
            case 7:
                return text();
            case 8: {
                PropertyListArray items(static_cast<std::size_t>(below(6)));
                for (auto& item : items) item = value(depth + 1);
                return items;
            }
            default: {
                Dictionary dictionary;
                for (auto count = below(6); count > 0; --count) {
                    dictionary.set(text(), value(depth + 1));
                }
                return dictionary;
            }
        }
    }

  private:
    std::int64_t below(std::int64_t end) {
        return std::uniform_int_distribution<std::int64_t>(0, end - 1)(random_);
    }
    std::string text() {
        // No carriage return: that one is written differently on purpose.
        constexpr const char* kPieces[] = {"a",  "b",  " ", "<", ">", "&",    "\"",          "'",
                                           "\n", "\t", "ü", "€", "𝄞", "\x7F", "\xEE\x80\x80"};
        std::string text;
        for (auto count = below(20); count > 0; --count) {
            text += kPieces[below(std::ssize(kPieces))];
        }
        return text;
    }

    std::mt19937_64 random_{7};
};

TEST(PropertyListPeer, AgreesWithPythonByteForByte) {
    const TemporaryFolder folder;
    RandomValues values;
    for (int i = 0; i < kDocuments; ++i) {
        putContents(folder / (std::to_string(i) + ".ours"), formatPropertyList(values.value(0)));
    }
    putContents(folder / "peer.py", kPeer);
    const std::string command = "/usr/bin/python3 -I " + (folder / "peer.py") + " " +
                                folder.path() + " " + std::to_string(kDocuments);
    ASSERT_EQ(std::system(command.c_str()), 0);
    for (int i = 0; i < kDocuments; ++i) {
        const std::string name = folder / std::to_string(i);
        EXPECT_EQ(contentsOf(name + ".again"), contentsOf(name + ".ours"));
        const std::string theirs = contentsOf(name + ".theirs");
        const auto value = parsePropertyList(theirs);
        ASSERT_TRUE(value) << value.error().message << "\n" << theirs;
        EXPECT_EQ(formatPropertyList(*value), theirs);
    }
}

}  // namespace
}  // namespace korvane
