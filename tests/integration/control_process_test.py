"""The real daemon steered over real buses, and the emergency volume on real mounts.

Runs as root in a mount namespace of its own.

    control_process_test.py KorvaneProDaemon korvanectl D-BUS-POLICY [TEST]
"""

import os
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import daemon_bed as process  # takes the daemon's path off the arguments

KORVANECTL = os.path.abspath(sys.argv.pop(1))
POLICY = os.path.abspath(sys.argv.pop(1))
NOBODY = 65534
NAME = "com.quorlen.KorvaneProDaemon"
# The machine's own rules for its system bus, without the services that would not start here.
SYSTEM_BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path={socket}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
<allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
<allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
<allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
<allow send_destination="org.freedesktop.DBus"/></policy>
<include>""" + POLICY + "</include></busconfig>"


class Control(process.DaemonBed):
    def assert_unmounted(self, path, seconds):
        process.wait_for(lambda: not os.path.ismount(path), seconds)

    def keep(self, bus):
        """korvanectl emergency keep, once the daemon has given the permission."""
        kept = subprocess.Popen([KORVANECTL, "emergency", "keep"], stdout=subprocess.PIPE,
                                env={"PATH": os.environ["PATH"], "ASAN_OPTIONS": "detect_leaks=0",
                                     "DBUS_SYSTEM_BUS_ADDRESS": bus.address})
        self.addCleanup(kept.stdout.close)
        self.addCleanup(kept.wait)
        self.addCleanup(kept.kill)
        self.assertIn(b"stays mounted", kept.stdout.readline())
        with open(f"/proc/{kept.pid}/comm", encoding="utf-8") as name:
            self.assertEqual(name.read(), "Korvane Pro ctl\n")
        return kept

    def system_bus(self):
        bus = process.PrivateBus(SYSTEM_BUS)
        self.addCleanup(bus.end)
        bus.start()
        return bus

    def test_the_packaged_policy_lets_root_alone_steer_the_daemon_on_a_system_bus(self):
        bus = self.system_bus()
        self.start(bus_address=bus.address)
        self.assertEqual(bus.send("isSMARTExecuteComplete").stdout, "b true\n")
        self.assertIn("ccess", bus.send("isSMARTExecuteComplete", user=NOBODY).stderr)
        refused = bus.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName",
                           "su", NAME + ".other", "0", user=NOBODY)
        self.assertNotEqual(refused.returncode, 0)

    def test_the_packaged_policy_lets_nobody_else_take_the_name(self):
        bus = self.system_bus()
        request = ("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName", "su", NAME,
                   "0")
        self.assertIn("Access denied", bus.call(*request, user=NOBODY).stderr)
        self.assertEqual(bus.call(*request).stdout, "u 1\n")

    def test_the_packaged_policy_lets_root_alone_hear_how_a_mail_ended(self):
        bus = self.system_bus()
        self.start(bus_address=bus.address)
        heard = {}
        for user in (0, NOBODY):
            listener = subprocess.Popen(
                ["stdbuf", "-oL", "dbus-monitor", "--address", bus.address, "type='signal'"],
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, user=user)
            self.addCleanup(listener.stdout.close)
            self.addCleanup(listener.wait)
            self.addCleanup(listener.kill)
            heard[user] = listener.stdout
            self.read_up_to("member=NameAcquired", heard[user])  # it listens
        # Without a server the mail's session ends at once.
        self.assertEqual(bus.send("daemonTestSendingEmailNotification").stdout, "b true\n")
        self.read_up_to("member=mailSessionEnded", heard[0])
        # What comes later is for everybody.
        subprocess.run(["busctl", f"--address={bus.address}", "emit", "/", "org.example.Later",
                        "Now"], check=True)
        self.assertNotIn("mailSessionEnded", self.read_up_to("org.example.Later", heard[NOBODY]))

    @staticmethod
    def read_up_to(words, stream):
        lines = []
        while not lines or words not in lines[-1]:
            line = stream.readline()
            if not line:
                raise EOFError(f"{words} never came")
            lines.append(line)
        return "".join(lines)

    def test_a_users_own_daemon_is_steered_on_the_session_bus_by_that_user_and_root(self):
        bus = self.start_bus()
        os.makedirs(process.SUPPORT)
        os.chown(process.SUPPORT, NOBODY, NOBODY)
        daemon = process.Daemon(bus_address=bus.address, user=NOBODY)
        self.addCleanup(daemon.end)
        daemon.wait_for_line("Started on system version")
        self.assertEqual(bus.send("isSMARTExecuteComplete", user=NOBODY).stdout, "b true\n")
        self.assertEqual(bus.send("isSMARTExecuteComplete").stdout, "b true\n")
        self.assertIn("Access denied", bus.send("isSMARTExecuteComplete", user=1).stderr)
        daemon.wait_for_line("control message refused: it came from user 1")

    def test_creates_and_deletes_items_and_logs_what_fails(self):
        bus = self.start_bus()
        daemon = self.start(bus_address=bus.address)
        folder = f"{self.place}/items"
        os.makedirs(f"{folder}/kept")
        os.makedirs(f"{folder}/gone/deep")
        for path in ("kept/file", "gone/deep/file", "full"):
            with open(f"{folder}/{path}", "w", encoding="utf-8") as file:
                file.write("contents")
        os.symlink(f"{folder}/kept", f"{folder}/gone/link")
        os.symlink(f"{folder}/full", f"{folder}/planted")
        inode = os.stat(f"{folder}/full").st_ino
        refused = bus.call_daemon("messageDoDeleteItems", "as", "1", f"{folder}/full", user=NOBODY)
        self.assertIn("Access denied", refused.stderr)
        created = bus.call_daemon("messageDoCreateItems", "as", "5", f"{folder}/new",
                                  f"{folder}/full", f"{folder}/planted", f"{folder}/no/parent",
                                  "relative")
        self.assertEqual((created.returncode, created.stdout), (0, ""))
        for path in ("new", "full"):
            status = os.stat(f"{folder}/{path}")
            self.assertEqual((status.st_size, status.st_mode & 0o7777), (0, 0o666))
        self.assertEqual(os.stat(f"{folder}/full").st_ino, inode)
        self.assertEqual(sorted(os.listdir(folder)), ["full", "gone", "kept", "new", "planted"])
        deleted = bus.call_daemon("messageDoDeleteItems", "as", "4", f"{folder}/gone",
                                  f"{folder}/missing", "relative", "/")
        self.assertEqual((deleted.returncode, deleted.stdout), (0, ""))
        self.assertEqual(sorted(os.listdir(folder)), ["full", "kept", "new", "planted"])
        self.assertEqual(os.listdir(f"{folder}/kept"), ["file"])
        lines = [line[line.index('"'):] for line in daemon.lines() if " error" in line]
        self.assertEqual(lines, ['"relative" create error', f'"{folder}/no/parent" create error',
                                 f'"{folder}/planted" create error',
                                 '"/" delete error: Invalid argument',
                                 '"relative" delete error: No such file or directory',
                                 f'"{folder}/missing" delete error: No such file or directory'])

    def test_unmounts_an_emergency_volume_that_is_there_at_the_start(self):
        for path in ("/Volumes/Ostrand", "/Volumes/Ostrand 3", "/Volumes/elsewhere/Ostrand 9"):
            with self.subTest(path):
                self.setUp()
                self.mount_image(path)
                daemon = self.start()
                self.assert_unmounted(path, seconds=6)
                self.assertNotIn(path, "\n".join(daemon.lines()))
                daemon.end()

    def test_leaves_volumes_alone_that_only_look_like_the_emergency_volume(self):
        for path in ("/Volumes/Ostrand 10", "/Volumes/ostrand", "/Volumes/Ostrand/Data"):
            self.mount_image(path)
        self.start()
        time.sleep(5)  # two polls
        for path in ("/Volumes/Ostrand 10", "/Volumes/ostrand", "/Volumes/Ostrand/Data"):
            self.assertTrue(os.path.ismount(path), path)

    def test_a_busy_emergency_volume_stays_until_the_next_mount(self):
        path = "/Volumes/Ostrand"
        self.mount_image(path)
        with open(f"{path}/held", "w", encoding="utf-8"):
            daemon = self.start()
            time.sleep(4.5)  # past the poll that finds it busy, and the next one had there been any
            self.assertTrue(os.path.ismount(path))
        time.sleep(2.5)
        self.assertTrue(os.path.ismount(path))  # nobody looks
        self.mount_image("/Volumes/Other")
        self.assert_unmounted(path, seconds=10)
        self.assertTrue(os.path.ismount("/Volumes/Other"))
        self.assertNotIn(path, "\n".join(daemon.lines()))

    def test_keeps_the_emergency_volume_while_korvanectl_says_so(self):
        path = "/Volumes/Ostrand"
        bus = self.start_bus()
        self.start(bus_address=bus.address)
        time.sleep(1.5)  # past the start of protection
        kept = self.keep(bus)
        self.mount_image(path)
        time.sleep(6.5)  # past the poll that the mount asked for
        self.assertTrue(os.path.ismount(path))
        # Even when it had no time to withdraw the permission.
        kept.send_signal(signal.SIGKILL)
        self.assert_unmounted(path, seconds=2)

    def test_korvanectl_withdraws_the_permission_when_it_is_asked_to_end(self):
        bus = self.start_bus()
        self.start(bus_address=bus.address)
        time.sleep(1.5)  # past the start of protection
        self.mount_image("/Volumes/Ostrand 1")
        kept = self.keep(bus)
        kept.send_signal(signal.SIGINT)
        self.assertEqual(kept.wait(timeout=5), 0)
        # At once, or when the daemon had not yet heard of the mount, by the poll that this asks for.
        self.assert_unmounted("/Volumes/Ostrand 1", seconds=8)


if __name__ == "__main__":
    unittest.main(verbosity=2)
