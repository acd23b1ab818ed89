"""The real daemon as a process, on the real machine's volumes, with a support folder, a folder of
volume links and a message bus of its own. Takes the daemon's path off the arguments.

Runs as root in a mount namespace of its own. Waits are polls with a limit; the daemon is made to
see a machine that has been up long enough, so that nothing waits for the delayed start.
"""

import contextlib
import fcntl
import os
import plistlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from waiting import wait_for

PROGRAM = os.path.abspath(sys.argv.pop(1))
SUPPORT = "/Library/Application Support/Korvane Protection"
PREFERENCES = f"{SUPPORT}/KorvaneProtection.plist"
BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><listen>unix:path={socket}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/>
<allow user="*"/></policy></busconfig>"""
FAR_FUTURE = 4e9  # seconds since 1970


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def unmount(path):
    if os.path.ismount(path):
        subprocess.run(["umount", "--lazy", path], check=True)


def read_bytes(path):
    with open(path, "rb") as file:
        return file.read()


def read_preferences():
    try:
        return plistlib.loads(read_bytes(PREFERENCES))
    except (FileNotFoundError, plistlib.InvalidFileException, ValueError):
        return None  # not there yet, or just being rewritten


def root_device():
    """The device that "/" lies on when it counts as a volume, else None."""
    with open("/proc/self/mountinfo", encoding="utf-8", errors="surrogateescape") as table:
        for line in table:
            fields = line.split()
            source = fields[fields.index("-") + 2]
            if fields[4] == "/" and source.startswith("/dev/"):
                return source
    return None


def volume_entries():
    preferences = read_preferences() or {}
    return {entry["volumeMountToName"]: entry for entry in preferences.get("volumeArray", [])}


def usage_status(path):
    """The status of the volume's usage check; None while there is no entry."""
    return volume_entries().get(path, {}).get("usageStatus")


def is_saved():
    """No save is under way: a program that writes in the middle of one loses what it writes."""
    with open(PREFERENCES, "rb") as file:
        try:
            fcntl.flock(file, fcntl.LOCK_SH | fcntl.LOCK_NB)
        except BlockingIOError:
            return False
    return True


class PrivateBus:
    """A dbus-daemon in a temporary folder, which can be killed and started again."""

    def __init__(self, configuration=BUS_CONFIGURATION):
        self.folder = tempfile.mkdtemp(prefix="korvane-bus-")
        os.chmod(self.folder, 0o755)
        self.socket = f"{self.folder}/socket"
        self.address = f"unix:path={self.socket}"
        self.process = None
        with open(f"{self.folder}/bus.conf", "w", encoding="utf-8") as file:
            file.write(configuration.format(socket=self.socket))

    def start(self):
        with open(f"{self.folder}/log", "ab") as log:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "dbus-daemon",
                 f"--config-file={self.folder}/bus.conf", "--nofork", "--nopidfile"], stderr=log)
        wait_for(lambda: self.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                   "GetId").returncode == 0)

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None
            with contextlib.suppress(FileNotFoundError):
                os.unlink(self.socket)

    def end(self):
        self.kill()
        shutil.rmtree(self.folder)

    def call(self, *arguments, user=None):
        command = ["busctl", f"--address={self.address}", "--timeout=10", "call", *arguments]
        return subprocess.run(command, capture_output=True, text=True, check=False, user=user)

    def call_daemon(self, *method_and_arguments, user=None):
        return self.call("com.quorlen.KorvaneProDaemon", "/com/quorlen/KorvaneProDaemon",
                         "com.quorlen.KorvaneProDaemon", *method_and_arguments, user=user)

    def send(self, word, user=None):
        return self.call_daemon("messageXmitRcvr", "s", word, user=user)


class Daemon:
    """One run of the real daemon."""

    def __init__(self, bus_address="unix:path=/nonexistent/bus", boot_seconds=1000, umask=0o022,
                 user=None, environment=None):
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--time", "--boottime",
             str(boot_seconds), PROGRAM] if user is None else [PROGRAM],
            env={"PATH": os.environ["PATH"], "DBUS_SYSTEM_BUS_ADDRESS": bus_address,
                 "DBUS_SESSION_BUS_ADDRESS": bus_address, "ASAN_OPTIONS": "detect_leaks=0",
                 **(environment or {})},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=self.log, umask=umask,
            user=user, group=user, extra_groups=None if user is None else [])

    def lines(self):
        self.log.seek(0)
        return self.log.read().decode().splitlines()

    def wait_for_line(self, text):
        wait_for(lambda: any(text in line for line in self.lines()))

    def terminate(self):
        """Sends SIGTERM; answers the exit status and how long the end took."""
        began = time.monotonic()
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=10)
        return status, time.monotonic() - began

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.log.close()


class DaemonBed(unittest.TestCase):
    """A support folder and a folder of volume links that nothing outside this test sees."""

    @classmethod
    def setUpClass(cls):
        cls.place = tempfile.mkdtemp(prefix="korvane-process-")
        mount("--make-rprivate", "/")
        for folder in ("/Library", "/Volumes"):
            os.makedirs(cls.place + folder)
            os.makedirs(folder, exist_ok=True)
            mount("--bind", cls.place + folder, folder)
        # Without the machine's logs the daemon writes its lines to standard error.
        for folder in ("/run/systemd/journal", "/dev/log"):
            if os.path.isdir(folder):
                mount("-t", "tmpfs", "none", folder)
            elif os.path.exists(folder):
                mount("--bind", "/dev/null", folder)
        cls.root = root_device()

    @classmethod
    def tearDownClass(cls):
        for folder in ("/Library", "/Volumes"):
            subprocess.run(["umount", "--lazy", folder], check=True)
        shutil.rmtree(cls.place)

    def setUp(self):
        for folder in ("/Library", "/Volumes"):
            for name in os.listdir(folder):
                path = f"{folder}/{name}"
                if os.path.isdir(path) and not os.path.islink(path):
                    shutil.rmtree(path)
                else:
                    os.unlink(path)

    def start(self, **arguments):
        daemon = Daemon(**arguments)
        self.addCleanup(daemon.end)
        daemon.wait_for_line("Started on system version")
        return daemon

    def start_bus(self):
        bus = PrivateBus()
        self.addCleanup(bus.end)
        bus.start()
        return bus

    def needs_root_volume(self):
        if not self.root:
            self.skipTest("this machine's / lies on no device of its own")

    def mount_image(self, path, megabytes=16, *options):
        """Mounts a new file system of a loop device there, until the test ends or it is unmounted."""
        os.makedirs(path)
        descriptor, image = tempfile.mkstemp(dir=self.place, suffix=".image")
        self.addCleanup(os.unlink, image)
        os.ftruncate(descriptor, megabytes << 20)
        os.close(descriptor)
        subprocess.run(["mkfs.ext4", "-q", *options, image], check=True)
        mounted = subprocess.run(["mount", "-o", "loop", image, path], check=False,
                                 capture_output=True, text=True)
        if mounted.returncode != 0:
            self.skipTest(f"this machine mounts no images: {mounted.stderr}")
        self.addCleanup(unmount, path)
        return path

    def write_preferences(self, **changes):
        """A settled document: no check is due for a long time."""
        entry = {"volumeMountToName": "/", "volumeOnOff": True, "directoryOnOff": False,
                 "isCoreStorageEncrypted": False, "trashOnOff": False, "freeSpaceWarningLevel": 0,
                 "usageStatus": "3", "directoryStatus": "3", "executionTimeUsage": FAR_FUTURE,
                 "executionTimeDirectory": FAR_FUTURE,
                 **{f"executionInterval{kind}_{part}": 1 for kind in ("Usage", "Directory")
                    for part in ("hours", "minutes", "seconds")}}
        document = {"DAEMON_ON": True, "volumeUsageOnOff": True, "directoryBackupOnOff": True,
                    "smartCheckOnOff": True, "trashSaveDays": 5, "usageEntryLimit": 15,
                    "smartEntryLimit": 15, "directoryFilesToSave": 3, "driveArray": [],
                    "directoryBackupLocations": ["/Volumes/System"], "volumeArray": [entry],
                    "ofAnotherVersion": {"kept": ["as", "it", "is"]}, **changes}
        os.makedirs(SUPPORT)
        with open(PREFERENCES, "wb") as file:
            file.write(plistlib.dumps(document))
