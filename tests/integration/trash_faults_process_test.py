"""What goes wrong around the trash history of the real daemon: kills, restarts, disks that are full,
and files that others plant, link or spoil.

    trash_faults_process_test.py DAEMON KORVANECTL
"""

import contextlib
import glob
import os
import random
import subprocess
import threading
import time
import unittest

from daemon_bed import SUPPORT, Daemon, mount, read_bytes, volume_entries, wait_for
from trash_bed import (RECORD_BYTES, USAGE, TrashBed, files_of_results, put, recorded_items,
                       records, usage)

ADA = 1000


def result_of(path):
    return f"/tmp/.{os.stat(path, follow_symlinks=False).st_ino}.dat"


def nodes_kept():
    return [node for node, _ in recorded_items() or ()]


class TrashFaults(TrashBed):
    def count(self, daemon, text):
        return sum(text in line for line in daemon.lines())

    def test_collects_what_a_daemon_before_it_had_searched_for(self):
        daemon = self.watch()
        for end, name in ((self.kill, "killed"), (Daemon.terminate, "ended")):
            path = self.throw_away(name, "contents")
            node, result = os.stat(path).st_ino, result_of(path)
            # What was not recorded by then is nobody's to search for.
            wait_for(lambda: name in records())
            wait_for(lambda: os.path.exists(result) or node in nodes_kept())
            end(daemon)
            os.unlink(path)
            daemon = self.start()
            wait_for(lambda: node in nodes_kept())
            self.assertFalse(os.path.exists(result))
            wait_for(lambda: not glob.glob("/tmp/.KVDataRec_System*.dat"))

    def test_loses_no_search_when_it_is_killed_at_any_moment(self):
        daemon = self.watch()
        self.wait_for_record("first")
        chance = random.Random(13)
        nodes = set()
        for turn in range(8):
            for item in range(4):
                nodes.add(os.stat(self.throw_away(f"{turn}.{item}", "contents")).st_ino)
            time.sleep(chance.random() * 2.5)  # the moment is what varies, nothing is waited for
            self.kill(daemon)
            for path in files_of_results():
                content = read_bytes(path)
                self.assertTrue(not content or content.startswith(b"quorlen\0\0"))
            daemon = self.start()
        # Whatever came while no daemon watched is seen with the next change.
        self.wait_for_record("last")
        wait_for(lambda: nodes <= set(nodes_kept()), 60)
        # Jobs that were written just before a kill may name nothing that was recorded by then: such
        # a file goes at a start once it is old.
        self.kill(daemon)
        for path in glob.glob("/tmp/.KVDataRec_System*.dat"):
            os.utime(path, (0, 0))
        self.start()
        wait_for(lambda: not glob.glob("/tmp/.KVDataRec_System*.dat"), 60)
        wait_for(lambda: not any(os.path.exists(f"/tmp/.{node}.dat") for node in nodes), 60)

    def test_tells_once_of_what_others_put_in_the_place_of_results(self):
        precious = put(f"{self.place}/precious", "precious")
        planted = {}
        for kind in ("file", "link", "folder", "fifo"):
            planted[kind] = result_of(put(f"/home/ada/{kind}"))
        put(planted["file"], "planted")
        os.chown(planted["file"], ADA, ADA)
        os.symlink(precious, planted["link"])
        os.mkdir(planted["folder"])
        os.mkfifo(planted["fifo"])
        daemon = self.watch()
        for kind in planted:
            os.rename(f"/home/ada/{kind}", f"{self.trash}/files/{kind}")
        wait_for(lambda: set(planted) <= set(records()))
        for name in ("first", "second"):
            node = os.stat(self.throw_away(name)).st_ino
            wait_for(lambda: node in nodes_kept())
        for path in planted.values():
            self.assertEqual(self.count(daemon, path), 1, daemon.lines())
        self.assertEqual(read_bytes(planted["file"]), b"planted")
        self.assertEqual(read_bytes(precious), b"precious")

    def test_goes_on_when_somebody_links_its_files(self):
        self.watch()
        first = os.stat(self.throw_away("first")).st_ino
        wait_for(lambda: first in nodes_kept())
        wait_for(lambda: "first" in records())
        links = {}
        for index, path in enumerate([USAGE, *files_of_results()]):
            links[path] = f"/Library/link{index}"  # on the same mount, as a link must be
            os.link(path, links[path])
        second = os.stat(self.throw_away("second")).st_ino
        wait_for(lambda: "second" in records())
        wait_for(lambda: second in nodes_kept())
        self.assertEqual(os.stat(USAGE).st_mode & 0o7777, 0o666)
        self.assertEqual(os.stat(USAGE).st_nlink, 1)
        self.assertNotIn(b"second", read_bytes(links[USAGE]))
        self.assertIn("first", records())

    def test_sets_a_file_aside_that_is_larger_than_any_it_reads(self):
        daemon = self.watch()
        put(USAGE, "x")
        os.truncate(USAGE, 65 << 20)
        self.throw_away("letter")
        wait_for(lambda: "letter" in records())
        daemon.wait_for_line("cannot be used and is kept as")

    def test_loses_nothing_and_tells_once_when_the_disk_is_full(self):
        mount("-t", "tmpfs", "-o", "size=2M", "none", "/Library")
        self.addCleanup(subprocess.run, ["umount", "--lazy", "/Library"], check=True)
        daemon = self.watch()
        first = os.stat(self.throw_away("first")).st_ino
        wait_for(lambda: first in nodes_kept())
        before = usage()
        ballast = "/Library/ballast"
        with open(ballast, "wb", buffering=0) as file, contextlib.suppress(OSError):
            while True:
                file.write(bytes(4096))
        size = {path: os.path.getsize(path) for path in files_of_results()}
        nodes = []
        for number in range(40):
            nodes.append(os.stat(self.throw_away(f"{number} {'n' * 200}")).st_ino)
        daemon.wait_for_line("cannot be recorded now")
        daemon.wait_for_line("cannot be kept now")
        self.assertLessEqual(before.keys(), usage().keys())
        for path, length in size.items():
            self.assertGreaterEqual(os.path.getsize(path), length)
            # In the middle of another try it may be longer for a moment.
            wait_for(lambda: os.path.getsize(path) % RECORD_BYTES == 0)
        self.assertEqual(self.count(daemon, "cannot be recorded now"), 1)
        self.assertEqual(self.count(daemon, "cannot be kept now"), 1)
        os.unlink(ballast)
        self.throw_away("after")
        wait_for(lambda: len(records()) == 42, 60)
        wait_for(lambda: set(nodes) <= set(nodes_kept()), 60)

    def test_keeps_the_first_date_over_a_restart_and_drops_a_record_in_time(self):
        daemon = self.watch(trashSaveDays=0)
        path = self.throw_away("letter")
        came = wait_for(lambda: records().get("letter"))["addDate"]
        time.sleep(1.1)  # dates have whole seconds
        self.assertEqual(daemon.terminate()[0], 0)
        self.start()
        document = self.wait_for_record("another")
        self.assertIn("another", {record["itemName"] for record in document.values()})
        self.assertEqual(records()["letter"]["addDate"], came)
        os.unlink(path)
        wait_for(lambda: "Deleted" in (records().get("letter") or {}) or
                 (usage() is not None and "letter" not in records()))
        self.throw_away("one more")
        wait_for(lambda: "one more" in records() and "letter" not in records())

    def test_is_not_swamped_by_a_user_who_keeps_a_trash_changing(self):
        bus = self.start_bus()
        os.chown("/home/ada", ADA, ADA)
        daemon = self.watch(bus_address=bus.address)
        self.wait_for_record("first")
        written = lambda: int(next(line.split()[1] for line in open(
            f"/proc/{daemon.process.pid}/io", encoding="ascii") if line.startswith("wchar")))
        isOver = threading.Event()

        def cycle():
            while not isOver.is_set():
                for number in range(100):
                    put(f"{self.trash}/files/{number}")
                for number in range(100):
                    os.unlink(f"{self.trash}/files/{number}")
        crowd = threading.Thread(target=cycle)
        crowd.start()
        try:
            before, began = written(), time.monotonic()
            longest = 0
            while time.monotonic() - began < 12:
                sent = time.monotonic()
                answer = bus.send("isSMARTExecuteComplete")
                longest = max(longest, time.monotonic() - sent)
                self.assertEqual(answer.returncode, 0, answer.stderr)
            cost = (written() - before) / (time.monotonic() - began)
            # What somebody else throws away meanwhile is recorded soon.
            put("/root/.local/share/Trash/files/root's")
            wait_for(lambda: "root's" in (records() or ()), 20)
        finally:
            isOver.set()
            crowd.join()
        # The client's start is among it, and the machine may be busy.
        self.assertLess(longest, 2)
        # Without a share it is hundreds of megabytes a second. A sanitized daemon writes twice what
        # an ordinary one does.
        self.assertLess(cost, 20 << 20)

    def test_drops_old_files_of_results_and_no_folders(self):
        self.watch()
        self.throw_away("first")
        wait_for(files_of_results)
        old = put(f"{SUPPORT}/System/Trash Deletes 2001-01-01-00", "old")
        young = put(f"{SUPPORT}/System/Trash Deletes 2001-01-01-01", "young")
        deep = put(f"{SUPPORT}/System/below/Trash Deletes", "old")
        inside = put(f"{SUPPORT}/Trash Deletes folder/file", "kept")
        six_days_ago = time.time() - 6 * 86400
        for path in (old, deep, inside, os.path.dirname(inside)):
            os.utime(path, (six_days_ago, six_days_ago))
        self.throw_away("second")
        wait_for(lambda: not os.path.exists(old) and not os.path.exists(deep))
        self.assertTrue(os.path.exists(young))
        self.assertTrue(os.path.exists(inside))

    def test_korvanectl_switches_the_history_of_a_running_daemon(self):
        data = self.mount_image("/Volumes/Data")
        bus = self.start_bus()
        self.watch(data, bus_address=bus.address)
        wait_for(lambda: volume_entries().get(data, {}).get("usageStatus") == "0")
        os.makedirs(f"{data}/.Trash-0/files")
        self.throw_away("while on")
        wait_for(lambda: "while on" in records())
        switched = self.control("trash", "off", "/", bus_address=bus.address)
        self.assertEqual(switched.returncode, 0, switched.stderr)
        self.throw_away("while off")
        put(f"{data}/.Trash-0/files/elsewhere")
        wait_for(lambda: "elsewhere" in records())
        self.assertNotIn("while off", records())
        switched = self.control("trash", "on", "/", bus_address=bus.address)
        self.assertEqual(switched.returncode, 0, switched.stderr)
        self.wait_for_record("on again")
        self.assertIn("while off", records())  # it was there when the folder changed
        switched = self.control("trash", "off", bus_address=bus.address)
        self.assertEqual(switched.returncode, 0, switched.stderr)
        before = read_bytes(USAGE)
        self.throw_away("all off")
        put(f"{data}/.Trash-0/files/off there too")
        time.sleep(2)  # nothing is to happen; a record takes some milliseconds
        self.assertEqual(read_bytes(USAGE), before)
        refused = self.control("trash", "on", "/Volumes/None", bus_address=bus.address)
        self.assertNotEqual(refused.returncode, 0)
        self.assertIn("/Volumes/None", refused.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
