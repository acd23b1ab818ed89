#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "KorvaneProDirectoryBackup/RecordLine.h"

namespace korvane {
namespace {

std::string escaped(std::string_view text) {
    std::string line;
    appendEscaped(line, text);
    return line;
}

TEST(RecordLine, EscapesWhateverAReaderCouldTakeForSomethingElse) {
    const struct {
        std::string_view text;
        std::string_view escaped;
    } rows[] = {
        {"plain-Name_1.txt", "plain-Name_1.txt"},
        {"", ""},
        {"two words", "two\\040words"},
        {"back\\slash", "back\\134slash"},
        {"#comment", "\\043comment"},
        {"a*b?c[d]", "a\\052b\\077c\\133d]"},
        {"line\nend\ttab\x01\x7f", "line\\012end\\011tab\\001\\177"},
        {"\xC3\xA9\xFF", "\\303\\251\\377"},
        {"type=dir", "type=dir"},
    };
    for (const auto& row : rows) EXPECT_EQ(escaped(row.text), row.escaped);
}

struct statx statusOf(mode_t mode) {
    struct statx status {};
    status.stx_mode = static_cast<__u16>(mode);
    status.stx_uid = 0;
    status.stx_gid = 4'294'967'295;
    status.stx_size = 12;
    status.stx_mtime.tv_sec = -1;
    status.stx_mtime.tv_nsec = 5;
    status.stx_ino = 18'446'744'073'709'551'615ULL;
    return status;
}

TEST(RecordLine, TellsOfEachTypeWhatItHas) {
    const struct {
        mode_t mode;
        std::string_view words;
    } rows[] = {
        {S_IFREG | 0644,
         "type=file mode=0644 uid=0 gid=4294967295 size=12 time=-1.000000005 "
         "inode=18446744073709551615"},
        {S_IFDIR | 01777,
         "type=dir mode=01777 uid=0 gid=4294967295 time=-1.000000005 "
         "inode=18446744073709551615"},
        {S_IFLNK | 0777,
         "type=link mode=0777 uid=0 gid=4294967295 time=-1.000000005 "
         "inode=18446744073709551615 link=to\\040here"},
        {S_IFIFO | 0,
         "type=fifo mode=00 uid=0 gid=4294967295 time=-1.000000005 "
         "inode=18446744073709551615"},
        {S_IFSOCK | 04755,
         "type=socket mode=04755 uid=0 gid=4294967295 time=-1.000000005 "
         "inode=18446744073709551615"},
        {S_IFBLK | 0660,
         "type=block mode=0660 uid=0 gid=4294967295 time=-1.000000005 "
         "inode=18446744073709551615 device=linux,0,0"},
        {S_IFCHR | 0660,
         "type=char mode=0660 uid=0 gid=4294967295 time=-1.000000005 "
         "inode=18446744073709551615 device=linux,0,0"},
    };
    for (const auto& row : rows) {
        std::string line;
        appendEntry(line, "./a", statusOf(row.mode), "to here");
        EXPECT_EQ(line, "./a " + std::string(row.words) + "\n");
    }
}

}  // namespace
}  // namespace korvane
