#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "TemporaryFolder.h"
#include "platform/linux/OpenFolder.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;

struct OpenFolderTest : testing::Test {
    OpenFolderTest() {
        fs::create_directories(root / "real/inner");
        root.write("real/file", "contents");
        fs::create_directory_symlink("real", root / "link");
        fs::create_symlink("file", root / "real/toFile");
    }

    TemporaryFolder root;
};

bool areSame(const UniqueFd& opened, const std::string& path) {
    struct stat a {};
    struct stat b {};
    return opened && ::fstat(opened.get(), &a) == 0 && ::lstat(path.c_str(), &b) == 0 &&
           a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

TEST_F(OpenFolderTest, OpensWhatIsThere) {
    EXPECT_TRUE(areSame(openFolderAt(AT_FDCWD, root / "real/inner"), root / "real/inner"));
    EXPECT_TRUE(areSame(openPlaceAt(AT_FDCWD, root / "real//inner/"), root / "real/inner"));
    EXPECT_TRUE(areSame(openRegularFileAt(AT_FDCWD, root / "real/file"), root / "real/file"));
    EXPECT_TRUE(areSame(openPlaceAt(AT_FDCWD, "/"), "/"));
}

TEST_F(OpenFolderTest, OpensRelativeToAFolder) {
    const UniqueFd base = openPlaceAt(AT_FDCWD, root / "real");
    EXPECT_TRUE(areSame(openFolderAt(base.get(), "inner"), root / "real/inner"));
    EXPECT_TRUE(areSame(openFolderAt(base.get(), ""), root / "real"));
    EXPECT_TRUE(areSame(openRegularFileAt(base.get(), "file"), root / "real/file"));
}

TEST_F(OpenFolderTest, FollowsNoLinkAtTheEndAndNoneAbove) {
    for (const char* path : {"link", "link/", "link/inner", "real/../link/inner"}) {
        EXPECT_FALSE(openFolderAt(AT_FDCWD, root / path)) << path;
        EXPECT_FALSE(openPlaceAt(AT_FDCWD, root / path)) << path;
    }
    EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "link/file"));
    EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "real/toFile"));
}

TEST_F(OpenFolderTest, SaysWhyItOpensNothing) {
    errno = 0;
    EXPECT_FALSE(openFolderAt(AT_FDCWD, root / "none/inner"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(openFolderAt(AT_FDCWD, root / "real/file"));
    EXPECT_EQ(errno, ENOTDIR);
    ASSERT_EQ(::mkfifo((root / "real/pipe").c_str(), 0600), 0);
    EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "real/pipe"));
    EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "real"));
}

TEST_F(OpenFolderTest, GoesDownAPathThatIsLongerThanTheKernelTakes) {
    const std::string name(NAME_MAX, 'n');
    std::string path = root.path();
    UniqueFd folder = openPlaceAt(AT_FDCWD, path);
    while (path.size() <= PATH_MAX) {
        ASSERT_EQ(::mkdirat(folder.get(), name.c_str(), 0700), 0);
        folder = openPlaceAt(folder.get(), name);
        path += '/' + name;
    }
    struct stat deepest {};
    struct stat found {};
    ASSERT_EQ(::fstat(folder.get(), &deepest), 0);
    const UniqueFd opened = openFolderAt(AT_FDCWD, path);
    ASSERT_TRUE(opened);
    ASSERT_EQ(::fstat(opened.get(), &found), 0);
    EXPECT_EQ(found.st_ino, deepest.st_ino);
    ASSERT_EQ(::symlinkat(".", folder.get(), "link"), 0);
    EXPECT_FALSE(openFolderAt(AT_FDCWD, path + "/link"));
}

}  // namespace
}  // namespace korvane
