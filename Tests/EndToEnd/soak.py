"""Random applications, rule changes, a VPN that comes and goes, daemons that end: never a wrong verdict.

Every round draws rules and the VPN's state, puts them in force, and lets many applications use the
network at once; each must fare as a small model of the rules says. Over many of the rounds a crowd
of relayed connections stays open, through all that does not concern it. At the end nothing has
grown. SOAK_SECONDS and SOAK_SEED change how long and what; the seed is printed, and the same one
draws the same rounds. With SOAK_STEADY=1 one daemon lives through all of them, many short flows go beside
them, and each minute a line says what there have been and what the daemon and the kernel hold.
"""

import concurrent.futures
import collections
import contextlib
import dataclasses
import os
import pathlib
import random
import re
import resource
import signal
import subprocess
import threading
import time

from vantrylab import network, verdicts, world
from vantrylab.applications import Application
from vantrylab.host import Rules

SECONDS = float(os.environ.get("SOAK_SECONDS", "20"))
IS_STEADY = os.environ.get("SOAK_STEADY") == "1"
NAMES = ("courier", "ledger", "chatter", "nobody", "studio", "fetch", "grab")
ATTEMPTS_A_ROUND = 24
# As many as the daemon has descriptors for: two for each, and some for its other work.
CROWD = min(1000, (resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 200) // 2)
# Pipes that the relay keeps for the next connection, and the like: few, whatever came before.
SPARE = 16
MODES = (("connect", 80), ("connect", 443), ("connect", 80, "--mapped"), ("connect", 80, "--in-child"),
         ("echo", 8080, "--bytes", "100000"), ("datagram", 443), ("datagram", 8080), ("resolve", 53))


@dataclasses.dataclass
class Attempt:
    application: Application
    words: tuple
    address: str
    report: dict = dataclasses.field(default_factory=dict)

    def make(self) -> None:
        mode, port, *options = self.words
        self.report = self.application.run(mode, self.address, port, *options)


def run(stage) -> None:
    seed = int(os.environ.get("SOAK_SEED", time.time_ns() % 1_000_000))
    print(f"      seed {seed}, {SECONDS:.0f} seconds", flush=True)
    draw = random.Random(seed)
    network.vpn_up()
    stage.start_daemon(_rules(draw, stage, is_up=True))
    crowd = Crowd(stage)
    play_round(stage, draw, "warming up", crowd)
    crowd.open()
    crowd.expect_untouched()
    before = _held_at_rest(stage.daemon)
    with ShortFlows(stage, seed) if IS_STEADY else contextlib.nullcontext():
        _rounds(stage, draw)
    if network.vpn_layout() is None:
        network.vpn_up()
    crowd.open()
    crowd.expect_untouched()
    _nothing_has_grown(stage, before)
    stage.stop_daemon()
    network.vpn_down()


def _rules(draw: random.Random, stage, is_up: bool) -> Rules:
    identifiers = [stage.applications[name].identifier for name in NAMES]
    ruled = draw.sample(identifiers, draw.randint(0, len(identifiers)))
    return Rules(rules={each: draw.choice(("direct", "vpn")) for each in ruled},
                 defaultAction=draw.choice(("vpn", "vpn", "direct")), vpnConnected=is_up,
                 vpnFallback=draw.choice(("allow", "block")),
                 blockedApps=tuple(draw.sample(identifiers, draw.randint(0, 2))))


def _rounds(stage, draw: random.Random) -> None:
    end, number, crowd = time.monotonic() + SECONDS, 0, Crowd(stage)
    while time.monotonic() < end:
        number += 1
        if draw.random() < 0.3:
            flap(draw)
        if not IS_STEADY and draw.random() < 0.1:
            _restart(stage, draw)
            crowd.expect_broken()
        if crowd.is_open() and draw.random() < 0.2:
            crowd.expect_untouched()
        play_round(stage, draw, f"round {number}", crowd)
        if not crowd.is_open() and draw.random() < 0.3:
            crowd.open()
    if crowd.is_open():
        crowd.expect_untouched()


class Crowd:
    """Many relayed connections of one process at once; while they are open its rule does not change."""

    def __init__(self, stage):
        self._stage = stage
        self._running = None

    def is_open(self) -> bool:
        return self._running is not None

    def fit(self, rules: Rules) -> Rules:
        """The rules, with that of the crowd's application as it has to be."""
        identifier = self._stage.courier.identifier
        return rules.but(rules={**rules.rules, identifier: "direct"},
                         blockedApps=tuple(each for each in rules.blockedApps if each != identifier))

    def open(self) -> None:
        self._stage.apply(self.fit(Rules(vpnConnected=network.vpn_layout() is not None)))
        threads = _held_by(self._stage.daemon).threads
        self._running = self._stage.courier.start("crowd", self._stage.ipv4(), 8080, "--count", CROWD,
                                                  "--duration", 600)
        first = self._running.report()
        self._stage.checks.check(f"{CROWD} relayed connections are up, VPN {network.vpn_layout()}",
                                 first["error"] == "" and first["serverSaw"] == network.CLIENT_IPV4, first)
        self._stage.checks.check("and cost no thread each",
                                 (now := _held_by(self._stage.daemon).threads) <= threads + 6, (threads, now))

    def expect_untouched(self) -> None:
        running, self._running = self._running, None
        self._stage.expect_untouched(f"all {CROWD} connections have lived through the changes", running)

    def expect_broken(self) -> None:
        """After the daemon's end they have ended too, and none hangs."""
        running, self._running = self._running, None
        if running is None:
            return
        report = running.conclude()
        self._stage.checks.check("the daemon's end has ended the relayed connections",
                                 report["error"] in ("ECONNRESET", "EPIPE", "EOF", "ECONNABORTED"), report)


class ShortFlows:
    """Connections and datagrams of all applications, one after the other in each, while it is open.

    Their server keeps a list of what it has seen, so it begins again each minute, when the figures are printed.
    """

    PORT, UNUSED_PORT = 9090, 9
    SECONDS_BETWEEN = 0.02

    def __init__(self, stage, seed: int):
        self._stage = stage
        self._is_over = threading.Event()
        self._made = dict.fromkeys(NAMES, 0)
        self._threads = [threading.Thread(target=self._make, args=(name, random.Random(f"{seed} {name}")))
                         for name in NAMES] + [threading.Thread(target=self._print_figures)]

    def __enter__(self):
        for each in self._threads:
            each.start()

    def __exit__(self, *_):
        self._is_over.set()
        for each in self._threads:
            each.join()

    def _make(self, name: str, draw: random.Random) -> None:
        process = self._stage.applications[name].start("serve")
        while not self._is_over.wait(self.SECONDS_BETWEEN):
            number = draw.randrange(250)
            address = network.server_ipv4(number) if draw.random() < 0.5 else network.server_ipv6(number)
            process.ask(draw.choice(("connect", "connect", "datagram")), address,
                        draw.choice((self.PORT, self.PORT, self.UNUSED_PORT)), "--patience", 0.2)
            self._made[name] += 1
        process.stop()

    def _print_figures(self) -> None:
        minute, begun = 0, time.monotonic()
        while not self._is_over.is_set():
            server = self._serve()
            self._is_over.wait(begun + 60 * (minute + 1) - time.monotonic())
            minute += 1
            held = _held_by(self._stage.daemon)
            entries = int(pathlib.Path("/proc/sys/net/netfilter/nf_conntrack_count").read_text())
            print(f"      minute {minute}: {sum(self._made.values())} short flows; the daemon: {held.kilobytes} KiB,"
                  f" {held.descriptors.total()} descriptors, {held.threads} threads; the kernel: {entries}"
                  f" connections, {_slab()} KiB of slab", flush=True)
            server.kill()
            server.wait()

    def _serve(self) -> subprocess.Popen:
        places = [f"{protocol}:{self.PORT}" for protocol in ("tcp", "udp")]
        control = world.STATE / "short.sock"
        control.unlink(missing_ok=True)
        return subprocess.Popen(network.in_server([str(world.BUILD / "Lab" / "lab-server"), str(control), *places]))


def _slab() -> int:
    """Of the whole machine, which other programs use too."""
    lines = dict(line.split(":", 1) for line in pathlib.Path("/proc/meminfo").read_text().splitlines())
    return int(lines["SUnreclaim"].split()[0])


def flap(draw: random.Random) -> None:
    if network.vpn_layout() is not None:
        network.vpn_down()
    else:
        network.vpn_up(draw.choice(network.LAYOUTS))


def _restart(stage, draw: random.Random) -> None:
    stage.daemon.stop(draw.choice((signal.SIGKILL, signal.SIGTERM)))
    stage.start_daemon(Rules())


def play_round(stage, draw: random.Random, name: str, crowd: "Crowd") -> None:
    rules = _rules(draw, stage, is_up=network.vpn_layout() is not None)
    if crowd.is_open():
        rules = crowd.fit(rules)
    stage.apply(rules)
    attempts = [Attempt(stage.applications[draw.choice(NAMES)], draw.choice(MODES), "")
                for _ in range(ATTEMPTS_A_ROUND)]
    for attempt in attempts:
        is_ipv4 = "--mapped" in attempt.words or draw.random() < 0.6
        attempt.address = stage.ipv4() if is_ipv4 else stage.ipv6()
    seen_before, since = len(network.observations()), stage.daemon.mark()
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        list(pool.map(Attempt.make, attempts))
    arrived = network.observations()[seen_before:]
    wrong = [_describe(each, rules, arrived, stage, since) for each in attempts
             if not _is_as_ruled(rules, each, arrived)]
    stage.checks.check(f"{name}: {len(attempts)} attempts, all as ruled, VPN {network.vpn_layout()}",
                       not wrong, "\n".join([str(rules), *wrong]))


def _describe(attempt: Attempt, rules: Rules, arrived: list[network.Observation], stage, since: int) -> str:
    clients = [each.client for each in arrived if each.server == attempt.address]
    report = {key: attempt.report[key] for key in ("outcome", "phase", "error", "serverSaw", "milliseconds")}
    lines = [each.text for each in stage.daemon.lines(since)]
    first = next((number for number, text in enumerate(lines) if attempt.address in text), len(lines))
    return (f"      {attempt.application.identifier} {attempt.words} to {attempt.address}: {report};"
            f" expected {_expected_client(rules, attempt)}, server saw {clients}, daemon said\n" +
            "\n".join(f"        {text}" for text in lines[first:first + 30]))


def _is_as_ruled(rules: Rules, attempt: Attempt, arrived: list[network.Observation]) -> bool:
    clients = {each.client for each in arrived if each.server == attempt.address}
    expected = _expected_client(rules, attempt)
    if expected is None:
        return not clients and attempt.report["outcome"] == "failed" and \
            attempt.report["milliseconds"] < 5 * verdicts.AT_ONCE_MILLISECONDS
    return clients == {expected} and attempt.report["outcome"] in ("connected", "finished", "answered")


def _expected_client(rules: Rules, attempt: Attempt) -> str | None:
    """The address with which the attempt has to arrive; None if it must not."""
    is_ipv6 = ":" in attempt.address
    physical = network.CLIENT_IPV6 if is_ipv6 else network.CLIENT_IPV4
    tunnel = network.TUNNEL_IPV6 if is_ipv6 else network.TUNNEL_IPV4
    system = tunnel if rules.vpnConnected else physical
    mode, port, *_ = attempt.words
    is_datagram = mode in ("datagram", "resolve")
    identifier = attempt.application.identifier
    if identifier in rules.blockedApps:
        return system if mode == "resolve" else None
    rule = rules.rules.get(identifier)
    if (rule or rules.defaultAction) == "direct" and not is_datagram:
        return physical
    falls_back = rule == "vpn" and not rules.vpnConnected and rules.vpnFallback == "block"
    return None if falls_back and (not is_datagram or port == 443) else system


# Of packet rules: a table or chain without a rule may stay.
_FRAME = re.compile(r"\s*(table|chain|type|flags|}|$)")


@dataclasses.dataclass(frozen=True)
class Held:
    descriptors: collections.Counter
    threads: int
    kilobytes: int
    rules: int
    aliases: int


def _held_by(daemon) -> Held:
    process = pathlib.Path(f"/proc/{daemon.process.pid}")
    status = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
    return Held(descriptors=_descriptors_of(process), threads=int(status["Threads"]),
                kilobytes=int(status["VmRSS"].split()[0]),
                rules=sum(not _FRAME.match(line) for line in _output("nft", "list", "ruleset").splitlines()),
                aliases=len(_output("ip", "address", "show", "dev", "lo").splitlines()))


def _descriptors_of(process: pathlib.Path) -> collections.Counter:
    kinds = collections.Counter()
    for each in (process / "fd").iterdir():
        # One may be closed while we look.
        with contextlib.suppress(FileNotFoundError):
            kinds[os.readlink(each).split(":")[0]] += 1
    return kinds


def _held_at_rest(daemon) -> Held:
    """What it holds once that no longer changes from one look to the next."""
    held, end = _held_by(daemon), time.monotonic() + 20
    while time.monotonic() < end:
        time.sleep(0.5)
        earlier, held = held, _held_by(daemon)
        if held.descriptors == earlier.descriptors:
            break
    return held


def _output(*command: str) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def _nothing_has_grown(stage, before: Held) -> None:
    def settled():
        now = _held_by(stage.daemon)
        return (now.descriptors.total() <= before.descriptors.total() + SPARE and now.threads <= before.threads + 6
                and now.rules == before.rules and now.aliases <= before.aliases
                and now.kilobytes < before.kilobytes + 65536), (before, now)
    stage.checks.eventually("descriptors, threads, memory, rules and addresses are as before", settled,
                            seconds=40)
