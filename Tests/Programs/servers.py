"""The servers that other people's programs talk to, in the namespace of the lab's server: nginx, git, sshd, rsync,
iperf3, redis, Caddy, an FTP server, and two small ones of our own. They end with the world."""

import ctypes
import os
import pathlib
import re
import shutil
import subprocess

from vantrylab import network, world

ADDRESS, HTTP3_NAME = "198.51.100.77", "files.example"
HTTP_PORT, HTTP3_PORT, AFTER_END_PORT, GREETING_PORT, UNUSED_PORT = 8000, 8443, 7001, 7002, 7003
FOLDER = world.STATE / "servers"
HOME = world.STATE / "person"
FILES = FOLDER / "files"
LARGE = FILES / "large"
# The system's own: that of a virtual environment has no FTP server.
PYTHON = "/usr/bin/python3"
_MS_BIND = 4096

NGINX = f"""
user root;
daemon off;
pid {FOLDER}/nginx.pid;
error_log {FOLDER}/nginx.log;
events {{}}
http {{
    access_log off;
    client_max_body_size 0;
    client_body_temp_path {FOLDER}/1;
    proxy_temp_path {FOLDER}/2;
    fastcgi_temp_path {FOLDER}/3;
    uwsgi_temp_path {FOLDER}/4;
    scgi_temp_path {FOLDER}/5;
    server {{
        listen {ADDRESS}:{HTTP_PORT};
        root {FILES};
        location /put/ {{ dav_methods PUT; create_full_put_path on; }}
    }}
}}
"""
# Says which protocol it was asked by.
CADDY = f"""
{{
    admin off
    auto_https disable_redirects
    storage file_system {FOLDER}/caddy
}}
https://{HTTP3_NAME}:{HTTP3_PORT} {{
    bind {ADDRESS}
    tls {FOLDER}/certificate {FOLDER}/certificate-key
    respond "asked by {{http.request.proto}}"
}}
"""
SSHD = f"""
ListenAddress {ADDRESS}
HostKey {FOLDER}/host-key
AuthorizedKeysFile {FOLDER}/authorized
StrictModes no
UsePAM no
PidFile none
Subsystem sftp internal-sftp
"""
RSYNCD = f"""
use chroot = no
uid = root
gid = root
[files]
path = {FILES}
"""
FTP = f"""
from pyftpdlib import authorizers, handlers, servers
authorizer = authorizers.DummyAuthorizer()
authorizer.add_anonymous("{FILES}")
handlers.FTPHandler.authorizer = authorizer
servers.FTPServer(("{ADDRESS}", 21), handlers.FTPHandler).serve_forever()
"""
# Says how much came, once the client has ended its side; says something and ends.
SMALL = f"""
import asyncio

async def after_end(reader, writer):
    writer.write(b"%d bytes\\n" % len(await reader.read()))
    writer.close()

async def greet(reader, writer):
    writer.write(b"welcome\\n" * 1000)
    writer.close()

async def main():
    await asyncio.start_server(greet, "{ADDRESS}", {GREETING_PORT})
    await (await asyncio.start_server(after_end, "{ADDRESS}", {AFTER_END_PORT})).serve_forever()

asyncio.run(main())
"""


def key_hash() -> str:
    """By which a browser may be told to trust the certificate."""
    script = (f"openssl x509 -in {FOLDER}/certificate -pubkey -noout | openssl pkey -pubin -outform der |"
              " openssl dgst -sha256 -binary | base64")
    return subprocess.run(script, shell=True, check=True, capture_output=True, text=True).stdout.strip()


def up() -> None:
    for folder in (FILES, HOME, FOLDER / "empty"):
        folder.mkdir(parents=True)
    (FILES / "small").write_text("small\n" * 100)
    LARGE.write_bytes(os.urandom(1 << 20) * 64)
    _count_connections()
    _name_the_person()
    _make_repository()
    _make_keys()
    os.chown(HOME, world.PERSON, world.PERSON)
    _start("nginx", "-c", _file("nginx.conf", NGINX), "-e", FOLDER / "nginx.log")
    _start("git", "daemon", f"--listen={ADDRESS}", "--export-all", f"--base-path={FILES}", FILES)
    _start("/usr/sbin/sshd", "-D", "-f", _file("sshd.conf", SSHD))
    _start("rsync", "--daemon", "--no-detach", f"--address={ADDRESS}", "--config", _file("rsyncd.conf", RSYNCD))
    _start("iperf3", "-s", "-B", ADDRESS)
    _start("redis-server", "--bind", ADDRESS, "--protected-mode", "no", "--save", "", "--dir", FOLDER)
    _start("env", f"XDG_CONFIG_HOME={FOLDER}", "caddy", "run", "--adapter", "caddyfile", "--config", _file("Caddyfile", CADDY))
    _start(PYTHON, "-c", FTP)
    _start(PYTHON, "-c", SMALL)
    for port in (HTTP_PORT, HTTP3_PORT, 9418, 22, 873, 5201, 6379, 21, AFTER_END_PORT):
        network.wait_until(lambda: _listens(port), f"a server listens on port {port}")


def connections() -> dict[str, int]:
    """How many connections have been begun with the server, by the interface that they came in on. A datagram for
    HTTP/3 counts as one."""
    listing = subprocess.run(network.in_server(["nft", "list", "table", "inet", "counts"]), check=True,
                             capture_output=True, text=True).stdout
    found = re.findall(r"counter (\w+) \{\s+packets (\d+)", listing)
    return {name: int(packets) for name, packets in found}


def _count_connections() -> None:
    subprocess.run(network.in_server(["nft", f"""
        table inet counts {{
            counter net0 {{}}
            counter tunnel {{}}
            chain arriving {{
                type filter hook prerouting priority -200;
                iifname "net0" tcp flags & (syn | ack) == syn counter name net0
                iifname "tun-server" tcp flags & (syn | ack) == syn counter name tunnel
                iifname "net0" udp dport {HTTP3_PORT} counter name net0
                iifname "tun-server" udp dport {HTTP3_PORT} counter name tunnel
            }}
        }}"""]), check=True)


def _name_the_person() -> None:
    """ssh and sshd want an account with a name and this world's home folder."""
    others = [line for line in pathlib.Path("/etc/passwd").read_text().splitlines()
              if line.split(":")[2] != str(world.PERSON)]
    accounts = _file("passwd", "\n".join([*others, f"person:x:{world.PERSON}:{world.PERSON}::{HOME}:/bin/sh"]) + "\n")
    pathlib.Path("/run/sshd").mkdir(exist_ok=True)
    if ctypes.CDLL(None, use_errno=True).mount(str(accounts).encode(), b"/etc/passwd", None, _MS_BIND, None) != 0:
        raise OSError(ctypes.get_errno(), "/etc/passwd")


def _make_repository() -> None:
    work = FOLDER / "work"
    script = f"""
        git init -q {work} && cd {work} && head -c 5000000 {LARGE} >content && git add content
        git -c user.name=A -c user.email=a@example.com commit -qm 'first content'
        git clone -q --bare . {FILES}/project.git && git -C {FILES}/project.git update-server-info"""
    subprocess.run(["sh", "-ec", script], check=True, stdout=subprocess.DEVNULL)


def _make_keys() -> None:
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-days", "10", "-subj", "/CN=lab", "-addext", f"subjectAltName=DNS:{HTTP3_NAME}",
                    "-keyout", str(FOLDER / "certificate-key"), "-out", str(FOLDER / "certificate")],
                   check=True, capture_output=True)
    for path in (FOLDER / "host-key", HOME / "key"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path], check=True)
    shutil.copy(HOME / "key.pub", FOLDER / "authorized")
    os.chown(HOME / "key", world.PERSON, world.PERSON)


def _file(name: str, text: str) -> pathlib.Path:
    path = FOLDER / name
    path.write_text(text)
    path.chmod(0o644)
    return path


def _start(*command: object) -> None:
    log = open(FOLDER / "servers.log", "ab")
    subprocess.Popen(network.in_server([str(each) for each in command]), stdin=subprocess.DEVNULL, stdout=log,
                     stderr=log, start_new_session=True)


def _listens(port: int) -> bool:
    listing = subprocess.run(network.in_server(["ss", "-Hltn", f"sport = :{port}"]), capture_output=True, text=True)
    return bool(listing.stdout.strip())
