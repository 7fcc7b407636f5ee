"""The descriptors of a daemon that relays run out: no new claims, and everything else goes on as ever."""

import concurrent.futures
import os
import pathlib
import resource
import time

from vantrylab import host, network, verdicts
from vantrylab.host import Rules

RULES = Rules(rules={"com.example.courier": "direct", "com.example.studio": "direct", "com.example.ledger": "vpn"},
              blockedApps=("com.example.chatter",))
DESCRIPTORS = 256
# Each relayed connection takes two descriptors, and two more while bytes wait in it.
FEW, MANY = 30, 120
# To find out whose a connection is takes a few; these are enough for many at once.
SPARE = 32
COMPLAINT = "Descriptors are running out; new direct flows are left to the system"


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(RULES, descriptors=DESCRIPTORS, directCarriage="relay")
    relayed = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 60)
    relayed.report()
    hoard, hoard_address = _before_the_shortage(stage)
    crowd = _more_than_it_can_claim(stage)
    _bytes_that_nobody_fetches(stage, hoard, hoard_address)
    _the_others(stage)
    _it_rests(stage)
    crowd.stop()
    stage.expect_untouched(f"{FEW} downloads that waited meanwhile are complete", hoard)
    _claims_again(stage)
    _a_change_without_one(stage)
    stage.expect_untouched("a relayed upload has gone on all the time", relayed)
    stage.stop_daemon()
    network.vpn_down()


def _a_change_without_one(stage) -> None:
    """The rules cannot be read when their change is told."""
    process, since = stage.daemon.process.pid, stage.daemon.mark()
    limits = resource.prlimit(process, resource.RLIMIT_NOFILE)
    resource.prlimit(process, resource.RLIMIT_NOFILE, (8, limits[1]))
    host.write_rules(RULES.but(blockedApps=("com.example.chatter", "com.example.ledger")))
    host.post()
    stage.expect_line("rules that cannot be read are said", "is not in force; it is tried again each second", since)
    resource.prlimit(process, resource.RLIMIT_NOFILE, limits)
    stage.expect_line("they are read later", "What could not be read has been read", since)
    address = stage.ipv4()
    stage.expect_denied("and are in force", stage.ledger.run("connect", address, 80), address)


def _before_the_shortage(stage):
    address = stage.ipv4()
    hoard = stage.studio.start("hoard", address, 8080, "--count", FEW, "--bytes", 4_000_000,
                               "--patience", 20)
    first = hoard.report()
    stage.checks.check(f"{FEW} connections are relayed", first["error"] == "" and
                       _clients_at(address) == [network.CLIENT_IPV4] * FEW, first)
    return hoard, address


def _bytes_that_nobody_fetches(stage, hoard, address: str) -> None:
    """They lie in the relay, which would like a pipe for each connection."""
    hoard.ask("")
    sent = [-1, 0]

    def no_more_come():
        time.sleep(0.1)
        sent[:] = sent[1], sum(each.bytesSent for each in network.seen_at(address))
        return sent[0] == sent[1] > 1_000_000
    network.wait_until(no_more_come, "the relay is full")
    held = len(os.listdir(f"/proc/{stage.daemon.process.pid}/fd"))
    stage.checks.check("waiting bytes leave descriptors for verdicts", held < DESCRIPTORS - SPARE, held)


def _more_than_it_can_claim(stage):
    address, since = stage.ipv4(), stage.daemon.mark()
    crowd = stage.courier.start("crowd", address, 8080, "--count", MANY, "--duration", 60)
    first = crowd.report()
    clients = _clients_at(address)
    claimed, left = clients.count(network.CLIENT_IPV4), clients.count(network.TUNNEL_IPV4)
    stage.checks.check(f"of {MANY} connections some are relayed, the others left to the system, none fails",
                       first["error"] == "" and claimed > 0 and left > 0 and claimed + left == MANY,
                       (first, claimed, left))
    stage.expect_line("the shortage is logged", COMPLAINT, since)
    stage.checks.equal("the shortage is logged once", stage.daemon.count(COMPLAINT), 1)
    return crowd


def _clients_at(address: str) -> list[str]:
    return [each.client for each in network.seen_at(address)]


def _the_others(stage) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        for application, expect in ((stage.courier, stage.expect_tunnel), (stage.ledger, stage.expect_tunnel),
                                    (stage.nobody, stage.expect_tunnel), (stage.chatter, stage.expect_denied)):
            for mode in ("connect", "datagram"):
                address = next_address()
                expect(f"descriptors are short: {mode} of {application.identifier} to {address}",
                       application.run(mode, address, 8080), address)
    addresses = [stage.ipv4() for _ in range(24)]
    with concurrent.futures.ThreadPoolExecutor(len(addresses)) as pool:
        reports = pool.map(lambda each: stage.chatter.run("connect", each, 80), addresses)
    passed = [verdict.seen for report, address in zip(reports, addresses)
              if not (verdict := verdicts.was_denied(report, address)).is_so]
    stage.checks.equal(f"descriptors are short: {len(addresses)} blocked connections at once", passed, [])
    address = stage.ipv4()
    upload = stage.ledger.start("upload", address, 8080, "--duration", 20)
    upload.report()
    changed_at = stage.now()
    stage.apply(RULES.but(blockedApps=("com.example.chatter", "com.example.ledger")))
    stage.expect_ended("descriptors are short: a change of the rules ends a watched upload",
                       upload.finish(), changed_at, ("ECONNABORTED",))
    stage.apply(RULES)


def _it_rests(stage) -> None:
    def does_little():
        before = _seconds_of_work(stage.daemon.process.pid)
        time.sleep(1)
        spent = _seconds_of_work(stage.daemon.process.pid) - before
        return spent < 0.1, f"{spent} s of work in one second"
    stage.checks.eventually("descriptors are short: the daemon does not spin", does_little)


def _seconds_of_work(pid: int) -> float:
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def _claims_again(stage) -> None:
    def goes_direct():
        report = stage.courier.run("connect", stage.ipv4(), 80)
        return report["serverSaw"] == network.CLIENT_IPV4, report
    stage.checks.eventually("connections have gone: direct ones are claimed again", goes_direct)
    for next_address in (stage.ipv4, stage.ipv6):
        for application, expect in ((stage.courier, stage.expect_physical), (stage.chatter, stage.expect_denied)):
            address = next_address()
            expect(f"connections have gone: {application.identifier} to {address}",
                   application.run("connect", address, 80), address)
