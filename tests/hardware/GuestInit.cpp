// The first process of the emulated machine. It makes the first disk, an ext4 file system, the
// root, with the build machine's programs bound into it, runs one program there, and switches the
// machine off with that program's status. Linked statically, since it starts in an initramfs that
// holds nothing else but the modules listed in /modules.
//
// The kernel's command line says what to do:
//   korvane.run=PROGRAM       what to run (an absolute path on the build machine)
//   korvane.filter=TESTS      its one argument
//   korvane.bind=PATH,PATH    folders of the build machine to have at the same place
#include <fcntl.h>
#include <sys/io.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// QEMU's isa-debug-exit device as tests/hardware/boot places it: writing n ends it with 2n + 1.
constexpr unsigned short kExitPort = 0xf4;
constexpr unsigned char kBootFailed = 41;

[[noreturn]] void powerOff(unsigned char status) {
    sync();
    (void)ioperm(kExitPort, 1, 1);
    outb(status, kExitPort);
    (void)reboot(RB_POWER_OFF);
    std::abort();
}

void require(bool done, const std::string& what) {
    if (!done) {
        std::printf("guest: %s: %s\n", what.c_str(), std::strerror(errno));
        powerOff(kBootFailed);
    }
}

void mountAt(const std::string& source, const std::string& target, const char* type,
             unsigned long flags, const char* options) {
    require(mount(source.c_str(), target.c_str(), type, flags, options) == 0,
            "mounting " + source + " at " + target);
}

void makeFolders(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        (void)mkdir(path.substr(0, slash).c_str(), 0755);
    }
    (void)mkdir(path.c_str(), 0755);  // what is missing is noticed by the mount that follows
}

std::string parameter(const std::string& name) {
    std::ifstream line{"/proc/cmdline"};
    for (std::string word; line >> word;) {
        if (word.starts_with(name + "=")) {
            return word.substr(name.size() + 1);
        }
    }
    return {};
}

void loadModules() {
    std::ifstream list{"/modules"};
    for (std::string name; std::getline(list, name);) {
        const int module = open(("/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        const bool done = module >= 0 && syscall(SYS_finit_module, module, "", 0) == 0;
        require(done || errno == EEXIST, "loading " + name);
        (void)close(module);
    }
}

// Drivers find their disks a moment after they are loaded.
void waitFor(const std::string& path) {
    constexpr int kTenthsOfSecond = 200;
    for (int i = 0; i < kTenthsOfSecond && access(path.c_str(), F_OK) != 0; ++i) {
        (void)usleep(100'000);
    }
    require(access(path.c_str(), F_OK) == 0, "waiting for " + path);
}

// The build machine's folder at the same place below the new root. A link, such as /lib is on a
// merged /usr, is copied as one.
void bindFromHost(const std::string& path) {
    const std::string source = "/host" + path;
    char target[4096];
    const ssize_t length = readlink(source.c_str(), target, sizeof target - 1);
    if (length > 0) {
        target[length] = '\0';
        require(symlink(target, ("/root" + path).c_str()) == 0 || errno == EEXIST, path);
        return;
    }
    if (access(source.c_str(), F_OK) == 0) {
        makeFolders("/root" + path);
        mountAt(source, "/root" + path, nullptr, MS_BIND, nullptr);
    }
}

// A copy that can be written to, gone with the machine.
void overlayFromHost(const std::string& path) {
    makeFolders("/scratch" + path + "/upper");
    makeFolders("/scratch" + path + "/work");
    makeFolders("/root" + path);
    const std::string options = "lowerdir=/host" + path + ",upperdir=/scratch" + path +
                                "/upper,workdir=/scratch" + path + "/work";
    mountAt("overlay", "/root" + path, "overlay", 0, options.c_str());
}

void buildRoot() {
    for (const char* folder : {"/host", "/root", "/scratch"}) {
        makeFolders(folder);
    }
    // msize: as much as the transport takes at once; the default makes program loading crawl.
    mountAt("host", "/host", "9p", MS_RDONLY,
            "trans=virtio,version=9p2000.L,cache=loose,msize=512000");
    mountAt("scratch", "/scratch", "tmpfs", 0, nullptr);
    waitFor("/dev/vda");
    mountAt("/dev/vda", "/root", "ext4", 0, nullptr);
    for (const char* folder : {"/run", "/tmp"}) {
        makeFolders(std::string{"/root"} + folder);
    }
    mountAt("run", "/root/run", "tmpfs", 0, "mode=755");
    mountAt("tmp", "/root/tmp", "tmpfs", 0, "mode=1777");
    for (const char* path : {"/usr", "/bin", "/sbin", "/lib", "/lib32", "/lib64"}) {
        bindFromHost(path);
    }
    overlayFromHost("/etc");
    std::istringstream folders{parameter("korvane.bind")};
    for (std::string path; std::getline(folders, path, ',');) {
        bindFromHost(path);
    }
    for (const char* folder : {"/dev", "/proc", "/sys"}) {
        makeFolders(std::string{"/root"} + folder);
        mountAt(folder, std::string{"/root"} + folder, nullptr, MS_MOVE, nullptr);
    }
    makeFolders("/root/results");
    mountAt("results", "/root/results", "9p", 0,
            "trans=virtio,version=9p2000.L,cache=none,msize=512000");
    require(chdir("/root") == 0 && mount(".", "/", nullptr, MS_MOVE, nullptr) == 0 &&
                chroot(".") == 0 && chdir("/") == 0,
            "changing to the new root");
}

// The program's exit status; a death by a signal counts as 128 and the signal, as in a shell.
int runToItsEnd(const std::string& program, const std::string& argument) {
    const pid_t child = fork();
    if (child == 0) {
        (void)setsid();
        (void)setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
        (void)setenv("HOME", "/root", 1);
        (void)setenv("TERM", "dumb", 1);  // the console is read in a file
        (void)execl(program.c_str(), program.c_str(), argument.c_str(), nullptr);
        std::printf("guest: starting %s: %s\n", program.c_str(), std::strerror(errno));
        _exit(127);
    }
    // Whatever else ends is an orphan that came to us.
    for (;;) {
        int status = 0;
        const pid_t ended = wait(&status);
        if (ended == child) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (ended < 0 && errno != EINTR) {
            return kBootFailed;
        }
    }
}

}  // namespace

int main() {
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    for (const char* folder : {"/dev", "/proc", "/sys"}) {
        makeFolders(folder);
    }
    mountAt("dev", "/dev", "devtmpfs", 0, nullptr);
    mountAt("proc", "/proc", "proc", 0, nullptr);
    mountAt("sys", "/sys", "sysfs", 0, nullptr);
    const int console = open("/dev/console", O_RDWR | O_CLOEXEC);
    if (console >= 0) {
        for (const int descriptor : {0, 1, 2}) {
            (void)dup2(console, descriptor);
        }
    }
    loadModules();
    const std::string program = parameter("korvane.run");
    const std::string filter = parameter("korvane.filter");
    buildRoot();
    powerOff(static_cast<unsigned char>(runToItsEnd(program, filter)));
}
