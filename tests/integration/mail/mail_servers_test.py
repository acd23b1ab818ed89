"""The whole path of a mail, from the daemon's alert to the message that a real server has stored, with
three servers in every mode, and with what each of them can refuse or lose on the way.
   mail_servers_test.py DAEMON KORVANECTL MODULES
"""

import time
import unittest

import mail_bed as bed
from mail_bed import encoded, servers

setUpModule = bed.set_up_machine
servers.Nodemailer.MODULES = bed.MODULES

# The lines of a session with a login, up to the one before QUIT, and what korvanectl calls the steps.
LINES = ("EHLO", "NOOP", "AUTH LOGIN", "the user name", "the password", "MAIL FROM", "RCPT TO",
         "RCPT TO again", "DATA", "the message")


class ServerTests:
    """What every server has to show; SERVER is the class to start."""

    def run_server(self, port, mode, *traits):
        return self.serve(self.SERVER(self, port, mode, *traits))

    # ---- Every mode -----------------------------------------------------------------------------

    def test_plain(self):
        server = self.run_server(25, "plain")
        self.start()
        self.assert_sent(server)

    def test_auth_login(self):
        server = self.run_server(25, "login")
        self.start(login=True)
        self.assert_sent(server, sender=servers.USER)

    def test_starttls(self):
        server = self.run_server(587, "starttls", "keeps hello")
        self.start(port=587, login=True, tls=True)
        self.assert_sent(server, sender=servers.USER)

    def test_starttls_with_the_server_as_it_is(self):
        server = self.run_server(587, "starttls")
        self.start(port=587, login=True, tls=True)
        if self.WANTS_SECOND_EHLO:
            self.assert_fails("refused AUTH LOGIN: 503")
        else:
            self.assert_sent(server, sender=servers.USER)

    def test_tls_from_the_first_byte_on(self):
        server = self.run_server(465, "tls")
        self.start(port=465, login=True, tls=True)
        self.assert_sent(server, sender=servers.USER)

    # ---- Refusals -------------------------------------------------------------------------------

    def test_wrong_password(self):
        for port, mode in ((25, "login"), (465, "tls")):
            server = self.run_server(port, mode)
            self.start(port=port, login=True, tls=mode == "tls", emailPassword=encoded("guess"))
            self.assert_fails("refused the password: 535")
            self.assertEqual(server.messages(), [])
            self.doCleanups()
            self.setUp()

    def test_refused_recipient(self):
        server = self.run_server(25, "plain")
        self.start(emailAddress="ada@example.org,unknown@example.org")
        self.assert_fails("refused the last recipient: 550")
        self.assertEqual(server.messages(), [])

    def test_refused_ehlo(self):
        """Passed over: the server then waits for another word, and hangs up in the end."""
        self.run_server(25, "plain", "refuses hello", "impatient")
        self.start()
        self.assert_fails("hung up")
        self.assertNotIn("cancelConnectionWithError", "\n".join(self.daemon.lines()))

    # ---- Losses ---------------------------------------------------------------------------------

    def test_no_greeting(self):
        self.run_server(25, "plain", "silent")
        self.start()
        began = time.monotonic()
        self.assert_fails("Try double-checking the server's port")
        self.assertGreater(time.monotonic() - began, 3.9)

    def test_connection_dropped_at_every_step(self):
        server = self.run_server(2525, "login")
        meddler = self.serve(servers.Meddler(25, 2525))
        self.start(login=True)
        meddler.cut_after = 0
        self.assert_fails("Try double-checking the server's port")
        for number, line in enumerate(LINES, start=1):
            with self.subTest(line):
                meddler.cut_after = number
                self.assert_fails("hung up")
        self.assertEqual(server.messages(), [])
        # After the message comes the empty line behind its end, then QUIT: it has been taken.
        meddler.cut_after = len(LINES) + 2
        self.assert_sent(server, sender=servers.USER)
        meddler.cut_after = None
        self.assert_sent(server, sender=servers.USER)

    def test_one_byte_at_a_time(self):
        """Each byte is a reply, which fits no step: the server gives up, or a byte that reads as a
        refusal ends the session first. All is well again afterwards."""
        server = self.run_server(2525, "login", "impatient")
        meddler = self.serve(servers.Meddler(25, 2525))
        meddler.dribbles = True
        self.start(login=True)
        self.assert_fails("not sent")
        self.assertEqual(server.messages(), [])
        meddler.dribbles = False
        self.assert_sent(server, sender=servers.USER)


class EximTests(ServerTests, bed.MailBed):
    SERVER = servers.Exim
    WANTS_SECOND_EHLO = True


class AiosmtpdTests(ServerTests, bed.MailBed):
    SERVER = servers.Aiosmtpd
    WANTS_SECOND_EHLO = True


class NodemailerTests(ServerTests, bed.MailBed):
    SERVER = servers.Nodemailer
    WANTS_SECOND_EHLO = False


if __name__ == "__main__":
    unittest.main(verbosity=2)
