"""The daemon cannot give a verdict in time: nothing waits for it for long, and others hardly notice."""

import contextlib
import ctypes
import json
import os
import pathlib
import re
import socket
import subprocess
import threading

from vantrylab import host, network, verdicts, world
from vantrylab.daemon import Daemon
from vantrylab.host import Rules

RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn"},
              blockedApps=("com.example.chatter",))
# More than the daemon has threads for verdicts.
MANY = 40
# Each writes half a dozen lines.
FLOWS_THAT_FILL_THE_LOG = 20
_MNT_DETACH = 2


def run(stage) -> None:
    network.vpn_up()
    _nobody_reads_the_log(stage)
    _one_account_floods(stage)
    # It leaves without its hanging threads, which the thread sanitizer would call a leak.
    stage.start_daemon(RULES, environment={"TSAN_OPTIONS": "report_thread_leaks=0:atexit_sleep_ms=100"})
    _standing_still(stage)
    property_list = stage.courier.path.parent.parent / "Info.plist"
    with _hanging(property_list) as is_hanging:
        if not is_hanging:
            print("      a look-up that hangs: this kernel has no file systems of user programs")
            stage.stop_daemon()
            return
        _one_look_up_hangs(stage)
        _every_thread_hangs(stage)
    _all_is_well_again(stage)
    with _hanging(property_list):
        address = stage.ipv4()
        waiting = stage.courier.start("connect", address, 80)
        _wait_until_sent(address)
        stage.stop_daemon()
        waiting.finish()
    network.vpn_down()


def _nobody_reads_the_log(stage) -> None:
    """Standard error is full after some lines: verdicts and messages don't wait for it."""
    host.write_preferences(logLevel="debug")
    host.write_rules(RULES)
    host.MESSAGE_SOCKET.unlink(missing_ok=True)
    daemon = Daemon(is_read=False)
    network.wait_until(host.MESSAGE_SOCKET.exists, "the daemon takes messages")
    for _ in range(FLOWS_THAT_FILL_THE_LOG):
        address = stage.ipv4()
        report = stage.ledger.run("connect", address, 80)
        stage.expect_tunnel(f"unread log: ledger to {address}", report, address)
        stage.checks.check("unread log: nothing waits for it",
                           report["milliseconds"] < verdicts.AT_ONCE_MILLISECONDS, report)
    for application, expect in ((stage.courier, stage.expect_physical), (stage.chatter, stage.expect_denied)):
        address = stage.ipv4()
        expect(f"unread log: {application.identifier}", application.run("connect", address, 80), address)
    status = json.loads(subprocess.run([world.BUILD / "vantryctl", "status", "--json"], timeout=10,
                                       capture_output=True).stdout)
    stage.checks.equal("unread log: messages are answered, and no line is lost yet",
                       [status["ruleCount"], status["health"]["logLinesLost"]], [2, 0])
    stage.checks.equal("unread log: SIGTERM ends the daemon with status 0", daemon.stop(seconds=3), 0)


def _one_account_floods(stage) -> None:
    """More flows than can be decided, from one account: every verdict on another's is right."""
    if stage.applications_run_as_one_account():
        return
    stage.start_daemon(RULES)
    for name, flood, victim in (("datagrams", _send_eight_thousand, stage.nobody),
                                ("connections", _open_connections, stage.studio)):
        upload = victim.start("serve")
        upload.tell("upload", stage.ipv4(), 8080, "--duration", 60)
        upload.report()
        is_over, count = threading.Event(), [0]
        flooding = threading.Thread(target=_as_another_account, args=(flood, is_over, count))
        flooding.start()
        for _ in range(3):
            for next_address in (stage.ipv4, stage.ipv6):
                for application, expect in ((stage.courier, stage.expect_physical),
                                            (stage.ledger, stage.expect_tunnel), (stage.chatter, stage.expect_denied)):
                    address = next_address()
                    expect(f"flood of {name}: {application.identifier} to {address}",
                           application.run("connect", address, 80), address)
        host.write_rules(RULES.but(blockedApps=(*RULES.blockedApps, victim.identifier)))
        host.post()
        report = upload.report()
        stage.checks.check(f"flood of {name}: a block ends an open connection meanwhile",
                           report["error"] in verdicts.ENDED, report)
        upload.stop()
        # However soon the verdicts came, it was a flood.
        stage.checks.eventually(f"flood of {name}: it was one", lambda: (count[0] > 8000, count), seconds=60)
        is_over.set()
        flooding.join()
    stage.stop_daemon()


def _as_another_account(flood, is_over: threading.Event, count: list[int]) -> None:
    """The account under which sockets are made is a thread's own."""
    ctypes.CDLL(None).setfsuid(4711)
    while not is_over.is_set():
        flood(count)


def _send_eight_thousand(count: list[int]) -> None:
    """Each a flow of its own, to ports that no one serves; past the tunnel, which could not carry so many."""
    for _ in range(8):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for port in range(20000, 21000):
                with contextlib.suppress(OSError):
                    sender.sendto(b"?", (network.GATEWAY_IPV4, port))
                    count[0] += 1


def _open_connections(count: list[int]) -> None:
    """Given up as soon as they are asked for, some ten thousand a second."""
    for _ in range(100):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as client:
            client.setblocking(False)
            client.connect_ex((network.GATEWAY_IPV4, 20000))
            count[0] += 1


def _standing_still(stage) -> None:
    """First packets wait while every thread of the daemon is stopped, and are judged once it goes on."""
    stage.daemon.stand_still()
    attempts = [(application, judge, address, application.start("connect", address, 80))
                for application, judge in ((stage.courier, verdicts.went_physical),
                                           (stage.ledger, verdicts.went_through_tunnel),
                                           (stage.chatter, _was_refused))
                for address in (stage.ipv4(), stage.ipv6())]
    _wait_until_sent(*(address for _, _, address, _ in attempts))
    stage.daemon.go_on()
    for application, judge, address, attempt in attempts:
        stage.expect(f"stopped and continued: {application.identifier} to {address}",
                     judge(attempt.finish(), address))


def _was_refused(report: dict, address: str) -> verdicts.Verdict:
    """Whenever that was: the daemon had been stopped for a while."""
    is_so = report["phase"] == "connect" and report["error"] in verdicts.ENDED
    return verdicts.Verdict(is_so and not network.seen_at(address), str(report))


def _wait_until_sent(*addresses: str) -> None:
    """Until a socket for each address is there, which has sent its first packet or is about to.

    How many packets the kernel's queues hold is for the machine's own root only.
    """
    def are_there() -> bool:
        sockets = subprocess.run(["ss", "-Hntua"], check=True, capture_output=True, text=True).stdout
        return all(re.search(rf"[ \[]{re.escape(each)}\]?:\d+ *$", sockets, re.MULTILINE) for each in addresses)
    network.wait_until(are_there, "the first packets are on their way")


@contextlib.contextmanager
def _hanging(file: pathlib.Path):
    """Every look at the file hangs, as on a file system whose server has died, until the end.

    Gives whether that could be brought about. The server is this process, which answers nothing.
    """
    libc = ctypes.CDLL(None, use_errno=True)
    try:
        server = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
    except OSError:
        yield False
        return
    options = f"fd={server},rootmode=100644,user_id={os.getuid()},group_id={os.getgid()}"
    is_mounted = libc.mount(b"hanging", str(file).encode(), b"fuse", 0, options.encode()) == 0
    yield is_mounted
    os.close(server)
    if is_mounted:
        libc.umount2(str(file).encode(), _MNT_DETACH)


def _one_look_up_hangs(stage) -> None:
    for next_address, words, port in ((stage.ipv4, "connect", 80), (stage.ipv6, "connect", 80),
                                      (stage.ipv4, "datagram", 8080)):
        attempt = stage.courier.start(words, next_address(), port)
        for application, expect in ((stage.ledger, stage.expect_tunnel), (stage.nobody, stage.expect_tunnel),
                                    (stage.chatter, stage.expect_denied)):
            other = next_address()
            report = application.run("connect", other, 80)
            expect(f"a look-up hangs: {application.identifier} to {other}", report, other)
            stage.checks.check(f"a look-up hangs: {application.identifier} does not wait for it",
                               report["milliseconds"] < verdicts.AT_ONCE_MILLISECONDS, report)
        report = attempt.finish()
        stage.checks.check(f"a look-up hangs: its own {words} waits no longer for it", report["outcome"] in
                           ("connected", "answered") and report["milliseconds"] < 2000, report)


def _every_thread_hangs(stage) -> None:
    attempts = [(address, stage.courier.start("connect", address, 80))
                for address in (stage.ipv4() for _ in range(MANY))]
    held = [report for _, attempt in attempts if (report := attempt.finish())["outcome"] != "connected"]
    stage.checks.equal(f"{MANY} look-ups hang: no connection is held", held, [])
    address = stage.ipv4()
    report = stage.ledger.run("connect", address, 80)
    stage.expect_tunnel(f"{MANY} look-ups hang: another application connects", report, address)
    stage.checks.check(f"{MANY} look-ups hang: another application hardly waits",
                       report["milliseconds"] < 5000, report)


def _all_is_well_again(stage) -> None:
    def goes_direct():
        report = stage.courier.run("connect", stage.ipv4(), 80)
        return report["serverSaw"] == network.CLIENT_IPV4, report
    stage.checks.eventually("the look-ups end: direct again", goes_direct)
    for application, expect in ((stage.courier, stage.expect_physical), (stage.ledger, stage.expect_tunnel),
                                (stage.chatter, stage.expect_denied)):
        for next_address in (stage.ipv4, stage.ipv6):
            address = next_address()
            report = application.run("connect", address, 80)
            expect(f"the look-ups end: {application.identifier} to {address}", report, address)
            stage.checks.check(f"the look-ups end: {application.identifier} does not wait",
                               report["milliseconds"] < verdicts.AT_ONCE_MILLISECONDS, report)
