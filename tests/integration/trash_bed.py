"""A real daemon that keeps the trash history: homes and a trash on the start-up volume, and volumes
that are mounted for a test. Takes the paths of the daemon and of korvanectl off the arguments.
"""

import contextlib
import glob
import json
import os
import plistlib
import signal
import struct
import subprocess
import sys
import xml.parsers.expat

from daemon_bed import PROGRAM, SUPPORT, DaemonBed, mount, read_bytes, volume_entries, wait_for

KORVANECTL = os.path.abspath(sys.argv.pop(1))
USAGE = f"{SUPPORT}/Trash Usage.plist"
USAGE_SAVING = f"{SUPPORT}/.Trash Usage.plist.saving"
USAGE_KEPT = f"{SUPPORT}/.Trash Usage.plist.kept"
RECORD_BYTES = 764
NODE_OFFSET = 8
TEXT_OFFSET = 148
STAMP_OFFSET = 544
FROM_1904_TO_1970 = (66 * 365 + 17) * 86400


def usage(path=USAGE):
    try:
        return plistlib.loads(read_bytes(path))
    except FileNotFoundError:
        return {}
    except (plistlib.InvalidFileException, xml.parsers.expat.ExpatError, ValueError):
        return None  # just being rewritten


def records():
    document = usage() or {}
    return {value["itemName"]: value for value in document.values() if isinstance(value, dict)}


def files_of_results(volume="System"):
    return glob.glob(f"{SUPPORT}/{volume}/Trash Deletes *")


def recorded_items(volume="System"):
    """The numbers and names of the items in the files of results, each of which must be whole."""
    items = set()
    for path in files_of_results(volume):
        content = read_bytes(path)
        if len(content) % RECORD_BYTES != 0:
            return None  # just being added to
        for at in range(RECORD_BYTES, len(content), RECORD_BYTES):
            node, = struct.unpack_from("=Q", content, at + NODE_OFFSET)
            name, _, _ = content[at + TEXT_OFFSET:at + STAMP_OFFSET].partition(b"\0")
            items.add((node, name.decode()))
    return items


def files_of_searches():
    return set(glob.glob("/tmp/.KVDataRec_*.dat") + glob.glob("/tmp/.[0-9]*.dat"))


def put(path, text="x"):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    return path


def cover_tmp(cover, *needed):
    """Mounts the empty folder over /tmp, and in it the folders of /tmp that what is needed lies
    below: a build tree may lie there."""
    mount("--rbind", "/tmp", "/mnt")  # where it stays in reach meanwhile
    mount("--bind", cover, "/tmp")
    for name in {path.split("/")[2] for path in map(os.path.realpath, needed)
                 if path.startswith("/tmp/")}:
        os.mkdir(f"/tmp/{name}")
        mount("--rbind", f"/mnt/{name}", f"/tmp/{name}")
    subprocess.run(["umount", "--lazy", "/mnt"], check=True)


class TrashBed(DaemonBed):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # Homes and a /tmp of their own, on the start-up volume still.
        for folder in ("/home", "/root", "/tmp"):
            os.makedirs(cls.place + folder)
        for folder in ("/home", "/root"):
            mount("--bind", cls.place + folder, folder)
        os.chmod(f"{cls.place}/tmp", 0o1777)
        cover_tmp(f"{cls.place}/tmp", cls.place, PROGRAM, KORVANECTL, __file__)

    @classmethod
    def tearDownClass(cls):
        for folder in ("/tmp", "/home", "/root"):
            subprocess.run(["umount", "--lazy", folder], check=True)
        super().tearDownClass()

    def setUp(self):
        super().setUp()
        self.needs_root_volume()
        # What a daemon that was killed had handed to the recovery program, and what that has found.
        for path in files_of_searches():
            subprocess.run(["rm", "-rf", path], check=True)
        for folder in ("/home", "/root"):
            for name in os.listdir(folder):
                subprocess.run(["rm", "-rf", f"{folder}/{name}"], check=True)
        self.trash = "/home/ada/.local/share/Trash"
        os.makedirs(f"{self.trash}/files")
        os.makedirs(f"{self.trash}/info")

    def watch(self, *paths, bus_address=None, **changes):
        entries = [{"volumeMountToName": path, "trashOnOff": True, "volumeOnOff": False,
                    "directoryOnOff": False, "isCoreStorageEncrypted": False,
                    "freeSpaceWarningLevel": 0, "usageStatus": "3", "directoryStatus": "3",
                    "executionTimeUsage": 4e9, "executionTimeDirectory": 4e9}
                   for path in ("/", *paths)]
        self.write_preferences(volumeArray=entries, **{"trashHistoryOnOff": True, **changes})
        daemon = self.start(**({"bus_address": bus_address} if bus_address else {}))
        # The trash is watched before the document is written for the first time.
        wait_for(lambda: volume_entries().get("/", {}).get("usageStatus") == "0")
        return daemon

    def wait_for_record(self, name, volume=None):
        """Waits for an item's record in a daemon that may not have watched yet when it came."""
        files = f"{volume}/.Trash-0/files" if volume else f"{self.trash}/files"
        path, other = f"{files}/{name}", f"{volume or '/home/ada'}/{name}"
        for _ in range(20):
            put(other)
            os.replace(other, path)
            with contextlib.suppress(AssertionError):
                return wait_for(lambda: name in records() and usage(), 3)
        raise AssertionError(f"no record of {name}")

    def throw_away(self, name, text="x", origin=None):
        """As a file manager does: the note first, then the item."""
        path = put(f"/home/ada/{name}", text)
        put(f"{self.trash}/info/{name}.trashinfo",
            f"[Trash Info]\nPath={origin or path}\nDeletionDate=2026-03-02T08:00:00\n")
        os.rename(path, f"{self.trash}/files/{name}")
        return f"{self.trash}/files/{name}"

    def control(self, *words, bus_address="unix:path=/nonexistent/bus"):
        return subprocess.run(
            [KORVANECTL, *words], capture_output=True, text=True, check=False,
            env={"PATH": os.environ["PATH"], "ASAN_OPTIONS": "detect_leaks=0",
                 "DBUS_SYSTEM_BUS_ADDRESS": bus_address, "DBUS_SESSION_BUS_ADDRESS": bus_address})

    def kill(self, daemon):
        """Kills the daemon, and gives the keys of the records that a user can list then."""
        daemon.process.send_signal(signal.SIGKILL)
        daemon.process.wait()
        self.assertTrue(usage() or usage(USAGE_SAVING) or usage(USAGE_KEPT))
        listed = self.control("trash", "--json")
        self.assertEqual(listed.returncode, 0, listed.stderr)
        return {item["key"] for item in json.loads(listed.stdout)["items"]}
