"""A mail server that greets and then says nothing, ever: the daemon gives it up after the minutes that
it is due, which a preloaded clock lets pass in seconds.
   silent_server_test.py DAEMON KORVANECTL MODULES CLOCK
"""

import os
import sys
import time
import unittest

CLOCK = os.path.abspath(sys.argv.pop(4))
import mail_bed as bed  # noqa: E402  (takes its own arguments from the rest)
from mail_bed import servers  # noqa: E402

setUpModule = bed.set_up_machine


class SilentServer(bed.MailBed):
    REPLIES = (("EHLO", "250 OK"), ("NOOP", "250 OK"), ("MAIL", "250 OK"), ("RCPT", "250 OK"),
               ("DATA", "354 go on"), ("message", None))

    SUBJECTS = {"RCPT": "the last recipient", "message": "the message"}

    def give_up(self, step):
        """Has a test mail meet a server that says nothing from this step on."""
        def script(server):
            server.say("220 hello")
            for command, reply in self.REPLIES:
                if command == step:
                    break
                server.hear()
                server.say(reply)
            server.hold()
        self.serve(servers.Misbehaving(25, script))
        with bed.environment_of_daemon(LD_PRELOAD=CLOCK):
            self.start(emailAddress="ada@example.org")
        began = time.monotonic()
        self.assert_fails("fell silent", "answering " + self.SUBJECTS[step])
        return time.monotonic() - began

    def assert_goes_on(self):
        self.daemon.wait_for_line("The mail server 127.0.0.1 does not answer any more: its session "
                                  "is given up.")
        self.assertEqual(self.bus.send("isSMARTExecuteComplete").stdout, "b true\n")
        status, seconds = self.daemon.terminate()
        self.assertEqual(status, 0)
        self.assertLess(seconds, 2)

    def test_is_given_up_after_five_minutes(self):
        self.assertGreater(self.give_up("RCPT"), 3)
        self.assert_goes_on()

    def test_has_ten_minutes_to_take_the_message(self):
        self.assertGreater(self.give_up("message"), 6)
        self.assert_goes_on()


if __name__ == "__main__":
    unittest.main(verbosity=2)
