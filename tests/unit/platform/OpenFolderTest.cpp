#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include "TemporaryFolder.h"
#include "platform/linux/OpenFolder.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;

// From here on openat2 fails with this number in the thread that calls it. False where there are no
// filters.
bool refuseOpenat2(int number) {
    constexpr unsigned kCall = SYS_openat2;
    const auto answer = SECCOMP_RET_ERRNO | static_cast<unsigned>(number);
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kCall, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, answer),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{.len = std::size(steps), .filter = steps};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// With openat2, and where it fails with this number: on kernels that do not know it, and below
// filters that do not let it pass.
struct OpenFolderTest : testing::TestWithParam<int> {
    OpenFolderTest() {
        fs::create_directories(root / "real/inner");
        root.write("real/file", "contents");
        fs::create_directory_symlink("real", root / "link");
        fs::create_symlink("file", root / "real/toFile");
    }

    // In a thread of its own: a filter stays as long as its thread.
    static void run(const std::function<void()>& test) {
        bool isFiltered = true;
        std::thread([&] {
            if (GetParam() != 0) isFiltered = refuseOpenat2(GetParam());
            if (!isFiltered) return;
            if (GetParam() != 0) {
                ASSERT_EQ(::syscall(SYS_openat2, AT_FDCWD, "/", nullptr, 0), -1);
                ASSERT_EQ(errno, GetParam());
            }
            test();
        }).join();
        if (!isFiltered) GTEST_SKIP() << "no filters here";
    }

    TemporaryFolder root;
};

INSTANTIATE_TEST_SUITE_P(Openat2, OpenFolderTest, testing::Values(0, ENOSYS, EPERM),
                         [](const testing::TestParamInfo<int>& number) -> std::string {
                             if (number.param == 0) return "IsThere";
                             return number.param == EPERM ? "IsNotPermitted" : "IsMissing";
                         });

bool areSame(const UniqueFd& opened, const std::string& path) {
    struct stat a {};
    struct stat b {};
    return opened && ::fstat(opened.get(), &a) == 0 && ::lstat(path.c_str(), &b) == 0 &&
           a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

TEST_P(OpenFolderTest, OpensWhatIsThere) {
    run([&] {
        EXPECT_TRUE(areSame(openFolderAt(AT_FDCWD, root / "real/inner"), root / "real/inner"));
        EXPECT_TRUE(areSame(openPlaceAt(AT_FDCWD, root / "real//inner/"), root / "real/inner"));
        EXPECT_TRUE(areSame(openRegularFileAt(AT_FDCWD, root / "real/file"), root / "real/file"));
        EXPECT_TRUE(areSame(openPlaceAt(AT_FDCWD, "/"), "/"));
    });
}

TEST_P(OpenFolderTest, OpensRelativeToAFolder) {
    run([&] {
        const UniqueFd base = openPlaceAt(AT_FDCWD, root / "real");
        EXPECT_TRUE(areSame(openFolderAt(base.get(), "inner"), root / "real/inner"));
        EXPECT_TRUE(areSame(openFolderAt(base.get(), ""), root / "real"));
        EXPECT_TRUE(areSame(openRegularFileAt(base.get(), "file"), root / "real/file"));
    });
}

TEST_P(OpenFolderTest, FollowsNoLinkAtTheEndAndNoneAbove) {
    run([&] {
        for (const char* path : {"link", "link/", "link/inner", "real/../link/inner"}) {
            EXPECT_FALSE(openFolderAt(AT_FDCWD, root / path)) << path;
            EXPECT_FALSE(openPlaceAt(AT_FDCWD, root / path)) << path;
        }
        EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "link/file"));
        EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "real/toFile"));
    });
}

TEST_P(OpenFolderTest, SaysWhyItOpensNothing) {
    run([&] {
        errno = 0;
        EXPECT_FALSE(openFolderAt(AT_FDCWD, root / "none/inner"));
        EXPECT_EQ(errno, ENOENT);
        EXPECT_FALSE(openFolderAt(AT_FDCWD, root / "real/file"));
        EXPECT_EQ(errno, ENOTDIR);
        ASSERT_EQ(::mkfifo((root / "real/pipe").c_str(), 0600), 0);
        EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "real/pipe"));
        EXPECT_FALSE(openRegularFileAt(AT_FDCWD, root / "real"));
    });
}

TEST_P(OpenFolderTest, GoesDownAPathThatIsLongerThanTheKernelTakes) {
    run([&] {
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
    });
}

}  // namespace
}  // namespace korvane
