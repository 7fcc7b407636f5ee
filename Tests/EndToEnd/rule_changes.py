"""What a change of the rules does to connections that run: each meets it, and no other does."""

import os
import time

from vantrylab import host, network
from vantrylab.host import Rules
from vantrylab.verdicts import ENDED

# So many sessions take so many times 50 ms to end.
MANY = int(os.environ.get("RULE_CHANGE_SESSIONS", "100"))
COURIER, LEDGER, NOBODY = "com.example.courier", "com.example.ledger", "com.example.nobody"
RULES = Rules(rules={COURIER: "direct", LEDGER: "vpn"})


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(RULES)
    _off_the_direct_path(stage)
    _onto_the_direct_path(stage)
    _removed(stage)
    _sessions_end_one_after_another(stage)
    _nothing_passes_while_many_wait_for_their_end(stage)
    _what_no_change_concerns(stage)
    _one_touch_is_one_delivery(stage)
    _a_bad_file_changes_nothing(stage)
    stage.stop_daemon()
    network.vpn_down()


def _changes(stage, name: str, application, before: Rules, after: Rules, errors, expect) -> None:
    """An upload that runs under `before` ends with `after`; the next connection goes the new way."""
    for next_address in (stage.ipv4, stage.ipv6):
        stage.apply(before)
        address = next_address()
        process = application.start("serve")
        process.tell("upload", address, 8080, "--duration", 20)
        process.report()
        changed_at = stage.now()
        stage.apply(after)
        stage.expect_ended(f"{name}: the upload to {address} ends", process.report(), changed_at, errors)
        address = next_address()
        expect(f"{name}: the same process connects again to {address}",
               process.ask("connect", address, 80), address)
        process.stop()


def _off_the_direct_path(stage) -> None:
    after = RULES.but(rules={COURIER: "vpn", LEDGER: "vpn"})
    _changes(stage, "direct to vpn", stage.courier, RULES, after, ENDED, stage.expect_tunnel)


def _onto_the_direct_path(stage) -> None:
    after = RULES.but(rules={COURIER: "direct", LEDGER: "direct"})
    since = stage.daemon.mark()
    _changes(stage, "vpn to direct", stage.ledger, RULES, after, ENDED, stage.expect_physical)
    stage.expect_line("vpn to direct: a watched connection is stale", f"DROP stale VPN flow: {LEDGER}", since)
    after = RULES.but(rules={**RULES.rules, NOBODY: "direct"})
    _changes(stage, "no rule to direct", stage.nobody, RULES, after, ENDED, stage.expect_physical)


def _removed(stage) -> None:
    after = RULES.but(rules={LEDGER: "vpn"})
    _changes(stage, "direct rule removed", stage.courier, RULES, after, ENDED, stage.expect_tunnel)
    since = stage.daemon.mark()
    after = RULES.but(rules={COURIER: "direct"})
    _changes(stage, "vpn rule removed", stage.ledger, RULES, after, ENDED, stage.expect_tunnel)
    stage.expect_line("vpn rule removed: a watched connection is stale",
                      f"DROP stale VPN flow: {LEDGER}", since)


def _sessions_end_one_after_another(stage) -> None:
    stage.apply(RULES)
    uploads = [stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20) for _ in range(4)]
    for upload in uploads:
        upload.report()
    stage.apply(RULES.but(rules={LEDGER: "vpn"}))
    ends = sorted(upload.finish()["at"] for upload in uploads)
    gaps = [later - earlier for earlier, later in zip(ends, ends[1:])]
    stage.checks.check("four sessions end spread out in time", ends[-1] - ends[0] > 0.1, gaps)


def _nothing_passes_while_many_wait_for_their_end(stage) -> None:
    """What has to go ends 50 ms apart, and from the change on not a byte of it passes either way."""
    for what, after in (("moved", RULES.but(rules={LEDGER: "vpn"})),
                        ("blocked", RULES.but(blockedApps=(COURIER,)))):
        stage.apply(RULES)
        address, since = stage.ipv4(), stage.daemon.mark()
        chatter = stage.courier.start("chatter", address, 8080, "--count", MANY, "--pace", 0.02,
                                        "--duration", 120)
        chatter.report()
        host.write_rules(after)
        host.post()
        stage.expect_line(f"{MANY} {what}: they are to end", f"illed {MANY} proxy sessions", since)
        time.sleep(0.1)
        held_at, held = stage.now(), sum(each.bytesReceived for each in network.seen_at(address))
        report = chatter.finish(wait=130)
        stage.checks.check(f"{MANY} {what}: none has a byte afterwards", report["lastByte"] <= held_at,
                           (report["lastByte"], held_at))
        stage.checks.equal(f"{MANY} {what}: none sends a byte afterwards",
                           sum(each.bytesReceived for each in network.seen_at(address)), held)
        ends = sorted(report["ends"])
        stage.checks.check(f"{MANY} {what}: all end, spread out in time",
                           len(ends) == MANY and ends[-1] - ends[0] > 0.04 * MANY, ends[-1] - ends[0])
    stage.apply(RULES)


def _what_no_change_concerns(stage) -> None:
    """A direct, a watched and a passed upload live through changes of others, flushes included."""
    stage.apply(RULES)
    uploads = {name: stage.applications[name].start("upload", stage.ipv4(), 8080, "--duration", 20)
               for name in ("courier", "ledger", "nobody")}
    datagrams = stage.nobody.start("datagrams", stage.ipv4(), 5353, "--duration", 20)
    for each in (*uploads.values(), datagrams):
        each.report()
    for other in ("direct", "vpn"):
        stage.apply(RULES.but(rules={**RULES.rules, "com.example.elsewhere": other},
                              blockedApps=("com.example.absent",) if other == "direct" else ()))
    for name, upload in uploads.items():
        stage.expect_untouched(f"another application's change leaves {name} alone", upload)
    stage.expect_untouched("another application's change leaves datagrams alone", datagrams)
    stage.apply(RULES)


def _one_touch_is_one_delivery(stage) -> None:
    since = stage.daemon.mark()
    for number in range(1, 4):
        host.post()
        # Of the delivery before the first touch only the beginning is sure to be past.
        stage.checks.check(f"touch {number} is delivered", stage.daemon.wait_for(
            "Received rules-changed", since, number) is not None)
    # What one touch delivered twice would show by the end of the next rules' way.
    stage.apply(RULES)
    received = sum("Received rules-changed" in line.text for line in stage.daemon.lines(since))
    stage.checks.equal("three touches and two are five deliveries", received, 5)


def _a_bad_file_changes_nothing(stage) -> None:
    for name, text in (("no JSON", "{"), ("no rules", "{}"), ("a number among the rules",
                                                              '{"rules":{"com.example.courier":1}}')):
        since = stage.daemon.mark()
        host.write_whole(host.RULES_FILE, text)
        host.post()
        stage.expect_line(f"{name}: noticed", "Failed to parse rules file", since)
        address = stage.ipv4()
        stage.expect_physical(f"{name}: the rules stay in force",
                              stage.courier.run("connect", address, 80), address)
    stage.apply(RULES)
