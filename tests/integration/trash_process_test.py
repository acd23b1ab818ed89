"""The trash history by the real daemon with the real recovery program: homes on the start-up volume
and the trash of a volume that is mounted for the test.

    trash_process_test.py DAEMON KORVANECTL
"""

import glob
import json
import os
import random
import struct
import subprocess
import time
import unittest

from daemon_bed import SUPPORT, mount, read_bytes, volume_entries, wait_for
from trash_bed import (FROM_1904_TO_1970, KORVANECTL, RECORD_BYTES, STAMP_OFFSET, USAGE, TrashBed,
                       files_of_searches, put, recorded_items, records, usage)


class TrashProcess(TrashBed):
    def test_records_an_item_stamps_it_and_collects_what_the_program_found(self):
        self.watch()
        began = int(time.time())
        path = self.throw_away("letter", "the contents of a letter\n" * 1000)
        record = wait_for(lambda: records().get("letter"))
        node = os.stat(path).st_ino
        self.assertEqual(record["nodeID"], str(node))
        self.assertEqual(record["dirPath"], f"{self.trash}/files")
        self.assertEqual(record["volumeName"], "System")
        self.assertIn(f"System_{node}", usage())
        self.assertEqual(os.stat(USAGE).st_mode & 0o7777, 0o666)
        stamp = wait_for(lambda: os.listxattr(path) and os.getxattr(path,
                                                                   "user.korvane.backup-date"))
        self.assertAlmostEqual(int(stamp), began, delta=60)
        [deletes] = wait_for(lambda: glob.glob(f"{SUPPORT}/System/Trash Deletes *"), 30)
        content = wait_for(lambda: len(read_bytes(deletes)) >= 2 * RECORD_BYTES
                           and read_bytes(deletes), 30)
        self.assertEqual(len(content) % RECORD_BYTES, 0)
        self.assertEqual(content[:9], b"quorlen\0\0")
        texts = content[9:RECORD_BYTES].split(b"\0")
        self.assertEqual(texts[0].decode(), self.root)
        self.assertEqual(texts[1], b"/")
        self.assertEqual(texts[4], b"trashDeletes")
        collected, = struct.unpack_from("=I", content, RECORD_BYTES + STAMP_OFFSET)
        # Less the local zone's offset from Greenwich, which is less than a day.
        self.assertAlmostEqual(collected, int(time.time()) + FROM_1904_TO_1970, delta=86400)
        wait_for(lambda: not os.path.exists(f"/tmp/.{node}.dat"))
        wait_for(lambda: not os.path.exists("/tmp/.KVDataRec_System.dat"))  # the last step
        self.assertEqual(os.stat(deletes).st_mode & 0o7777, 0o666)

    def test_records_what_every_user_throws_away(self):
        os.makedirs("/home/bob/.local")
        os.makedirs("/home/Shared/.local/share/Trash/files")
        self.watch()
        put("/home/Shared/.local/share/Trash/files/nobody's")
        for home, name in (("/home/bob", "bob's"), ("/root", "root's")):
            # The folders above come one by one, the first of all trashes with them.
            put(f"{home}/.local/share/Trash/files/{name}")
            wait_for(lambda: name in records())
            self.assertEqual(records()[name]["dirPath"], f"{home}/.local/share/Trash/files")
        self.assertNotIn("nobody's", records())

    def test_tells_an_item_put_back_from_one_that_was_emptied(self):
        self.watch()
        for name in ("back", "elsewhere", "gone", "renamed"):
            self.throw_away(name)
        wait_for(lambda: len(records()) == 4)
        files = f"{self.trash}/files"
        os.rename(f"{files}/back", "/home/ada/back")
        os.makedirs("/home/ada/below/deep")
        os.rename(f"{files}/elsewhere", "/home/ada/below/deep/elsewhere")
        os.unlink(f"{files}/gone")
        os.rename(f"{files}/renamed", f"{files}/another name")
        def left():
            found = records()
            marked = {name for name, record in found.items()
                      if "Removed" in record or "Deleted" in record}
            return found if "another name" in found and marked == {"back", "elsewhere",
                                                                   "gone"} else None
        found = wait_for(left, 60)
        self.assertIn("Removed", found["back"])
        self.assertIn("Removed", found["elsewhere"])
        self.assertIn("Deleted", found["gone"])
        # The same node under another name: its record began afresh.
        self.assertNotIn("renamed", found)

    def test_korvanectl_finds_an_item_put_back_that_had_another_name_in_the_trash(self):
        self.watch()
        origin = "/home/ada/docs/notes.txt"
        path = self.throw_away("notes.2.txt", origin=origin)
        # The recovery program's recording of it has where it came from.
        self.assertEqual(wait_for(lambda: self.listed("notes.2.txt", "origin"), 60)["state"],
                         "inTrash")
        os.makedirs("/home/ada/docs")
        os.rename(path, origin)
        found = wait_for(lambda: self.listed("notes.2.txt", "left"), 60)
        self.assertEqual((found["state"], found["putBackAs"]), ("emptied", origin))
        os.unlink(origin)
        self.assertNotIn("putBackAs", self.listed("notes.2.txt", "left"))

    def listed(self, name, field):
        """The item in korvanectl's list once that has this field of it."""
        ran = subprocess.run([KORVANECTL, "trash", "--json"], stdout=subprocess.PIPE, check=True)
        return next((item for item in json.loads(ran.stdout)["items"]
                     if item["name"] == name and field in item), None)

    def test_watches_the_trash_of_another_volume_that_appears_later(self):
        data = self.mount_image("/Volumes/Data")
        os.chown("/home/ada", 1000, 1000)
        self.watch(data)
        wait_for(lambda: volume_entries().get(data, {}).get("usageStatus") == "0")
        os.makedirs(f"{data}/.Trash-1000/files")
        put(f"{data}/.Trash-1000/files/first")
        wait_for(lambda: "first" in records())
        self.assertEqual(wait_for(lambda: records().get("first"))["volumeName"], "Data")
        # A trash that was deleted as a whole and made again.
        second = put(f"{data}/second")  # made now, so that it does not take the first one's number
        subprocess.run(["rm", "-rf", f"{data}/.Trash-1000"], check=True)
        os.makedirs(f"{data}/.Trash-1000/files")
        os.rename(second, f"{data}/.Trash-1000/files/second")
        wait_for(lambda: "second" in records() and "Deleted" in records().get("first", {}))
        # The volume goes: nothing is decided about what was on it.
        # The program or a scan may look at it for a moment.
        wait_for(lambda: subprocess.run(["umount", data], check=False,
                                        stderr=subprocess.DEVNULL).returncode == 0)
        self.throw_away("meanwhile")
        wait_for(lambda: "meanwhile" in records())
        self.assertNotIn("Deleted", wait_for(lambda: records().get("second")))

    def take_away_while_none_runs(self, daemon):
        """Puts items back and empties one while no daemon runs, and gives the records that the
        next daemon has of them."""
        for name in ("back", "elsewhere", "gone"):
            self.throw_away(name)
        wait_for(lambda: len(records()) == 3)
        daemon.terminate()
        files = f"{self.trash}/files"
        os.rename(f"{files}/back", "/home/ada/back")
        os.makedirs("/home/ada/below/deep")
        os.rename(f"{files}/elsewhere", "/home/ada/below/deep/elsewhere")
        os.unlink(f"{files}/gone")  # its number goes to what comes later on most file systems
        self.start()
        self.wait_for_record("later")
        found = wait_for(lambda: all("Removed" in record or "Deleted" in record
                                     for name, record in records().items() if name != "later")
                         and records(), 60)
        self.assertIn("Removed", found["back"])
        self.assertIn("Removed", found["elsewhere"])
        self.assertIn("Deleted", found["gone"])
        return found

    def test_follows_items_that_left_while_it_did_not_run(self):
        self.take_away_while_none_runs(self.watch())

    def test_keeps_a_record_of_each_of_many_items_of_one_number(self):
        data = self.mount_image("/Volumes/Data")  # ext4 gives a freed number to the next file
        files = f"{data}/.Trash-0/files"
        os.makedirs(files)
        self.watch(data)
        wait_for(lambda: volume_entries().get(data, {}).get("usageStatus") == "0")
        self.wait_for_record("first", data)
        names = [f"item {number}" for number in range(60)]
        numbers = set()
        for name in names:
            os.rename(put(f"{data}/{name}", name), f"{files}/{name}")
            numbers.add(os.stat(f"{files}/{name}").st_ino)
            wait_for(lambda: name in records())
            os.unlink(f"{files}/{name}")
        self.assertLess(len(numbers), 10)
        found = wait_for(lambda: all("Deleted" in records().get(name, ()) for name in names)
                         and records())
        self.assertEqual({found[name]["nodeID"] for name in names}, set(map(str, numbers)))
        plain = {key for key, value in usage().items() if isinstance(value, dict)
                 and key == f"Data_{value['nodeID']}"}
        self.assertLessEqual({f"Data_{number}" for number in numbers}, plain)

    def test_korvanectl_recovers_both_of_two_items_of_one_number_and_name(self):
        data = self.mount_image("/Volumes/Data")
        files = f"{data}/.Trash-0/files"
        os.makedirs(files)
        self.watch(data)
        wait_for(lambda: volume_entries().get(data, {}).get("usageStatus") == "0")
        self.wait_for_record("first", data)
        contents = "the contents of a letter\n" * 500
        os.rename(put(f"{data}/letter", contents), f"{files}/letter")
        number = os.stat(f"{files}/letter").st_ino
        wait_for(lambda: (number, "letter") in (recorded_items("Data") or ()), 60)
        os.unlink(f"{files}/letter")
        # An empty one, which takes none of the first one's blocks.
        path = put(f"{data}/letter", "")
        self.assertEqual(os.stat(path).st_ino, number)
        os.rename(path, f"{files}/letter")
        wait_for(lambda: len([key for key in usage() or () if key.startswith(f"Data_{number}")]) == 2)
        keys = sorted(key for key in usage() if key.startswith(f"Data_{number}"))
        listed = json.loads(self.control("trash", "--json").stdout)["items"]
        self.assertLessEqual(set(keys), {item["key"] for item in listed})
        for key, expected in zip(keys, ("", contents)):
            copy = f"/home/ada/copy of {key}"
            recovered = self.control("trash", "recover", key, copy)
            self.assertEqual(recovered.returncode, 0, recovered.stderr)
            self.assertEqual(read_bytes(copy).decode(), expected)

    def put_two_of_one_number(self, paths):
        """Makes an item at each of the paths, on volumes of their own where both have one number."""
        for attempt in range(100):
            numbers = [os.stat(put(path)).st_ino for path in paths]
            if len(set(numbers)) == 1:
                return numbers[0]
            lower = paths[numbers.index(min(numbers))]
            os.rename(lower, f"{lower}, aside {attempt}")  # so that its number stays taken
        raise AssertionError("the volumes number too differently")

    def throw_two_away(self, volumes, name):
        """Throws an item of one number away on each volume, one right after the other."""
        items = [(f"{volume}/{name}", f"{volume}/.Trash-0/files/{name}") for volume in volumes]
        number = self.put_two_of_one_number([path for path, _ in items])
        for path, _ in items:
            put(path, f"{name} of {path}")
        for path, item in items:
            os.rename(path, item)
        return number

    def test_keeps_items_of_one_number_on_two_volumes_apart(self):
        volumes = {self.mount_image(f"/Volumes/{name}"): name for name in ("One", "Two")}
        for volume in volumes:
            os.makedirs(f"{volume}/.Trash-0/files")
        daemon = self.watch(*volumes)
        for volume in volumes:
            wait_for(lambda: volume_entries().get(volume, {}).get("usageStatus") == "0")
        together = self.throw_two_away(volumes, "together")
        for name in volumes.values():
            wait_for(lambda: recorded_items(name) == {(together, "together")}, 60)
        wait_for(lambda: not files_of_searches(), 60)
        killed = self.throw_two_away(volumes, "killed")
        wait_for(lambda: {f"{name}_{killed}" for name in volumes.values()} <= set(usage() or ()))
        self.kill(daemon)
        self.start()
        for volume, name in volumes.items():
            self.wait_for_record(f"next of {name}", volume)
        for name in volumes.values():
            wait_for(lambda: {(together, "together"), (killed, "killed")} <= (
                recorded_items(name) or set()), 60)
            self.assertLessEqual({item for _, item in recorded_items(name)},
                                 {"together", "killed", f"next of {name}"})
        wait_for(lambda: not files_of_searches(), 60)
        for volume, name in volumes.items():
            for number, item in ((together, "together"), (killed, "killed")):
                self.check_that_it_comes_back(f"{name}_{number}", item, volume)

    def check_that_it_comes_back(self, key, name, volume):
        os.unlink(f"{volume}/.Trash-0/files/{name}")
        wait_for(lambda: "Deleted" in (usage() or {}).get(key, {}), 60)
        shown = self.control("trash", "show", key)
        self.assertEqual(shown.returncode, 0, shown.stderr)
        self.assertIn(name, shown.stdout)
        copy = f"/home/ada/{key}"
        recovered = self.control("trash", "recover", key, copy)
        self.assertEqual(recovered.returncode, 0, recovered.stderr)
        self.assertEqual(read_bytes(copy).decode(), f"{name} of {volume}/{name}")

    def test_searches_the_volume_for_items_that_it_has_no_trace_of(self):
        data = self.mount_image("/Volumes/Data")
        files = f"{data}/.Trash-0/files"
        os.makedirs(files)
        daemon = self.watch(data)
        wait_for(lambda: volume_entries().get(data, {}).get("usageStatus") == "0")
        for name in ("elsewhere", "gone"):
            put(f"{files}/{name}")
        wait_for(lambda: {"elsewhere", "gone"} <= set(records()))
        daemon.terminate()
        os.unlink(f"{SUPPORT}/.Trash Items.plist")
        os.makedirs(f"{data}/below/deep")
        os.rename(f"{files}/elsewhere", f"{data}/below/deep/elsewhere")
        # Its number goes to none that comes later while it is open.
        with open(f"{files}/gone", "rb"):
            os.unlink(f"{files}/gone")
            self.start()
            self.wait_for_record("later", data)
            wait_for(lambda: all({"Removed", "Deleted"} & set(records().get(name, ()))
                                 for name in ("elsewhere", "gone")), 60)
        found = records()
        self.assertIn("Removed", found["elsewhere"])
        self.assertIn("Deleted", found["gone"])

    def test_follows_a_home_on_a_subvolume(self):
        image = f"{self.place}/Tree.image"
        with open(image, "wb") as file:
            file.truncate(128 << 20)
        self.addCleanup(os.unlink, image)
        if subprocess.run(["mkfs.btrfs", "-q", image], check=False,
                          capture_output=True).returncode != 0:
            self.skipTest("this machine makes no btrfs")
        tree = "/Volumes/Tree"
        os.mkdir(tree)
        if subprocess.run(["mount", "-o", "loop", image, tree], check=False,
                          capture_output=True).returncode != 0:
            self.skipTest("this machine mounts no btrfs")
        self.addCleanup(subprocess.run, ["umount", "--lazy", tree], check=False)
        subprocess.run(["btrfs", "-q", "subvolume", "create", f"{tree}/home"], check=True)
        device = subprocess.run(["findmnt", "-no", "SOURCE", tree], check=True, text=True,
                                capture_output=True).stdout.strip()
        # Above the home of the other tests.
        mount("-o", "subvol=home", device, "/home")
        self.addCleanup(subprocess.run, ["umount", "--lazy", "/home"], check=False)
        os.makedirs(f"{self.trash}/files")
        os.makedirs(f"{self.trash}/info")
        found = self.take_away_while_none_runs(self.watch(tree))
        self.assertEqual({record["volumeName"] for record in found.values()}, {"Tree"})

    def test_decides_nothing_when_a_volume_goes_in_the_middle_of_a_scan(self):
        data = self.mount_image("/Volumes/Data")
        os.makedirs(f"{data}/.Trash-0/files")
        self.watch(data)
        wait_for(lambda: volume_entries().get(data, {}).get("usageStatus") == "0")
        for item in range(300):
            put(f"{data}/.Trash-0/files/{item}")
        wait_for(lambda: len(records()) > 0)
        subprocess.run(["umount", "--lazy", data], check=True)
        self.throw_away("letter")
        wait_for(lambda: "letter" in records())
        self.throw_away("another")
        wait_for(lambda: "another" in records())
        self.assertEqual([name for name, record in records().items()
                          if "Deleted" in record or "Removed" in record], [])

    def test_watches_nothing_while_the_history_is_off(self):
        self.watch(trashHistoryOnOff=False)
        self.throw_away("letter")
        time.sleep(2)  # nothing is to happen; a record takes some milliseconds
        self.assertFalse(os.path.exists(USAGE))

    def test_follows_no_link_in_the_place_of_a_trash_or_of_a_file_in_tmp(self):
        secrets = f"{self.place}/secrets"
        os.makedirs(f"{secrets}/files", exist_ok=True)
        put(f"{secrets}/files/secret")
        os.makedirs("/home/eve/.local/share")
        os.symlink(secrets, "/home/eve/.local/share/Trash")
        precious = put(f"{self.place}/precious", "precious")
        planted = "/tmp/.KVDataRec_System.dat"
        os.symlink(precious, planted)
        daemon = self.watch()
        os.symlink(precious, f"{self.trash}/files/a link")
        put(f"{secrets}/files/another secret")
        wait_for(lambda: "a link" in records())
        daemon.wait_for_line("No search for what is in the trash")
        self.assertEqual(read_bytes(precious), b"precious")
        self.assertEqual(os.listxattr(precious), [])
        self.assertEqual(list(records()), ["a link"])

    def test_records_names_of_any_bytes(self):
        self.watch()
        names = [b"n" * 255, b"line\nfeed", b"bad \xff\xfe", b"  leading", b"back\\slash",
                 b"looks like \\377", "é ü 漢字".encode()]
        for name in names:
            with open(f"{self.trash}/files/".encode() + name, "wb"):
                pass
        shown = {"n" * 255, "line\\012feed", "bad \\377\\376", "  leading", "back\\slash",
                 "looks like \\134377", "é ü 漢字"}
        wait_for(lambda: set(records()) == shown)
        put(f"{self.trash}/files/one more")
        wait_for(lambda: "one more" in records())
        self.assertFalse(any("Deleted" in record for record in records().values()))
        os.unlink(f"{self.trash}/files/".encode() + b"bad \xff\xfe")
        wait_for(lambda: "Deleted" in records().get("bad \\377\\376", {}))

    def test_outlives_a_crowd_of_items_that_come_and_go(self):
        # On a small volume, since what comes and goes within a scan is searched for.
        data = self.mount_image("/Volumes/Data", 64)
        files = f"{data}/.Trash-0/files"
        os.makedirs(files)
        self.watch(data)
        wait_for(lambda: volume_entries().get(data, {}).get("usageStatus") == "0")
        chance = random.Random(7)
        for step in range(2000):
            name = f"{files}/{chance.randrange(60)}"
            if os.path.exists(name):
                chance.choice((os.unlink, lambda path: os.rename(path, f"{data}/{step}"),
                               lambda path: os.rename(path, f"{path}{step}")))(name)
            else:
                put(name)
        for name in os.listdir(files):
            os.unlink(f"{files}/{name}")
        put(f"{files}/last")
        wait_for(lambda: "last" in records() and all(
            "Deleted" in record or "Removed" in record
            for name, record in records().items() if name != "last"), 60)

    def test_records_a_hundred_of_a_hundred_thousand_items(self):
        files = f"{self.trash}/files"
        for item in range(100_000):
            os.close(os.open(f"{files}/{item}", os.O_CREAT | os.O_WRONLY))
        self.watch()
        put(f"{files}/one more")
        wait_for(lambda: len(records()) >= 99, 60)
        self.assertLessEqual(len(records()), 100)

    def test_loses_nothing_when_it_is_killed_at_any_moment(self):
        daemon = self.watch()
        seen = set(self.wait_for_record("first"))
        chance = random.Random(11)
        for turn in range(12):
            for item in range(8):
                put(f"{self.trash}/files/{turn}.{item}")
            time.sleep(chance.random() * 0.05)  # the moment is what varies, nothing is waited for
            listed = self.kill(daemon)
            self.assertLessEqual(seen, listed)
            daemon = self.start()
            seen = set(self.wait_for_record(f"turn {turn}"))
            self.assertLessEqual(listed, seen)

    def test_sets_an_unreadable_record_aside(self):
        daemon = self.watch()
        put(USAGE, "no property list")
        self.throw_away("letter")
        wait_for(lambda: "letter" in records())
        daemon.wait_for_line("cannot be used and is kept as")
        [aside] = glob.glob(f"{SUPPORT}/Trash Usage, unreadable*")
        self.assertEqual(read_bytes(aside), b"no property list")

    def test_costs_nothing_while_nothing_happens(self):
        daemon = self.watch()
        self.throw_away("letter")
        wait_for(lambda: glob.glob(f"{SUPPORT}/System/Trash Deletes *"), 30)
        wait_for(lambda: not os.path.exists("/tmp/.KVDataRec_System.dat"))

        def switches():
            with open(f"/proc/{daemon.process.pid}/status", encoding="ascii") as status:
                return [line for line in status if "ctxt_switches" in line]

        def rested():
            before = switches()
            time.sleep(5)  # longer than any poll
            return switches() == before
        wait_for(rested, 90)  # the watch for the emergency volume looks for half a minute


if __name__ == "__main__":
    unittest.main(verbosity=2)
