"""The life of the real daemon: its files, its checks of the volumes, its end.

    daemon_process_test.py DAEMON [TEST]
"""

import fcntl
import os
import plistlib
import re
import shutil
import signal
import subprocess
import time
import unittest

from daemon_bed import (PREFERENCES, PROGRAM, SUPPORT, Daemon, DaemonBed, is_saved, read_bytes,
                        read_preferences, usage_status, volume_entries, wait_for)


class DaemonProcess(DaemonBed):
    def test_creates_the_preferences_with_their_defaults_and_open_permissions(self):
        daemon = self.start(umask=0o077)
        preferences = wait_for(read_preferences)
        self.assertEqual(os.stat(PREFERENCES).st_mode & 0o7777, 0o666)
        self.assertIs(preferences["DAEMON_ON"], True)
        self.assertIs(preferences["emailEnabled"], False)
        self.assertEqual(preferences["emailPort"], "")
        self.assertEqual(preferences["trashSaveDays"], 5)
        self.assertEqual(preferences["directoryBackupLocations"], ["/Volumes/System"])
        self.assertEqual(len(preferences), 24)
        self.assertEqual(daemon.terminate()[0], 0)

    def test_keeps_an_entry_a_folder_and_a_marker_for_the_root_volume_and_none_for_an_image(self):
        self.needs_root_volume()
        image = f"{self.place}/image"
        with open(image, "wb") as file:
            file.truncate(8 << 20)
        subprocess.run(["mkfs.ext4", "-q", image], check=True)
        os.mkdir("/Volumes/Image")
        attached = subprocess.run(["mount", "-o", "loop", image, "/Volumes/Image"], check=False,
                                  capture_output=True).returncode == 0
        try:
            self.start()
            entry = wait_for(lambda: volume_entries().get("/"))
            self.assertEqual(entry["freeSpaceWarningLevel"], 15)
            self.assertEqual(entry["executionIntervalUsage_minutes"], 5)
            self.assertEqual(entry["usageStatus"], "0")
            self.assertNotIn("/Volumes/Image", volume_entries())
            marker = f"{SUPPORT}/System/DirectoryBackup (ON)"
            wait_for(lambda: os.path.exists(marker))
            self.assertEqual(os.stat(marker).st_mode & 0o7777, 0o666)
            self.assertEqual(os.stat(marker).st_size, 0)
            wait_for(lambda: os.path.islink("/Volumes/System"))
            self.assertEqual(os.readlink("/Volumes/System"), "/")
        finally:
            if attached:
                subprocess.run(["umount", "/Volumes/Image"], check=True)
            os.unlink(image)

    def test_checks_the_usage_of_a_due_volume_and_keeps_its_history(self):
        self.needs_root_volume()
        self.write_preferences()
        preferences = read_preferences()
        preferences["volumeArray"][0]["executionTimeUsage"] = 1.0
        with open(PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(preferences))
        began = time.time()
        self.start()
        history = f"{SUPPORT}/System/Volume Usage.plist"
        wait_for(lambda: os.path.exists(history))
        entry = wait_for(lambda: (volume_entries().get("/") or {}).get("usageStatus") == "3" and
                         volume_entries()["/"])
        self.assertGreater(entry["executionTimeUsage"], began + 3661)
        self.assertEqual(len(plistlib.loads(read_bytes(history))["logEntries"]), 1)
        self.assertEqual(os.stat(history).st_mode & 0o7777, 0o666)
        self.assertEqual(read_preferences()["ofAnotherVersion"], {"kept": ["as", "it", "is"]})

    def test_waits_until_the_machine_has_been_up_for_two_minutes(self):
        uptime = float(read_bytes("/proc/uptime").split()[0])
        daemon = self.start(boot_seconds=int(30 - uptime))
        daemon.wait_for_line("protection begins in ")
        self.assertRegex("\n".join(daemon.lines()), r"protection begins in (8\d|90) seconds")
        daemon.process.send_signal(signal.SIGHUP)
        time.sleep(1.5)  # long enough for a tick, which must not come
        self.assertEqual(volume_entries(), {})
        status, seconds = daemon.terminate()
        self.assertEqual(status, 0)
        self.assertLess(seconds, 1)

    def test_runs_in_short_turns_and_hands_them_to_nothing_that_it_launches(self):
        if os.sched_getscheduler(0) != os.SCHED_OTHER:
            self.skipTest("what runs by another policy has turns of its own")
        process = self.start().process.pid
        self.assertEqual(os.sched_getscheduler(process), os.SCHED_OTHER | os.SCHED_RESET_ON_FORK)
        # The first version that has turns to ask for.
        if tuple(int(part) for part in os.uname().release.split(".")[:2]) < (6, 12):
            self.skipTest("this machine's kernel has turns of one length")
        if not os.path.exists(f"/proc/{process}/sched"):
            self.skipTest("this machine's kernel does not tell of turns")
        turns = re.search(rb"^se\.slice *: *(\d+)$", read_bytes(f"/proc/{process}/sched"), re.M)
        self.assertEqual(int(turns[1]), 100_000)

    def test_ends_at_once_on_sigterm_and_saves_nothing(self):
        self.write_preferences()
        daemon = self.start()
        wait_for(lambda: usage_status("/") in ("0", "5") and is_saved())
        time.sleep(1.5)  # past the first tick
        before = (read_bytes(PREFERENCES), os.stat(PREFERENCES).st_mtime_ns)
        status, seconds = daemon.terminate()
        self.assertEqual(status, 0)
        self.assertLess(seconds, 1)
        self.assertEqual((read_bytes(PREFERENCES), os.stat(PREFERENCES).st_mtime_ns), before)

    def test_ends_at_once_on_sigint_too(self):
        daemon = self.start()
        daemon.process.send_signal(signal.SIGINT)
        self.assertEqual(daemon.process.wait(timeout=5), 0)

    def test_sighup_brings_a_tick_within_seconds(self):
        self.needs_root_volume()
        self.write_preferences()
        daemon = self.start()
        folder = f"{SUPPORT}/System"
        wait_for(lambda: os.path.isdir(folder))
        time.sleep(1.5)  # past the first tick; the next is an hour away
        shutil.rmtree(folder)
        daemon.process.send_signal(signal.SIGHUP)
        wait_for(lambda: os.path.isdir(folder), seconds=4)

    def test_an_unusable_document_stays_byte_for_byte(self):
        for contents in (b"", b"bplist00\xd1\x01\x02", b"<plist><dict><key>DAEMON_ON</key>",
                         b"\x00" * 4096, b"<plist>" + b"<array>" * 20000):
            with self.subTest(contents[:20]):
                self.setUp()
                os.makedirs(SUPPORT)
                with open(PREFERENCES, "wb") as file:
                    file.write(contents)
                os.chmod(PREFERENCES, 0o640)
                daemon = self.start()
                daemon.wait_for_line("cannot be used and are left as they are")
                time.sleep(1.2)  # past the first tick
                self.assertEqual(daemon.terminate()[0], 0)
                self.assertEqual(read_bytes(PREFERENCES), contents)
                self.assertEqual(os.stat(PREFERENCES).st_mode & 0o7777, 0o640)

    def test_serves_control_words_and_ends_when_the_support_folder_has_gone(self):
        bus = self.start_bus()
        daemon = self.start(bus_address=bus.address)
        self.assertEqual(bus.send("isSMARTExecuteComplete").stdout, "b true\n")
        self.assertEqual(bus.send("no such word").stdout, "b true\n")
        self.assertEqual(bus.send("daemonPreferencesUpdatedNotification").stdout, "b true\n")
        self.assertIn("Access denied", bus.send("daemonStopYourEngines", user=65534).stderr)
        shutil.rmtree(SUPPORT)
        self.assertEqual(bus.send("daemonPreferencesUpdatedNotification").stdout, "b true\n")
        self.assertEqual(daemon.process.wait(timeout=5), 0)
        self.assertFalse(os.path.exists(SUPPORT))

    def test_a_reload_takes_up_what_another_program_wrote(self):
        self.needs_root_volume()
        bus = self.start_bus()
        self.write_preferences(DAEMON_ON=False)
        daemon = self.start(bus_address=bus.address)
        wait_for(lambda: usage_status("/") == "0" and is_saved())
        preferences = wait_for(read_preferences)
        preferences["DAEMON_ON"] = True
        preferences["volumeArray"][0]["executionTimeUsage"] = 1.0
        with open(PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(preferences))
        self.assertEqual(bus.send("daemonStartYourEngines").stdout, "b true\n")
        try:
            wait_for(lambda: os.path.exists(f"{SUPPORT}/System/Volume Usage.plist"))
        except AssertionError:
            self.fail(f"not checked; {daemon.lines()} {read_preferences()}")

    def test_a_history_log_keeps_its_inode_and_begins_anew_when_it_can_never_be_read(self):
        self.needs_root_volume()
        path = f"{SUPPORT}/System/Volume Usage.plist"

        def entries():
            try:
                with open(path, "rb") as file:
                    fcntl.flock(file, fcntl.LOCK_SH)
                    return len(plistlib.load(file)["logEntries"])
            except (FileNotFoundError, plistlib.InvalidFileException):
                return 0

        self.write_preferences()
        preferences = read_preferences()
        preferences["volumeArray"][0].update(
            executionTimeUsage=1.0, executionIntervalUsage_hours=0,
            executionIntervalUsage_minutes=0, executionIntervalUsage_seconds=1)
        with open(PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(preferences))
        self.start()
        wait_for(lambda: entries() >= 1)
        inode = os.stat(path).st_ino
        wait_for(lambda: entries() >= 4)
        self.assertEqual(os.stat(path).st_ino, inode)
        self.assertEqual(os.stat(path).st_mode & 0o7777, 0o666)
        os.truncate(path, 65 * 1024 * 1024)  # more than a log of anybody's
        wait_for(lambda: os.stat(path).st_size < 1024 * 1024 and entries() >= 1)

    def test_a_second_daemon_goes_on_without_the_channel_and_says_nothing(self):
        bus = self.start_bus()
        self.start(bus_address=bus.address)
        second = self.start(bus_address=bus.address)
        self.assertEqual(bus.send("isSMARTExecuteComplete").stdout, "b true\n")
        self.assertIsNone(second.process.poll())
        self.assertEqual(len(second.lines()), 1)

    def test_outlives_its_bus_and_takes_its_name_again(self):
        bus = self.start_bus()
        daemon = self.start(bus_address=bus.address)
        bus.kill()
        time.sleep(0.3)  # some attempts in vain
        bus.start()
        wait_for(lambda: bus.send("isSMARTExecuteComplete").stdout == "b true\n")
        self.assertEqual(daemon.terminate()[0], 0)

    def test_volumes_keep_their_names_when_the_support_folder_is_made_anew(self):
        image = self.mount_image(f"{self.place}/Kept")

        def links():
            return {name: os.readlink(f"/Volumes/{name}") for name in os.listdir("/Volumes")}

        daemon = self.start()
        wait_for(lambda: image in links().values())
        before = links()
        self.assertEqual(before["Kept"], image)
        daemon.terminate()
        shutil.rmtree(SUPPORT)
        self.start()
        wait_for(lambda: os.path.exists(f"{SUPPORT}/.Volume Numbers.plist"))
        wait_for(lambda: volume_entries() and is_saved())
        self.assertEqual(links(), before)

    def test_takes_no_arguments(self):
        bus = self.start_bus()
        self.write_preferences()
        self.start(bus_address=bus.address)
        wait_for(lambda: usage_status("/") in ("0", "5") and is_saved())
        time.sleep(1.5)  # past the first tick
        before = (read_bytes(PREFERENCES), os.stat(PREFERENCES).st_mtime_ns)
        for arguments in (["--help"], ["--version"], [""], ["start", "now"]):
            called = subprocess.run([PROGRAM, *arguments], capture_output=True, check=False,
                                    timeout=10, text=True)
            self.assertEqual(called.returncode, 2, arguments)
            self.assertEqual(called.stdout, "")
            self.assertRegex(called.stderr, r"\Ausage: [^\n]+\n\Z")
        self.assertEqual((read_bytes(PREFERENCES), os.stat(PREFERENCES).st_mtime_ns), before)

    def test_says_that_it_may_not_write_and_ends(self):
        daemon = Daemon(user=65534)
        self.addCleanup(daemon.end)
        self.assertEqual(daemon.process.wait(timeout=10), 1)
        self.assertEqual(len(daemon.lines()), 1)
        self.assertIn("no right to write", daemon.lines()[0])

    def test_says_that_its_folder_is_none_and_ends(self):
        os.makedirs(os.path.dirname(SUPPORT))
        with open(SUPPORT, "w", encoding="ascii") as file:
            file.write("kept")
        daemon = Daemon()
        self.addCleanup(daemon.end)
        self.assertEqual(daemon.process.wait(timeout=10), 1)
        self.assertEqual(len(daemon.lines()), 1)
        self.assertIn(f'"{SUPPORT}" is not a folder', daemon.lines()[0])
        self.assertEqual(read_bytes(SUPPORT), b"kept")


if __name__ == "__main__":
    unittest.main(verbosity=2)
