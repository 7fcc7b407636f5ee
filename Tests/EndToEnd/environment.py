"""What the daemon stands on gives way: the journal, the kernel's word of the network, memory. Verdicts are right or said."""

import contextlib
import json
import pathlib
import re
import resource
import socket
import subprocess

from vantrylab import host, network, verdicts, world
from vantrylab.daemon import Daemon
from vantrylab.host import Rules

RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn"},
              blockedApps=("com.example.chatter",))
JOURNAL = pathlib.Path("/run/systemd/journal/socket")
# Takes the daemon's standard error for the journal's, as the service manager tells it.
AS_A_SERVICE = ["sh", "-c", 'export JOURNAL_STREAM="$(stat -Lc %d:%i /dev/stderr)"; exec "$@"', "sh"]
# Each tells the daemon of an address that comes and of one that goes: more than its socket has room for.
ADDRESSES = 2000
SPARE_BYTES = 4 << 20


def run(stage) -> None:
    network.spare_carrier_up()
    network.vpn_up()
    _the_journal_goes(stage)
    _more_news_than_there_is_room_for(stage)
    _memory_runs_out(stage)
    network.vpn_down()


def _as_ruled(stage, when: str, longest: float = verdicts.AT_ONCE_MILLISECONDS) -> None:
    for application, expect in ((stage.courier, stage.expect_physical), (stage.ledger, stage.expect_tunnel),
                                (stage.chatter, stage.expect_denied)):
        address = stage.ipv4()
        report = application.run("connect", address, 80)
        expect(f"{when}: {application.identifier}", report, address)
        stage.checks.check(f"{when}: it waits for nothing",
                           report["milliseconds"] < longest, report)


@contextlib.contextmanager
def _journal():
    JOURNAL.parent.mkdir(parents=True, exist_ok=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as journal:
        journal.bind(str(JOURNAL))
        journal.settimeout(5 * world.PATIENCE)
        yield journal
    JOURNAL.unlink()


def _hear(journal: socket.socket, text: str) -> bool:
    with contextlib.suppress(TimeoutError):
        while text not in journal.recv(65536).decode(errors="replace"):
            pass
        return True
    return False


def _the_journal_goes(stage) -> None:
    host.write_preferences(logLevel="debug")
    host.write_rules(RULES)
    host.MESSAGE_SOCKET.unlink(missing_ok=True)
    with _journal() as journal:
        daemon = Daemon(around=AS_A_SERVICE)
        stage.checks.check("the journal gets the log", _hear(journal, "Transparent proxy started with"))
        network.wait_until(host.MESSAGE_SOCKET.exists, "the daemon takes messages")
        _as_ruled(stage, "the journal is full")
    _as_ruled(stage, "the journal is gone")
    stage.checks.check("the journal is gone: what is lost is counted", _lines_lost() > 0)
    with _journal() as journal:
        _as_ruled(stage, "the journal is back")
        stage.checks.check("the journal is back: it is told what was lost",
                           _hear(journal, "log lines were lost, as nothing took them"))
        stage.checks.equal("without a reader of its journal the daemon ends too", daemon.stop(seconds=3), 0)


def _lines_lost() -> int:
    status = subprocess.run([world.BUILD / "vantryctl", "status", "--json"], timeout=10, capture_output=True)
    return json.loads(status.stdout)["health"]["logLinesLost"]


def _more_news_than_there_is_room_for(stage) -> None:
    """The kernel then drops what it has to tell, the important part too: the daemon has to look for itself."""
    stage.start_daemon(RULES)
    for change, line in ((network.physical_down, "No physical interface found"),
                         (network.physical_up, "Physical interface detected")):
        since = stage.daemon.mark()
        stage.daemon.stand_still()
        words = [f"address {word} 10.99.{number // 250}.{number % 250 + 1}/32 dev lo"
                 for number in range(ADDRESSES) for word in ("add", "delete")]
        subprocess.run(["ip", "-batch", "-"], input="\n".join(words), text=True, check=True)
        change()
        stage.checks.check("too much news: the kernel had to drop some", _dropped() > 0)
        stage.daemon.go_on()
        stage.expect_line(f"too much news: {change.__name__} is noticed", line, since)
    # A first packet may be lost on a link that has just come up, and is sent again after a second.
    _as_ruled(stage, "after too much news", 1000 + verdicts.AT_ONCE_MILLISECONDS)
    stage.stop_daemon()


def _dropped() -> int:
    """By all sockets that are told of the network."""
    rows = [line.split() for line in pathlib.Path("/proc/net/netlink").read_text().splitlines()[1:]]
    return sum(int(row[8]) for row in rows if row[1] == "0")


def _memory_runs_out(stage) -> None:
    """It goes on, or ends and says why; either way connections are made."""
    daemon = stage.start_daemon(RULES)
    status = pathlib.Path(f"/proc/{daemon.process.pid}/status").read_text()
    taken = int(re.search(r"VmSize:\s+(\d+) kB", status)[1]) << 10
    if taken > 1 << 40:
        print("      memory that runs out: a sanitizer takes all addresses")
        return stage.stop_daemon()
    resource.prlimit(daemon.process.pid, resource.RLIMIT_AS, (taken + SPARE_BYTES, resource.RLIM_INFINITY))
    many = {f"com.example.many{number}": "vpn" for number in range(100_000)}
    host.write_rules(RULES.but(rules={**RULES.rules, **many}))
    host.post()
    network.wait_until(lambda: not daemon.is_running() or daemon.count("Monitoring updated") > 1, "it ends or goes on")
    for application in (stage.courier, stage.ledger, stage.studio):
        report = application.run("connect", stage.ipv4(), 80)
        stage.checks.check(f"short of memory: {application.identifier} connects",
                           report["outcome"] == "connected" and
                           report["milliseconds"] < verdicts.AT_ONCE_MILLISECONDS, report)
    ended = daemon.stop(seconds=3)
    stage.checks.check("short of memory: it ends in order, or says what it lacks",
                       ended == 0 or ended == 1 and "the system refuses it" in daemon.other_output(),
                       (ended, daemon.other_output()))
    stage.daemon = None
    stage.clean_up()
