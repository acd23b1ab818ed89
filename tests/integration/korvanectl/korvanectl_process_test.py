"""korvanectl beside the real daemon, as processes: a bus, a support folder and a mount namespace of
their own. Runs as root.

    korvanectl_process_test.py KorvaneProDaemon korvanectl [TEST]
"""

import json
import os
import plistlib
import pty
import signal
import socket
import subprocess
import sys
import tempfile
import termios
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import daemon_bed as process  # takes the daemon's path off the arguments

KORVANECTL = os.path.abspath(sys.argv.pop(1))
NO_BUS = "unix:path=/nonexistent/bus"
NOBODY = 65534


def preferences():
    """The preferences; a moment in which they are being rewritten is waited out."""
    return process.wait_for(process.read_preferences)


def entry_of(path):
    return process.volume_entries().get(path, {})


class Korvanectl(process.DaemonBed):
    def ctl(self, *arguments, bus=None, user=None, expect=0):
        address = bus.address if bus else NO_BUS
        result = subprocess.run(
            [KORVANECTL, *arguments], capture_output=True, text=True, check=False, timeout=60,
            user=user, group=user, extra_groups=None if user is None else [],
            env={"PATH": os.environ["PATH"], "TZ": "UTC", "ASAN_OPTIONS": "detect_leaks=0",
                 "DBUS_SYSTEM_BUS_ADDRESS": address, "DBUS_SESSION_BUS_ADDRESS": address})
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        self.assertLessEqual(result.stderr.count("\n"), 1, result.stderr)
        return result

    def start_both(self):
        bus = self.start_bus()
        daemon = self.start(bus_address=bus.address)
        process.wait_for(process.read_preferences)
        return bus, daemon

    def test_shows_what_the_running_daemon_found(self):
        self.needs_root_volume()
        bus, _ = self.start_both()
        process.wait_for(process.volume_entries)
        status = self.ctl("status", bus=bus).stdout
        self.assertIn("Daemon            running\n", status)
        self.assertNotIn("\x1b", status)
        found = json.loads(self.ctl("status", "--json", bus=bus).stdout)
        self.assertTrue(found["daemonReachable"])
        self.assertEqual({volume["path"] for volume in found["volumes"]},
                         set(process.volume_entries()))
        for volume in found["volumes"]:
            room = os.statvfs(volume["path"])
            self.assertAlmostEqual(volume["sizeBytes"], room.f_blocks * room.f_frsize)
            self.assertTrue(os.path.exists(volume["device"]), volume["device"])

    def test_an_edit_reaches_the_running_daemon_and_outlives_its_saves(self):
        self.needs_root_volume()
        bus, _ = self.start_both()
        self.ctl("set", "usageEntryLimit", "2", bus=bus)
        self.ctl("reload", bus=bus)
        self.assertEqual(preferences()["usageEntryLimit"], 2)
        self.assertEqual(os.stat(process.PREFERENCES).st_mode & 0o7777, 0o666)
        entries = process.wait_for(process.volume_entries)
        path = next(iter(entries))
        # A level that a disk with room for these tests does not fall below.
        self.ctl("volume", path, "set", "freeSpaceWarningLevel", "1", bus=bus)
        # The daemon's own image has it: a save of the daemon's writes it back, not away.
        self.ctl("volume", path, "set", "executionTimeUsage", "1", bus=bus)
        process.wait_for(lambda: entry_of(path).get("executionTimeUsage", 0) > 1)
        self.assertEqual(process.wait_for(lambda: entry_of(path))["freeSpaceWarningLevel"], 1)
        self.assertIn("ok", self.ctl("history", path, bus=bus).stdout)

    def test_edits_survive_a_daemon_that_checks_all_the_time(self):
        self.needs_root_volume()
        bus, _ = self.start_both()
        path = next(iter(process.wait_for(process.volume_entries)))
        self.ctl("volume", path, "set", "executionIntervalUsage_seconds", "1", bus=bus)
        self.ctl("volume", path, "set", "executionIntervalUsage_minutes", "0", bus=bus)
        for value in range(1, 40):
            self.ctl("set", "trashSaveDays", str(value), bus=bus)
            self.assertEqual(preferences()["trashSaveDays"], value)

    def test_two_at_once_both_get_their_edit_in(self):
        bus, _ = self.start_both()
        runs = [threading.Thread(target=self.ctl, args=("set", key, value), kwargs={"bus": bus})
                for key, value in (("usageEntryLimit", "7"), ("smartEntryLimit", "8"))]
        for run in runs:
            run.start()
        for run in runs:
            run.join()
        stored = preferences()
        self.assertEqual((stored["usageEntryLimit"], stored["smartEntryLimit"]), (7, 8))

    def test_resets_a_stuck_check_and_the_daemon_examines_the_volume_anew(self):
        self.needs_root_volume()
        bus, _ = self.start_both()
        path = next(iter(process.wait_for(process.volume_entries)))
        self.ctl("reload", bus=bus)  # answered when the start is over
        # A daemon that was killed while a check ran, and whose start was put off since.
        document = preferences()
        entry = next(e for e in document["volumeArray"] if e["volumeMountToName"] == path)
        entry["usageStatus"] = "2"
        entry["executionTimeUsage"] = time.time() - 3600
        with open(process.PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(document))
        self.ctl("reload", bus=bus)
        self.assertIn("stuck", self.ctl("status", bus=bus).stdout)
        self.ctl("volume", path, "reset", bus=bus)
        process.wait_for(lambda: entry_of(path).get("usageStatus") in ("3", "4"))

    def test_edits_without_a_daemon_and_says_so(self):
        self.write_preferences()
        result = self.ctl("set", "DAEMON_ON", "no")
        self.assertIn("the daemon does not run", result.stderr)
        document = preferences()
        self.assertIs(document["DAEMON_ON"], False)
        self.assertEqual(document["ofAnotherVersion"], {"kept": ["as", "it", "is"]})
        self.ctl("status", expect=2)
        self.ctl("reload", expect=2)

    def test_says_that_a_daemon_off_the_bus_cannot_be_told(self):
        self.start()  # where its bus should be is none
        process.wait_for(process.read_preferences)
        self.assertIn("not on the bus", self.ctl("status", expect=2).stdout)
        self.assertIn("is in the file, but",
                      self.ctl("set", "usageEntryLimit", "3", expect=2).stderr)

    def test_says_that_a_hanging_daemon_does_not_answer(self):
        bus, daemon = self.start_both()
        daemon.process.send_signal(signal.SIGSTOP)
        try:
            began = time.monotonic()
            self.assertIn("did not answer", self.ctl("reload", bus=bus, expect=4).stderr)
            self.assertLess(time.monotonic() - began, 10)
        finally:
            daemon.process.send_signal(signal.SIGCONT)

    def test_gives_up_on_a_bus_that_takes_calls_and_never_speaks(self):
        self.write_preferences()
        with tempfile.TemporaryDirectory() as folder, socket.socket(socket.AF_UNIX) as mute:
            mute.bind(f"{folder}/bus")
            mute.listen()

            class Bus:
                address = f"unix:path={folder}/bus"

            began = time.monotonic()
            self.ctl("reload", bus=Bus, expect=2)
            self.assertLess(time.monotonic() - began, 10)

    def test_another_user_may_look_but_not_touch(self):
        bus, _ = self.start_both()
        self.assertTrue(preferences()["DAEMON_ON"])
        self.ctl("status", bus=bus, user=NOBODY)
        self.ctl("volumes", bus=bus, user=NOBODY)
        self.assertIn("sudo", self.ctl("set", "DAEMON_ON", "no", bus=bus, user=NOBODY,
                                       expect=3).stderr)
        self.assertIn("sudo", self.ctl("reload", bus=bus, user=NOBODY, expect=3).stderr)
        # The daemon may have saved meanwhile; what was to be changed is as it was.
        self.assertTrue(preferences()["DAEMON_ON"])

    def test_a_full_or_read_only_folder_loses_nothing(self):
        self.write_preferences()
        before = process.read_bytes(process.PREFERENCES)
        process.mount("--bind", process.SUPPORT, process.SUPPORT)
        try:
            process.mount("-o", "remount,bind,ro", process.SUPPORT)
            self.ctl("set", "DAEMON_ON", "no", expect=5)
            self.assertEqual(process.read_bytes(process.PREFERENCES), before)
            self.assertEqual(os.listdir(process.SUPPORT), ["KorvaneProtection.plist"])
        finally:
            subprocess.run(["umount", process.SUPPORT], check=True)

    def test_says_of_each_path_whether_the_daemon_has_deleted_it(self):
        self.write_preferences()
        bus, _ = self.start_both()
        there, gone = f"{self.place}/there", f"{self.place}/gone"
        self.assertEqual(self.ctl("create", there, bus=bus).stdout, f"Created {there}.\n")
        result = self.ctl("delete", gone, there, bus=bus, expect=5)
        self.assertEqual(result.stdout, f"Deleted {there}.\n")
        self.assertIn(f"{gone} could not be deleted: No such file or directory", result.stderr)
        self.assertFalse(os.path.exists(there))
        result = self.ctl("create", f"{gone}/inside", bus=bus, expect=5)
        self.assertIn(f"{gone}/inside could not be created", result.stderr)
        self.assertEqual(result.stdout, "")

    def test_free_space_is_checked_again_when_it_was_let_go_by(self):
        self.needs_root_volume()
        bus, _ = self.start_both()
        path = next(iter(process.wait_for(process.volume_entries)))
        self.ctl("free-space", "ignore", bus=bus)
        self.ctl("volume", path, "set", "executionTimeUsage", "1", bus=bus)
        time.sleep(2.5)  # past the tick that the edit asked for
        self.assertEqual(process.wait_for(lambda: entry_of(path))["executionTimeUsage"], 1)
        self.ctl("free-space", "check", bus=bus)
        process.wait_for(lambda: entry_of(path).get("executionTimeUsage", 0) > 1)

    def test_a_terminal_has_its_echo_again_when_the_password_is_not_given(self):
        self.write_preferences()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            master, terminal = pty.openpty()
            self.addCleanup(os.close, terminal)
            self.addCleanup(os.close, master)
            run = subprocess.Popen([KORVANECTL, "mail", "set"], stdin=terminal,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   env={"ASAN_OPTIONS": "detect_leaks=0",
                                        "DBUS_SYSTEM_BUS_ADDRESS": NO_BUS})
            self.addCleanup(run.wait)
            self.addCleanup(run.kill)

            def echoes():
                return bool(termios.tcgetattr(terminal)[3] & termios.ECHO)

            self.assertTrue(echoes())
            os.write(master, b"\n\nuser\n")  # server, port and user name
            process.wait_for(lambda: not echoes())
            run.send_signal(number)
            self.assertEqual(run.wait(timeout=20), -number)
            self.assertTrue(echoes())


if __name__ == "__main__":
    unittest.main(verbosity=2)
