"""Sockets and process ids that pass from one program to another: the judged is the one who uses them."""

import pathlib

from vantrylab import network, world
from vantrylab.host import Rules

RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn"},
              blockedApps=("com.example.chatter",))
LAST_PID = pathlib.Path("/proc/sys/kernel/ns_last_pid")
MEETING_PLACE = world.APPLICATIONS / "meeting-place"


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(RULES)
    MEETING_PLACE.mkdir(mode=0o777)
    MEETING_PLACE.chmod(0o777)
    _sockets(stage)
    _process_ids(stage)
    stage.stop_daemon()
    network.vpn_down()


def _ways(stage):
    return ((stage.courier, stage.expect_physical), (stage.ledger, stage.expect_tunnel),
            (stage.chatter, stage.expect_denied))


def _sockets(stage) -> None:
    """A connection is its maker's for good; a socket that is not connected yet is its connector's."""
    for giver, taken_as_connected in _ways(stage):
        for taker, taken_as_it_is in _ways(stage):
            if giver is taker:
                continue
            for next_address in (stage.ipv4, stage.ipv6):
                name = f"from {giver.identifier} to {taker.identifier}"
                address = next_address()
                taken_as_it_is(f"a socket passed {name}, {address}",
                               _pass_on(giver, taker, address), address)
                if giver is stage.chatter:
                    continue
                address = next_address()
                taken_as_connected(f"a connection passed {name}, {address}",
                                   _pass_on(giver, taker, address, "--connected"), address)


def _pass_on(giver, taker, address: str, *options: str) -> dict:
    """The taker uses what it got once the giver has let go of it."""
    path = MEETING_PLACE / f"{address}.sock"
    taking = taker.start("take", address, 8080, "--path", path, "--duration", 20)
    network.wait_until(path.exists, "the taker waits for a socket")
    given = giver.run("give", address, 8080, "--path", path, *options)
    if given["outcome"] != "finished":
        raise RuntimeError(f"no socket was passed: {given}")
    return taking.conclude()


def _process_ids(stage) -> None:
    """A process's id goes to another program, which uses the network at once: its own rules hold."""
    try:
        LAST_PID.write_text(LAST_PID.read_text())
    except OSError:
        print("      a process id used again: process ids cannot be chosen here")
        return
    applications = (stage.courier, stage.chatter, stage.ledger, stage.courier, stage.nobody, stage.chatter)
    expectations = {stage.nobody: stage.expect_tunnel, **dict(_ways(stage))}
    for next_address in (stage.ipv4, stage.ipv6):
        pid = None
        for application in applications:
            address = next_address()
            report, pid = _connect_as(application, address, pid)
            expectations[application](f"process {pid} is now {application.identifier}", report, address)


def _connect_as(application, address: str, pid: int | None) -> tuple[dict, int]:
    """The report of a new process, which has the given id unless there is none to be had."""
    for _ in range(50):
        if pid is not None:
            LAST_PID.write_text(str(pid - 1))
        process = application.start("connect", address, 80)
        report = process.finish()
        if pid in (None, process.process.pid):
            return report, process.process.pid
    raise RuntimeError(f"no process got the id {pid}")
