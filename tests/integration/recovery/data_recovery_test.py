"""KorvaneProDataRecovery on a real ext4 volume: what it records is read back from the device.

Takes the paths of the program and of korvanectl, which brings contents back by the records. Runs as
root, in a mount namespace of its own, and reads the records by docs/trash-records.md with nothing of
the program's own code.
"""

import hashlib
import json
import os
import plistlib
import random
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
import zlib

PROGRAM = sys.argv.pop(1) if len(sys.argv) > 1 else ""
KORVANECTL = sys.argv.pop(1) if len(sys.argv) > 1 else ""
SUPPORT = "/Library/Application Support/Korvane Protection"
MEBIBYTE = 1 << 20


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def job(node, parent, device, result):
    return (b"id\0\0" + struct.pack("=II", node & 0xFFFFFFFF, parent & 0xFFFFFFFF)
            + device.encode().ljust(32, b"\0") + result.encode().ljust(32, b"\0"))


def parse(data):
    """The items of a result file."""
    items = []
    for at in range(0, len(data), 764):
        record = data[at:at + 764]
        assert len(record) == 764 and record[:4] == b"item" and record[544:548] == bytes(4)
        (check,) = struct.unpack_from("=I", record, 144)
        assert check == zlib.crc32(record[:144] + record[148:544] + record[548:])
        flags, node, parent, trash_node = struct.unpack_from("=HQQQ", record, 6)
        sequence, count, extents, here, text_here = struct.unpack_from("=IIIHH", record, 92)
        if sequence == 1:
            items.append({"flags": flags, "node": node, "parent": parent, "trash": trash_node,
                          "mode": struct.unpack_from("=I", record, 40)[0],
                          "size": struct.unpack_from("=Q", record, 56)[0],
                          "sum": record[112:144], "text": b"", "extents": []})
        item = items[-1]
        item["text"] += record[148:148 + text_here]
        item["extents"] += [struct.unpack_from("=QQQI", record, 548 + 28 * i) for i in range(here)]
        if sequence == count:
            assert len(item["extents"]) == extents
            item["name"], item["path"], item["target"], item["origin"], rest = \
                item.pop("text").split(b"\0")
            assert rest == b""
    return items


class DataRecovery(unittest.TestCase):
    def setUp(self):
        subprocess.run(["mount", "--make-rprivate", "/"], check=True)
        self.folder = tempfile.mkdtemp(prefix="korvane-recovery-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        # Results and jobs lie in /tmp; this one is the test's own.
        private = os.path.join(self.folder, "tmp")
        os.mkdir(private, 0o1777)
        self.image = os.path.join(self.folder, "volume.img")
        with open(self.image, "wb") as image:
            image.truncate(64 * MEBIBYTE)
        run("mkfs.ext4", "-q", "-F", self.image)
        self.device = run("losetup", "--find", "--show", self.image)
        self.addCleanup(subprocess.run, ["losetup", "--detach", self.device])
        self.volume = os.path.join(self.folder, "volume")
        os.mkdir(self.volume)
        run("mount", self.device, self.volume)
        self.addCleanup(subprocess.run, ["umount", self.volume])
        self.trash = os.path.join(self.volume, ".Trash-0", "files")
        os.makedirs(self.trash)
        run("mount", "--bind", private, "/tmp") if not self.folder.startswith("/tmp/") else \
            self.hide_tmp(private)

    def hide_tmp(self, private):
        # The test's own folder lies below /tmp, so what it needs is kept reachable under /mnt.
        run("mount", "--bind", self.folder, "/mnt")
        self.addCleanup(subprocess.run, ["umount", "/mnt"])
        run("mount", "--bind", private, "/tmp")
        self.addCleanup(subprocess.run, ["umount", "/tmp"])
        self.image = self.image.replace(self.folder, "/mnt", 1)
        run("mount", self.device, "/mnt/volume")
        self.addCleanup(subprocess.run, ["umount", "/mnt/volume"])
        self.trash = "/mnt/volume/.Trash-0/files"

    def put(self, name, contents):
        path = os.path.join(self.trash, name)
        with open(path, "wb") as file:
            file.write(contents)
        return path

    def job_for(self, path, result=None):
        node = os.lstat(path).st_ino
        parent = os.lstat(self.trash).st_ino
        return job(node, parent, self.device, result or f"/tmp/.{node}.dat")

    def record(self, jobs, status=0):
        with open("/tmp/.KVDataRec_volume.dat", "wb") as file:
            file.write(jobs)
        done = subprocess.run([PROGRAM, "inFile", "/tmp/.KVDataRec_volume.dat"],
                              capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, status, done.stderr)
        return done.stderr

    def result(self, path_or_node):
        node = path_or_node if isinstance(path_or_node, int) else os.lstat(path_or_node).st_ino
        with open(f"/tmp/.{node}.dat", "rb") as file:
            return parse(file.read())

    def read_back(self, item):
        contents = bytearray(item["size"])
        with open(self.image, "rb") as image:
            for logical, physical, length, flags in item["extents"]:
                if flags == 1:
                    continue
                self.assertEqual(flags, 0)
                image.seek(physical)
                length = min(length, item["size"] - logical)
                contents[logical:logical + length] = image.read(length)
        return bytes(contents)

    def test_extents_lead_to_the_contents_also_after_the_item_is_gone(self):
        contents = random.Random(1).randbytes(5 * MEBIBYTE + 123)
        path = self.put("letter", contents)
        info = os.path.join(self.trash, os.pardir, "info")
        os.mkdir(info)
        with open(os.path.join(info, "letter.trashinfo"), "w") as file:
            file.write("[Trash Info]\nPath=Old%20letters/letter\nDeletionDate=2026-01-01T00:00:00\n")
        self.record(self.job_for(path))
        (item,) = self.result(path)
        self.assertEqual(item["name"], b"letter")
        self.assertEqual(item["origin"], os.path.dirname(os.path.dirname(self.trash)).encode()
                         + b"/Old letters/letter")
        self.assertEqual(item["size"], len(contents))
        self.assertEqual(item["flags"], 1)
        self.assertEqual(item["sum"], hashlib.sha256(contents).digest())
        self.assertEqual(self.read_back(item), contents)
        os.remove(path)
        os.sync()
        self.assertEqual(self.read_back(item), contents)

    def test_many_extents_take_several_records(self):
        generator = random.Random(2)
        path = os.path.join(self.trash, "pieces")
        with open(path, "wb") as file:
            for index in range(200):
                file.seek(index * 16384)
                file.write(generator.randbytes(4096))
        with open(path, "rb") as file:
            contents = file.read()
        self.record(self.job_for(path))
        (item,) = self.result(path)
        self.assertEqual(len(item["extents"]), 200)
        self.assertEqual(self.read_back(item), contents)

    def test_what_was_never_written_is_marked(self):
        path = os.path.join(self.trash, "reserved")
        with open(path, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, MEBIBYTE)
        self.record(self.job_for(path))
        (item,) = self.result(path)
        self.assertEqual({flags for _, _, _, flags in item["extents"]}, {1})
        self.assertEqual(self.read_back(item), bytes(MEBIBYTE))

    def test_a_folder_is_recorded_with_what_it_holds(self):
        os.makedirs(os.path.join(self.trash, "box", "inner"))
        self.put("box/inner/letter", b"in the box" * 1000)
        os.symlink("/etc", os.path.join(self.trash, "box", "link"))
        path = os.path.join(self.trash, "box")
        self.record(self.job_for(path))
        items = self.result(path)
        self.assertEqual({item["name"] for item in items}, {b"box", b"inner", b"letter", b"link"})
        self.assertEqual({item["trash"] for item in items}, {os.lstat(path).st_ino})
        letter = next(item for item in items if item["name"] == b"letter")
        self.assertEqual(self.read_back(letter), b"in the box" * 1000)

    def test_links_and_wrong_jobs_lead_nowhere(self):
        link = os.path.join(self.trash, "link")
        os.symlink("/etc/passwd", link)
        path = self.put("letter", b"text")
        node = os.lstat(path).st_ino
        parent = os.lstat(self.trash).st_ino
        self.record(self.job_for(link) + job(node, parent, "/dev/none", "/tmp/.1.dat")
                    + job(node, parent + 1, self.device, "/tmp/.2.dat")
                    + job(node, parent, self.device, "/etc/.3.dat") + b"half a job")
        (item,) = self.result(link)
        self.assertEqual(item["target"], b"/etc/passwd")
        self.assertEqual(item["extents"], [])
        self.assertEqual([name for name in os.listdir("/tmp") if name.endswith(".dat")
                          and not name.startswith(".KV")], [f".{os.lstat(link).st_ino}.dat"])

    def test_planted_results_are_left_alone(self):
        path = self.put("letter", b"text")
        other = self.put("other", b"text")
        node = os.lstat(path).st_ino
        victim = os.path.join("/tmp", "victim")
        with open(victim, "w") as file:
            file.write("kept")
        os.symlink(victim, f"/tmp/.{node}.dat")
        # The daemon tells of it, which comes to look there.
        self.assertEqual(self.record(self.job_for(path) + self.job_for(other)), "")
        with open(victim) as file:
            self.assertEqual(file.read(), "kept")
        self.assertEqual(len(self.result(other)), 1)

    def test_bad_calls_are_refused(self):
        for arguments in ([], ["inFile"], ["outFile", "/tmp/x"], ["inFile", "/tmp/missing"],
                          ["inFile", "/tmp"], ["inFile", "/dev/zero"]):
            done = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=60)
            self.assertEqual(done.returncode, 2, arguments)
        self.put("letter", b"text")
        with open("/tmp/theirs", "wb") as file:
            file.write(self.job_for(os.path.join(self.trash, "letter")))
        os.chown("/tmp/theirs", 65534, 65534)
        done = subprocess.run([PROGRAM, "inFile", "/tmp/theirs"], capture_output=True, timeout=60)
        self.assertEqual(done.returncode, 2)

    def test_termination_leaves_no_half_result(self):
        jobs = b""
        for index in range(100):
            jobs += self.job_for(self.put(f"file{index}", os.urandom(200_000)))
        with open("/tmp/.KVDataRec_volume.dat", "wb") as file:
            file.write(jobs)
        for attempt in range(10):
            child = subprocess.Popen([PROGRAM, "inFile", "/tmp/.KVDataRec_volume.dat"])
            try:
                child.wait(timeout=0.02 * attempt)
            except subprocess.TimeoutExpired:
                child.send_signal(signal.SIGTERM)
                self.assertIn(child.wait(timeout=10), (0, -signal.SIGTERM))
            for name in os.listdir("/tmp"):
                if name.startswith(".KV"):
                    continue
                with open(os.path.join("/tmp", name), "rb") as file:
                    self.assertEqual(len(parse(file.read())), 1)
                os.remove(os.path.join("/tmp", name))

    # What the daemon keeps: the history, and the results with a header before them.
    def keep_history(self, path, name=None):
        os.makedirs("/Library", exist_ok=True)
        run("mount", "-t", "tmpfs", "tmpfs", "/Library")
        self.addCleanup(subprocess.run, ["umount", "-q", "/Library"])
        os.makedirs(f"{SUPPORT}/volume")
        node = os.lstat(path).st_ino
        record = {"itemName": name or os.path.basename(path), "nodeID": str(node), "volRefNum": "1",
                  "dirPath": self.trash, "volumeName": "volume", "totalSize": 0.0}
        with open(f"{SUPPORT}/Trash Usage.plist", "wb") as file:
            plistlib.dump({f"volume_{node}": record}, file)
        with open(f"/tmp/.{node}.dat", "rb") as file:
            results = bytearray(file.read())
        for at in range(0, len(results), 764):
            struct.pack_into("=I", results, at + 544, 3_900_000_000)
        with open(f"{SUPPORT}/volume/Trash Deletes 2026-03-01-12", "wb") as file:
            file.write(b"quorlen".ljust(764, b"\0") + results)

    def recover(self, item, target, status=0, options=()):
        done = subprocess.run([KORVANECTL, "trash", "recover", item, target, *options],
                              capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def empty_trash(self, path):
        os.remove(path)
        os.sync()

    def test_an_emptied_item_is_recovered_byte_for_byte(self):
        contents = random.Random(3).randbytes(3 * MEBIBYTE + 77)
        path = self.put("letter", contents)
        os.chmod(path, 0o640)
        self.record(self.job_for(path))
        self.keep_history(path)
        said = self.recover("letter", "/tmp/copy")
        self.assertIn("still is", said)
        self.empty_trash(path)
        said = self.recover("letter", "/tmp/recovered")
        self.assertIn("SHA-256", said)
        for name, mode in (("/tmp/copy", 0o640), ("/tmp/recovered", 0o600)):
            with open(name, "rb") as file:
                self.assertEqual(file.read(), contents)
            self.assertEqual(os.stat(name).st_mode & 0o777, mode)
        self.assertEqual(os.stat("/tmp/copy").st_mtime, os.stat("/tmp/recovered").st_mtime)
        # What is there already, and what lies on the volume itself, is never written to.
        self.recover("letter", "/tmp/recovered", status=5)
        self.assertIn("own volume", self.recover("letter", self.trash + "/new", status=1))
        self.recover("other", "/tmp/other", status=1)

    def tree_of(self, top):
        tree = {}
        for path, folders, files in os.walk(top):
            for name in folders + files:
                whole = os.path.join(path, name)
                if os.path.islink(whole):
                    tree[os.path.relpath(whole, top)] = os.readlink(whole)
                elif name in files:
                    with open(whole, "rb") as file:
                        tree[os.path.relpath(whole, top)] = file.read()
                else:
                    tree[os.path.relpath(whole, top)] = None
        return tree

    def test_an_emptied_folder_is_recovered_with_all_that_it_held(self):
        generator = random.Random(6)
        box = os.path.join(self.trash, "box")
        os.makedirs(os.path.join(box, "inner", "empty"))
        for index in range(20):
            self.put(f"box/inner/letter{index}", generator.randbytes(index * 5000))
        os.symlink("inner/letter1", os.path.join(box, "link"))
        tree = self.tree_of(box)
        self.record(self.job_for(box))
        self.keep_history(box)
        # A copy may lie on the same volume; what is read from the device may not.
        self.assertIn("20 files in 3 folders", self.recover("box", os.path.dirname(self.trash)))
        self.assertEqual(self.tree_of(os.path.join(os.path.dirname(self.trash), "box")), tree)
        shutil.rmtree(box)
        os.sync()
        said = json.loads(self.recover("box", "/tmp/recovered", options=["--json"]))
        self.assertEqual(said["from"], "device")
        self.assertEqual(len(said["files"]), 20)
        self.assertEqual({file["verified"] for file in said["files"]}, {"sizeAndChecksum"})
        self.assertEqual(self.tree_of("/tmp/recovered"), tree)

    def test_names_that_are_no_text_are_recovered(self):
        name = b"two\nlines \xff " + b"n" * 200
        path = os.path.join(self.trash.encode(), name)
        with open(path, "wb") as file:
            file.write(b"odd" * 5000)
        node = os.lstat(path).st_ino
        self.record(job(node, os.lstat(self.trash).st_ino, self.device, f"/tmp/.{node}.dat"))
        self.keep_history(path.decode(errors="surrogateescape"),
                          name="two\\012lines \\377 " + "n" * 200)
        os.mkdir("/tmp/desk")
        self.recover(str(node), "/tmp/desk")
        self.empty_trash(path)
        os.mkdir("/tmp/desk2")
        self.recover(str(node), "/tmp/desk2")
        for folder in (b"/tmp/desk", b"/tmp/desk2"):
            with open(os.path.join(folder, name), "rb") as file:
                self.assertEqual(file.read(), b"odd" * 5000)

    def needs_no_sanitizer(self):
        with open(KORVANECTL, "rb") as program:
            if b"__asan_init" in program.read():
                self.skipTest("a traced program cannot be looked through for leaks")

    def test_long_work_shows_how_far_it_is(self):
        self.needs_no_sanitizer()
        path = self.put("long", os.urandom(5 * MEBIBYTE))
        self.record(self.job_for(path))
        self.keep_history(path)
        for state in ("in the trash", "emptied"):
            terminal, theirs = os.openpty()
            # Every write to the new file takes its time, the first one longer than a person waits
            # without being told.
            with subprocess.Popen(["strace", "-qq", "-o", "/dev/null", "-e", "trace=pwrite64", "-e",
                                   "inject=pwrite64:delay_enter=1200000", KORVANECTL, "trash",
                                   "recover", "long", f"/tmp/{state}"],
                                  stdout=subprocess.DEVNULL, stderr=theirs) as child:
                self.assertEqual(child.wait(timeout=60), 0)
            os.close(theirs)  # with nothing shown, reading fails instead of waiting
            shown = os.read(terminal, 65536)
            os.close(terminal)
            self.assertRegex(shown, rb"\[#+-+\] .* of 5.2 MB, \d+ %", state)
            self.assertTrue(shown.endswith(b"\x1b[K"), state)
            if state == "in the trash":
                self.empty_trash(path)

    def test_a_copy_keeps_holes(self):
        path = os.path.join(self.trash, "image")
        with open(path, "wb") as file:
            file.seek(1 << 40)
            file.write(b"end")
        self.record(self.job_for(path))
        self.keep_history(path)
        self.recover("image", "/tmp/copy")
        self.assertEqual(os.stat("/tmp/copy").st_size, (1 << 40) + 3)
        self.assertLess(os.stat("/tmp/copy").st_blocks, 1000)
        with open("/tmp/copy", "rb") as file:
            file.seek(1 << 40)
            self.assertEqual(file.read(), b"end")

    def test_holes_and_many_extents_are_recovered(self):
        generator = random.Random(4)
        path = os.path.join(self.trash, "pieces")
        with open(path, "wb") as file:
            for index in range(100):
                file.seek(index * 20480)
                file.write(generator.randbytes(4096))
            file.truncate(100 * 20480 + 5)
        with open(path, "rb") as file:
            contents = file.read()
        self.record(self.job_for(path))
        self.keep_history(path)
        self.empty_trash(path)
        self.assertIn("SHA-256", self.recover("pieces", "/tmp"))
        with open("/tmp/pieces", "rb") as file:
            self.assertEqual(file.read(), contents)

    def test_a_full_target_is_left_without_a_file_that_looks_complete(self):
        path = self.put("long", os.urandom(2 * MEBIBYTE))
        box = os.path.join(self.trash, "box")
        os.mkdir(box)
        for name in ("a", "b"):
            self.put(f"box/{name}", os.urandom(700_000))
        self.record(self.job_for(path))
        self.keep_history(path)
        os.mkdir("/tmp/small")
        run("mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", "/tmp/small")
        self.addCleanup(subprocess.run, ["umount", "/tmp/small"])
        self.assertIn("No space left", self.recover("long", "/tmp/small/out", status=5))
        self.assertEqual(os.listdir("/tmp/small"), [])
        self.empty_trash(path)
        self.assertIn("No space left", self.recover("long", "/tmp/small/out", status=5))
        self.assertEqual(os.listdir("/tmp/small"), [])
        run("umount", "/Library")
        self.record(self.job_for(box))
        self.keep_history(box)
        self.assertIn("not complete", self.recover("box", "/tmp/small", status=5))
        self.assertEqual(len(os.listdir("/tmp/small/box")), 1)

    def without_nameless_files(self, target, options=()):
        """Recovers "long" where the file system has no files without a name, as FAT has none."""
        def traced(out, *how):
            done = subprocess.run(["strace", "-f", "-qq", "-o", "/tmp/calls", *how, KORVANECTL,
                                   "trash", "recover", "long", out],
                                  capture_output=True, text=True, timeout=60)
            with open("/tmp/calls", encoding="utf-8") as file:
                return done, file.read().splitlines()
        _, calls = traced(target + "-first", "-e", "trace=openat")
        place = next(i for i, call in enumerate(calls) if "O_TMPFILE" in call) + 1
        return traced(target, "-e", "trace=openat,renameat2,unlinkat", *options, "-e",
                      f"inject=openat:error=EOPNOTSUPP:when={place}")

    def test_a_file_has_a_name_that_says_incomplete_where_it_must_have_one(self):
        self.needs_no_sanitizer()
        contents = os.urandom(MEBIBYTE)
        path = self.put("long", contents)
        self.record(self.job_for(path))
        self.keep_history(path)
        os.mkdir("/tmp/desk")
        done, calls = self.without_nameless_files("/tmp/desk/out")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex("\n".join(calls), r'"out\.[0-9]+\.incomplete", O_WRONLY')
        self.assertEqual(sorted(os.listdir("/tmp/desk")), ["out", "out-first"])
        with open("/tmp/desk/out", "rb") as file:
            self.assertEqual(file.read(), contents)
        done, _ = self.without_nameless_files("/tmp/desk/second", (
            "-e", "inject=renameat2:error=ENOSPC"))
        self.assertEqual(done.returncode, 5, done.stderr)
        self.assertEqual(sorted(os.listdir("/tmp/desk")), ["out", "out-first", "second-first"])

    def make_volume(self, kind, *options):
        """A further volume, whose trash is the one that the test puts things into from now on."""
        self.image = f"{self.image}.{kind}"
        with open(self.image, "wb") as file:
            file.truncate(320 * MEBIBYTE)
        run(f"mkfs.{kind}", *options, self.image)
        self.device = run("losetup", "--find", "--show", self.image)
        self.addCleanup(subprocess.run, ["losetup", "--detach", self.device])
        self.volume = f"/tmp/{kind}"
        os.mkdir(self.volume)
        if subprocess.run(["mount", self.device, self.volume], check=False,
                          capture_output=True).returncode != 0:
            self.skipTest(f"this machine mounts no {kind}")
        self.addCleanup(subprocess.run, ["umount", "-q", self.volume])
        self.trash = f"{self.volume}/.Trash-0/files"
        os.makedirs(self.trash)

    def change_records(self, node, change):
        """Has `change` write to each record of a result, and makes its check right again."""
        with open(f"/tmp/.{node}.dat", "r+b") as file:
            records = bytearray(file.read())
            for at in range(0, len(records), 764):
                change(records, at)
                record = records[at:at + 764]
                struct.pack_into("=I", records, at + 144,
                                 zlib.crc32(record[:144] + record[148:544] + record[548:]))
            file.seek(0)
            file.write(records)

    def test_a_volume_is_known_by_its_uuid(self):
        self.make_volume("xfs", "-q")
        path = self.put("large", os.urandom(65 * MEBIBYTE))  # for which no checksum is made
        node = os.lstat(path).st_ino
        self.record(self.job_for(path))
        with open(f"/tmp/.{node}.dat", "rb") as file:
            uuid = file.read()[744:760].hex()
        wanted = run("blkid", "-o", "value", "-s", "UUID", self.device)
        self.assertEqual(uuid, wanted.replace("-", ""))
        self.keep_history(path)
        with open(path, "rb") as file:
            contents = file.read()
        self.empty_trash(path)
        said = self.recover("large", "/tmp/first")
        self.assertNotIn("cannot be told from another volume", said)
        # On another device it is the same volume.
        run("umount", self.volume)
        other = run("losetup", "--find", "--show", self.image)
        run("mount", other, self.volume)
        self.assertIn(other, self.recover("large", "/tmp/second"))
        for name in ("first", "second"):
            with open(f"/tmp/{name}", "rb") as file:
                self.assertEqual(file.read(), contents)
        run("umount", self.volume)
        run("losetup", "--detach", other)
        # Another volume on the device is not it.
        run("mkfs.xfs", "-q", "-f", self.device)
        run("mount", self.device, self.volume)
        said = self.recover("large", "/tmp/third", status=1)
        self.assertIn("is another one", said)
        self.assertIn(wanted, said)
        self.assertFalse(os.path.exists("/tmp/third"))

    def test_a_device_number_is_no_proof_of_the_volume(self):
        self.make_volume("xfs", "-q")

        def forget_uuid(records, at):
            records[at + 744:at + 760] = bytes(16)
        for name, size, doubt in (("small", MEBIBYTE, False), ("large", 65 * MEBIBYTE, True)):
            path = self.put(name, os.urandom(size))
            self.record(self.job_for(path))
            self.change_records(os.lstat(path).st_ino, forget_uuid)
            self.keep_history(path)
            self.empty_trash(path)
            said = self.recover(name, f"/tmp/{name}-recovered")
            self.assertEqual("cannot be told from another volume" in said, doubt, said)
            run("umount", "/Library")

    def test_a_copy_of_the_volume_is_not_taken_for_it(self):
        path = self.put("letter", b"text" * 5000)
        self.record(self.job_for(path))
        self.keep_history(path)
        self.empty_trash(path)
        copy = self.image + ".copy"
        shutil.copy(self.image, copy)
        other = run("losetup", "--find", "--show", copy)
        self.addCleanup(subprocess.run, ["losetup", "--detach", other])
        os.mkdir("/tmp/copy")
        run("mount", other, "/tmp/copy")
        self.addCleanup(subprocess.run, ["umount", "-q", "/tmp/copy"])
        said = self.recover("letter", "/tmp/out", status=1)
        self.assertIn("one is a copy", said)
        run("umount", "/tmp/copy")
        self.assertIn("SHA-256", self.recover("letter", "/tmp/out"))

    def test_an_item_whose_number_went_to_the_next_one_is_recovered(self):
        contents = os.urandom(2 * MEBIBYTE)
        thesis = self.put("thesis", contents)
        node = os.lstat(thesis).st_ino
        self.record(self.job_for(thesis))
        self.keep_history(thesis)
        self.empty_trash(thesis)
        following = self.put("list", b"short")
        self.assertEqual(os.lstat(following).st_ino, node)
        self.record(self.job_for(following))
        with open(f"/tmp/.{node}.dat", "rb") as result, \
                open(f"{SUPPORT}/volume/Trash Deletes 2026-03-01-12", "ab") as kept:
            kept.write(result.read())
        with open(f"{SUPPORT}/Trash Usage.plist", "rb+") as file:
            usage = plistlib.load(file)
            usage[f"volume_{node}"]["itemName"] = "list"
            file.seek(0)
            file.truncate()
            plistlib.dump(usage, file)
        listed = json.loads(run(KORVANECTL, "trash", "--json"))["items"]
        self.assertEqual({item["name"]: item["state"] for item in listed},
                         {"thesis": "notInHistory", "list": "inTrash"})
        said = self.recover("thesis", "/tmp/thesis")
        self.assertIn("SHA-256", said)
        self.assertIn("if it was put back", said)
        with open("/tmp/thesis", "rb") as file:
            self.assertEqual(file.read(), contents)

    def test_what_a_failing_disk_still_reads_is_kept_under_another_name(self):
        self.needs_no_sanitizer()
        contents = os.urandom(3 * MEBIBYTE)
        path = self.put("long", contents)
        self.record(self.job_for(path))
        self.keep_history(path)
        os.mkdir("/tmp/desk")

        def traced(out, *how):
            done = subprocess.run(["strace", "-qq", "-o", "/tmp/calls", "-e", "trace=pread64", *how,
                                   KORVANECTL, "trash", "recover", "long", out],
                                  capture_output=True, text=True, timeout=120)
            with open("/tmp/calls", encoding="utf-8") as file:
                return done, file.read()
        for state in ("in the trash", "emptied"):
            out = f"/tmp/desk/{state}"
            _, calls = traced(out + "-first")
            # The loader reads so, too; contents are read by the megabyte.
            first = next(i for i, call in enumerate(calls.splitlines(), 1)
                         if int(call.rsplit(",", 2)[1]) >= MEBIBYTE)
            # A read fails, and each of the halves that are read in its place, down to a few blocks.
            done, calls = traced(out, "-e",
                                 f"inject=pread64:error=EIO:when={first}..{first + 12}")
            self.assertEqual(done.returncode, 5, done.stdout + done.stderr + calls)
            self.assertIn(".incomplete: zeros stand for what could not be read", done.stderr)
            self.assertIn(f"{state}.incomplete", os.listdir("/tmp/desk"), calls)
            with open(f"{out}.incomplete", "rb") as file:
                kept = file.read()
            self.assertEqual(len(kept), len(contents))
            bad = [at for at in range(0, len(kept), 4096)
                   if kept[at:at + 4096] != contents[at:at + 4096]]
            self.assertTrue(0 < len(bad) < 200, len(bad))
            self.assertTrue(all(not any(kept[at:at + 4096]) for at in bad))
            self.assertFalse(os.path.exists(out))
            if state == "in the trash":
                self.empty_trash(path)

    def test_what_lies_in_no_blocks_of_its_own_is_not_recovered_from_any(self):
        for kind, options, flag, why in (
                ("ext4", ("-q", "-F", "-O", "inline_data", "-I", "256"), 2, "own structures"),
                ("btrfs", ("-q",), 8, "")):
            with self.subTest(kind):
                self.make_volume(kind, *options)
                # A write only, and nothing that makes the file system move it out.
                path = self.put("note", b"short")
                self.record(self.job_for(path))
                (item,) = self.result(path)
                self.assertTrue(item["extents"])
                self.assertTrue(all(flags & flag for _, _, _, flags in item["extents"]), item)
                self.assertEqual(item["sum"], hashlib.sha256(b"short").digest())
                self.keep_history(path)
                self.empty_trash(path)
                self.assertIn(why, self.recover("note", "/tmp/note", status=1))
                self.assertFalse(os.path.exists("/tmp/note"))
                run("umount", "/Library")

    def test_blocks_that_were_used_again_are_told(self):
        path = self.put("letter", random.Random(5).randbytes(MEBIBYTE))
        self.record(self.job_for(path))
        (item,) = self.result(path)
        self.keep_history(path)
        self.empty_trash(path)
        with open(self.image, "r+b") as image:
            image.seek(item["extents"][0][1])
            image.write(b"used again")
        self.assertIn("used again", self.recover("letter", "/tmp/recovered", status=5))


if __name__ == "__main__":
    # The programs may have been built below /tmp, which the tests cover with a folder of their own.
    with tempfile.TemporaryDirectory(dir="/run") as programs:
        os.chmod(programs, 0o755)
        PROGRAM = shutil.copy(PROGRAM, programs)
        KORVANECTL = shutil.copy(KORVANECTL, programs)
        result = unittest.main(verbosity=1, exit=False).result
    sys.exit(not result.wasSuccessful())
