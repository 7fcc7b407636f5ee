"""Inside a machine: tries what is promised of rules with every VPN beside every firewall.

usage: matrix.py [--vpn TEXT] [--firewall TEXT]    only those whose names hold the text

Prints a line of JSON for each cell: what was tried, `works`, `note` or `fails`, and in words what was seen
where it is not simply what was promised. What is promised is judged by what the server saw and what the
application got; no one asks the daemon.
"""

import argparse
import json
import shutil
import subprocess
import time
from collections.abc import Callable

import package
import uplink
from firewalls import Firewall, all_firewalls
from uplink import run
from vantrylab import applications, network, world
from vpns import Vpn, all_vpns, way_of

# A connection that is denied is told so at once; emulation makes an instant long.
PATIENCE = 4 * world.PATIENCE


class Deviation(Exception):
    """Something promised did not happen."""


# Of a VPN that has no device the daemon can't know; a person says it.
_SAID_BY_HAND = "whether the VPN is up is said by hand (vantryctl vpn up, down)"
_FAULTS = (Deviation, RuntimeError, subprocess.TimeoutExpired)


class Trial:
    """One VPN beside one firewall: the applications, and the cells in their order."""

    def __init__(self, vpn: Vpn, firewall: Firewall, programs: dict[str, applications.Application]):
        self._vpn, self._firewall = vpn, firewall
        self._direct, self._tunnelled = programs["courier"], programs["ledger"]
        self._blocked, self._unruled = programs["nobody"], programs["chatter"]
        self._notes: list[str] = []

    def play(self, say: Callable[..., None]) -> None:
        try:
            self._firewall.up(self._vpn)
            set_rules(self._direct, self._tunnelled, self._blocked)
            if self._vpn.is_split:
                run("vantryctl", "vpn", "follow", "-i", self._vpn.device)
            self._raise()
            for cell, attempt in self._cells():
                say(cell=cell, **self._outcome(attempt))
        finally:
            self._vpn.down()
            self._firewall.down()
            run("vantryctl", "vpn", "follow")

    def _cells(self):
        return [("vpn", self._vpn_cell), ("direct", self._direct_cell), ("blocked", self._blocked_cell),
                ("VPN falls", self._falls), ("VPN comes", self._comes),
                ("daemon killed", self._killed), ("daemon upgraded", self._upgraded)]

    def _outcome(self, attempt: Callable[[], None]) -> dict:
        started, self._notes = time.monotonic(), [] if self._vpn.device else [_SAID_BY_HAND]
        try:
            attempt()
            state = "note" if self._notes else "works"
        except _FAULTS as reason:
            state, self._notes = "fails", [str(reason), *self._notes]
        return {"state": state, "why": "; ".join(self._notes), "seconds": round(time.monotonic() - started, 1)}

    # The cells

    def _vpn_cell(self) -> None:
        self._goes(self._tunnelled, "tunnel")

    def _direct_cell(self) -> None:
        self._goes(self._direct, "uplink")
        if self._vpn.has_ipv6 and (seen := self._way(self._direct, ipv6=True)) != "uplink":
            self._notes.append(f"IPv6: {seen}")

    def _blocked_cell(self) -> None:
        self._is_denied(self._blocked)
        self._promised("UDP to be denied", self._deviation_of_datagrams)

    def _deviation_of_datagrams(self) -> str:
        report = self._try(self._blocked, "datagram", 443, place := Place())
        return seen_by(report, place) if report["error"] in ("", "ETIMEDOUT") or place.seen() else ""

    def _falls(self) -> None:
        with Upload(self._tunnelled) as upload:
            self._vpn.down()
            self._say("down")
            await_state("down")
            self._is_denied(self._tunnelled)
            if "killswitch" not in run("nft", "list", "tables") and (seen := self._way(self._unruled)) != "uplink":
                self._notes.append(f"an application without a rule: {seen}")
            if not upload.has_ended():
                self._notes.append("an open connection through the VPN is left hanging")

    def _comes(self) -> None:
        self._raise()
        self._goes(self._tunnelled, "tunnel")
        self._goes(self._direct, "uplink")

    def _killed(self) -> None:
        self._replaced(lambda: run("systemctl", "kill", "--signal=KILL", "vantryd"))

    def _upgraded(self) -> None:
        self._replaced(package.upgrade)

    def _replaced(self, replace: Callable[[], object]) -> None:
        before = package.process()
        with Upload(self._tunnelled) as through, Upload(self._direct) as direct:
            replace()
            network.wait_until(lambda: package.is_back(before), "the daemon is back", 40)
            self._holds_again(through, direct)

    def _holds_again(self, through: "Upload", direct: "Upload") -> None:
        self._goes(self._tunnelled, "tunnel")
        self._goes(self._direct, "uplink")
        self._is_denied(self._blocked)
        for upload, which in ((through, "through the VPN"), (direct, "that went direct")):
            if upload.has_ended():
                self._notes.append(f"the open connection {which} ended")

    # What they are made of

    def _raise(self) -> None:
        self._vpn.up()
        self._vpn.wait_until_up()
        self._say("up")
        await_state("up")
        deadline = time.monotonic() + 30 * world.PATIENCE
        while (seen := self._way(self._unruled)) != "tunnel":
            if time.monotonic() > deadline:
                raise Deviation(f"the VPN does not carry: {seen}")

    def _say(self, state: str) -> None:
        if not self._vpn.device:
            run("vantryctl", "vpn", state)

    def _goes(self, application: applications.Application, wanted: str) -> None:
        name = application.identifier.rsplit(".")[-1]
        self._promised(f"{name} ({wanted} wanted)", lambda: "" if (seen := self._way(application)) == wanted else seen)

    def _promised(self, what: str, deviation: Callable[[], str]) -> None:
        """What does not work is tried once more, as emulation may be slower than any patience."""
        first = deviation()
        if first and deviation():
            raise Deviation(f"{what}: {first}")
        if first:
            self._notes.append(f"only the second time: {what}: {first}")

    def _way(self, application: applications.Application, ipv6: bool = False) -> str:
        return seen_by(self._try(application, "connect", 80, place := Place(ipv6)), place)

    def _is_denied(self, application: applications.Application) -> None:
        def deviation() -> str:
            report = self._try(application, "connect", 80, place := Place())
            return "" if was_denied(report, place) else seen_by(report, place)
        self._promised("a connection to be denied", deviation)

    @staticmethod
    def _try(application: applications.Application, mode: str, port: int, place: "Place") -> dict:
        return application.run(mode, place.address, port, "--patience", PATIENCE, wait=30 * world.PATIENCE)


class Place:
    """One of the server's addresses, of the half that a split tunnel covers, and what comes there from now on."""

    _used = 0

    def __init__(self, ipv6: bool = False):
        Place._used += 1
        number = 128 + Place._used % 120
        self.address = network.server_ipv6(number) if ipv6 else network.server_ipv4(number)
        self._before = len(network.seen_at(self.address))

    def seen(self) -> list[network.Observation]:
        return network.seen_at(self.address)[self._before:]


class Upload:
    """A connection that stays open while something happens."""

    def __init__(self, application: applications.Application):
        self._running = application.start("upload", Place().address, 80, "--duration", 120, "--patience", PATIENCE)

    def __enter__(self) -> "Upload":
        self._running.report()
        return self

    def __exit__(self, *_) -> None:
        self._running.stop()

    def has_ended(self) -> bool:
        try:
            self._running.process.wait(1.5)
            return True
        except subprocess.TimeoutExpired:
            return False


def seen_by(report: dict, place: Place) -> str:
    """The way that the server saw, or the error that the application got."""
    if not report["error"]:
        return way_of(report["serverSaw"])
    ways = sorted({way_of(each.client) for each in place.seen()})
    reached = f", though it came by the {ways[0]}" if ways else ""
    return f"{report['error']} after {report['milliseconds'] / 1000:.0f} s{reached}"


def was_denied(report: dict, place: Place) -> bool:
    return report["error"] not in ("", "ETIMEDOUT", "EOF") and not place.seen()


def await_state(wanted: str) -> None:
    """Until the daemon is told that the VPN is up or down. Where it never is, the cells show what comes of it."""
    def told() -> bool:
        return json.loads(run("vantryctl", "status", "--json")).get("vpnConnected") == (wanted == "up")
    try:
        network.wait_until(told, f"the VPN is taken to be {wanted}", 10)
    except RuntimeError:
        if wanted == "down":
            raise


def lay_out() -> dict[str, applications.Application]:
    """The applications, in place of those of an earlier run."""
    for each in world.APPLICATIONS.iterdir():
        shutil.rmtree(each)
    return applications.lay_out()


def set_rules(direct, tunnelled, blocked) -> None:
    run("vantryctl", "rules", "default", "vpn")
    run("vantryctl", "rules", "set", direct.identifier, "direct")
    run("vantryctl", "rules", "set", tunnelled.identifier, "vpn")
    run("vantryctl", "rules", "block", blocked.identifier)
    run("vantryctl", "rules", "fallback", "vpn", "block")


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--vpn", default="")
    parser.add_argument("--firewall", default="")
    parser.add_argument("--without", type=json.loads, default=[], help="pairs of both, as a list of lists")
    options = parser.parse_args()
    uplink.up()
    package.leave_manual_unindexed()
    package.install()
    programs = lay_out()
    for vpn in (each for each in all_vpns() if options.vpn in each.name):
        firewalls = [each for each in all_firewalls()
                     if options.firewall in each.name and [vpn.name, each.name] not in options.without]
        try_vpn(vpn, firewalls, programs)


def try_vpn(vpn: Vpn, firewalls: list[Firewall], programs: dict[str, applications.Application]) -> None:
    prepared = False
    for firewall in firewalls:
        def say(**cell) -> None:
            print(json.dumps({"vpn": vpn.name, "firewall": firewall.name, **cell}), flush=True)
        try:
            if not prepared:
                uplink.manage_by(vpn.manager)
                vpn.prepare()
                prepared = True
            Trial(vpn, firewall, programs).play(say)
        except _FAULTS as reason:
            say(cell="all", state="fails", why=f"could not be tried: {reason}")


if __name__ == "__main__":
    main()
