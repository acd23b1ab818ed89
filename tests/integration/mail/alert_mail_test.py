"""The whole path of a mail, from the daemon's alert to the message that a real server has stored.

Runs as root in a mount and a network namespace of its own, so that the ports of mail are free. The
daemon is the real process; `korvanectl test-mail` asks it for a mail and tells what became of it.
   alert_mail_test.py DAEMON KORVANECTL MODULES
"""

import base64
import contextlib
import email
import email.policy
import email.utils
import os
import plistlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CONTROL = os.path.abspath(sys.argv.pop(2))
MODULES = os.path.abspath(sys.argv.pop(2))
import daemon_process_test as process  # noqa: E402  (takes the daemon's path from the arguments)
import mail_servers as servers  # noqa: E402

wait_for = process.wait_for


def encoded(text):
    return base64.b64encode(text.encode()).decode()


CERTIFICATE = []  # made once


def setUpModule():
    process.DaemonProcess.setUpClass()
    folder = tempfile.mkdtemp(prefix="korvane-mail-")
    unittest.addModuleCleanup(shutil.rmtree, folder)
    os.chmod(folder, 0o755)
    CERTIFICATE.append(servers.Certificate(folder))
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with open("/proc/sys/net/ipv4/ip_unprivileged_port_start", "w", encoding="ascii") as file:
        file.write("0")


def tearDownModule():
    process.DaemonProcess.tearDownClass()


class MailTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="korvane-mail-")
        self.addCleanup(shutil.rmtree, self.folder)
        os.chmod(self.folder, 0o755)
        self.certificate = CERTIFICATE[0]
        process.DaemonProcess.setUp(self)
        self.bus = process.PrivateBus()
        self.addCleanup(self.bus.end)
        self.bus.start()

    def serve(self, server):
        self.addCleanup(server.end)
        return server

    def misbehave(self, script, port=25):
        return self.serve(servers.Misbehaving(port, script, self.certificate))

    def start(self, port=25, login=False, tls=False, **changes):
        entry = {"volumeMountToName": "/nowhere"}
        document = {"DAEMON_ON": True, "volumeUsageOnOff": True, "directoryBackupOnOff": False,
                    "smartCheckOnOff": False, "trashSaveDays": 5, "usageEntryLimit": 15,
                    "smartEntryLimit": 15, "directoryFilesToSave": 3, "driveArray": [],
                    "directoryBackupLocations": ["/Volumes/System"], "volumeArray": [entry],
                    "SMARTCheckEmail": True, "volumeUsageEmail": True,
                    "emailServer": "127.0.0.1", "emailPort": str(port),
                    "emailSubject": "Caf\u00e9 Korvane", "emailAddress": "ada@example.org",
                    "emailUserName": encoded(servers.USER),
                    "emailPassword": encoded(servers.PASSWORD),
                    "emailUseAuthentication": login, "emailUseSSLAuthentication": tls, **changes}
        os.makedirs(process.SUPPORT)
        with open(process.PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(document))
        self.daemon = process.Daemon(bus_address=self.bus.address)
        self.addCleanup(self.daemon.end)
        self.daemon.wait_for_line("Started on system version")

    def ask(self, *arguments):
        done = subprocess.run([CONTROL, *arguments], capture_output=True, text=True, check=False,
                              timeout=90, env={"DBUS_SYSTEM_BUS_ADDRESS": self.bus.address})
        return done.returncode, done.stdout + done.stderr

    def assert_sent(self, server, sender="ada@example.org", recipients=("ada@example.org",)):
        status, said = self.ask("test-mail")
        self.assertEqual((status, said.startswith("The server 127.0.0.1 has taken")), (0, True),
                         said + "\n".join(self.daemon.lines()))
        stored = wait_for(server.messages)
        self.assertEqual(len(stored), 1)
        envelope_sender, envelope_recipients, raw = stored[0]
        if envelope_sender is not None:
            self.assertEqual(envelope_sender, sender)
            self.assertEqual(envelope_recipients, list(recipients))
        message = email.message_from_bytes(raw, policy=email.policy.default)
        self.assertEqual(message.get_content_type(), "text/plain")
        self.assertEqual(message.get_content_charset(), "utf-8")
        self.assertIsNone(message["MIME-Version"])
        self.assertEqual(message["From"], sender)
        self.assertEqual(message["To"], ", ".join(recipients))
        self.assertIn("Subject: Caf\u00e9 Korvane".encode(), raw.replace(b"\r\n", b"\n"))
        self.assertAlmostEqual(email.utils.parsedate_to_datetime(message["Date"]).timestamp(),
                               time.time(), delta=60)
        body = message.get_payload(decode=True).decode().replace("\r\n", "\n")
        paragraphs = body.strip("\n").split("\n\n")
        self.assertEqual(len(paragraphs), 9, body)
        self.assertEqual(paragraphs[0], "Caf\u00e9 Korvane")
        for paragraph, caption in zip(paragraphs[2:7], ("Date: ", "User: ", "Computer: ",
                                                        "Network addresses:", "System: ")):
            self.assertTrue(paragraph.startswith(caption), body)
        self.assertEqual(paragraphs[8], "\tThis is a test. Korvane Pro can reach you at this "
                                        "address.")

    # ---- Real servers ---------------------------------------------------------------------------

    def test_exim_takes_a_message(self):
        server = self.serve(servers.Exim(f"{self.folder}/exim", self.certificate))
        self.start()
        self.assert_sent(server)

    def test_exim_takes_a_message_after_a_login(self):
        server = self.serve(servers.Exim(f"{self.folder}/exim", self.certificate))
        self.start(login=True)
        self.assert_sent(server, sender=servers.USER)

    def test_exim_takes_a_message_through_starttls(self):
        server = self.serve(servers.Exim(f"{self.folder}/exim", self.certificate))
        self.start(login=True, tls=True)
        self.assert_sent(server, sender=servers.USER)

    def test_exim_takes_a_message_through_tls_from_the_first_byte(self):
        server = self.serve(servers.Exim(f"{self.folder}/exim", self.certificate))
        self.start(port=465, login=True, tls=True)
        self.assert_sent(server, sender=servers.USER)

    def test_exim_refuses_a_wrong_password(self):
        self.serve(servers.Exim(f"{self.folder}/exim", self.certificate))
        self.start(login=True, emailPassword=encoded("guess"))
        status, said = self.ask("test-mail")
        self.assertEqual(status, 6)
        self.assertIn("refused the password: 535", said)

    def test_exim_refuses_a_recipient(self):
        self.serve(servers.Exim(f"{self.folder}/exim", self.certificate))
        self.start(emailAddress="ada@example.org,unknown@example.org")
        status, said = self.ask("test-mail")
        self.assertEqual(status, 6)
        self.assertIn("refused the last recipient: 550", said)

    def test_aiosmtpd_takes_a_message_in_every_mode(self):
        for mode, port in (("plain", 25), ("login", 25), ("tls", 465)):
            with self.subTest(mode):
                self.setUp()
                server = self.serve(servers.Aiosmtpd(port, mode, self.certificate))
                self.start(port=port, login=mode != "plain", tls=mode == "tls",
                           emailAddress="ada@example.org, b@example.org")
                self.assert_sent(server,
                                 sender=servers.USER if mode != "plain" else "ada@example.org",
                                 recipients=("ada@example.org", "b@example.org"))
                self.doCleanups()
        self.setUp()

    def test_nodemailer_takes_a_message_in_every_mode(self):
        if not os.path.isdir(f"{MODULES}/smtp-server"):
            self.skipTest("no npm to install smtp-server with")
        for mode, port in (("plain", 25), ("login", 25), ("tls", 465)):
            with self.subTest(mode):
                self.setUp()
                server = self.serve(servers.Nodemailer(MODULES, port, mode, self.certificate))
                self.start(port=port, login=mode != "plain", tls=mode == "tls",
                           emailAddress="ada@example.org, b@example.org")
                self.assert_sent(server,
                                 sender=servers.USER if mode != "plain" else "ada@example.org",
                                 recipients=("ada@example.org", "b@example.org"))
                self.doCleanups()
        self.setUp()

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
        server = self.serve(servers.Aiosmtpd(25, "plain", self.certificate))
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
        original = subprocess.Popen

        def with_watchdog(command, **arguments):
            if "env" in arguments:
                arguments["env"] = arguments["env"] | {"NOTIFY_SOCKET": address,
                                                       "WATCHDOG_USEC": "600000"}
            return original(command, **arguments)
        subprocess.Popen = with_watchdog
        try:
            self.start()
        finally:
            subprocess.Popen = original
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

    # ---- What it costs to have the possibility --------------------------------------------------

    def test_no_tls_library_is_mapped_before_the_first_session_with_tls(self):
        server = self.serve(servers.Exim(f"{self.folder}/exim", self.certificate))
        self.start(login=True)

        def maps():
            return process.read_bytes(f"/proc/{self.daemon.process.pid}/maps").decode()
        self.assert_sent(server, sender=servers.USER)
        self.assertNotRegex(maps(), r"lib(ssl|crypto)|KorvaneProTls")

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
