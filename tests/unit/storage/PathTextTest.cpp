#include <gtest/gtest.h>

#include "storage/PathText.h"

namespace korvane {
namespace {

TEST(LastPathComponent, IsWhatFollowsTheLastSlashButOne) {
    const struct {
        const char* path;
        const char* component;
    } rows[] = {
        {"/dev/disk2s2", "disk2s2"},
        {"disk2s2", "disk2s2"},
        {"/", "/"},
        {"///", "/"},
        {"", ""},
        {"/Volumes/Data/", "Data"},
        {"/dev/", "dev"},
        {"/Volumes/..", ".."},
        {"Trash Deletes/x//", "x"},
        {"/Volumes/a\nb", "a\nb"},
        {"/Volumes/\xff", "\xff"},
    };
    for (const auto& row : rows) EXPECT_EQ(lastPathComponent(row.path), row.component) << row.path;
}

TEST(FromLastSlash, IncludesTheSlash) {
    EXPECT_EQ(fromLastSlash("/Volumes/Data"), "/Data");
    EXPECT_EQ(fromLastSlash("/"), "/");
    EXPECT_EQ(fromLastSlash("/Volumes/Data/"), "/");
    EXPECT_EQ(fromLastSlash("Data"), std::nullopt);
    EXPECT_EQ(fromLastSlash(""), std::nullopt);
}

}  // namespace
}  // namespace korvane
