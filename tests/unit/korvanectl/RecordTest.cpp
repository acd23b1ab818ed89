// Reading, comparing and searching directory backups: records written here by hand, malformed ones
// among them, and records of real folders by the program that makes them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "KorvaneProDirectoryBackup/DirectoryRecord.h"
#include "korvanectl/RecordComparison.h"
#include "korvanectl/RecordReader.h"
#include "korvanectl/RecordSearch.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kHead[] = "#mtree\n# /Volumes/Data on 2026-01-01 00:00:00 +0000\n";
constexpr char kRoot[] = ". type=dir mode=0755 uid=0 gid=0 time=1.0 inode=2\n";

std::string record(const std::string& lines) { return kHead + (kRoot + lines); }

// Hands out a few bytes at a time, so that lines lie across the pieces.
RecordReader readerOf(std::string text, std::size_t piece = 7) {
    auto source = [text = std::move(text), at = std::size_t{0},
                   piece](std::span<char> room) mutable -> std::ptrdiff_t {
        const std::size_t length = std::min({piece, room.size(), text.size() - at});
        std::memcpy(room.data(), text.data() + at, length);
        at += length;
        return static_cast<std::ptrdiff_t>(length);
    };
    return RecordReader{source, "a record"};
}

// The paths, then the failure if there was one.
std::vector<std::string> pathsOf(RecordReader reader) {
    std::vector<std::string> paths;
    for (;;) {
        const auto entry = reader.next();
        if (!entry) {
            paths.push_back(entry.failure().message);
            return paths;
        }
        if (!*entry) {
            return paths;
        }
        paths.emplace_back((*entry)->path);
    }
}

TEST(RecordPaths, StandFolderByFolderEachSortedByBytes) {
    const std::vector<std::string> inOrder = {"",      "a",    "a.b",   "b",     "b!",
                                              "z",     "\xFF", "a/b",   "a/c",   "a/b/c",
                                              "a.b/a", "b/a",  "b/a/a", "b/a/b", "b!/a"};
    for (std::size_t i = 0; i < inOrder.size(); ++i) {
        for (std::size_t j = 0; j < inOrder.size(); ++j) {
            EXPECT_EQ(compareRecordPaths(inOrder[i], inOrder[j]), i <=> j)
                << inOrder[i] << " and " << inOrder[j];
        }
    }
}

TEST(RecordReader, GivesPathsAndWordsAndPassesOverNotes) {
    RecordReader reader =
        readerOf(record("./a\\040b type=file size=8 time=2.5\n"
                        "# a remark\n"
                        "\n"
                        "./d type=dir mode=0755\n"
                        "./d/l type=link link=\\134\n"));
    auto entry = reader.next();
    ASSERT_TRUE(entry && *entry);
    EXPECT_EQ((*entry)->path, "");
    EXPECT_EQ(reader.mountPoint(), "/Volumes/Data");
    entry = reader.next();
    ASSERT_TRUE(entry && *entry);
    EXPECT_EQ((*entry)->path, "a b");
    EXPECT_EQ((*entry)->word("size"), "8");
    EXPECT_EQ((*entry)->word("siz"), std::nullopt);
    EXPECT_EQ((*entry)->word("time"), "2.5");
    entry = reader.next();
    ASSERT_TRUE(entry && *entry);
    EXPECT_EQ((*entry)->path, "d");
    entry = reader.next();
    ASSERT_TRUE(entry && *entry);
    EXPECT_EQ((*entry)->path, "d/l");
    entry = reader.next();
    ASSERT_TRUE(entry);
    EXPECT_FALSE(*entry);
}

TEST(RecordReader, SaysWhichLineOfAMalformedRecordIsWrong) {
    const struct {
        std::string text;
        const char* expected;
    } rows[] = {
        {"", "line 1 is missing: the file is empty"},
        {"#mtree", "line 1 has no end"},
        {"bplist00\n", "line 1 is not the beginning of one"},
        {std::string(1, '\0') + "\n", "line 1 is not the beginning of one"},
        {"#mtree\n", "line 1 does not name the volume"},
        {"#mtree\n./a type=file\n", "line 2 does not name the volume"},
        {"#mtree\n# /a\\9 on today\n", "line 2 does not name the volume"},
        {std::string(kHead) + "./a type=file\n", "line 3 is not in its place"},
        {record("./b type=file\n./a type=file\n"), "line 5 is not in its place"},
        {record("./a type=file\n./a type=file\n"), "line 5 is not in its place"},
        {record(". type=dir\n"), "line 4 is not in its place"},
        {record("./a/b type=file\n./c type=file\n"), "line 5 is not in its place"},
        {record("./a\n"), "line 4 does not say what it is about"},
        {record("./a size=1\n"), "line 4 does not say what it is about"},
        {record("./a type=file =1\n"), "line 4 does not say what it is about"},
        {record("./a type=file word\n"), "line 4 does not say what it is about"},
        {record("/set type=file\n"), "line 4 names no path"},
        {record("a type=file\n"), "line 4 names no path"},
        {record("./ type=file\n"), "line 4 names no path"},
        {record("./a//b type=file\n"), "line 4 names no path"},
        {record("./a/ type=file\n"), "line 4 names no path"},
        {record("./a/../b type=file\n"), "line 4 names no path"},
        {record("./. type=file\n"), "line 4 names no path"},
        {record("./a\\ type=file\n"), "line 4 names no path"},
        {record("./a\\04 type=file\n"), "line 4 names no path"},
        {record("./a\\048 type=file\n"), "line 4 names no path"},
        {record("./a\\000 type=file\n"), "line 4 names no path"},
        {record("./a\\400 type=file\n"), "line 4 names no path"},
        {record("./a\\056\\057b type=file\n./c type=fi"), "line 5 has no end: the file is cut"},
        {record("# ./a\\ cannot be read: no\n"), "line 4 names no path"},
        {record(std::string(2 << 20, 'x')), "line 4 is too long"},
    };
    for (const auto& row : rows) {
        const auto paths = pathsOf(readerOf(row.text, 50'000));
        ASSERT_THAT(paths, Not(IsEmpty()));
        EXPECT_THAT(paths.back(), HasSubstr(row.expected)) << row.text.substr(0, 200);
        EXPECT_THAT(paths.back(), HasSubstr("a record is damaged or no directory backup"));
    }
}

TEST(RecordReader, RefusesWhatIsNoFile) {
    const TemporaryFolder folder;
    EXPECT_THAT(RecordReader::open(folder / "missing").failure().message,
                HasSubstr("No such file"));
    EXPECT_THAT(RecordReader::open(folder.path()).failure().message, HasSubstr("is not a file"));
    std::filesystem::create_symlink("/etc/hostname", folder / "link");
    EXPECT_FALSE(RecordReader::open(folder / "link"));
}

// What compareRecords() tells, a line a change.
std::vector<std::string> differences(RecordReader before, RecordReader after) {
    constexpr std::string_view kSigns = "+-~?";
    std::vector<std::string> lines;
    const auto counts = compareRecords(before, after, [&](const Change& change) {
        std::string line = kSigns[static_cast<std::size_t>(change.kind)] + change.path;
        for (const WordChange& word : change.words) {
            line += " " + std::string{word.key} + ":" + word.before + ">" + word.after;
        }
        lines.push_back(line);
    });
    if (!counts) {
        lines.push_back(counts.failure().message);
    }
    return lines;
}

std::vector<std::string> differences(const std::string& before, const std::string& after) {
    return differences(readerOf(record(before)), readerOf(record(after)));
}

TEST(RecordComparison, TellsWhatAppearedVanishedAndChanged) {
    EXPECT_THAT(differences("./a type=file mode=0644 size=1 time=1.5 inode=3\n"
                            "./b type=dir mode=0755\n"
                            "./c type=file mode=0644 size=1 inode=4\n"
                            "./b/old type=file mode=0644\n",
                            "./a type=file mode=0600 size=2 time=2.5 inode=3\n"
                            "./b type=dir mode=0755\n"
                            "./c type=file mode=0644 size=1 inode=9\n"
                            "./d type=link mode=0777 link=x\n"
                            "./b/new type=file mode=0644\n"),
                ElementsAre("~a mode:0644>0600 size:1>2 time:1.5>2.5", "+d", "+b/new", "-b/old"));
    EXPECT_THAT(differences("", ""), IsEmpty());
    EXPECT_THAT(differences("./a type=file mode=0\n", ""), ElementsAre("-a"));
}

TEST(RecordComparison, TellsNothingOfWhatABackupCouldNotLookInto) {
    const std::string all =
        "./a type=dir mode=0755\n./ab type=dir mode=0755\n./b type=dir mode=0755\n"
        "./a/1 type=file mode=0\n./a/2 type=dir mode=0\n./a/2/deep type=file mode=0\n"
        "./ab/1 type=file mode=0\n./b/1 type=file mode=0\n";
    EXPECT_THAT(differences(all,
                            "./a type=dir mode=0755\n./ab type=dir mode=0755\n"
                            "./b type=dir mode=0755\n"
                            "# ./a cannot be read: Permission denied\n"),
                ElementsAre("?a/1", "?a/2", "?a/2/deep", "-ab/1", "-b/1"));
    // A name that could not be asked, and a folder that something else was mounted on.
    EXPECT_THAT(differences("# ./a cannot be read: Input/output error\n./ab type=dir mode=0755\n"
                            "./b type=dir\n./ab/1 type=file mode=0\n",
                            all),
                ElementsAre("?a", "?b", "?a/1", "?a/2", "?a/2/deep", "?b/1"));
    EXPECT_THAT(differences(all,
                            "./a type=dir mode=0755\n"
                            "# The way back up was moved: the record ends here.\n"),
                ElementsAre("?ab", "?b", "?a/1", "?a/2", "?a/2/deep", "?ab/1", "?b/1"));
}

TEST(RecordComparison, EndsWhereARecordIsDamaged) {
    EXPECT_THAT(differences("./a type=file mode=0\n", "./a type=file mode=0\n./b\n"),
                ElementsAre(HasSubstr("line 5 does not say")));
    EXPECT_THAT(differences("./b\n", ""), ElementsAre(HasSubstr("line 4 does not say")));
}

TEST(RecordComparison, ReadsWhatTheProgramWritesWhateverTheNames) {
    const TemporaryFolder folder;
    const std::string tree = folder / "tree";
    std::filesystem::create_directories(tree + "/a b/c\nd");
    std::filesystem::create_directories(tree + "/a");
    std::filesystem::create_directories(tree + "/a!/\xC3\xA4\xFF");
    for (const char* const name :
         {"/a b/#x", "/a/\\040", "/a!/\xC3\xA4\xFF/*", "/A", "/~", "/a.b"}) {
        std::ofstream{tree + name} << "x";
    }
    std::filesystem::create_symlink("a b", tree + "/a b/c\nd/=link");
    const auto write = [&](const std::string& name) {
        auto file = RecordFile::create(folder / name);
        ASSERT_TRUE(file);
        ASSERT_TRUE(writeDirectoryRecord(tree, Time{}, *file));
        ASSERT_TRUE(file->commit());
    };
    write("first");
    std::ofstream{tree + "/a/new\tname"} << "x";
    std::filesystem::remove(tree + "/a!/\xC3\xA4\xFF/*");
    write("second");
    const auto open = [&](const char* name) { return *RecordReader::open(folder / name); };
    EXPECT_EQ(pathsOf(open("first")).size(), 13U);
    EXPECT_THAT(differences(open("first"), open("first")), IsEmpty());
    EXPECT_THAT(differences(open("first"), open("second")),
                ElementsAre(HasSubstr("~a time:"), "+a/new\tname",
                            HasSubstr("~a!/\xC3\xA4\xFF time:"), "-a!/\xC3\xA4\xFF/*"));
}

TEST(RecordSearch, MatchesPartsOfNamesPatternsAndPaths) {
    const struct {
        const char* path;
        const char* text;
        bool matches;
    } rows[] = {
        {"folder/Report.txt", "report", true},
        {"folder/Report.txt", "*.TXT", true},
        {"folder/Report.txt", "*.tx", false},
        {"folder/Report.txt", "folder", false},
        {"folder/Report.txt", "FOLDER/r", true},
        {"folder/Report.txt", "fold*/*.txt", true},
        {"Report.txt", "Report.txt", true},
        {"Report.txt", "[a-z]eport.???", true},
        {"a", "ab", false},
        {"", "", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(matchesName(row.path, row.text), row.matches) << row.path << ' ' << row.text;
    }
}

TEST(RecordSearch, TellsOfAnEntryOnceAndOfTheNewestBackupThatHasIt) {
    const TemporaryFolder folder;
    const auto write = [&](const char* name, const std::string& lines) {
        std::ofstream{folder / name} << lines;
        return folder / name;
    };
    const std::vector<std::string> records = {
        write("1", record("./x type=file size=1 time=5.5\n./y type=dir mode=0755\n"
                          "./y/x2 type=file size=3\n")),
        write("2", record("./x type=file size=2 time=6.5\n./x1 type=link link=x\n")),
        write("3", record("./x type=file size=9\ndamaged\n")), folder / "missing"};
    std::vector<std::string> found;
    std::vector<std::string> warnings;
    searchRecords(
        records, "x",
        [&](const RecordMatch& match) {
            found.push_back(match.path + " " + match.type + " " +
                            std::to_string(match.sizeBytes.value_or(-1)).substr(0, 2) + " " +
                            std::to_string(match.newest) + " " + std::to_string(match.backups));
        },
        [&](const Failure& failure) { warnings.push_back(failure.message); });
    EXPECT_THAT(found, ElementsAre("/Volumes/Data/x file 9. 2 3", "/Volumes/Data/x1 link -1 1 1",
                                   "/Volumes/Data/y/x2 file 3. 0 1"));
    EXPECT_THAT(warnings, ElementsAre(HasSubstr("No such file"), HasSubstr("line 5")));
}

TEST(RecordSearch, ReadsTimesAndNothingElse) {
    EXPECT_EQ(recordedTime("5.500000000"), Time{std::chrono::seconds{5}});
    EXPECT_EQ(recordedTime("-5.5"), Time{std::chrono::seconds{-5}});
    for (const char* const text : {"", "x", "99999999999999", "99999999999999999999999", "-"}) {
        EXPECT_EQ(recordedTime(text), std::nullopt) << text;
    }
    EXPECT_EQ(recordedTime(std::nullopt), std::nullopt);
}

}  // namespace
}  // namespace korvane::ctl
