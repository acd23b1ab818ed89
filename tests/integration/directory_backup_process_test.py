"""Directory backups by the real daemon with the real helper and /bin/cp, between file systems that
are mounted for the test. Where a program is to misbehave, another one is mounted over it.

    directory_backup_process_test.py DAEMON
"""

import filecmp
import os
import plistlib
import shutil
import signal
import subprocess
import sys
import time
import unittest

from daemon_bed import (FAR_FUTURE, PROGRAM, SUPPORT, DaemonBed, read_preferences,
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

    def write_due_backup(self, locations, path=DATA):
        entry = {"volumeMountToName": path, "directoryOnOff": True,
                 "volumeOnOff": False, "freeSpaceWarningLevel": 0, "usageStatus": "3",
                 "directoryStatus": "0", "executionTimeUsage": FAR_FUTURE,
                 "executionTimeDirectory": time.time(), "executionIntervalDirectory_hours": 4}
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
        os.chown(f"{backup}/Korvane Protection/Data", 1000, 1000)
        self.write_due_backup(["/Volumes/System", backup])
        daemon = self.start()
        self.wait_for_end()
        daemon.wait_for_line('Backup location "/Volumes/Backup" is passed over')
        self.assertEqual(os.listdir(f"{backup}/Korvane Protection/Data"), [])

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
