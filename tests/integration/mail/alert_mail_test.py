"""Alert mails and servers that misbehave: what the daemon says, how it waits, and that the next mail is
not the worse for it.
   alert_mail_test.py DAEMON KORVANECTL MODULES
"""

import contextlib
import datetime
import os
import pwd
import re
import socket
import subprocess
import threading
import time
import unittest
import unittest.mock

import mail_bed as bed
from mail_bed import CONTROL, encoded, process, servers, wait_for

setUpModule = bed.set_up_machine


class MailTest(bed.MailBed):
    def start(self, **settings):
        super().start(**{"emailAddress": "ada@example.org"} | settings)

    def misbehave(self, script, port=25):
        return self.serve(servers.Misbehaving(port, script, self.certificate))

    # ---- Servers that misbehave -----------------------------------------------------------------

    REPLIES = (("EHLO", "250 OK"), ("NOOP", "250 OK"), ("MAIL", "250 OK"), ("RCPT", "250 OK"),
               ("DATA", "354 go on"))

    def converse(self, server, until):
        """Plays an ordinary server up to the command, whose line is still heard."""
        server.say("220 hello")
        for command, reply in self.REPLIES:
            self.assertTrue(server.hear().startswith(command))
            if command == until:
                return
            server.say(reply)
        while server.hear() != ".":
            pass
        if until != "message":
            server.say("250 queued")
            server.hear()

    def test_a_connection_dropped_at_any_step_is_told_and_does_not_matter_to_the_next_mail(self):
        for step in ("EHLO", "NOOP", "MAIL", "RCPT", "DATA", "message"):
            with self.subTest(step):
                self.setUp()
                commands = [step, None]

                def script(server):
                    until = commands.pop(0)
                    self.converse(server, until)
                    if until is None:
                        server.say("221 bye")
                self.misbehave(script)
                self.start()
                status, said = self.ask("test-mail")
                self.assertEqual(status, 6)
                self.assertIn("hung up", said)
                status, said = self.ask("test-mail")
                self.assertEqual(status, 0, said)
                self.doCleanups()
        self.setUp()

    def test_a_connection_that_is_reset_is_an_error(self):
        def script(server):
            self.converse(server, "MAIL")
            server.reset()
        self.misbehave(script)
        self.start()
        status, said = self.ask("test-mail")
        self.assertEqual(status, 6)
        self.assertIn("Failed to connect to SMTP server 127.0.0.1 on port 25", said)
        self.daemon.wait_for_line("An error occured reading the stream, result: -1")
        self.daemon.wait_for_line("streamError: Connection reset by peer")

    def test_no_greeting_is_a_time_out_after_four_seconds(self):
        for port, tls in ((25, False), (465, True)):
            with self.subTest(port):
                self.setUp()
                self.misbehave(lambda server: server.hold(), port)
                self.start(port=port, login=tls, tls=tls)
                began = time.monotonic()
                status, said = self.ask("test-mail")
                self.assertEqual(status, 6)
                self.assertIn("Try double-checking the server's port", said)
                self.assertAlmostEqual(time.monotonic() - began, 4, delta=1)
                self.doCleanups()
        self.setUp()

    def test_nobody_who_listens_is_an_error_at_once(self):
        self.start(port=26)
        status, said = self.ask("test-mail")
        self.assertEqual(status, 6)
        self.assertIn("Failed to connect to SMTP server 127.0.0.1 on port 26", said)
        self.daemon.wait_for_line("streamError: Connection refused")

    def test_a_name_that_nobody_knows_is_an_error(self):
        self.start(emailServer="no-such-host.invalid")
        status, said = self.ask("test-mail")
        self.assertEqual(status, 6)
        self.assertIn("Failed to connect to SMTP server no-such-host.invalid", said)

    def test_a_name_is_resolved(self):
        server = self.serve(servers.Aiosmtpd(self, 25, "plain"))
        self.start(emailServer="localhost")
        self.assertEqual(self.ask("test-mail")[0], 0)
        self.assertEqual(len(server.messages()), 1)

    def test_a_refused_ehlo_is_passed_over(self):
        def script(server):
            server.say("220 hello")
            server.hear()
            server.say("502 what is that?")
            time.sleep(0.2)  # as a reply of its own
            server.say("250 all right")
            for _, reply in self.REPLIES[1:]:
                server.hear()
                server.say(reply)
            while server.hear() != ".":
                pass
            server.say("250 queued")
            server.hear()
            server.say("221 bye")
        self.misbehave(script)
        self.start()
        self.assertEqual(self.ask("test-mail")[0], 0)

    def test_a_server_that_answers_but_never_reads_is_given_up_after_two_seconds(self):
        def script(server):
            self.converse(server, "NOOP")
            while True:  # until the client has gone
                server.say("250 OK")
                time.sleep(0.1)  # as a reply of its own
        self.misbehave(script)
        # Together more than the system keeps for a connection.
        self.start(emailAddress=",".join(["a" * (2 << 20)] * 12))
        began = time.monotonic()
        self.assert_fails("Failed to connect to SMTP server 127.0.0.1 on port 25")
        self.assertGreater(time.monotonic() - began, 2)
        self.daemon.wait_for_line("cancelConnectionWithError: Failed to connect")
        # Nothing failed but for the time that it took.
        self.assertNotIn("Error writing to outStream", "\n".join(self.daemon.lines()))

    def test_a_server_that_sends_one_byte_at_a_time_fits_no_step_and_blocks_nobody_for_good(self):
        def script(server):
            server.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for byte in b"220 hello\r\n":
                server.socket.sendall(bytes([byte]))
                time.sleep(0.02)
        self.misbehave(script)
        self.start()
        status, said = self.ask("test-mail")
        self.assertEqual(status, 6)
        self.assertIn("hung up", said)
        self.assertEqual(self.bus.send("isSMARTExecuteComplete").stdout, "b true\n")

    def test_starttls_takes_any_certificate_and_goes_on_without_a_second_ehlo(self):
        def script(server):
            server.say("220 hello")
            for reply in ("250 OK", "220 go ahead"):
                server.hear()
                server.say(reply)
            server.start_tls()
            for reply in ("334 VXNlcm5hbWU6", "334 UGFzc3dvcmQ6", "235 accepted", "250 OK",
                          "250 OK", "354 go on"):
                server.hear()
                server.say(reply)
            while server.hear() != ".":
                pass
            server.say("250 queued")
            server.hear()
            server.say("221 bye")
        server = self.misbehave(script, 587)
        self.start(port=587, login=True, tls=True)
        status, said = self.ask("test-mail")
        self.assertEqual(status, 0, said)
        self.assertEqual(server.lines[1:5], ["STARTTLS", "AUTH LOGIN", encoded(servers.USER),
                                             encoded(servers.PASSWORD)])
        self.ask("set", "emailServer", "localhost")
        self.assertEqual(self.ask("test-mail")[0], 0)
        self.assertEqual(server.names, [None, "localhost"])  # an address is no name

    def test_an_upgrade_to_tls_that_fails_says_why(self):
        def script(server):
            server.say("220 hello")
            for reply in ("250 OK", "220 go ahead"):
                server.hear()
                server.say(reply)
            server.say("what is it you want?")
            server.hold()
        self.misbehave(script, 587)
        self.start(port=587, login=True, tls=True)
        self.assert_fails("Failed to connect to SMTP server 127.0.0.1 on port 587")
        self.daemon.wait_for_line("streamError: TLS: ")

    def test_a_server_without_tls_on_465_is_an_error(self):
        self.misbehave(lambda server: server.say("220 hello"), 465)
        self.start(port=465, login=True, tls=True)
        self.assertEqual(self.ask("test-mail")[0], 6)
        self.daemon.wait_for_line("streamError: TLS: ")

    # ---- The wait of a session ------------------------------------------------------------------

    def test_sigterm_ends_the_daemon_within_a_second_while_a_server_is_silent(self):
        for step in ("EHLO", "RCPT", "message"):
            with self.subTest(step):
                self.setUp()
                reached = []

                def script(server):
                    self.converse(server, step)
                    reached.append(step)
                    server.hold()
                self.misbehave(script)
                self.start()
                self.bus.send("daemonTestSendingEmailNotification")
                wait_for(lambda: reached)
                status, seconds = self.daemon.terminate()
                self.assertEqual(status, 0)
                self.assertLess(seconds, 1)
                self.doCleanups()
        self.setUp()

    def test_sigterm_ends_the_daemon_within_a_second_while_a_send_waits_for_the_lock(self):
        self.misbehave(lambda server: server.hold())
        self.start(port=25)
        # The greeting has four seconds; the second word meets the lock of the first.
        self.bus.send("daemonTestSendingEmailNotification")
        second = subprocess.Popen(
            ["busctl", f"--address={self.bus.address}", "--timeout=70", "call",
             "com.quorlen.KorvaneProDaemon", "/com/quorlen/KorvaneProDaemon",
             "com.quorlen.KorvaneProDaemon", "messageXmitRcvr", "s",
             "daemonTestSendingEmailNotification"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(0.3)  # for the word to arrive
        self.assertIsNone(second.poll())
        status, seconds = self.daemon.terminate()
        second.wait(timeout=10)
        self.assertEqual(status, 0)
        self.assertLess(seconds, 1)

    def test_the_watchdog_is_fed_while_a_server_is_silent(self):
        address = f"{self.folder}/notify"
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        listener.bind(address)
        listener.settimeout(5)
        self.addCleanup(listener.close)
        reached = []

        def script(server):
            self.converse(server, "RCPT")
            reached.append(True)
            server.hold()
        self.misbehave(script)
        with bed.environment_of_daemon(NOTIFY_SOCKET=address, WATCHDOG_USEC="600000"):
            self.start()
        self.bus.send("daemonTestSendingEmailNotification")
        wait_for(lambda: reached)
        time.sleep(0.5)
        listener.setblocking(False)
        with contextlib.suppress(BlockingIOError):  # what came before the wait
            while True:
                listener.recv(4096)
        listener.settimeout(5)
        for _ in range(5):
            self.assertIn(b"WATCHDOG=1", listener.recv(4096))

    def test_a_command_waits_while_a_server_is_silent(self):
        reached, goes_on = threading.Event(), threading.Event()

        def script(server):
            self.converse(server, "RCPT")
            reached.set()
            goes_on.wait(30)
            server.say("550 nobody of that name")
        self.misbehave(script)
        self.start()
        self.bus.send("daemonTestSendingEmailNotification")
        self.assertTrue(reached.wait(20))
        command = subprocess.Popen(
            ["busctl", f"--address={self.bus.address}", "--timeout=60", "call",
             "com.quorlen.KorvaneProDaemon", "/com/quorlen/KorvaneProDaemon",
             "com.quorlen.KorvaneProDaemon", "messageXmitRcvr", "s", "isSMARTExecuteComplete"],
            stdout=subprocess.PIPE)
        self.addCleanup(command.stdout.close)
        self.addCleanup(command.kill)
        with self.assertRaises(subprocess.TimeoutExpired):
            command.wait(0.7)
        goes_on.set()
        self.assertEqual(command.communicate(timeout=20)[0], b"b true\n")

    # ---- What it leaves behind ------------------------------------------------------------------

    def test_thirty_mails_leave_no_descriptor_open(self):
        rounds = []

        def script(server):
            rounds.append(len(rounds))
            # Taken, refused, and dropped.
            self.converse(server, [None, "MAIL", "RCPT"][rounds[-1] % 3])
            server.say(["221 bye", "550 no", ""][rounds[-1] % 3])
        self.misbehave(script)
        self.start()

        def descriptors():
            return sorted(os.readlink(f"/proc/{self.daemon.process.pid}/fd/{number}")
                          .split(":")[0]
                          for number in os.listdir(f"/proc/{self.daemon.process.pid}/fd"))
        for number in range(33):
            if number == 3:
                before = descriptors()  # each kind has been there once
            self.ask("test-mail")
        self.assertEqual(len(rounds), 33)
        self.assertEqual(descriptors(), before)

    def test_a_write_to_a_tls_connection_that_was_closed_is_an_error_and_no_more(self):
        def script(server):
            server.start_tls()
            server.say("220 hello")
            for reply in ("250 OK", "250 OK"):
                server.hear()
                server.say(reply)
            server.hear()
            # Two replies and the end in one go: the client writes once more, hears that nobody is
            # there, and has another reply to answer.
            server.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)
            server.say("334 VXNlcm5hbWU6")
            server.say("334 UGFzc3dvcmQ6")
        self.misbehave(script, 465)
        self.start(port=465, login=True, tls=True)
        self.assertEqual(self.ask("test-mail")[0], 6)
        self.assertEqual(self.bus.send("isSMARTExecuteComplete").stdout, "b true\n")
        self.assertIsNone(self.daemon.process.poll())

    # ---- What the message says ------------------------------------------------------------------

    def test_names_the_user_who_sits_at_the_console(self):
        # What logind writes down of who sits where; see sd-login(3).
        for path, text in (("seats/seat0", "ACTIVE=c1\nACTIVE_UID=1\n"),
                           ("sessions/c1", "UID=1\nCLASS=user\nSEAT=seat0\nACTIVE=1\n")):
            os.makedirs(os.path.dirname(f"/run/systemd/{path}"), exist_ok=True)
            with open(f"/run/systemd/{path}", "w", encoding="utf-8") as file:
                file.write(text)
            self.addCleanup(os.unlink, f"/run/systemd/{path}")
        server = self.serve(servers.Aiosmtpd(self, 25, "plain"))
        self.start()
        self.assertEqual(self.ask("test-mail")[0], 0)
        name = pwd.getpwuid(1).pw_gecos or pwd.getpwuid(1).pw_name
        self.assertNotEqual(name, bed.console_user())
        self.assertIn(f" {name}\n", self.text(server.messages()[0][2]))

    def test_the_date_in_it_is_written_as_the_users_locale_has_it(self):
        for name, form in (("de_DE", "%d.%m.%Y %H:%M"), ("en_US", "%m/%d/%Y %I:%M %p")):
            with self.subTest(name):
                self.setUp()
                subprocess.run(["localedef", "-i", name, "-f", "UTF-8",
                                f"{self.folder}/{name}.UTF-8"], check=True, capture_output=True)
                server = self.serve(servers.Aiosmtpd(self, 25, "plain"))
                with bed.environment_of_daemon(LOCPATH=self.folder, LC_ALL=f"{name}.UTF-8"):
                    self.start()
                before = datetime.datetime.now()
                self.assertEqual(self.ask("test-mail")[0], 0)
                dates = {time.strftime(form) for time in (before, datetime.datetime.now())}
                text = self.text(server.messages()[0][2])
                self.assertTrue(any(f" {date}\n" in text for date in dates), text)
                # The header's stays English.
                self.assertRegex(text, r"(?m)^Date: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), ")
                self.doCleanups()
        self.setUp()

    # ---- What it costs to have the possibility --------------------------------------------------

    def test_no_tls_library_is_mapped_before_the_first_session_with_tls(self):
        self.serve(servers.Exim(self, 25, "login"))
        self.start(login=True)

        def maps():
            return process.read_bytes(f"/proc/{self.daemon.process.pid}/maps").decode()
        library = r"lib(ssl|crypto)|KorvaneProTls"
        self.assertNotRegex(maps(), library)  # nor at rest
        self.assertEqual(self.ask("test-mail")[0], 0)
        self.assertNotRegex(maps(), library)
        self.ask("set", "emailPort", "465")
        self.ask("set", "emailUseSSLAuthentication", "yes")
        self.serve(servers.Aiosmtpd(self, 465, "tls"))
        self.assertEqual(self.ask("test-mail")[0], 0)
        self.assertRegex(maps(), library)

    def test_the_installed_daemon_speaks_tls_too(self):
        build = os.path.dirname(process.PROGRAM)
        subprocess.run(["cmake", "--install", build, "--prefix", f"{self.folder}/usr"], check=True,
                       capture_output=True)
        installed = f"{self.folder}/usr/lib/korvane-pro/KorvaneProDaemon"
        self.serve(servers.Aiosmtpd(self, 465, "tls"))
        with unittest.mock.patch.object(process, "PROGRAM", installed):
            self.start(port=465, login=True, tls=True)
        status, said = self.ask("test-mail")
        self.assertEqual(status, 0, said + "\n".join(self.daemon.lines()))

    def test_mail_settings_are_asked_for_and_shown_without_the_password(self):
        self.start()
        answers = "127.0.0.1\n25\ngrace@example.org\nsecret\nada@example.org\nno\n"
        done = subprocess.run([CONTROL, "mail", "set"], input=answers, capture_output=True,
                              text=True, check=False, timeout=60,
                              env={"DBUS_SYSTEM_BUS_ADDRESS": self.bus.address})
        self.assertEqual(done.returncode, 0, done.stderr)
        stored = process.read_preferences()
        self.assertEqual(stored["emailPassword"], encoded("secret"))
        self.assertEqual(stored["emailUserName"], encoded("grace@example.org"))
        status, said = self.ask("mail", "show")
        self.assertEqual(status, 0)
        self.assertIn("grace@example.org", said)
        self.assertNotRegex(said, f"secret|{re.escape(encoded('secret'))}")


if __name__ == "__main__":
    unittest.main(verbosity=2, defaultTest="MailTest")
