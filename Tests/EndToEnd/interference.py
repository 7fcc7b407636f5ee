"""Somebody else takes what is the daemon's, and gets it not or only for a moment: rules, routes, ports."""

import re
import subprocess
import threading

from vantrylab import network
from vantrylab.host import Rules
from vantrylab.verdicts import AT_ONCE_MILLISECONDS, ENDED

TABLE = ("inet", "vantry")
RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn"},
              blockedApps=("com.example.chatter",))
# The daemon looks at the rules of others once in five.
SECONDS_TO_LOOK = 15
# What marks the daemon's own connections.
OWN = 0xae


def run(stage) -> None:
    network.vpn_up()
    _table_of_another(stage)
    _packet_rules(stage)
    _marks_of_others(stage)
    network.vpn_down()
    stage.stop_daemon()
    # What follows is about the relay's own connections.
    stage.start_daemon(RULES, directCarriage="relay")
    _routes(stage)
    _ports(stage)
    stage.stop_daemon()


def _table_of_another(stage) -> None:
    """The daemon's table is another program's at first: it says so, and is ready once it has it."""
    another = subprocess.Popen(["nft", "--interactive"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True)
    another.stdin.write(f"add table {TABLE[0]} {TABLE[1]} {{ flags owner; }}\n")
    another.stdin.flush()
    network.wait_until(_table, "the table is another program's")
    release = threading.Timer(1, another.terminate)
    release.start()
    stage.start_daemon(RULES)
    release.join()
    another.wait()
    stage.expect_line("a table that another program owns is named", "'vantry', which another program owns")
    stage.expect_line("and taken when it is free", "Settings are in force after all")
    _verdicts(stage, "after another program's table")


def _marks_of_others(stage) -> None:
    """Their marks are no verdicts, ours are nowhere on packets, and the place of the byte follows theirs."""
    watched = stage.ledger.start("upload", stage.ipv4(), 8080, "--duration", 30)
    watched.report()
    since = stage.daemon.mark()
    chain = "inet other {name} {{ type filter hook output priority {priority}; }}"
    _nft("add table inet other",
         *(f"add chain {chain.format(name=name, priority=priority)}"
           for name, priority in (("before", -180), ("between", -120), ("after", 10))),
         f"add rule inet other before meta mark set mark or {0x05 << (shift := _shift()):#x}",
         f"add rule inet other between meta mark set {0x0d << shift:#x}",
         f"add rule inet other after meta mark != {0x0d << shift:#x} counter drop")
    _verdicts(stage, "marks of others, at first")
    stage.expect_line("the byte moves to where no one else's is", "eight others are, from", since, SECONDS_TO_LOOK)
    stage.checks.check("it is another one", _shift() != shift, f"{_shift()} instead of {shift}")
    _verdicts(stage, "marks of others, after the move")
    _nft("add rule inet other after meta mark 0x6d6f6c65 accept")
    stage.expect_line("no byte is free: it is said", "that are in use here: cannot find a free byte", since, SECONDS_TO_LOOK)
    _verdicts(stage, "no byte is free")
    _nft("delete table inet other")
    changed_at = stage.now()
    stage.apply(RULES.but(blockedApps=("com.example.chatter", "com.example.ledger")))
    stage.expect_ended("a connection is under watch after all that", watched.finish(), changed_at, ENDED)
    stage.apply(RULES)


def _shift() -> int:
    """Where in marks the daemon's byte stands: at 24, or lower if that was taken when it looked."""
    own = re.search(r"ct mark set ct mark & \w+ \| (0x\w+)", _table())[1]
    return (int(own, 16) // OWN).bit_length() - 1


def _nft(*commands: str) -> None:
    subprocess.run(["nft", "; ".join(commands)], check=True)


def _verdicts(stage, name: str) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        for application, expect in ((stage.courier, stage.expect_physical),
                                    (stage.ledger, stage.expect_tunnel), (stage.chatter, stage.expect_denied)):
            address = next_address()
            expect(f"{name}: {application.identifier} to {address}",
                   application.run("connect", address, 80), address)


def _packet_rules(stage) -> None:
    """Where the kernel lets a table have an owner it refuses; else the daemon makes it again."""
    watched = stage.ledger.start("upload", stage.ipv4(), 8080, "--duration", 20)
    watched.report()
    for command in (("flush", "ruleset"), ("delete", "table", *TABLE), ("flush", "table", *TABLE),
                    ("flush", "chain", *TABLE, "offer")):
        name = f"nft {' '.join(command)}"
        before, with_handles, since = _table(), _table("-a"), stage.daemon.mark()
        subprocess.run(["nft", *command], capture_output=True)
        stage.checks.eventually(f"{name}: all rules are there", lambda: (_table() == before, _table()))
        if _table("-a") == with_handles:
            stage.checks.check(f"{name}: the kernel refuses it", True)
        else:
            stage.expect_line(f"{name}: the daemon says what it did",
                              "The interception's rules had been removed and were put back", since)
        _verdicts(stage, name)
    changed_at = stage.now()
    stage.apply(RULES.but(blockedApps=("com.example.chatter", "com.example.ledger")))
    stage.expect_ended("a connection is still under watch", watched.finish(), changed_at, ENDED)
    stage.apply(RULES)


def _table(*options: str) -> str:
    return subprocess.run(["nft", *options, "list", "table", *TABLE], capture_output=True, text=True).stdout


def _routes(stage) -> None:
    """What leads direct connections past a VPN that has taken the machine's default route away."""
    network.vpn_up("replaced-default")
    wanted = _own_routes_once_there(stage)
    upload_address = stage.ipv4()
    addresses = _addresses()
    upload = stage.courier.start("upload", upload_address, 8080, "--duration", 60)
    upload.report()
    stage.checks.equal("a relayed connection adds no address", _addresses(), addresses)
    for command in (("-4", "rule", "delete", "priority", "7660"), ("-4", "rule", "delete", "priority", "7661"),
                    ("-6", "rule", "delete", "priority", "7660"), ("-6", "rule", "delete", "priority", "7661"),
                    ("-4", "route", "flush", "table", "7660"), ("-6", "route", "flush", "table", "7660")):
        name, since = f"ip {' '.join(command)}", stage.daemon.mark()
        subprocess.run(["ip", *command], check=True)
        stage.expect_line(f"{name}: the daemon says what it did",
                          "The routes of direct flows had been removed and were put back", since)
        stage.checks.eventually(f"{name}: all is there again", lambda: (_own_routes() == wanted, _own_routes()))
        for next_address in (stage.ipv4, stage.ipv6):
            address = next_address()
            stage.expect_physical(f"{name}: a direct connection to {address}",
                                  stage.courier.run("connect", address, 80), address)
    since = stage.daemon.mark()
    _nft("add table inet other", "add chain inet other out { type filter hook output priority -180; }",
         f"add rule inet other out meta mark set mark or {0x05 << _shift():#x}")
    stage.expect_line("the byte moves while connections are relayed", "eight others are, from", since, SECONDS_TO_LOOK)
    address = stage.ipv4()
    stage.expect_physical("a direct connection after that", stage.courier.run("connect", address, 80), address)
    _nft("delete table inet other")
    arrived = network.seen_at(upload_address)[0].bytesReceived
    stage.checks.eventually("a connection that was relayed before the move goes on", lambda: (
        network.seen_at(upload_address)[0].bytesReceived > arrived + 10_000, network.seen_at(upload_address)))
    stage.expect_untouched("a direct upload has gone on all the time", upload)
    network.vpn_down()
    stage.checks.eventually("with the VPN they go", lambda: (_own_routes() == [], _own_routes()))


def _addresses() -> list[str]:
    """Without what changes by itself: how long each is valid."""
    shown = subprocess.run(["ip", "-o", "address"], check=True, capture_output=True, text=True).stdout
    return [line.split("\\")[0] for line in shown.splitlines()]


def _own_routes_once_there(stage) -> list[str]:
    stage.checks.eventually("a way of our own for direct connections is there",
                            lambda: (len(_own_routes()) == 6, _own_routes()))
    return _own_routes()


def _own_routes() -> list[str]:
    """The daemon's rules and its table, of both families, a line each."""
    found = []
    for family in ("-4", "-6"):
        rules = subprocess.run(["ip", family, "rule"], check=True, capture_output=True, text=True).stdout
        found += [line for line in rules.splitlines() if line.startswith("766")]
        routes = subprocess.run(["ip", family, "route", "show", "table", "7660"],
                                capture_output=True, text=True).stdout
        found += routes.splitlines()
    return found


def _ports(stage) -> None:
    """Without a VPN a program may ask for the address and port that a connection of the relay has."""
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        relayed = stage.courier.start("crowd", address, 8080, "--count", 1, "--duration", 20)
        relayed.report()
        report = stage.nobody.run("connect", address, 8080, "--source-port", _port_of_relay(address))
        stage.checks.check(f"the port of a relayed connection to {address} is refused at once",
                           report["error"] == "ECONNREFUSED" and report["milliseconds"] < AT_ONCE_MILLISECONDS,
                           report)
        stage.expect_untouched(f"the relayed connection to {address} goes on", relayed)


def _port_of_relay(address: str) -> int:
    """That of the only socket with a connection to the address that is bound to a device."""
    peer = f"[{address}]" if ":" in address else address
    sockets = subprocess.run(["ss", "-Htn", "dst", peer], capture_output=True, text=True, check=True).stdout
    (own,) = [line.split()[3] for line in sockets.splitlines() if "%" in line]
    return int(own.rsplit(":", 1)[1])
