"""The notice program against a notification service on a real session bus.

Runs as root in a mount namespace of its own: /run/user is replaced, so that the desktop user is the
account nobody with a bus of its own.
"""

import os
import plistlib
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.append(f"{os.path.dirname(os.path.abspath(__file__))}/../integration")
from waiting import wait_for  # noqa: E402 (its folder is known only now)

PROGRAM = os.path.abspath(sys.argv.pop(1))
NOBODY = 65534
CLOSED, BAD_INPUT, NO_SESSION, NO_SERVICE = 0, 2, 3, 4
RUNTIME = f"/run/user/{NOBODY}"
SOCKET = f"{RUNTIME}/bus"
BUS_CONFIGURATION = f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:path={SOCKET}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/>
</policy></busconfig>"""


def notice(**changes):
    fields = {"header": "Korvane Pro Warning", "message": "A & <B> is low", "level": 2,
              "timeOutMilliseconds": 0, "button": "OK"}
    fields.update(changes)
    return plistlib.dumps({key: value for key, value in fields.items() if value is not None})


class Desktop:
    """The session bus of the account nobody, with a notification service that keeps a log."""

    def __init__(self, capabilities):
        self.folder = tempfile.TemporaryDirectory()
        os.chmod(self.folder.name, 0o755)
        configuration = os.path.join(self.folder.name, "bus.conf")
        with open(configuration, "w", encoding="utf-8") as file:
            file.write(BUS_CONFIGURATION)
        self.bus_process = subprocess.Popen(
            ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile"],
            user=NOBODY, group=NOBODY, extra_groups=[])
        wait_for(lambda: os.path.exists(SOCKET))
        self.service = None
        self.log = os.path.join(self.folder.name, "log")
        if capabilities is not None:
            self.start_service(capabilities)

    def start_service(self, capabilities):
        environment = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=f"unix:path={SOCKET}")
        with open(self.log, "wb") as log:
            self.service = subprocess.Popen(
                [sys.executable, "-m", "dbusmock", "--template", "notification_daemon",
                 "--parameters", '{"capabilities": "%s"}' % capabilities],
                env=environment, stdout=log, user=NOBODY, group=NOBODY, extra_groups=[])
        wait_for(self.has_service)

    def stop_service(self):
        self.service.kill()
        self.service.wait()
        wait_for(lambda: not self.has_service())

    def has_service(self):
        answer = subprocess.run(
            ["busctl", f"--address=unix:path={SOCKET}", "status", "org.freedesktop.Notifications"],
            user=NOBODY, group=NOBODY, extra_groups=[], capture_output=True, check=False)
        return answer.returncode == 0

    def calls(self):
        with open(self.log, encoding="utf-8") as file:
            return [line.split(" ", 1)[1].strip() for line in file if " " in line]

    def notified(self):
        return wait_for(lambda: [call for call in self.calls() if call.startswith("Notify")])[0]

    def emit(self, name, signature, *values):
        subprocess.run(
            ["busctl", f"--address=unix:path={SOCKET}", "call", "org.freedesktop.Notifications",
             "/org/freedesktop/Notifications", "org.freedesktop.DBus.Mock", "EmitSignal", "sssav",
             "org.freedesktop.Notifications", name, signature, str(len(values))] +
            [word for value in values for word in value],
            user=NOBODY, group=NOBODY, extra_groups=[], check=True, capture_output=True)

    def hang_when_told(self):
        """The service answers no Notify while the file that this answers is there."""
        held = os.path.join(self.folder.name, "held")
        code = f"import os, time\nwhile os.path.exists({held!r}): time.sleep(0.01)\nret = 9"
        subprocess.run(
            ["busctl", f"--address=unix:path={SOCKET}", "call", "org.freedesktop.Notifications",
             "/org/freedesktop/Notifications", "org.freedesktop.DBus.Mock", "AddMethod", "sssss",
             "org.freedesktop.Notifications", "Notify", "susssasa{sv}i", "u", code],
            user=NOBODY, group=NOBODY, extra_groups=[], check=True, capture_output=True)
        with open(held, "wb"):
            return held

    def close(self):
        for process in (self.service, self.bus_process):
            if process:
                process.kill()
                process.wait()
        if os.path.exists(SOCKET):
            os.unlink(SOCKET)
        self.folder.cleanup()


class NoticeProgram(unittest.TestCase):
    def desktop(self, capabilities="actions body body-markup"):
        desktop = Desktop(capabilities)
        self.addCleanup(desktop.close)
        return desktop

    def start(self, text, user=NOBODY):
        process = subprocess.Popen([PROGRAM, str(user)], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        process.stdin.write(text)
        process.stdin.close()
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def test_a_caution_without_a_time_out_is_critical_and_stays(self):
        desktop = self.desktop()
        process = self.start(notice())
        call = desktop.notified()
        self.assertIn('"Korvane Pro Warning" "A &amp; &lt;B&gt; is low"', call)
        self.assertIn('["okay", "OK"]', call)
        self.assertIn('{"urgency": 2}', call)
        self.assertTrue(call.endswith(" 0"), call)
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.5)
        with open(f"/proc/{process.pid}/status", encoding="utf-8") as status:
            users = [line for line in status if line.startswith(("Uid:", "Gid:"))]
        for line in users:
            self.assertEqual(set(line.split()[1:]), {str(NOBODY)})

    def test_a_note_is_of_normal_urgency_and_needs_no_button(self):
        desktop = self.desktop()
        self.start(notice(level=1, button=None, timeOutMilliseconds=5000))
        call = desktop.notified()
        self.assertIn('{"urgency": 1}', call)
        self.assertIn(" [] ", call)
        self.assertTrue(call.endswith(" 5000"), call)

    def test_a_service_without_markup_and_actions_gets_plain_text_and_no_button(self):
        desktop = self.desktop("body")
        self.start(notice())
        call = desktop.notified()
        self.assertIn('"A & <B> is low" []', call)

    def test_a_service_without_bodies_gets_all_in_the_summary(self):
        desktop = self.desktop("actions")
        self.start(notice())
        self.assertIn('"Korvane Pro Warning: A & <B> is low" ""', desktop.notified())

    def test_cancelling_closes_the_notice(self):
        desktop = self.desktop()
        process = self.start(notice())
        desktop.notified()
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(10), CLOSED)
        self.assertIn("CloseNotification 1", desktop.calls())

    def test_it_says_when_the_notice_is_shown(self):
        desktop = self.desktop()
        held = desktop.hang_when_told()
        process = self.start(notice())
        desktop.notified()
        os.set_blocking(process.stdout.fileno(), False)
        self.assertIsNone(process.stdout.read(1))
        os.unlink(held)
        os.set_blocking(process.stdout.fileno(), True)
        self.assertEqual(process.stdout.read(1), b"s")

    def test_a_notice_that_is_cancelled_before_the_desktop_has_it_never_appears(self):
        desktop = self.desktop()
        desktop.service.send_signal(signal.SIGSTOP)
        process = self.start(notice())
        # Once it is the user's it is about to speak to the service.
        wait_for(lambda: os.stat(f"/proc/{process.pid}").st_uid == NOBODY)
        process.send_signal(signal.SIGTERM)
        desktop.service.send_signal(signal.SIGCONT)
        self.assertEqual(process.wait(10), -signal.SIGTERM)
        self.assertTrue(desktop.has_service())
        self.assertEqual([call for call in desktop.calls() if call.startswith("Notify")], [])

    def test_a_notice_that_is_cancelled_on_its_way_is_closed_as_soon_as_it_is_there(self):
        desktop = self.desktop()
        held = desktop.hang_when_told()
        process = self.start(notice())
        desktop.notified()
        process.send_signal(signal.SIGTERM)
        # Longer than other calls may take: nobody else could take the notice off the screen.
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(7)
        os.unlink(held)
        self.assertEqual(process.wait(10), CLOSED)
        self.assertIn("CloseNotification 9", desktop.calls())

    def test_the_end_of_its_time_closes_the_notice_if_the_service_does_not(self):
        desktop = self.desktop()
        process = self.start(notice(timeOutMilliseconds=300))
        self.assertEqual(process.wait(10), CLOSED)
        self.assertIn("CloseNotification 1", desktop.calls())

    def test_the_button_closes_the_notice(self):
        desktop = self.desktop()
        process = self.start(notice())
        desktop.notified()
        desktop.emit("ActionInvoked", "us", ["u", "7"], ["s", "okay"])
        desktop.emit("ActionInvoked", "us", ["u", "1"], ["s", "okay"])
        self.assertEqual(process.wait(10), CLOSED)
        self.assertIn("CloseNotification 1", desktop.calls())

    def test_a_notice_that_the_user_closed_ends_the_program(self):
        desktop = self.desktop()
        process = self.start(notice())
        desktop.notified()
        desktop.emit("NotificationClosed", "uu", ["u", "1"], ["u", "2"])
        self.assertEqual(process.wait(10), CLOSED)
        self.assertNotIn("CloseNotification 1", desktop.calls())

    def test_a_service_that_starts_again_is_given_the_notice_again(self):
        desktop = self.desktop()
        process = self.start(notice())
        first = desktop.notified()
        desktop.stop_service()
        desktop.start_service("actions body body-markup")
        self.assertEqual(desktop.notified(), first)
        desktop.emit("NotificationClosed", "uu", ["u", "1"], ["u", "2"])
        self.assertEqual(process.wait(10), CLOSED)

    def test_without_the_service_that_showed_it_the_notice_waits_for_another(self):
        desktop = self.desktop()
        process = self.start(notice())
        desktop.notified()
        desktop.stop_service()
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.5)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(10), CLOSED)

    def test_a_notice_whose_time_is_up_is_not_shown_by_a_later_service(self):
        desktop = self.desktop()
        process = self.start(notice(timeOutMilliseconds=1000))
        desktop.notified()
        desktop.stop_service()
        self.assertEqual(process.wait(10), CLOSED)
        desktop.start_service("body")
        self.assertEqual([call for call in desktop.calls() if call.startswith("Notify")], [])

    def test_the_end_of_the_desktop_ends_the_program(self):
        desktop = self.desktop()
        process = self.start(notice())
        desktop.notified()
        desktop.bus_process.kill()
        self.assertEqual(process.wait(10), CLOSED)

    def test_a_session_without_a_notification_service_is_told(self):
        self.desktop(capabilities=None)
        process = self.start(notice())
        self.assertEqual(process.wait(15), NO_SERVICE)
        self.assertIn(b"no notification service", process.stderr.read())

    def test_a_user_without_a_session_is_told(self):
        process = self.start(notice())
        self.assertEqual(process.wait(10), NO_SESSION)

    def test_a_bus_that_hangs_holds_the_program_for_its_limit_only(self):
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(SOCKET)
        self.addCleanup(os.unlink, SOCKET)
        os.chown(SOCKET, NOBODY, NOBODY)
        listener.listen()
        process = self.start(notice())
        self.assertNotEqual(process.wait(15), CLOSED)

    def test_what_is_no_notice_is_refused(self):
        for text in (b"", b"warning", plistlib.dumps([]), plistlib.dumps({"header": 3})[:-20]):
            self.assertEqual(self.start(text).wait(10), BAD_INPUT)
        wrong = subprocess.run([PROGRAM, "nobody"], stdin=subprocess.DEVNULL, capture_output=True,
                               check=False)
        self.assertEqual(wrong.returncode, BAD_INPUT)


if __name__ == "__main__":
    subprocess.run(["mkdir", "-p", "/run/user"], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run/user"], check=True)
    os.mkdir(RUNTIME, 0o700)
    os.chown(RUNTIME, NOBODY, NOBODY)
    unittest.main(verbosity=2)
