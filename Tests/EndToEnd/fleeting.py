"""Sockets that are closed as soon as they have sent, of a program that is blocked: nothing leaves. Nor does what one that
is closed still holds when its program is blocked.

The kernel's notes name them, which it takes for daemons that see all processes of the machine.
"""

import re
import subprocess

from vantrylab import applications, network, world
from vantrylab.host import Rules

SEES_ALL_PROCESSES = True
ADDRESS, DATAGRAM_PORT, STREAM_PORT = "198.51.100.99", 443, 8080
# More processes than processors: some lose theirs while they close a socket.
PROGRAM = f"""
import contextlib, os, socket, time
for _ in range(3):
    os.fork()
end = time.monotonic() + 5
while time.monotonic() < end:
    with contextlib.suppress(OSError), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.sendto(b"x", ("{ADDRESS}", {DATAGRAM_PORT}))
    with contextlib.suppress(OSError), socket.socket(socket.AF_INET, socket.SOCK_STREAM) as one:
        one.setblocking(False)
        one.connect(("{ADDRESS}", {STREAM_PORT}))
    time.sleep(0.002)
"""
SLOW_ADDRESS = "198.51.100.98"
SLOW_SERVER = f"""
import socket
server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
server.bind(("{SLOW_ADDRESS}", {STREAM_PORT + 1}))
server.listen()
print("listening", flush=True)
connection, _ = server.accept()
input()
try:
    while connection.recv(65536):
        pass
    print("the end")
except ConnectionResetError:
    print("a reset")
"""
LEAVING = f"""
import socket
with socket.create_connection(("{SLOW_ADDRESS}", {STREAM_PORT + 1})) as one:
    one.setblocking(False)
    one.send(bytes(1 << 20))
"""
COUNTING = f"""table inet fleeting {{
  chain arriving {{
    type filter hook prerouting priority -290
    iifname net0 ip daddr {ADDRESS} tcp dport {STREAM_PORT} counter
    iifname net0 ip daddr {ADDRESS} udp dport {DATAGRAM_PORT} counter
  }}
}}"""


def run(stage) -> None:
    stage.start_daemon(Rules(rules={}, blockedApps=("mayfly",)))
    if "notes" not in stage.health("attribution"):
        print("      the kernel takes no notes for a daemon here: what is closed at once has no name")
    else:
        subprocess.run(network.in_server(["nft", COUNTING]), check=True)
        mayfly = applications.make_interpreter("mayfly")
        subprocess.run([mayfly, "-c", PROGRAM], check=True, user=world.PERSON if world.is_root_world() else None)
        listed = subprocess.run(network.in_server(["nft", "list", "table", "inet", "fleeting"]), capture_output=True,
                                text=True, check=True).stdout
        stage.checks.equal("of a blocked program that closes its sockets at once: segments and datagrams that leave",
                           [int(each) for each in re.findall(r"packets (\d+)", listed)], [0, 0])
        stage.checks.equal("and flows that no program could be named for", stage.health("unattributedFlows"), 0)
    _closed_with_content(stage)
    stage.stop_daemon()


def _closed_with_content(stage) -> None:
    server = subprocess.Popen(network.in_server(["python3", "-c", SLOW_SERVER]), text=True, stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE)
    server.stdout.readline()
    leaver = applications.make_interpreter("leaver")
    subprocess.run([leaver, "-c", LEAVING], check=True, user=world.PERSON if world.is_root_world() else None)
    stage.apply(Rules(rules={}, blockedApps=("mayfly", "leaver")))
    told, _ = server.communicate("read on\n", timeout=30)
    stage.checks.equal("what a closed socket still holds when its program is blocked comes to", told.strip(), "a reset")
