"""The daemon's end, wanted or not, leaves the machine as it was, with its traffic flowing.

SAFETY_KILLS says how often it is killed at random moments under load, for each way of carrying direct
connections; SAFETY_SEED draws the same moments again.
"""

import json
import os
import random
import re
import signal
import subprocess
import threading
import time

from vantrylab import network
from vantrylab.host import Rules

RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn"},
              blockedApps=("com.example.chatter",))
# For how many seconds the address of connections that were under way may stay.
LONGEST_LIFETIME = {signal.SIGKILL: 30, signal.SIGTERM: 3, signal.SIGINT: 3}
# So often that there is always a byte on its way.
BUSY = ("--pace", 0.001)
KILLS = int(os.environ.get("SAFETY_KILLS", "3"))
ENDINGS = (signal.SIGKILL, signal.SIGTERM, signal.SIGINT)


def run(stage) -> None:
    network.vpn_up()
    before = _settled_traces()
    for ending in ENDINGS:
        _end_under_load(stage, ending, before)
    for ending in (signal.SIGKILL, signal.SIGTERM):
        _restart(stage, ending)
    # These leave hundreds of resets to the tunnel, more than it can carry beside datagrams.
    for ending in (signal.SIGKILL, signal.SIGTERM):
        _end_after_the_vpn(stage, ending)
    _ends_while_packets_wait(stage)
    for carriage in ("relay", "kernel"):
        _killed_at_random_moments(stage, carriage)
    network.vpn_down()


def _traces(longest_lifetime: int = 0, with_steering: bool = False) -> set[str]:
    """What stands at all places where the daemon could leave something, a line each.

    Addresses of the loopback interface that run out by themselves within so many seconds, and the routes
    to them, do not count. What connections that the kernel carries need, once the daemon was killed, stays
    for the next start.
    """
    places = (["nft", "list", "ruleset"], ["ip", "rule"], ["ip", "-6", "rule"],
              ["ip", "-4", "route", "show", "table", "all"], ["ip", "-6", "route", "show", "table", "all"])
    found = set()
    for place in places:
        output = subprocess.run(place, capture_output=True, text=True, check=True).stdout
        if with_steering:
            output = re.sub(r"table inet vantry_steering \{.*?\n\}\n", "", output, flags=re.DOTALL)
            output = re.sub(r"^.*(lookup|table) 7(6[89]|7[01])\d\b.*\n", "", output, flags=re.MULTILINE)
        found |= {f"{' '.join(place)}: {line}" for line in output.splitlines()}
    addresses = _addresses_of_loopback()
    found |= {f"address: {address}" for address in addresses}
    brief = [address for address, seconds in addresses.items() if seconds <= longest_lifetime]
    gone = {f"address: {address}" for address in brief}
    return {line for line in found - gone
            if not any(f"local {address} dev lo " in line for address in brief)}


def _addresses_of_loopback() -> dict[str, int]:
    """Each with the seconds after which the kernel takes it away."""
    output = subprocess.run(["ip", "-json", "address", "show", "dev", "lo"],
                            capture_output=True, text=True, check=True).stdout
    return {each["local"]: each["valid_life_time"] for each in json.loads(output)[0]["addr_info"]}


def _end_under_load(stage, ending: signal.Signals, before: set[str]) -> None:
    stage.start_daemon(RULES)
    outlives = stage.is_carried_by_kernel() and ending == signal.SIGKILL
    direct = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
    watched = [stage.ledger.start("upload", address, 8080, "--duration", 20, *BUSY)
               for address in (stage.ipv4(), stage.ipv6(), stage.ipv4())]
    passed = stage.nobody.start("upload", stage.ipv4(), 8080, "--duration", 20)
    for each in (direct, *watched, passed):
        each.report()
    address = stage.ipv4()
    stage.expect_denied(f"{ending.name}: before it", stage.chatter.run("connect", address, 80), address)
    status = stage.daemon.stop(ending, seconds=3)
    ended_at = stage.now()
    stage.daemon = None
    expected = -signal.SIGKILL if ending == signal.SIGKILL else 0
    stage.checks.equal(f"{ending.name}: the daemon ends", status, expected)
    for application in (stage.courier, stage.ledger, stage.nobody, stage.chatter):
        for next_address in (stage.ipv4, stage.ipv6):
            address = next_address()
            stage.expect_tunnel(f"{ending.name}: {application.identifier} connects as if there had been none",
                                application.run("connect", address, 80), address)
    if outlives:
        stage.expect_untouched(f"{ending.name}: what the kernel carries goes on", direct)
    else:
        _expect_broken(stage, ending.name, direct, ended_at)
    for each in watched:
        stage.expect_untouched(f"{ending.name}: a watched upload goes on", each)
    stage.expect_untouched(f"{ending.name}: the passed upload goes on", passed)
    stage.checks.eventually(
        f"{ending.name}: nothing is left behind",
        lambda: (not (difference := _traces(LONGEST_LIFETIME[ending], outlives) ^ before), difference))


def _settled_traces(longest_lifetime: int = 0) -> set[str]:
    """The same once the VPN has put everything in place: two looks half a second apart agree."""
    seen = _traces(longest_lifetime)
    while True:
        time.sleep(0.5)
        now = _traces(longest_lifetime)
        if now == seen:
            return now
        seen = now


def _restart(stage, ending: signal.Signals) -> None:
    """Under load it breaks what is direct and nothing else; the new daemon does its work at once."""
    stage.start_daemon(RULES)
    direct = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
    direct.report()
    # A datagram that waits for its verdict when the daemon is killed is lost, as datagrams may be.
    others = [(f"{application.identifier}'s {mode} to {address}",
               application.start(mode, address, 8080, "--duration", 20, "--repeat", 0.5, *BUSY))
              for application in (stage.ledger, stage.nobody) for mode in ("upload", "datagrams")
              for address in (stage.ipv4(), stage.ipv6())]
    for _, each in others:
        each.report()
    stage.daemon.stop(ending)
    stage.start_daemon(RULES)
    ended_at = stage.now()
    for application, expect in ((stage.courier, stage.expect_physical), (stage.ledger, stage.expect_tunnel),
                                (stage.chatter, stage.expect_denied)):
        for next_address in (stage.ipv4, stage.ipv6):
            address = next_address()
            expect(f"{ending.name} and restart: {application.identifier} to {address}",
                   application.run("connect", address, 80), address)
    _expect_broken(stage, f"{ending.name} and restart", direct, ended_at)
    for name, each in others:
        stage.expect_untouched(f"{ending.name} and restart: {name} goes on", each)
    stage.stop_daemon()


def _end_after_the_vpn(stage, ending: signal.Signals) -> None:
    """Direct connections with the address of a tunnel that has gone hear of the daemon's end, too."""
    stage.start_daemon(RULES)
    address = stage.ipv4()
    crowd = stage.courier.start("crowd", address, 8080, "--count", 500, "--duration", 60)
    outlives = stage.is_carried_by_kernel() and ending == signal.SIGKILL
    first = crowd.report()
    stage.checks.check(f"{ending.name} after the VPN's end: connections are direct",
                       first["error"] == "" and first["serverSaw"] == network.CLIENT_IPV4, first)
    network.vpn_down()
    stage.daemon.stop(ending)
    stage.daemon = None
    if outlives:
        stage.expect_untouched(f"{ending.name} after the VPN's end: they go on", crowd)
    else:
        stage.checks.eventually(f"{ending.name} after the VPN's end: none of them hangs",
                                lambda: (not (established := _established_to(address)), established[:3]))
        report = crowd.conclude()
        stage.checks.check(f"{ending.name} after the VPN's end: the application hears of it",
                           report["error"] in ("ECONNRESET", "EPIPE", "EOF"), report)
    network.vpn_up()


def _established_to(address: str) -> list[str]:
    """Connections of this machine whose own side believes that they go on."""
    return subprocess.run(["ss", "-Htn", "state", "established", "dst", address],
                          capture_output=True, text=True, check=True).stdout.splitlines()


def _expect_broken(stage, name: str, direct, ended_at: float) -> None:
    report = direct.finish()
    stage.checks.check(f"{name}: the direct upload ends and does not hang",
                       report["error"] in ("ECONNRESET", "EPIPE", "EOF", "ECONNABORTED") and report["at"] < ended_at + 1, report)


def _ends_while_packets_wait(stage) -> None:
    """First packets that wait for a verdict when the daemon is killed are sent once more, and pass."""
    stage.start_daemon(RULES)
    stage.daemon.stand_still()
    addresses = [stage.ipv4() for _ in range(3)]
    waiting = [stage.courier.start("connect", address, 80) for address in addresses]
    stage.daemon.stop(signal.SIGKILL)
    stage.daemon = None
    for address, each in zip(addresses, waiting):
        stage.expect_tunnel(f"waiting for a verdict when the daemon died: {address}", each.finish(), address)


def _killed_at_random_moments(stage, carriage: str) -> None:
    """Connections of all kinds come all the time, some are just being made: each ends or goes on, none hangs."""
    # An orderly end takes along what earlier kills have left.
    stage.start_daemon(RULES)
    stage.stop_daemon()
    before = _settled_traces(LONGEST_LIFETIME[signal.SIGKILL])
    seed = os.environ.get("SAFETY_SEED", str(time.time_ns() % 1_000_000))
    draw, hanging = random.Random(f"{seed} {carriage}"), []
    for _ in range(KILLS):
        stage.start_daemon(RULES, directCarriage=carriage)
        is_over, reports = threading.Event(), []
        makers = [threading.Thread(target=_keep_connecting, args=(application, is_over, reports, draw.random()))
                  for application in (stage.courier, stage.courier, stage.courier, stage.ledger, stage.studio)]
        for each in makers:
            each.start()
        time.sleep(draw.uniform(0.1, 0.5))
        stage.daemon.stop(signal.SIGKILL)
        stage.daemon = None
        is_over.set()
        for each in makers:
            each.join()
        hanging += [report for report in reports if report["error"] == "ETIMEDOUT"]
    name = f"{KILLS} kills, direct connections carried by the {carriage}, seed {seed}"
    stage.checks.equal(f"{name}: none hangs", hanging, [])
    stage.checks.eventually(f"{name}: nothing is left behind", lambda: (
        not (difference := _traces(LONGEST_LIFETIME[signal.SIGKILL], carriage == "kernel") ^ before), difference))


def _keep_connecting(application, is_over: threading.Event, reports: list, seed: float) -> None:
    draw, process = random.Random(seed), application.start("serve")
    while not is_over.is_set():
        number = draw.randrange(250)
        address = network.server_ipv4(number) if draw.random() < 0.5 else network.server_ipv6(number)
        reports.append(process.ask(draw.choice(("connect", "connect", "echo")), address, 8080))
    process.stop()
