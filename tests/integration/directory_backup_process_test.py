"""Directory backups by the real daemon with the real helper and /bin/cp, between file systems that
are mounted for the test. Where a program is to misbehave, another one is mounted over it.

    directory_backup_process_test.py DAEMON
"""

import ctypes
import filecmp
import os
import plistlib
import shutil
import signal
import subprocess
import sys
import time
import unittest

from daemon_bed import (FAR_FUTURE, PROGRAM, SUPPORT, DaemonBed, read_bytes, read_preferences,
                        volume_entries, wait_for)

sys.path.append(f"{os.path.dirname(os.path.abspath(__file__))}/../directory_record")
from record_reader import read_record  # noqa: E402 (its folder is known only now)

DATA = "/Volumes/Data"
DATA_FOLDER = f"{SUPPORT}/Data"
HELPER = f"{os.path.dirname(PROGRAM)}/PlugIns/KorvaneProDirectoryBackup"
COPY = os.path.realpath("/bin/cp")
ENTRIES_OF_A_LARGE_VOLUME = 200_000
# More than a sanitizer writes at its start, less than a record of 20,000 files.
SOME_OF_A_RECORD = 100_000
ACCOUNT = 4711  # an ordinary one, which nobody has
LIBC = ctypes.CDLL(None)
LONG = 120  # seconds; what takes moments on a machine at rest


def backups(folder):
    try:
        return sorted(name for name in os.listdir(folder) if name.startswith("Directory Backup"))
    except FileNotFoundError:
        return []


def children(process):
    """The process numbers of what a process has started and what still runs."""
    found = []
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                with open(f"/proc/{name}/stat", encoding="utf-8", errors="replace") as file:
                    state, parent = file.read().rpartition(")")[2].split()[:2]
            except (FileNotFoundError, ProcessLookupError):
                continue
            if int(parent) == process.pid and state != "Z":
                found.append(int(name))
    return found


def written_bytes(process):
    """How much the process has handed to write calls so far."""
    with open(f"/proc/{process}/io", encoding="ascii") as file:
        return int(dict(line.split(": ") for line in file)["wchar"])


def is_stopped(process):
    with open(f"/proc/{process}/stat", encoding="utf-8") as file:
        return file.read().rpartition(")")[2].split()[0] == "T"


class DirectoryBackupBed(DaemonBed):
    def mount_volume(self, name, megabytes=8, entries=1000):
        return self.mount_image(f"/Volumes/{name}", megabytes, "-b", "4096", "-O", "^has_journal",
                                "-N", str(entries))

    def mount_over(self, program, text):
        """Has another program, a shell script, stand in the place of this one."""
        script = f"{self.place}/{os.path.basename(program)}"
        with open(script, "w", encoding="ascii") as file:
            file.write(f"#!/bin/sh\n{text}\n")
        os.chmod(script, 0o755)
        subprocess.run(["mount", "--bind", script, program], check=True)
        self.addCleanup(subprocess.run, ["umount", "--lazy", program], check=True)

    def write_due_backup(self, locations, path=DATA, **interval):
        entry = {"volumeMountToName": path, "directoryOnOff": True,
                 "volumeOnOff": False, "freeSpaceWarningLevel": 0, "usageStatus": "3",
                 "directoryStatus": "0", "executionTimeUsage": FAR_FUTURE,
                 "executionTimeDirectory": time.time(),
                 **{f"executionIntervalDirectory_{part}": count
                    for part, count in (interval or {"hours": 4}).items()}}
        self.write_preferences(volumeArray=[entry], directoryBackupLocations=locations)

    def entry(self, path=DATA):
        return volume_entries().get(path) if read_preferences() else None

    def wait_for_end(self, path=DATA):
        """The entry as it stands when the run has been noted."""
        def noted():
            entry = self.entry(path)
            return entry if entry and entry["executionTimeDirectory"] > time.time() else None
        entry = wait_for(noted, LONG)
        self.assertEqual(entry["directoryStatus"], "3")
        return entry

    def wait_for_child(self, daemon, but=()):
        [child] = wait_for(lambda: set(children(daemon.process)) - set(but), LONG)
        return child


class DirectoryBackupProcess(DirectoryBackupBed):
    def test_records_a_volume_and_copies_the_record_to_two_locations(self):
        data, backup, second = (self.mount_volume(name) for name in ("Data", "Backup", "Second"))
        os.makedirs(f"{data}/folder/below")
        with open(f"{data}/folder/below/a file", "w", encoding="ascii") as file:
            file.write("contents")
        self.write_due_backup(["/Volumes/System", backup, second])
        began = time.time()
        daemon = self.start()
        entry = self.wait_for_end()
        self.assertGreater(entry["executionTimeDirectory"], began + 4 * 3600)
        self.assertLess(entry["executionTimeDirectory"], time.time() + 4 * 3600)
        [name] = backups(DATA_FOLDER)
        wait_for(lambda: not children(daemon.process), LONG)
        entries, _ = read_record(f"{DATA_FOLDER}/{name}")
        self.assertEqual(set(entries), {b".", b"./lost+found", b"./folder", b"./folder/below",
                                        b"./folder/below/a file"})
        self.assertEqual(entries[b"./folder/below/a file"][b"size"], b"8")
        self.assertIn("DirectoryBackup (ON)", os.listdir(DATA_FOLDER))
        wait_for(lambda: os.stat(f"{DATA_FOLDER}/{name}").st_mode & 0o7777 == 0o666, LONG)
        for location in (backup, second):
            copies = f"{location}/Korvane Protection/Data"
            self.assertEqual(os.listdir(copies), [name])
            self.assertTrue(filecmp.cmp(f"{copies}/{name}", f"{DATA_FOLDER}/{name}", False))
            self.assertEqual(os.stat(f"{copies}/{name}").st_mtime_ns,
                             os.stat(f"{DATA_FOLDER}/{name}").st_mtime_ns)
            with open(f"{location}/.KorvaneProtection.plist", "rb") as file:
                self.assertEqual(plistlib.load(file)["directoryBackupLocations"],
                                 ["/Volumes/System", backup, second])
            self.assertEqual(os.stat(f"{location}/.KorvaneProtection.plist").st_mode & 0o7777,
                             0o666)

    def test_records_a_volume_whose_path_is_no_text(self):
        data = self.mount_volume(os.fsdecode(b"Latin \xe9"))
        with open(f"{data}/file", "w", encoding="ascii"):
            pass
        # The daemon's text for such a path.
        path = "/Volumes/Latin \\351"
        self.write_due_backup(["/Volumes/System"], path)
        self.start()
        self.wait_for_end(path)
        folder = f"{SUPPORT}/{os.path.basename(path)}"
        [name] = backups(folder)
        entries, _ = read_record(f"{folder}/{name}")
        self.assertEqual(set(entries), {b".", b"./lost+found", b"./file"})

    def test_keeps_the_copies_alone_where_the_start_up_volume_is_no_location(self):
        self.mount_volume("Data")
        backup, second = self.mount_volume("Backup"), self.mount_volume("Second")
        self.write_due_backup([backup, second])
        self.start()
        self.wait_for_end()
        wait_for(lambda: not backups(DATA_FOLDER), LONG)
        self.assertEqual(len(backups(f"{backup}/Korvane Protection/Data")), 1)
        self.assertEqual(len(backups(f"{second}/Korvane Protection/Data")), 1)
        self.assertIn("DirectoryBackup (OFF)", os.listdir(DATA_FOLDER))

    def test_passes_over_a_location_whose_folder_leads_elsewhere(self):
        self.mount_volume("Data")
        backup = self.mount_volume("Backup")
        elsewhere = f"{self.place}/elsewhere"
        os.mkdir(elsewhere)
        self.addCleanup(shutil.rmtree, elsewhere)
        os.symlink(elsewhere, f"{backup}/Korvane Protection")
        self.write_due_backup(["/Volumes/System", backup])
        daemon = self.start()
        self.wait_for_end()
        daemon.wait_for_line('Backup location "/Volumes/Backup" is passed over')
        self.assertEqual(os.listdir(elsewhere), [])
        self.assertEqual(len(backups(DATA_FOLDER)), 1)

    def test_passes_over_a_location_whose_folder_is_somebody_elses(self):
        self.mount_volume("Data")
        backup = self.mount_volume("Backup")
        os.makedirs(f"{backup}/Korvane Protection/Data")
        os.chown(f"{backup}/Korvane Protection/Data", ACCOUNT, ACCOUNT)
        self.write_due_backup(["/Volumes/System", backup])
        daemon = self.start()
        self.wait_for_end()
        daemon.wait_for_line('Backup location "/Volumes/Backup" is passed over')
        self.assertEqual(os.listdir(f"{backup}/Korvane Protection/Data"), [])

    def make_location_of_an_account(self):
        """A folder of an ordinary account's own on the start-up volume."""
        location = "/Volumes/Users"
        os.mkdir(location)
        os.chown(location, ACCOUNT, ACCOUNT)
        return location

    def test_copies_to_a_users_location_with_that_users_rights(self):
        self.mount_volume("Data")
        location = self.make_location_of_an_account()
        copies = f"{location}/Korvane Protection/Data"
        os.makedirs(copies)
        old = [f"Directory Backup 2020-01-0{day}-00-00-00" for day in (1, 2, 3)]
        for index, name in enumerate(old):
            with open(f"{copies}/{name}", "w", encoding="ascii"):
                pass
            os.utime(f"{copies}/{name}", (index, index))
        for path in (f"{location}/Korvane Protection", copies):
            os.chown(path, ACCOUNT, ACCOUNT)
        self.write_due_backup(["/Volumes/System", location])
        daemon = self.start()
        self.wait_for_end()
        [name] = backups(DATA_FOLDER)
        wait_for(lambda: name in os.listdir(copies), LONG)
        self.assertEqual(backups(copies), [old[1], old[2], name])
        self.assertTrue(filecmp.cmp(f"{copies}/{name}", f"{DATA_FOLDER}/{name}", False))
        self.assertEqual(os.stat(f"{copies}/{name}").st_mtime_ns,
                         os.stat(f"{DATA_FOLDER}/{name}").st_mtime_ns)
        for path in (f"{copies}/{name}", f"{location}/.KorvaneProtection.plist"):
            self.assertEqual(os.stat(path).st_uid, ACCOUNT)
        with open(f"{location}/.KorvaneProtection.plist", "rb") as file:
            self.assertEqual(plistlib.load(file)["directoryBackupLocations"],
                             ["/Volumes/System", location])
        wait_for(lambda: not children(daemon.process), LONG)
        self.assertFalse(any("is passed over" in line for line in daemon.lines()))

    def test_leaves_alone_what_its_user_may_not_write(self):
        self.mount_volume("Data")
        location = self.make_location_of_an_account()
        os.makedirs(f"{location}/Korvane Protection/Data")
        os.chown(f"{location}/Korvane Protection", ACCOUNT, ACCOUNT)
        self.write_due_backup(["/Volumes/System", location])
        daemon = self.start()
        self.wait_for_end()
        daemon.wait_for_line(f'Backup location "{location}" is passed over')
        self.assertEqual(os.listdir(f"{location}/Korvane Protection/Data"), [])

    def test_waits_for_nothing_that_stands_in_a_users_location(self):
        """FIFOs and a full folder with names that backups have."""
        self.mount_volume("Data")
        location = self.make_location_of_an_account()
        copies = f"{location}/Korvane Protection/Data"
        os.makedirs(f"{copies}/Directory Backup 2020-01-01-00-00-00/of the user")
        os.utime(f"{copies}/Directory Backup 2020-01-01-00-00-00", (1, 1))
        for path in (f"{location}/Korvane Protection", copies):
            os.chown(path, ACCOUNT, ACCOUNT)
        for day in (2, 3, 4):
            os.mkfifo(f"{copies}/Directory Backup 2020-01-0{day}-00-00-00")
        os.mkfifo(f"{location}/.KorvaneProtection.plist")
        self.write_due_backup(["/Volumes/System", location])
        daemon = self.start()
        self.wait_for_end()
        [name] = backups(DATA_FOLDER)
        # The folder cannot be removed with that user's rights, which ends the rotation.
        wait_for(lambda: name in os.listdir(copies), LONG)
        self.assertEqual(len(backups(copies)), 5)
        wait_for(lambda: not children(daemon.process), LONG)
        self.assertEqual(daemon.terminate()[0], 0)

    def test_does_not_let_a_user_stop_or_trace_a_copy(self):
        self.mount_volume("Data")
        location = self.make_location_of_an_account()
        # A record that takes a while to copy.
        self.mount_over(HELPER, 'truncate --size=4G "$2"')
        self.write_due_backup(["/Volumes/System", location])
        daemon = self.start()
        copy = self.wait_for_copy(daemon)
        status = read_bytes(f"/proc/{copy}/status").decode()
        self.assertIn(f"Uid:\t0\t0\t0\t{ACCOUNT}\n", status)
        self.assertIn("Gid:\t0\t0\t0\t65534\n", status)
        self.assertIn("CapEff:\t0000000000000000\n", status)
        self.assertIn("CapPrm:\t0000000000000000\n", status)
        self.assertRegex(status, r"Groups:\t\s*\n")
        ended = subprocess.run(["setpriv", f"--reuid={ACCOUNT}", "--clear-groups", "kill", str(copy)],
                               check=False, capture_output=True)
        self.assertNotEqual(ended.returncode, 0)
        os.kill(copy, signal.SIGKILL)
        wait_for(lambda: not children(daemon.process), LONG)
        # It had no name yet.
        self.assertEqual(os.listdir(f"{location}/Korvane Protection/Data"), [])

    def wait_for_copy(self, daemon):
        """The process of a copy that has taken on its rights."""
        def running():
            for child in children(daemon.process):
                if b"KorvaneProCopy\0" in read_bytes(f"/proc/{child}/cmdline"):
                    return b"CapPrm:\t0000000000000000" in read_bytes(
                        f"/proc/{child}/status") and child
            return None
        return wait_for(running, LONG)

    def test_passes_over_a_location_of_another_machines(self):
        """A server that does not answer: asked anything, the daemon would hang."""
        self.mount_volume("Data")
        location = "/Volumes/Server"
        os.mkdir(location)
        # A file system whose program never answers, as a dead server does not.
        device = os.open("/dev/fuse", os.O_RDWR)
        self.addCleanup(os.close, device)
        mounted = LIBC.mount(b"server:/export", location.encode(), b"fuse.sshfs", 0,
                             f"fd={device},rootmode=40000,user_id=0,group_id=0".encode())
        self.assertEqual(mounted, 0)
        self.addCleanup(subprocess.run, ["umount", "--lazy", location], check=True)
        self.write_due_backup(["/Volumes/System", location])
        daemon = self.start()
        self.wait_for_end()
        daemon.wait_for_line(f'Backup location "{location}" is passed over: "{location}" is not on '
                             'a disk of this machine.')
        self.assertEqual(daemon.terminate()[0], 0)

    def test_notes_the_run_though_a_location_is_full(self):
        self.mount_volume("Data")
        backup, second = self.mount_volume("Backup"), self.mount_volume("Second")
        os.makedirs(f"{backup}/Korvane Protection/Data")
        with open(f"{backup}/filler", "wb") as file, self.assertRaises(OSError):
            while True:
                file.write(bytes(1 << 16))
                file.flush()
        self.write_due_backup(["/Volumes/System", backup, second])
        daemon = self.start()
        self.wait_for_end()
        [name] = backups(DATA_FOLDER)
        wait_for(lambda: backups(f"{second}/Korvane Protection/Data") == [name], LONG)
        self.assertEqual(daemon.terminate()[0], 0)

    def test_outlives_a_location_that_is_unmounted_while_it_copies(self):
        self.mount_volume("Data")
        backup = self.mount_volume("Backup")
        real = f"{self.place}/the real cp"
        shutil.copy(COPY, real)
        self.addCleanup(os.unlink, real)
        # Stops with the target open, and then copies by its name.
        self.mount_over(COPY, f'exec 9>"$3"\nkill -STOP $$\nexec "{real}" "$@"')
        self.write_due_backup(["/Volumes/System", backup])
        daemon = self.start()
        self.wait_for_end()
        copy = self.wait_for_child(daemon)
        wait_for(lambda: is_stopped(copy), LONG)
        subprocess.run(["umount", "--lazy", backup], check=True)
        os.kill(copy, signal.SIGCONT)
        wait_for(lambda: not children(daemon.process), LONG)
        self.assertEqual(os.listdir(backup), [])
        self.assertEqual(len(backups(DATA_FOLDER)), 1)
        self.assertEqual(daemon.terminate()[0], 0)

    def test_says_so_when_the_helper_leaves_no_file(self):
        self.mount_volume("Data")
        backup = self.mount_volume("Backup")
        self.mount_over(HELPER, "exit 1")
        self.write_due_backup([backup])
        daemon = self.start()
        self.wait_for_end()
        daemon.wait_for_line(f'Directory Backup file "{DATA_FOLDER}/Directory Backup 20')
        daemon.wait_for_line('is not there. (Probably was insufficient space to create it.)')
        self.assertEqual(os.listdir(f"{backup}/Korvane Protection/Data"), [])
        self.assertEqual(daemon.terminate()[0], 0)

    def test_leaves_the_entry_alone_without_the_helper(self):
        self.mount_volume("Data")
        subprocess.run(["mount", "-t", "tmpfs", "none", os.path.dirname(HELPER)], check=True)
        self.addCleanup(subprocess.run, ["umount", "--lazy", os.path.dirname(HELPER)], check=True)
        self.write_due_backup(["/Volumes/System"])
        due = self.entry()["executionTimeDirectory"]
        daemon = self.start()
        wait_for(lambda: os.path.isdir(DATA_FOLDER), LONG)
        time.sleep(1.5)  # past the first tick
        self.assertEqual(daemon.terminate()[0], 0)
        self.assertEqual(self.entry()["executionTimeDirectory"], due)
        self.assertEqual(backups(DATA_FOLDER), [])

    def test_stops_a_helper_that_hangs_and_starts_none_while_disabled(self):
        self.mount_volume("Data")
        # Deaf to the first signal, and a loop of short sleeps to the second.
        self.mount_over(HELPER, "trap '' INT\nprintf half >\"$2\"\nwhile :; do sleep 0.1; done")
        self.write_due_backup(["/Volumes/System"])
        due = self.entry()["executionTimeDirectory"]
        bus = self.start_bus()
        daemon = self.start(bus_address=bus.address)
        helper = self.wait_for_child(daemon)
        wait_for(lambda: backups(DATA_FOLDER), LONG)
        self.assertEqual(bus.send("directoryBackupStopNotification").stdout, "b true\n")
        wait_for(lambda: helper not in children(daemon.process), LONG)
        # The due time still stands, so the next tick starts another.
        second = self.wait_for_child(daemon, but=[helper])
        self.assertEqual(bus.send("isDirectoryExecuteComplete").stdout, "b false\n")
        self.assertEqual(bus.send("disableDirectoryBackupNotification").stdout, "b true\n")
        wait_for(lambda: not children(daemon.process), LONG)
        wait_for(lambda: not backups(DATA_FOLDER), LONG)
        entry = wait_for(self.entry)
        self.assertEqual(entry["directoryStatus"], "3")
        self.assertEqual(entry["executionTimeDirectory"], due)
        daemon.process.send_signal(signal.SIGHUP)
        time.sleep(1.5)  # past that tick
        self.assertEqual(children(daemon.process), [])
        bus.send("enableDirectoryBackupNotification")
        third = self.wait_for_child(daemon)
        self.assertNotIn(third, (helper, second))
        self.assertEqual(daemon.terminate()[0], 0)
        wait_for(lambda: not os.path.exists(f"/proc/{third}"), LONG)

    def test_ends_its_helper_with_itself(self):
        self.mount_volume("Data")
        self.mount_over(HELPER, "printf half >\"$2\"\nwhile :; do sleep 0.1; done")
        self.write_due_backup(["/Volumes/System"])
        daemon = self.start()
        helper = self.wait_for_child(daemon)
        wait_for(lambda: backups(DATA_FOLDER), LONG)
        self.assertEqual(daemon.terminate()[0], 0)
        wait_for(lambda: not os.path.exists(f"/proc/{helper}"), LONG)
        self.assertEqual(backups(DATA_FOLDER), [])

    def test_takes_its_helper_along_when_it_is_killed(self):
        self.mount_volume("Data")
        self.mount_over(HELPER, "while :; do sleep 0.1; done")
        self.write_due_backup(["/Volumes/System"])
        daemon = self.start()
        helper = self.wait_for_child(daemon)
        daemon.process.kill()
        wait_for(lambda: not os.path.exists(f"/proc/{helper}"), LONG)

    def test_leaves_a_copy_to_itself_however_it_ends(self):
        """What is half copied would count as a backup."""
        for end in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            with self.subTest(end):
                self.setUp()
                self.mount_volume("Data")
                backup = self.mount_volume("Backup")
                go = f"{self.place}/go"
                self.mount_over(COPY, f'while [ ! -e "{go}" ]; do sleep 0.05; done\ncat "$2" >"$3"')
                self.write_due_backup(["/Volumes/System", backup])
                daemon = self.start()
                self.wait_for_end()
                [copy] = wait_for(lambda: children(daemon.process), LONG)
                daemon.process.send_signal(end)
                daemon.process.wait()
                self.assertTrue(os.path.exists(f"/proc/{copy}"))
                with open(go, "w", encoding="ascii"):
                    pass
                wait_for(lambda: not os.path.exists(f"/proc/{copy}"), LONG)
                os.unlink(go)
                [name] = backups(DATA_FOLDER)
                self.assertTrue(filecmp.cmp(f"{backup}/Korvane Protection/Data/{name}",
                                            f"{DATA_FOLDER}/{name}", False))
                self.doCleanups()

class DirectoryBackupOfALargeVolume(DirectoryBackupBed):
    def mount_large_volumes(self, entries):
        """A volume of so many entries, and one that takes its record."""
        self.mount_volume("Backup", 64)
        data = self.mount_volume("Data", 32 + entries // 2000, entries + 100)
        made = 2  # its top folder, and what it is made with
        for folder in range(entries):
            os.mkdir(f"{data}/{folder}")
            here = os.open(f"{data}/{folder}", os.O_RDONLY)
            made += 1
            for index in range(min(99, entries - made)):
                os.mknod(f"{index}", dir_fd=here)
                made += 1
            os.close(here)
            if made == entries:
                break

    def test_is_a_whole_record_at_every_place(self):
        self.mount_large_volumes(ENTRIES_OF_A_LARGE_VOLUME)
        self.write_due_backup(["/Volumes/System", "/Volumes/Backup"])
        daemon = self.start()
        self.wait_for_end()
        [name] = backups(DATA_FOLDER)
        entries, _ = read_record(f"{DATA_FOLDER}/{name}")
        self.assertEqual(len(entries), ENTRIES_OF_A_LARGE_VOLUME)
        wait_for(lambda: not children(daemon.process), LONG)
        self.assertTrue(filecmp.cmp(f"/Volumes/Backup/Korvane Protection/Data/{name}",
                                    f"{DATA_FOLDER}/{name}", False))

    def test_leaves_nothing_when_its_helper_is_killed_half_way(self):
        self.mount_large_volumes(20_000)  # written in several pieces
        self.write_due_backup(["/Volumes/System", "/Volumes/Backup"])
        daemon = self.start()
        helper = self.wait_for_child(daemon)
        # Step by step, until it has written some of it.
        os.kill(helper, signal.SIGSTOP)
        while written_bytes(helper) < SOME_OF_A_RECORD:
            os.kill(helper, signal.SIGCONT)
            time.sleep(0.001)
            os.kill(helper, signal.SIGSTOP)
        self.assertEqual(backups(DATA_FOLDER), [])
        os.kill(helper, signal.SIGKILL)
        self.wait_for_end()
        daemon.wait_for_line('is not there. (Probably was insufficient space to create it.)')
        self.assertEqual([name for name in os.listdir(DATA_FOLDER) if "(ON)" not in name], [])
        self.assertEqual(backups("/Volumes/Backup/Korvane Protection/Data"), [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
