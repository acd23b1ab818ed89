"""The directory backup's helper on real trees: its record is read by bsdtar and by record_reader.py,
which shares nothing with the writer, and held against what the kernel says of each entry. Runs as
root in a mount namespace of its own.

    directory_backup_program_test.py PROGRAM
"""

import os
import resource
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time
import unittest

from record_reader import plain, read_record

PROGRAM = ""
NOBODY = 65534
ENTRIES_OF_A_LARGE_VOLUME = 200_000
# Far less than so many names take, with room for what every C++ program has at its start.
LARGEST_DATA_BYTES = 4 << 20
# More than a sanitizer writes at its start, less than a record of 20,000 files.
SOME_OF_A_RECORD = 100_000
TYPES = {"file": stat.S_IFREG, "dir": stat.S_IFDIR, "link": stat.S_IFLNK, "fifo": stat.S_IFIFO,
         "socket": stat.S_IFSOCK, "block": stat.S_IFBLK, "char": stat.S_IFCHR}


def is_sanitized():
    """Such a program needs memory of its own, and its search for leaks stands no tracer."""
    with open(PROGRAM, "rb") as file:
        return b"__asan_init" in file.read()


class DirectoryBackupProgram(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="korvane-")
        self.addCleanup(folder.cleanup)
        self.tree = folder.name + "/tree"
        self.out = folder.name + "/out"
        os.mkdir(self.tree)
        os.mkdir(self.out)
        os.chmod(folder.name, 0o755)
        self.record = self.out + "/Directory Backup 2026-03-02-08-00-01"

    def run_program(self, *arguments, **options):
        return subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=300,
                              **options)

    def write_record(self, path=None, **options):
        result = self.run_program("quorlen", path or self.record, self.tree, **options)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return read_record(path or self.record)

    def assert_refused(self, result):
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, r"\AKorvaneProDirectoryBackup: [^\n]+\n\Z")
        self.assertEqual(os.listdir(self.out), [])

    def fill_tree(self):
        names = [b"plain", b"two words", b"#hash", b"back\\slash", b"line\nend", b"star*?[x]",
                 "é-名前".encode(), b"\xff\xfe broken", b"type=dir", b"\\040", b"-rf", b"a=b"]
        tree = os.fsencode(self.tree)
        for name in names:
            os.makedirs(tree + b"/" + name + b"-folder/below")
            with open(tree + b"/" + name + b"-folder/below/" + name, "wb") as file:
                file.write(name * 3)
            os.symlink(name + b" \n#", tree + b"/" + name)
        os.mkfifo(tree + b"/fifo", 0o640)
        os.mknod(tree + b"/device", stat.S_IFCHR | 0o600, os.makedev(1, 3))
        os.chown(tree + b"/plain-folder", 1234, 4321)
        os.chmod(tree + b"/plain-folder", 0o2751)
        os.utime(tree + b"/plain-folder/below/plain", ns=(1, 1_700_000_000_000_000_005))
        os.truncate(tree + b"/plain-folder/below/plain", 5 << 32)
        os.utime(tree + b"/plain-folder/below/plain", ns=(1, -7_000_000_001))

    def test_tells_of_every_entry_what_the_kernel_says(self):
        self.fill_tree()
        entries, comments = self.write_record()
        tree = os.fsencode(self.tree)
        paths = {b"."}
        for folder, folders, files in os.walk(tree):
            paths.update(b"." + (folder + b"/" + name)[len(tree):] for name in folders + files)
        self.assertEqual(set(entries), paths)
        self.assertEqual(len(comments), 2)
        for path, words in entries.items():
            status = os.lstat(tree + b"/" + path)
            self.assertEqual(TYPES[words[b"type"].decode()], stat.S_IFMT(status.st_mode), path)
            self.assertEqual(int(words[b"mode"], 8), stat.S_IMODE(status.st_mode), path)
            self.assertEqual((int(words[b"uid"]), int(words[b"gid"])),
                             (status.st_uid, status.st_gid), path)
            seconds, nanoseconds = words[b"time"].split(b".")
            self.assertEqual(int(seconds) * 10**9 + int(nanoseconds), status.st_mtime_ns, path)
            self.assertEqual(int(words[b"inode"]), status.st_ino, path)
            if stat.S_ISREG(status.st_mode):
                self.assertEqual(int(words[b"size"]), status.st_size, path)
            if stat.S_ISLNK(status.st_mode):
                self.assertEqual(plain(words[b"link"]), os.readlink(tree + b"/" + path), path)

    def test_is_read_by_bsdtar(self):
        self.fill_tree()
        entries, _ = self.write_record()
        # Where there is no tree of these names, so that all it tells comes from the record.
        listing = subprocess.run(["bsdtar", "-cf", "-", "--format=mtree", "--options=!all,!use-set,"
                                  "type,mode,uid,gid,size,time,link", "@" + self.record],
                                 capture_output=True, cwd=self.out, check=True)
        self.assertEqual(listing.stderr, b"")
        with open(self.out + "/again", "wb") as file:
            file.write(listing.stdout)
        again, _ = read_record(self.out + "/again")
        self.assertEqual(set(again), set(entries))
        for path, words in again.items():
            for key, value in words.items():
                told = entries[path][key]
                if key == b"mode":
                    self.assertEqual(int(value, 8), int(told, 8), path)
                elif key == b"time":  # seconds and nanoseconds, two numbers
                    self.assertEqual([int(part) for part in value.split(b".")],
                                     [int(part) for part in told.split(b".")], path)
                elif key == b"link":
                    self.assertEqual(plain(value), plain(told), path)
                else:
                    self.assertEqual(value, told, path)

    def test_is_the_same_for_an_unchanged_volume_but_for_its_header(self):
        self.fill_tree()
        self.write_record()
        self.write_record(self.out + "/second")
        with open(self.record, "rb") as first, open(self.out + "/second", "rb") as second:
            first_lines, second_lines = first.readlines(), second.readlines()
        self.assertEqual(first_lines[2:], second_lines[2:])
        paths = [line.split(b" ")[0] for line in first_lines[2:]]
        top = [plain(path) for path in paths[1:] if path.count(b"/") == 1]
        self.assertEqual(top, sorted(top))

    def test_stays_on_its_file_system(self):
        os.mkdir(self.tree + "/mounted")
        os.mkdir(self.tree + "/bound")
        os.mkdir(self.tree + "/own")
        open(self.tree + "/own/file", "w").close()
        subprocess.run(["mount", "-t", "tmpfs", "none", self.tree + "/mounted"], check=True)
        subprocess.run(["mount", "--bind", self.tree + "/own", self.tree + "/bound"], check=True)
        try:
            open(self.tree + "/mounted/other", "w").close()
            entries, _ = self.write_record()
        finally:
            subprocess.run(["umount", self.tree + "/mounted", self.tree + "/bound"], check=True)
        self.assertEqual(set(entries), {b".", b"./mounted", b"./bound", b"./own", b"./own/file"})
        self.assertEqual(entries[b"./mounted"], {b"type": b"dir"})

    def test_names_folders_that_cannot_be_read_and_goes_on(self):
        os.makedirs(self.tree + "/closed one/within")
        os.makedirs(self.tree + "/open")
        os.chmod(self.tree + "/closed one", 0)
        os.chmod(self.out, 0o777)
        shutil.copy(PROGRAM, self.tree + "/../program")
        os.chmod(self.tree + "/../program", 0o755)
        result = subprocess.run([self.tree + "/../program", "quorlen", self.record, self.tree],
                                user=NOBODY, capture_output=True, text=True)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        entries, comments = read_record(self.record)
        self.assertEqual(set(entries), {b".", b"./closed one", b"./open"})
        self.assertIn(b"# ./closed\\040one cannot be read: Permission denied", comments)

    def test_goes_down_as_deep_as_folders_go(self):
        depth = 300
        here = os.open(self.tree, os.O_RDONLY)
        for _ in range(depth):
            os.mkdir("d", dir_fd=here)
            below = os.open("d", os.O_RDONLY, dir_fd=here)
            os.close(here)
            here = below
        os.close(here)
        entries, _ = self.write_record()
        self.assertEqual(len(entries), depth + 1)
        subprocess.run(["rm", "-rf", self.tree], check=True)

    def fill_large_tree(self):
        """A folder of 20,000 entries and 1,800 of 100, on a file system in memory."""
        subprocess.run(["mount", "-t", "tmpfs", "none", self.tree], check=True)
        self.addCleanup(subprocess.run, ["umount", self.tree], check=True)
        made = 1
        for folder in range(1801):
            here = os.open(self.tree, os.O_RDONLY)
            os.mkdir(f"folder {folder}", dir_fd=here)
            below = os.open(f"folder {folder}", os.O_RDONLY, dir_fd=here)
            made += 1
            for index in range(20_000 if folder == 0 else 99):
                if made < ENTRIES_OF_A_LARGE_VOLUME:
                    os.mknod(f"a picture of that day {index}.jpeg", dir_fd=below)
                    made += 1
            os.close(below)
            os.close(here)
        self.assertEqual(made, ENTRIES_OF_A_LARGE_VOLUME)

    def test_records_a_large_volume_in_little_memory(self):
        if is_sanitized():
            self.skipTest("the sanitizer's own memory is not little")
        self.fill_large_tree()
        limit = (LARGEST_DATA_BYTES, LARGEST_DATA_BYTES)
        entries, _ = self.write_record(
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_DATA, limit))
        self.assertEqual(len(entries), ENTRIES_OF_A_LARGE_VOLUME)
        names = subprocess.run(["find", self.tree, "-xdev", "-printf", "./%P\\0"], check=True,
                               capture_output=True).stdout.split(b"\0")[:-1]
        self.assertEqual(set(entries), {name.removesuffix(b"/") or b"." for name in names})
        read = subprocess.run(["bsdtar", "-tf", self.record], check=True, capture_output=True,
                              cwd=self.out)
        self.assertEqual(read.stderr, b"")
        self.assertEqual(read.stdout.count(b"\n"), ENTRIES_OF_A_LARGE_VOLUME)

    def test_refuses_bad_arguments_in_one_line(self):
        for arguments in ([], ["quorlen"], ["quorlen", self.record],
                          ["Quorlen", self.record, self.tree],
                          ["quorlen", self.record, self.tree, "more"],
                          ["quorlen", self.record, self.tree + "/nowhere"],
                          ["quorlen", self.record, PROGRAM],
                          ["quorlen", "relative", self.tree],
                          ["quorlen", self.tree + "/nowhere/file", self.tree]):
            with self.subTest(arguments=arguments):
                self.assert_refused(self.run_program(*arguments))

    def test_replaces_nothing(self):
        with open(self.record, "w") as file:
            file.write("precious")
        result = self.run_program("quorlen", self.record, self.tree)
        self.assertEqual(result.returncode, 1)
        with open(self.record) as file:
            self.assertEqual(file.read(), "precious")

    def many_files(self):
        for folder in range(10):
            os.mkdir(f"{self.tree}/{folder}")
            for name in range(100):
                os.mknod(f"{self.tree}/{folder}/{name}")

    def test_leaves_nothing_when_there_is_no_space(self):
        self.many_files()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", self.out], check=True)
        try:
            self.assert_refused(self.run_program("quorlen", self.record, self.tree))
        finally:
            subprocess.run(["umount", self.out], check=True)

    def test_leaves_nothing_when_it_is_told_to_end(self):
        self.many_files()
        for number in (signal.SIGINT, signal.SIGTERM):
            for _ in range(10):
                # The call returns when the program has been started.
                program = subprocess.Popen([PROGRAM, "quorlen", self.record, self.tree])
                program.send_signal(number)
                if program.wait(300) != 0:
                    self.assertEqual(os.listdir(self.out), [])
                    break
                os.unlink(self.record)
            else:
                self.fail("it always ended first")

    def run_with_faults(self, *faults):
        """The program on a machine whose calls fail so."""
        options = [word for fault in faults for word in ("-e", "inject=" + fault)]
        result = subprocess.run(["strace", "-o", "/dev/null", "-e", "trace=openat,renameat2",
                                 *options, PROGRAM, "quorlen", self.record, self.tree],
                                capture_output=True, text=True, check=False,
                                env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def number_of_nameless_open(self):
        """Which of the program's calls to openat asks for a file without a name."""
        trace = self.out + "/../trace"
        subprocess.run(["strace", "-o", trace, "-e", "trace=openat", PROGRAM, "quorlen",
                        self.record, self.tree], check=True,
                       env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
        os.unlink(self.record)
        with open(trace, encoding="ascii", errors="replace") as file:
            opens = [line for line in file if line.startswith("openat(")]
        return 1 + next(i for i, line in enumerate(opens) if "O_TMPFILE" in line)

    def test_works_where_files_need_names(self):
        self.many_files()
        expected, _ = self.write_record()
        os.unlink(self.record)
        no_nameless = f"openat:error=EOPNOTSUPP:when={self.number_of_nameless_open()}"
        with open(f"{self.out}/.4194305.partial", "w") as file:  # beyond the largest process number
            file.write("left by a helper that was killed")
        with open(f"{self.out}/.1.partial", "w") as file:
            file.write("of a process that runs")
        for faults in ([], ["renameat2:error=EINVAL"]):
            with self.subTest(faults=faults):
                self.run_with_faults(no_nameless, *faults)
                self.assertEqual(read_record(self.record)[0].keys(), expected.keys())
                self.assertEqual(sorted(os.listdir(self.out)),
                                 [".1.partial", os.path.basename(self.record)])
                os.unlink(self.record)

    def start_and_stop_within(self, folder):
        """The program, stopped while it writes what is in this folder of many files."""
        for index in range(20_000):
            os.mknod(f"{folder}/{index}")
        program = subprocess.Popen([PROGRAM, "quorlen", self.record, self.tree])
        self.addCleanup(program.wait)
        self.addCleanup(program.kill)
        program.send_signal(signal.SIGSTOP)
        written = 0
        while written < SOME_OF_A_RECORD:
            program.send_signal(signal.SIGCONT)
            time.sleep(0.001)
            program.send_signal(signal.SIGSTOP)
            with open(f"/proc/{program.pid}/io", encoding="ascii") as file:
                written = int(dict(line.split(": ") for line in file)["wchar"])
        return program

    def test_goes_on_with_the_rest_when_a_folder_is_moved_under_it(self):
        top = self.tree
        for way in ("a/deep", "a/b/deep"):
            with self.subTest(way=way):
                self.tree = f"{top}/{way.replace('/', '-')}"
                os.makedirs(f"{self.tree}/{way}")
                for folder in ("aa/below", "target", "z/below"):
                    os.makedirs(f"{self.tree}/{folder}")
                program = self.start_and_stop_within(f"{self.tree}/{way}")
                os.rename(f"{self.tree}/{way}", f"{self.tree}/target/deep")
                if way == "a/b/deep":
                    os.rename(f"{self.tree}/a/b", f"{self.tree}/target/b")
                program.send_signal(signal.SIGCONT)
                self.assertEqual(program.wait(), 0)
                entries, comments = read_record(self.record)
                # Not assertIn, which would print all of them.
                for path in (way + "/19999", "aa/below", "z/below"):
                    self.assertTrue(b"./" + path.encode() in entries, path)
                lost = b"# ./a/b was moved away: what was still to be told of it is missing"
                self.assertEqual(lost in comments, way == "a/b/deep")
                os.unlink(self.record)

    def test_touches_nothing_that_is_mounted_below(self):
        os.makedirs(self.tree + "/folder/mounted on")
        subprocess.run(["mount", "-t", "tmpfs", "none", self.tree + "/folder/mounted on"],
                       check=True)
        trace = self.out + "/../trace"
        try:
            subprocess.run(["strace", "-o", trace, PROGRAM, "quorlen", self.record, self.tree],
                           check=True, env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
        finally:
            subprocess.run(["umount", self.tree + "/folder/mounted on"], check=True)
        entries, _ = read_record(self.record)
        self.assertEqual(entries[b"./folder/mounted on"], {b"type": b"dir"})
        with open(trace, encoding="utf-8", errors="replace") as file:
            calls = file.read()
        self.assertIn('"folder"', calls)
        self.assertNotIn('"mounted on"', calls)

    def test_stands_back_for_others(self):
        self.many_files()
        trace = self.out + "/../trace"
        subprocess.run(["strace", "-o", trace, "-e", "trace=setpriority,ioprio_set", PROGRAM,
                        "quorlen", self.record, self.tree], check=True,
                       env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
        with open(trace) as file:
            text = file.read()
        self.assertRegex(text, r"setpriority\(PRIO_PROCESS, 0, 19\) += 0")
        self.assertRegex(text, r"ioprio_set\(.*IDLE.*\) = 0")


if __name__ == "__main__":
    PROGRAM = os.path.realpath(sys.argv.pop())
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)
    unittest.main()
