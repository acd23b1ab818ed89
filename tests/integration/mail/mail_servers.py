"""Mail servers for the tests, all on 127.0.0.1 and in a temporary folder: Exim, aiosmtpd, Nodemailer's
smtp-server, and a server of our own that misbehaves as it is told.

Each has messages(): what it has stored so far, as (sender, recipients, bytes).
"""

import base64
import glob
import json
import os
import pwd
import shutil
import socket
import ssl
import subprocess
import tempfile
import threading
import time

USER, PASSWORD = "grace@example.org", "secret"


def wait_for(condition, seconds=20):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.02)
    raise AssertionError("what was waited for did not happen")


def accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Certificate:
    """A key and a certificate that signs itself, for another name, and that ran out long ago."""

    AUTHORITY = """
[ca]
default_ca = own
[own]
database = {folder}/index
serial = {folder}/serial
new_certs_dir = {folder}
default_md = sha256
policy = any
[any]
commonName = supplied
"""

    def __init__(self, folder):
        self.key, self.file = f"{folder}/key.pem", f"{folder}/certificate.pem"
        for name, text in (("authority", self.AUTHORITY.format(folder=folder)), ("index", ""),
                           ("serial", "01\n")):
            with open(f"{folder}/{name}", "w", encoding="ascii") as file:
                file.write(text)
        subprocess.run(
            ["openssl", "req", "-new", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=elsewhere",
             "-keyout", self.key, "-out", f"{folder}/request.pem"],
            check=True, capture_output=True)
        subprocess.run(
            ["openssl", "ca", "-batch", "-notext", "-selfsign", "-config", f"{folder}/authority",
             "-keyfile", self.key, "-in", f"{folder}/request.pem", "-out", self.file,
             "-startdate", "20000101000000Z", "-enddate", "20010101000000Z"],
            check=True, capture_output=True)
        for path in (self.key, self.file):
            os.chmod(path, 0o644)

    def context(self):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.file, self.key)
        return context


class Exim:
    """Plain and AUTH LOGIN on port 25, STARTTLS there too, TLS from the first byte on port 465."""

    CONFIGURATION = """
exim_user = {user}
exim_group = {group}
primary_hostname = exim.example.org
spool_directory = {folder}/spool
log_file_path = {folder}/%slog
pid_file_path = {folder}/pid
local_interfaces = <; [127.0.0.1]:25 ; [127.0.0.1]:465
tls_on_connect_ports = 465
tls_advertise_hosts = *
tls_certificate = {certificate}
tls_privatekey = {key}
never_users =
deliver_drop_privilege
keep_environment =
hosts_require_helo =
acl_smtp_connect = acl_connect
acl_smtp_rcpt = acl_recipient
domainlist local_domains = *
begin acl
acl_connect:
  accept control = allow_auth_unadvertised
acl_recipient:
  deny local_parts = unknown
       message = no such user
  accept
begin routers
store:
  driver = accept
  transport = file
begin transports
file:
  driver = appendfile
  directory = {folder}/mail
  maildir_format
  envelope_to_add
  return_path_add
begin authenticators
login:
  driver = plaintext
  public_name = LOGIN
  server_prompts = Username:: : Password::
  server_condition = ${{if and{{{{eq{{$auth1}}{{%s}}}}{{eq{{$auth2}}{{%s}}}}}}}}
  server_set_id = $auth1
""".replace("%s}}", "{login}}}", 1).replace("%s}}", "{password}}}", 1)

    def __init__(self, folder, certificate):
        self.folder = folder
        entry = next(entry for name in ("Debian-exim", "nobody")
                     for entry in pwd.getpwall() if entry.pw_name == name)
        for path in (folder, f"{folder}/spool", f"{folder}/mail"):
            os.makedirs(path, exist_ok=True)
            shutil.chown(path, entry.pw_uid, entry.pw_gid)
        os.chmod(folder, 0o755)
        text = self.CONFIGURATION.format(
            user=entry.pw_uid, group=entry.pw_gid, folder=folder, certificate=certificate.file,
            key=certificate.key, login=USER, password=PASSWORD)
        with open(f"{folder}/exim.conf", "w", encoding="utf-8") as file:
            file.write(text)
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "exim4", "-C", f"{folder}/exim.conf", "-bdf"],
            user=entry.pw_uid, group=entry.pw_gid, extra_groups=[], stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        wait_for(lambda: accepts(25))

    def messages(self):
        found = []
        for path in sorted(glob.glob(f"{self.folder}/mail/new/*")):
            with open(path, "rb") as file:
                found.append((None, None, file.read()))
        return found

    def end(self):
        self.process.kill()
        self.process.wait()


class Aiosmtpd:
    """One mode on one port: plain, login, or tls from the first byte."""

    def __init__(self, port, mode, certificate):
        from aiosmtpd.controller import Controller
        from aiosmtpd.smtp import AuthResult

        self.stored = []

        def authenticate(server, session, envelope, mechanism, data):
            good = (data.login, data.password) == (USER.encode(), PASSWORD.encode())
            return AuthResult(success=good, handled=False)

        class Store:
            @staticmethod
            async def handle_DATA(server, session, envelope):
                self.stored.append((envelope.mail_from, list(envelope.rcpt_tos),
                                    bytes(envelope.content)))
                return "250 queued"

        arguments = {"hostname": "127.0.0.1", "port": port}
        if mode != "plain":
            arguments |= {"authenticator": authenticate, "auth_require_tls": False,
                          "auth_required": True}
        if mode == "tls":
            arguments["ssl_context"] = certificate.context()
        self.controller = Controller(Store(), **arguments)
        self.controller.start()

    def messages(self):
        return list(self.stored)

    def end(self):
        self.controller.stop()


class Nodemailer:
    """Nodemailer's smtp-server: one mode on one port."""

    def __init__(self, modules, port, mode, certificate):
        self.stored = []
        script = os.path.join(os.path.dirname(__file__), "smtp_server.js")
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "node", script, modules, certificate.key,
             certificate.file, str(port), mode], stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "ready\n"
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            message = json.loads(line)
            self.stored.append((message["from"], message["to"],
                                base64.b64decode(message["data"])))

    def messages(self):
        return list(self.stored)

    def end(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()


class Misbehaving:
    """A server that follows a script for each connection: `script(connection)` with the methods below;
    what it raises ends the connection and no more."""

    def __init__(self, port, script, certificate=None):
        self.certificate = certificate
        self.script = script
        self.lines = []
        self.closing = threading.Event()
        self.listener = socket.create_server(("127.0.0.1", port))
        self.listener.settimeout(0.05)
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while not self.closing.is_set():
            try:
                self.socket, _ = self.listener.accept()
            except TimeoutError:
                continue
            self.socket.settimeout(10)
            self.buffer = b""
            try:
                self.script(self)
            except OSError:
                pass
            self.socket.close()

    def say(self, text):
        self.socket.sendall(text.encode() + b"\r\n")

    def hear(self):
        while b"\r\n" not in self.buffer:
            more = self.socket.recv(4096)
            if not more:
                raise ConnectionError
            self.buffer += more
        line, self.buffer = self.buffer.split(b"\r\n", 1)
        self.lines.append(line.decode())
        return line.decode()

    def start_tls(self):
        self.socket = self.certificate.context().wrap_socket(self.socket, server_side=True)

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")

    def hold(self):
        """Keeps the connection without a word until the test ends."""
        self.closing.wait()

    def end(self):
        self.closing.set()
        self.thread.join()
        self.listener.close()
