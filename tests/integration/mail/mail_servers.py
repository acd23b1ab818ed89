"""Mail servers for the tests, all on 127.0.0.1 and in a temporary folder: Exim, aiosmtpd, Nodemailer's
smtp-server, and a server of our own that misbehaves as it is told.

A real server is given its port, its mode (plain, login, starttls, or tls from the first byte on) and
traits: "keeps hello" (takes AUTH after STARTTLS without a second EHLO), "refuses hello", "silent" (no
greeting), "impatient" (gives a silent client up in a moment). Each has messages(): what it has stored
so far, as (sender, recipients, bytes).
"""

import asyncio
import base64
import contextlib
import email
import glob
import json
import logging
import os
import pwd
import shutil
import signal
import socket
import ssl
import subprocess
import threading
import time
import warnings

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import SMTP, AuthResult

from waiting import wait_for

logging.getLogger("mail.log").setLevel(logging.ERROR)  # a login without TLS is no news here
IMPATIENCE = 2  # seconds
USER, PASSWORD = "grace@example.org", "secret"


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
    """Plain, AUTH LOGIN and STARTTLS, or TLS from the first byte on."""

    CONFIGURATION = """
exim_user = {user}
exim_group = {group}
primary_hostname = exim.example.org
spool_directory = {folder}/spool
log_file_path = {folder}/%slog
pid_file_path = {folder}/pid
local_interfaces = <; [127.0.0.1]:{port}
tls_on_connect_ports = {tls_port}
tls_advertise_hosts = *
tls_certificate = {certificate}
tls_privatekey = {key}
never_users =
deliver_drop_privilege
keep_environment =
smtp_receive_timeout = {patience}s
{traits}
acl_smtp_helo = acl_hello
acl_smtp_connect = acl_connect
acl_smtp_rcpt = acl_recipient
domainlist local_domains = *
begin acl
acl_hello:
  {hello}
acl_connect:
  {connect}
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
  batch_max = 100
  envelope_to_add
  return_path_add
begin authenticators
login:
  driver = plaintext
  public_name = LOGIN
  server_prompts = Username:: : Password::
  server_condition = ${{if and{{{{eq{{$auth1}}{{LOGIN}}}}{{eq{{$auth2}}{{PASSWORD}}}}}}}}
  server_set_id = $auth1
""".replace("LOGIN}}}}", USER + "}}}}").replace("PASSWORD", PASSWORD)

    def __init__(self, bed, port, mode, *traits):
        self.folder = f"{bed.folder}/exim"
        entry = next(entry for name in ("Debian-exim", "nobody")
                     for entry in pwd.getpwall() if entry.pw_name == name)
        for path in (self.folder, f"{self.folder}/spool", f"{self.folder}/mail"):
            os.makedirs(path, exist_ok=True)
            shutil.chown(path, entry.pw_uid, entry.pw_gid)
        os.chmod(self.folder, 0o755)
        connect = "accept"
        if "keeps hello" in traits:
            connect += " control = allow_auth_unadvertised"
        if "silent" in traits:
            connect += " delay = 20s"
        text = self.CONFIGURATION.format(
            user=entry.pw_uid, group=entry.pw_gid, folder=self.folder, port=port,
            tls_port=port if mode == "tls" else "", certificate=bed.certificate.file,
            key=bed.certificate.key, connect=connect,
            patience=IMPATIENCE if "impatient" in traits else 300,
            hello="deny message = not you" if "refuses hello" in traits else "accept",
            traits="hosts_require_helo =" if "keeps hello" in traits else "")
        with open(f"{self.folder}/exim.conf", "w", encoding="utf-8") as file:
            file.write(text)
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "exim4", "-C", f"{self.folder}/exim.conf", "-bdf"],
            user=entry.pw_uid, group=entry.pw_gid, extra_groups=[], stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, start_new_session=True)
        wait_for(lambda: accepts(port))

    def messages(self):
        """The envelope is in the headers that Exim puts before those of the message."""
        found = []
        for path in sorted(glob.glob(f"{self.folder}/mail/new/*")):
            with open(path, "rb") as file:
                raw = file.read()
            headers = email.message_from_bytes(raw)
            recipients = sorted(headers["Envelope-to"].replace("\n", "").replace(" ", "").split(","))
            found.append((headers["Return-path"].strip("<>"), recipients, raw))
        return found

    def end(self):
        # With those that serve a connection: they would make their folders anew.
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


class KeepsHello(SMTP):
    """Takes what was said before the upgrade to TLS as said after it, too."""

    def connection_made(self, transport):
        before = self.session
        super().connection_made(transport)
        if before:
            self.session.host_name = before.host_name
            self.session.extended_smtp = before.extended_smtp


class Silent(SMTP):
    async def _handle_client(self):
        await asyncio.sleep(3600)


class Aiosmtpd(Controller):
    """One mode on one port: plain, login, starttls, or tls from the first byte on."""

    def __init__(self, bed, port, mode, *traits):
        self.stored = []
        self.traits = traits
        self.arguments = {"timeout": IMPATIENCE if "impatient" in traits else 300}
        if mode != "plain":
            self.arguments |= {"authenticator": self.authenticate, "auth_required": True,
                               "auth_require_tls": mode == "starttls"}
        if mode == "starttls":
            self.arguments["tls_context"] = bed.certificate.context()
        super().__init__(self, hostname="127.0.0.1", port=port,
                         ssl_context=bed.certificate.context() if mode == "tls" else None)
        warnings.simplefilter("ignore", UserWarning)  # of a login without TLS, too
        try:
            self.start()
        except Exception:
            self.end()
            raise

    def factory(self):
        kind = (Silent if "silent" in self.traits else
                KeepsHello if "keeps hello" in self.traits else SMTP)
        return kind(self, hostname="mail.example.org", **self.arguments)

    @staticmethod
    def authenticate(server, session, envelope, mechanism, data):
        good = (data.login, data.password) == (USER.encode(), PASSWORD.encode())
        return AuthResult(success=good, handled=False)

    async def handle_EHLO(self, server, session, envelope, hostname, responses):
        if "refuses hello" in self.traits:
            return ["550 not you"]
        session.host_name = hostname
        # Each line is a packet, and so a reply to the client: how many it takes the time decides.
        return responses[-1:]

    async def handle_RCPT(self, server, session, envelope, address, options):
        if address.startswith("unknown@"):
            return "550 no such user"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        self.stored.append((envelope.mail_from, list(envelope.rcpt_tos), bytes(envelope.content)))
        return "250 queued"

    def messages(self):
        return list(self.stored)

    def end(self):
        self.stop(no_assert=True)


class Nodemailer:
    """Nodemailer's smtp-server: one mode on one port."""

    MODULES = ""  # where npm has put it

    def __init__(self, bed, port, mode, *traits):
        self.stored = []
        script = os.path.join(os.path.dirname(__file__), "smtp_server.js")
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "node", script, self.MODULES, bed.certificate.key,
             bed.certificate.file, str(port), mode, str(IMPATIENCE * 1000), *traits],
            stdout=subprocess.PIPE, text=True)
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


class Meddler:
    """Stands between the client and a server. What it does with the next connections is set by
    `cut_after`: the number of client's lines at which it drops the connection instead of passing on
    the last of them (the message counts as one, 0 is the connection itself), and by `dribbles`: the
    server's bytes are passed on one at a time.
    """

    def __init__(self, port, server_port):
        self.cut_after = None
        self.dribbles = False
        self.server_port = server_port
        self.closing = threading.Event()
        self.listener = socket.create_server(("127.0.0.1", port))
        self.listener.settimeout(0.05)
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while not self.closing.is_set():
            with contextlib.suppress(OSError):
                client, _ = self.listener.accept()
                server = socket.create_connection(("127.0.0.1", self.server_port))
                client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                with client, server:
                    back = threading.Thread(target=self.pass_back, args=(server, client),
                                            daemon=True)
                    if self.cut_after != 0:
                        back.start()
                        self.pass_on(client, server)
                        back.join()

    def pass_on(self, client, server):
        lines, pending = 0, b""
        end = b"\r\n"
        with contextlib.suppress(OSError):
            while more := client.recv(65536):
                pending += more
                while end in pending:
                    line, pending = pending.split(end, 1)
                    lines += 1
                    if lines == self.cut_after:
                        return self.shut(client, server)
                    server.sendall(line + end)
                    end = b"\r\n.\r\n" if line == b"DATA" else b"\r\n"
        return self.shut(client, server)

    def pass_back(self, server, client):
        with contextlib.suppress(OSError):
            while more := server.recv(65536):
                if not self.dribbles:
                    client.sendall(more)
                    continue
                for byte in more:
                    client.sendall(bytes([byte]))
                    time.sleep(0.01)  # else the client's end might join them again
        self.shut(client, server)

    @staticmethod
    def shut(*connections):
        for connection in connections:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)

    def end(self):
        self.closing.set()
        self.thread.join()
        self.listener.close()


class Misbehaving:
    """A server that follows a script for each connection: `script(connection)` with the methods below;
    what it raises ends the connection and no more."""

    def __init__(self, port, script, certificate=None):
        self.certificate = certificate
        self.script = script
        self.lines = []
        self.names = []  # by which clients have called the server in TLS, None for no name
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
        context = self.certificate.context()
        context.sni_callback = lambda connection, name, used: self.names.append(name)
        self.socket = context.wrap_socket(self.socket, server_side=True)

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")

    def hold(self):
        """Keeps the connection without a word until the test ends."""
        self.closing.wait()

    def end(self):
        self.closing.set()
        self.thread.join()
        self.listener.close()
