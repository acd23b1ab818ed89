"""korvanectl's commands for directory backups beside the real daemon: a backup that hangs until it
is stopped, and what the backups hold. Runs as root in a mount namespace of its own.

    backup_commands_process_test.py KorvaneProDaemon korvanectl [TEST]
"""

import json
import os
import subprocess
import time
import unittest

import korvanectl_process_test as commands  # takes both programs' paths off the arguments
import daemon_bed as process

HELPER = f"{os.path.dirname(process.PROGRAM)}/PlugIns/KorvaneProDirectoryBackup"
# Begins the file that it was asked for, and never ends it.
HANGING_HELPER = """#!/bin/sh
echo begun > "$2"
exec sleep 100
"""
DATA = "/Volumes/Data"
DATA_FOLDER = f"{process.SUPPORT}/Data"


def backups(folder=DATA_FOLDER):
    try:
        return sorted(name for name in os.listdir(folder) if name.startswith("Directory Backup "))
    except FileNotFoundError:
        return []


def directory_status():
    return process.volume_entries().get(DATA, {}).get("directoryStatus")


class BackupCommands(process.DaemonBed):
    ctl = commands.Korvanectl.ctl
    start_both = commands.Korvanectl.start_both

    def replace_helper(self, script):
        path = f"{self.place}/helper"
        with open(path, "w", encoding="ascii") as file:
            file.write(script)
        os.chmod(path, 0o755)
        process.mount("--bind", path, HELPER)
        self.addCleanup(subprocess.run, ["umount", HELPER], check=True)

    def write_backup(self, due):
        entry = {"volumeMountToName": DATA, "directoryOnOff": True, "volumeOnOff": False,
                 "freeSpaceWarningLevel": 0, "usageStatus": "3", "directoryStatus": "0",
                 "executionTimeUsage": process.FAR_FUTURE, "executionTimeDirectory": due,
                 "executionIntervalDirectory_hours": 4}
        self.write_preferences(volumeArray=[entry])

    def test_stops_a_backup_that_hangs_without_a_trace_of_it(self):
        self.mount_image(DATA)
        self.replace_helper(HANGING_HELPER)
        due = time.time()
        self.write_backup(due)
        bus, _ = self.start_both()
        process.wait_for(backups)
        # Disabled first, or it would begin anew at once: it is still due.
        self.ctl("backup", "disable", bus=bus)
        self.assertEqual(backups(), [])
        process.wait_for(lambda: directory_status() == "3")
        self.assertAlmostEqual(process.volume_entries()[DATA]["executionTimeDirectory"], due,
                               delta=1)
        time.sleep(2.5)  # past the tick that the save asked for
        self.assertEqual(backups(), [])
        self.ctl("backup", "enable", bus=bus)
        self.ctl("reload", bus=bus)
        begun = process.wait_for(backups)
        self.ctl("backup", "stop", bus=bus)
        process.wait_for(lambda: backups() and backups() != begun)  # the next one
        self.ctl("backup", "disable", bus=bus)

    def test_says_that_there_is_no_daemon_to_steer(self):
        self.write_backup(process.FAR_FUTURE)
        for word in ("stop", "disable", "enable"):
            self.assertIn("does not run", self.ctl("backup", word, expect=2).stderr)

    def test_stores_a_location_under_its_name_in_the_folder_of_volumes(self):
        self.mount_image(DATA)
        self.mount_image(f"{self.place}/mnt/Safe")
        self.write_backup(process.FAR_FUTURE)
        bus, _ = self.start_both()
        process.wait_for(lambda: os.path.islink("/Volumes/Safe"))
        self.ctl("locations", "add", f"{self.place}/mnt/Safe", bus=bus)
        self.assertEqual(self.ctl("locations", bus=bus).stdout,
                         "/Volumes/System\n/Volumes/Safe\n")
        self.assertEqual(commands.preferences()["directoryBackupLocations"],
                         ["/Volumes/System", "/Volumes/Safe"])
        self.assertIn("not a mounted volume",
                      self.ctl("locations", "add", self.place, bus=bus, expect=1).stderr)
        self.ctl("locations", "remove", "/Volumes/Safe", bus=bus)
        self.assertEqual(commands.preferences()["directoryBackupLocations"], ["/Volumes/System"])

    def test_lists_compares_and_searches_what_the_daemon_kept(self):
        self.mount_image(DATA)
        os.mkdir(f"{DATA}/folder")
        with open(f"{DATA}/folder/Letter", "w", encoding="ascii") as file:
            file.write("text")
        self.write_backup(time.time())
        bus, _ = self.start_both()
        [first] = process.wait_for(backups)
        process.wait_for(lambda: directory_status() == "3")
        os.rename(f"{DATA}/folder/Letter", f"{DATA}/folder/Moved letter")
        while time.strftime("Directory Backup %Y-%m-%d-%H-%M-%S") <= first:
            time.sleep(0.1)  # its name would be the same
        self.ctl("volume", DATA, "set", "executionTimeDirectory", "1", bus=bus)
        process.wait_for(lambda: len(backups()) == 2)
        listed = json.loads(self.ctl("backups", "Data", "--json", bus=bus).stdout)["backups"]
        self.assertEqual([each["name"] for each in listed], backups())
        entries = sum(len(folders) + len(files) for _, folders, files in os.walk(DATA))
        self.assertEqual([each["entries"] for each in listed], [entries, entries])
        stamps = [name.removeprefix("Directory Backup ") for name in backups()]
        told = self.ctl("backups", "diff", *stamps, bus=bus).stdout
        self.assertIn("vanished  /folder/Letter\n", told)
        self.assertIn("appeared  /folder/Moved letter\n", told)
        self.assertIn("\n1 appeared, 1 vanished, 1 changed.\n", told)
        found = json.loads(self.ctl("backups", "find", "letter", "--json", bus=bus).stdout)["found"]
        self.assertEqual([(each["path"], each["inBackups"], each["newestBackup"])
                          for each in found],
                         [(f"{DATA}/folder/Letter", 1, f"{DATA_FOLDER}/{first}"),
                          (f"{DATA}/folder/Moved letter", 1, f"{DATA_FOLDER}/{backups()[1]}")])


if __name__ == "__main__":
    unittest.main(verbosity=2)
