"""The real daemon while its machine is short of something: descriptors, memory, threads, room in
/tmp and /run, a bus that answers, the processor itself. What lacks is named once at most, the rest
goes on, and all of it is taken up again when there is enough.

    scarcity_process_test.py DAEMON [TEST]
"""

import os
import plistlib
import resource
import signal
import socket
import tempfile
import time
import unittest

from daemon_bed import (PREFERENCES, SUPPORT, DaemonBed, is_saved, mount, read_bytes,
                        read_preferences, unmount, usage_status, volume_entries, wait_for)


class Scarcity(DaemonBed):
    def start_checking_often(self, bus=None, **more):
        """A daemon that checks "/" every two seconds."""
        self.needs_root_volume()
        self.write_preferences(**more)
        preferences = read_preferences()
        entry = preferences["volumeArray"][0]
        entry.update(executionTimeUsage=1.0, executionIntervalUsage_hours=0,
                     executionIntervalUsage_minutes=0, executionIntervalUsage_seconds=2)
        with open(PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(preferences))
        daemon = self.start(bus_address=bus.address if bus else "unix:path=/nonexistent/bus")
        self.wait_for_checks(daemon)
        return daemon

    def due(self):
        return volume_entries().get("/", {}).get("executionTimeUsage", 0)

    def wait_for_checks(self, daemon):
        """Two more checks than now have come and were saved."""
        for _ in range(2):
            before = self.due()
            try:
                wait_for(lambda: self.due() > before and usage_status("/") in ("3", "4"))
            except AssertionError:
                self.fail(f"no more checks: {daemon.lines()} {volume_entries()}")

    def limit(self, daemon, kind, limit):
        """Lowers a limit of the running daemon; answers what gives it back."""
        before = resource.prlimit(daemon.process.pid, kind)
        resource.prlimit(daemon.process.pid, kind, (limit, before[1]))
        self.addCleanup(self.lift, daemon, kind, before)
        return lambda: self.lift(daemon, kind, before)

    def lift(self, daemon, kind, before):
        if daemon.process.poll() is None:
            resource.prlimit(daemon.process.pid, kind, before)

    def assert_named_once(self, lines):
        self.assertEqual(sorted(lines), sorted(set(lines)))

    def test_goes_on_when_it_has_descriptors_again(self):
        daemon = self.start_checking_often()
        before = len(daemon.lines())
        lift = self.limit(daemon, resource.RLIMIT_NOFILE, 4)
        time.sleep(7)  # some ticks, which can open nothing
        self.assertIsNone(daemon.process.poll())
        self.assert_named_once(daemon.lines()[before:])
        lift()
        self.wait_for_checks(daemon)
        self.assertEqual(read_preferences()["ofAnotherVersion"], {"kept": ["as", "it", "is"]})

    def test_loads_settings_again_that_it_had_no_descriptor_for(self):
        self.needs_root_volume()
        bus = self.start_bus()
        self.write_preferences(DAEMON_ON=False)
        daemon = self.start(bus_address=bus.address)
        wait_for(lambda: usage_status("/") == "0" and is_saved())
        preferences = read_preferences()
        preferences["DAEMON_ON"] = True
        preferences["volumeArray"][0]["executionTimeUsage"] = 1.0
        pid = daemon.process.pid
        soft, hard = resource.prlimit(pid, resource.RLIMIT_NOFILE)
        with open(PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(preferences))
        taken = {int(number) for number in os.listdir(f"/proc/{pid}/fd")}
        first_free = next(number for number in range(len(taken) + 1) if number not in taken)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (first_free, hard))
        self.assertEqual(bus.send("daemonStartYourEngines").stdout, "b true\n")
        daemon.wait_for_line("Too many open files")
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (soft, hard))
        wait_for(lambda: os.path.exists(f"{SUPPORT}/System/Volume Usage.plist"), seconds=20)
        self.assertEqual(sum("cannot be used" in line for line in daemon.lines()), 1)

    def test_loses_neither_the_schedule_nor_settings_when_memory_runs_out(self):
        bus = self.start_bus()
        daemon = self.start_checking_often(bus, largeValue=["x" * 100] * 30000)
        before = len(daemon.lines())
        for room in (0, 1 << 20, 4 << 20, 8 << 20):
            with open(f"/proc/{daemon.process.pid}/statm", encoding="ascii") as statm:
                size = int(statm.read().split()[0]) * resource.getpagesize()
            lift = self.limit(daemon, resource.RLIMIT_AS, size + room)
            for _ in range(3):
                bus.send("daemonPreferencesUpdatedNotification")
            time.sleep(3)  # a tick at least
            lift()
            self.assertIsNone(daemon.process.poll(), daemon.lines())
            self.wait_for_checks(daemon)
        wait_for(is_saved)
        preferences = wait_for(read_preferences)
        self.assertEqual(len(preferences["largeValue"]), 30000)
        self.assertEqual(preferences["ofAnotherVersion"], {"kept": ["as", "it", "is"]})
        self.assertLess(len(daemon.lines()) - before, 40)

    def test_serves_commands_without_another_thread(self):
        bus = self.start_bus()
        daemon = self.start_checking_often(bus)
        threads = f"/proc/{daemon.process.pid}/task"
        self.assertEqual(len(os.listdir(threads)), 1)
        with open(f"/proc/{daemon.process.pid}/statm", encoding="ascii") as statm:
            size = int(statm.read().split()[0]) * resource.getpagesize()
        # Less than the stack of a thread.
        lift = self.limit(daemon, resource.RLIMIT_AS, size + (2 << 20))
        self.assertEqual(bus.send("isDirectoryExecuteComplete").stdout, "b true\n")
        self.assertEqual(len(os.listdir(threads)), 1)
        self.wait_for_checks(daemon)
        lift()
        self.assertEqual(bus.send("isDirectoryExecuteComplete").stdout, "b true\n")
        self.assertEqual(len(os.listdir(threads)), 2)

    def test_needs_no_room_in_tmp_and_run(self):
        for folder in ("/tmp", "/run"):
            mount("-t", "tmpfs", "-o", "size=4k", "none", folder)
            self.addCleanup(unmount, folder)
            with open(f"{folder}/ballast", "wb") as file:
                file.write(bytes(4096))
        before, tempfile.tempdir = tempfile.gettempdir(), "/dev/shm"  # for the daemon's log
        self.addCleanup(setattr, tempfile, "tempdir", before)
        daemon = self.start_checking_often()
        self.assertEqual(len(daemon.lines()), 1)
        self.assertEqual(daemon.terminate()[0], 0)

    def test_goes_on_beside_a_bus_that_hangs_and_serves_it_again(self):
        bus = self.start_bus()
        daemon = self.start_checking_often(bus)
        bus.process.send_signal(signal.SIGSTOP)
        self.addCleanup(bus.process.send_signal, signal.SIGCONT)
        self.wait_for_checks(daemon)
        bus.process.send_signal(signal.SIGCONT)
        self.assertEqual(bus.send("isDirectoryExecuteComplete").stdout, "b true\n")

    def test_is_missed_by_the_watchdog_while_it_is_stopped_and_no_longer(self):
        address = f"{self.place}/notify"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as listener:
            listener.bind(address)
            listener.settimeout(10)
            daemon = self.start(environment={"NOTIFY_SOCKET": address, "WATCHDOG_USEC": "400000"})
            while b"WATCHDOG=1" not in listener.recv(4096):
                pass
            daemon.process.send_signal(signal.SIGSTOP)
            wait_for(lambda: read_bytes(f"/proc/{daemon.process.pid}/stat").split()[2] == b"T")
            listener.setblocking(False)
            with self.assertRaises(BlockingIOError):
                while True:
                    listener.recv(4096)
            listener.settimeout(1)
            with self.assertRaises(TimeoutError):  # the service manager would act by now
                listener.recv(4096)
            daemon.process.send_signal(signal.SIGCONT)
            listener.settimeout(10)
            while b"WATCHDOG=1" not in listener.recv(4096):
                pass
        self.assertEqual(daemon.terminate()[0], 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
