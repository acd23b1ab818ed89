"""What the tests of alert mails share: the real daemon beside a mail server, and a look at what became
of a mail. It runs as root in mount, network and host-name namespaces of its own, so that the ports
of mail are free and the machine's names and addresses are known.
   TEST DAEMON KORVANECTL MODULES
"""

import base64
import contextlib
import datetime
import email
import email.policy
import email.utils
import os
import plistlib
import pwd
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import unittest.mock

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CONTROL = os.path.abspath(sys.argv.pop(2))
MODULES = os.path.abspath(sys.argv.pop(2))
import daemon_bed as process  # noqa: E402  (takes the daemon's path from the arguments)
import mail_servers as servers  # noqa: E402

wait_for = process.wait_for

HOST, ADDRESS = "studio.example.org", "192.0.2.7"
RECIPIENTS = ["ada@example.org", "b@example.org"]
TEXTS = os.path.join(os.path.dirname(process.PROGRAM), "Resources/en.lproj/Localizable.strings")
CERTIFICATE = []  # made once


def encoded(text):
    return base64.b64encode(text.encode()).decode()


def set_up_machine():
    process.DaemonBed.setUpClass()
    unittest.addModuleCleanup(process.DaemonBed.tearDownClass)
    folder = tempfile.mkdtemp(prefix="korvane-mail-")
    unittest.addModuleCleanup(shutil.rmtree, folder)
    os.chmod(folder, 0o755)
    CERTIFICATE.append(servers.Certificate(folder))
    subprocess.run(["hostname", HOST], check=True)
    # A network card is one end of a cable whose other end nobody holds.
    for command in ("link set lo up", "link add lan0 type veth peer name lan1",
                    f"address add {ADDRESS}/24 dev lan0", "link set lan0 up", "link set lan1 up"):
        subprocess.run(["ip", *command.split()], check=True)
    with open("/proc/sys/net/ipv4/ip_unprivileged_port_start", "w", encoding="ascii") as file:
        file.write("0")


def console_user():
    """The full name as the user database has it, where nobody sits at the console."""
    user = pwd.getpwuid(os.geteuid())
    return user.pw_gecos.split(",")[0] or user.pw_name


@contextlib.contextmanager
def environment_of_daemon(**more):
    """What is started meanwhile as a daemon has these variables, too."""
    original = subprocess.Popen

    def with_more(command, **arguments):
        if "env" in arguments:
            arguments["env"] = arguments["env"] | more
        return original(command, **arguments)
    with unittest.mock.patch.object(subprocess, "Popen", with_more):
        yield


class MailBed(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="korvane-mail-")
        self.addCleanup(shutil.rmtree, self.folder)
        os.chmod(self.folder, 0o755)
        self.certificate = CERTIFICATE[0]
        process.DaemonBed.setUp(self)
        self.bus = process.PrivateBus()
        self.addCleanup(self.bus.end)
        self.bus.start()

    def serve(self, server):
        self.addCleanup(server.end)
        return server

    def start(self, port=25, login=False, tls=False, **changes):
        entry = {"volumeMountToName": "/nowhere"}
        document = {"DAEMON_ON": True, "volumeUsageOnOff": True, "directoryBackupOnOff": False,
                    "smartCheckOnOff": False, "trashSaveDays": 5, "usageEntryLimit": 15,
                    "smartEntryLimit": 15, "directoryFilesToSave": 3, "driveArray": [],
                    "directoryBackupLocations": ["/Volumes/System"], "volumeArray": [entry],
                    "SMARTCheckEmail": True, "volumeUsageEmail": True,
                    "emailServer": "127.0.0.1", "emailPort": str(port),
                    "emailSubject": "Caf\u00e9 Korvane", "emailAddress": ",".join(RECIPIENTS),
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

    def assert_fails(self, *parts):
        """A test mail fails, and korvanectl says so in these words."""
        status, said = self.ask("test-mail")
        self.assertEqual(status, 6, said)
        for part in parts:
            self.assertIn(part, said)

    def assert_sent(self, server, sender=RECIPIENTS[0]):
        """A test mail arrives, and what the server has stored is the message in every field."""
        before = len(server.messages())
        status, said = self.ask("test-mail")
        self.assertEqual((status, said.startswith("The server 127.0.0.1 has taken")), (0, True),
                         said + "\n".join(self.daemon.lines()))
        stored = wait_for(lambda: server.messages()[before:])
        self.assertEqual(len(stored), 1)
        self.assertEqual(stored[0][:2], (sender, RECIPIENTS))
        self.assert_message(stored[0][2], sender)

    def assert_message(self, raw, sender):
        message = email.message_from_bytes(raw, policy=email.policy.default)
        self.assertFalse(message.defects)
        ours = ["Content-Type", "Date", "From", "To", "Subject"]
        self.assertEqual([name for name in message.keys() if name in ours], ours)
        self.assertEqual(message.get_content_type(), "text/plain")
        self.assertEqual(message.get_content_charset(), "utf-8")
        self.assertIsNone(message["MIME-Version"])
        self.assertEqual([a.addr_spec for a in message["From"].addresses], [sender])
        self.assertEqual([a.addr_spec for a in message["To"].addresses], RECIPIENTS)
        self.assertIn("\nTo: " + ", ".join(RECIPIENTS) + "\n", self.text(raw))
        self.assertIn("\nSubject: Caf\u00e9 Korvane\n", self.text(raw))
        date = email.utils.parsedate_to_datetime(message["Date"])
        self.assertAlmostEqual(date.timestamp(), time.time(), delta=60)
        self.assertEqual(date.strftime("%a, %d %b %Y %H:%M:%S %z"), message["Date"])
        with open(TEXTS, "rb") as file:
            texts = plistlib.load(file)
        item = [texts[f"emailContentItem{number}"] for number in range(1, 8)]
        with open("/etc/os-release", encoding="utf-8") as file:
            system = dict(line.rstrip().split("=", 1) for line in file if "=" in line)
        shown = datetime.datetime.fromtimestamp(date.timestamp()).strftime("%m/%d/%y %H:%M")
        self.assertEqual(message.get_payload(decode=True).decode().replace("\r\n", "\n"), "\n\n".join(
            ["Caf\u00e9 Korvane", item[0], f"{item[1]} {shown}", f"{item[2]} {console_user()}",
             f"{item[3]} {HOST.split('.', maxsplit=1)[0]}", f"{item[4]} {ADDRESS}",
             f"{item[5]} " + system["PRETTY_NAME"].strip('"'), item[6],
             "\t" + texts["emailFailureTestMessage"], ""]))

    @staticmethod
    def text(raw):
        return raw.decode().replace("\r\n", "\n")
