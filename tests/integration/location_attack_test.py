"""An ordinary account attacks its own backup location for most of a minute while the real daemon
backs up there as root, again and again: nothing outside the location may be touched.

    location_attack_test.py DAEMON
"""

import os
import subprocess
import sys
import time
import unittest

from directory_backup_process_test import DATA_FOLDER, HELPER, DirectoryBackupBed, backups

ATTACKER = f"{os.path.dirname(os.path.abspath(__file__))}/location_attacker.py"
ACCOUNT = 4711
LOCATION = "/Volumes/Mallory"
TARGET = "/Library/etc"  # what /etc is to the machine
SECONDS = 45
A_YEAR = 365 * 86400


def contents(folder):
    """Everything below a folder: kind, owner, permissions and bytes of each path."""
    found = {}
    for above, folders, files in os.walk(folder):
        for name in folders + files:
            path = f"{above}/{name}"
            status = os.lstat(path)
            data = None
            if name in files:
                with open(path, "rb") as file:
                    data = file.read()
            found[path] = (status.st_mode, status.st_uid, data)
    return found


class LocationAttack(DirectoryBackupBed):
    def make_target(self):
        os.makedirs(f"{TARGET}/Data")
        with open(f"{TARGET}/passwd", "w", encoding="ascii") as file:
            file.write("root:x:0:0:root:/root:/bin/bash\n")
        for index in range(4):  # what a rotation would take for backups that are due to go
            path = f"{TARGET}/Data/Directory Backup 2020-01-0{index + 1}-00-00-00"
            with open(path, "w", encoding="ascii") as file:
                file.write("somebody else's")
            os.utime(path, (time.time() - A_YEAR, time.time() - A_YEAR + index))

    def test_touches_nothing_outside_the_location(self):
        self.mount_volume("Data")
        self.make_target()
        os.mkdir(LOCATION)
        os.chown(LOCATION, ACCOUNT, ACCOUNT)
        # Slow enough for the account to learn the name that the copy will have.
        self.mount_over(HELPER, 'sleep 0.2\nprintf "record of %s" "$3" > "$2"')
        self.write_due_backup(["/Volumes/System", LOCATION], seconds=1)
        before = contents(TARGET)
        attacker = subprocess.Popen(
            ["setpriv", f"--reuid={ACCOUNT}", f"--regid={ACCOUNT}", "--clear-groups", "--pdeathsig",
             "KILL", sys.executable, ATTACKER, LOCATION, TARGET, str(SECONDS)],
            stdout=subprocess.PIPE, text=True)
        self.addCleanup(attacker.kill)
        self.start()
        runs = set()
        while attacker.poll() is None:
            self.assertEqual(contents(TARGET), before)
            runs.update(backups(DATA_FOLDER))
            time.sleep(0.05)
        # The attack was one: it exchanged folders all the time, and the daemon went on.
        exchanges = int(attacker.stdout.read())
        self.assertGreater(exchanges, 1000)
        self.assertGreater(len(runs), 5)
        self.assertEqual(contents(TARGET), before)


if __name__ == "__main__":
    unittest.main(verbosity=2)
