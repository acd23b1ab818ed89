"""From a volume that runs low to the dialog on a real screen: the real daemon as root, the session
bus of the user at the console, dunst as its notification service, and an X server without a screen.

Runs as root in a mount namespace of its own, where the account nobody sits at the console.

    dialog_on_screen_test.py KorvaneProDaemon [--picture PNG] [TEST]
"""

import contextlib
import json
import os
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import daemon_bed as process  # takes the daemon's path off the arguments

PICTURE = None
if "--picture" in sys.argv:
    at = sys.argv.index("--picture")
    PICTURE = os.path.abspath(sys.argv[at + 1])
    del sys.argv[at:at + 2]
NOBODY = 65534
RUNTIME = f"/run/user/{NOBODY}"
BUS = f"unix:path={RUNTIME}/bus"
SESSION_BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>{address}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/>
</policy></busconfig>"""
DUNST = """[global]
width = 400
height = 200
origin = top-right
offset = 24x24
font = Sans 11
format = "<b>%s</b>\\n\\n%b"
markup = full
padding = 14
horizontal_padding = 18
frame_width = 1
icon_position = off
show_indicators = no
corner_radius = 6
history_length = 20
[urgency_critical]
background = "#2d2d33"
foreground = "#f4f4f4"
frame_color = "#d9534f"
timeout = 0
"""


class DialogOnScreen(process.DaemonBed):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for folder in ("/run/user", "/run/systemd"):
            os.makedirs(folder, exist_ok=True)
            process.mount("-t", "tmpfs", "tmpfs", folder)
        os.mkdir(RUNTIME, 0o700)
        os.chown(RUNTIME, NOBODY, NOBODY)
        # What logind writes down of who sits where; see sd-login(3).
        for path, text in (("seats/seat0", f"ACTIVE=c1\nACTIVE_UID={NOBODY}\n"),
                           ("sessions/c1", f"UID={NOBODY}\nCLASS=user\nSEAT=seat0\nACTIVE=1\n")):
            os.makedirs(os.path.dirname(f"/run/systemd/{path}"), exist_ok=True)
            with open(f"/run/systemd/{path}", "w", encoding="utf-8") as file:
                file.write(text)

    def run_beside(self, command, **arguments):
        started = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command],
                                   stderr=subprocess.DEVNULL, **arguments)
        self.addCleanup(started.wait)
        self.addCleanup(started.kill)
        return started

    def start_desktop(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.chmod(folder.name, 0o755)
        for name, text in (("bus.conf", SESSION_BUS.format(address=BUS)), ("dunstrc", DUNST)):
            with open(f"{folder.name}/{name}", "w", encoding="utf-8") as file:
                file.write(text)
        as_nobody = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        self.run_beside(["dbus-daemon", f"--config-file={folder.name}/bus.conf", "--nofork",
                         "--nopidfile"], **as_nobody)
        process.wait_for(lambda: os.path.exists(f"{RUNTIME}/bus"))
        reading, writing = os.pipe()
        # The server takes the first free display number and tells it.
        self.run_beside(["Xvfb", "-displayfd", str(writing), "-screen", "0", "464x176x24", "-ac",
                         "-nolisten", "tcp", "-br"], pass_fds=[writing])
        os.close(writing)
        with os.fdopen(reading) as display:
            number = display.readline().strip()
        self.desktop = {"PATH": os.environ["PATH"], "DISPLAY": f":{number}",
                        "DBUS_SESSION_BUS_ADDRESS": BUS, "HOME": "/nonexistent",
                        "XDG_RUNTIME_DIR": RUNTIME}
        self.dunst = self.run_beside(["dunst", "-config", f"{folder.name}/dunstrc"], env=self.desktop,
                        stdout=subprocess.DEVNULL, **as_nobody)
        process.wait_for(lambda: self.dunstctl("count", "displayed") == "0")

    def dunstctl(self, *arguments):
        return subprocess.run(["dunstctl", *arguments], env=self.desktop, capture_output=True,
                              text=True, check=False, user=NOBODY, group=NOBODY,
                              extra_groups=[]).stdout.strip()

    def start_with_a_dialog_shown(self):
        self.needs_root_volume()
        self.start_desktop()
        self.write_preferences()
        preferences = process.read_preferences()
        # No volume is wholly free: every measurement is below this level.
        preferences["volumeArray"][0].update(executionTimeUsage=1.0, freeSpaceWarningLevel=100)
        with open(process.PREFERENCES, "wb") as file:
            file.write(process.plistlib.dumps(preferences))
        daemon = self.start()
        process.wait_for(lambda: self.dunstctl("count", "displayed") == "1")
        process.wait_for(lambda: process.usage_status("/") == "4")
        return daemon

    def test_a_volume_that_runs_low_shows_its_dialog_to_the_user_at_the_console(self):
        daemon = self.start_with_a_dialog_shown()
        if PICTURE:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(PICTURE)
            subprocess.run(["scrot", PICTURE], env=self.desktop, check=True)
        self.dunstctl("close")
        history = process.wait_for(
            lambda: json.loads(self.dunstctl("history"))["data"][0])
        self.assertEqual(len(history), 1)
        self.assertRegex(history[0]["summary"]["data"], "(?i)korvane.*warning")
        self.assertRegex(history[0]["body"]["data"], r'System.* \d+% ')
        self.assertFalse([line for line in daemon.lines() if "is not shown" in line])
        self.assertEqual(daemon.terminate()[0], 0)

    def test_a_restart_leaves_no_second_dialog_of_the_same_volume(self):
        daemon = self.start_with_a_dialog_shown()
        self.assertEqual(daemon.terminate()[0], 0)
        process.wait_for(lambda: self.dunstctl("count", "displayed") == "0")

    def edit_preferences(self, **changes):
        process.wait_for(process.is_saved)
        with open(process.PREFERENCES, "r+b") as file:
            text = process.plistlib.dumps(process.plistlib.load(file) | changes)
            file.seek(0)
            file.write(text)
            file.truncate()

    def notices(self):
        """The programs that the daemon has started, and that run."""
        daemon = self.daemon.process.pid
        return process.read_bytes(f"/proc/{daemon}/task/{daemon}/children").split()

    def test_any_number_of_dialogs_for_a_desktop_that_hangs_are_one_program(self):
        self.start_desktop()
        self.write_preferences(emailServer="", emailPort="1")
        bus = self.start_bus()
        self.daemon = self.start(bus_address=bus.address)
        bus.send("daemonTestSendingEmailNotification")
        process.wait_for(lambda: self.dunstctl("count", "displayed") == "1")
        self.dunst.send_signal(signal.SIGSTOP)
        self.addCleanup(self.dunst.send_signal, signal.SIGCONT)
        most = 0
        for _ in range(150):
            bus.send("daemonTestSendingEmailNotification")
            most = max(most, len(self.notices()))
        self.assertEqual(most, 1)
        self.dunst.send_signal(signal.SIGCONT)
        # The next one appears, and of all those before it hardly any did.
        self.edit_preferences(emailPort="2")
        bus.send("daemonPreferencesUpdatedNotification")
        bus.send("daemonTestSendingEmailNotification")

        def shown():
            self.assertLessEqual(int(self.dunstctl("count", "displayed")), 1)
            return json.loads(self.dunstctl("history"))["data"][0]
        process.wait_for(lambda: any(one["body"]["data"].endswith("port 2") for one in shown()))
        self.assertLessEqual(len(shown()), 4)

    def test_a_daemon_that_is_killed_takes_its_dialog_along(self):
        daemon = self.start_with_a_dialog_shown()
        daemon.process.kill()
        process.wait_for(lambda: self.dunstctl("count", "displayed") == "0")


if __name__ == "__main__":
    unittest.main(verbosity=2)
