"""Directory backups by the real daemon with the real helper and /bin/cp, between file systems that
are mounted for the test.

    directory_backup_process_test.py DAEMON
"""

import os
import plistlib
import subprocess
import time
import unittest

from daemon_process_test import (FAR_FUTURE, SUPPORT, DaemonBed, read_preferences, volume_entries,
                                 wait_for)

DATA_FOLDER = f"{SUPPORT}/Data"


def backups(folder):
    try:
        return sorted(name for name in os.listdir(folder) if name.startswith("Directory Backup"))
    except FileNotFoundError:
        return []


class DirectoryBackupProcess(DaemonBed):
    def mount_image(self, name, megabytes=8):
        image = f"{self.place}/{name}.image"
        with open(image, "wb") as file:
            file.truncate(megabytes << 20)
        subprocess.run(["mkfs.ext4", "-q", "-O", "^has_journal", image], check=True)
        folder = f"/Volumes/{name}"
        os.mkdir(folder)
        if subprocess.run(["mount", "-o", "loop", image, folder], check=False,
                          capture_output=True).returncode != 0:
            self.skipTest("this machine mounts no images")
        self.addCleanup(os.unlink, image)
        self.addCleanup(subprocess.run, ["umount", "--lazy", folder], check=True)
        return folder

    def write_due_backup(self, locations):
        entry = {"volumeMountToName": "/Volumes/Data", "directoryOnOff": True,
                 "volumeOnOff": False, "freeSpaceWarningLevel": 0, "usageStatus": "3",
                 "directoryStatus": "0", "executionTimeUsage": FAR_FUTURE,
                 "executionTimeDirectory": time.time(), "executionIntervalDirectory_hours": 4}
        self.write_preferences(volumeArray=[entry], directoryBackupLocations=locations)

    def wait_for_end(self):
        """The entry as it stands when the run has been noted."""
        def noted():
            entry = volume_entries().get("/Volumes/Data") if read_preferences() else None
            return entry if entry and entry["directoryStatus"] == "3" else None
        return wait_for(noted, 60)

    def test_records_a_volume_and_copies_the_record_to_a_location(self):
        data, backup = self.mount_image("Data"), self.mount_image("Backup")
        os.makedirs(f"{data}/folder/below")
        with open(f"{data}/folder/below/a file", "w", encoding="ascii") as file:
            file.write("contents")
        self.write_due_backup(["/Volumes/System", backup])
        began = time.time()
        self.start()
        entry = self.wait_for_end()
        self.assertAlmostEqual(entry["executionTimeDirectory"], time.time() + 4 * 3600, delta=120)
        self.assertGreater(entry["executionTimeDirectory"], began + 4 * 3600)
        copies = f"{backup}/Korvane Protection/Data"
        [name] = wait_for(lambda: backups(copies), 30)
        self.assertEqual(backups(DATA_FOLDER), [name])
        self.assertEqual(os.listdir(copies), [name])
        wait_for(lambda: os.path.getsize(f"{copies}/{name}") ==
                 os.path.getsize(f"{DATA_FOLDER}/{name}"))
        with open(f"{copies}/{name}", encoding="ascii") as file:
            record = file.read()
        self.assertIn("\n./folder/below/a\\040file type=file mode=0644 uid=0 gid=0 size=8 ", record)
        self.assertIn("DirectoryBackup (ON)", os.listdir(DATA_FOLDER))
        with open(f"{backup}/.KorvaneProtection.plist", "rb") as file:
            self.assertEqual(plistlib.load(file)["directoryBackupLocations"],
                             ["/Volumes/System", backup])
        self.assertEqual(os.stat(f"{backup}/.KorvaneProtection.plist").st_mode & 0o7777, 0o666)
        self.assertEqual(os.stat(f"{DATA_FOLDER}/{name}").st_mode & 0o7777, 0o666)

    def test_keeps_the_copy_alone_where_the_start_up_volume_is_no_location(self):
        self.mount_image("Data")
        backup = self.mount_image("Backup")
        self.write_due_backup([backup])
        self.start()
        self.wait_for_end()
        wait_for(lambda: not backups(DATA_FOLDER), 30)
        self.assertEqual(len(backups(f"{backup}/Korvane Protection/Data")), 1)
        self.assertIn("DirectoryBackup (OFF)", os.listdir(DATA_FOLDER))

    def test_passes_over_a_location_whose_folder_leads_elsewhere(self):
        self.mount_image("Data")
        backup = self.mount_image("Backup")
        elsewhere = f"{self.place}/elsewhere"
        os.mkdir(elsewhere)
        os.symlink(elsewhere, f"{backup}/Korvane Protection")
        self.write_due_backup(["/Volumes/System", backup])
        daemon = self.start()
        self.wait_for_end()
        daemon.wait_for_line('Backup location "/Volumes/Backup" is passed over')
        self.assertEqual(os.listdir(elsewhere), [])
        self.assertEqual(len(backups(DATA_FOLDER)), 1)

    def test_notes_the_run_though_a_location_is_full(self):
        self.mount_image("Data")
        backup = self.mount_image("Backup")
        with open(f"{backup}/filler", "wb") as file, self.assertRaises(OSError):
            while True:
                file.write(bytes(1 << 16))
                file.flush()
        self.write_due_backup(["/Volumes/System", backup])
        daemon = self.start()
        self.wait_for_end()
        self.assertEqual(len(backups(DATA_FOLDER)), 1)
        self.assertEqual(daemon.terminate()[0], 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
