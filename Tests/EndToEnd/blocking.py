"""What a blocked application can and cannot do, at the start of a connection and while one runs."""

from vantrylab import network
from vantrylab.host import Rules
from vantrylab.verdicts import ENDED

CHATTER = "com.example.chatter"
RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn", CHATTER: "direct"})
BLOCKED = RULES.but(blockedApps=(CHATTER,))


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(BLOCKED)
    _new_flows(stage)
    _bound_to_an_interface(stage)
    _accounts_of_the_system(stage)
    _one_after_the_other_on_a_port(stage)
    _others_are_not_blocked(stage)
    _running_connections(stage)
    _unblocked(stage)
    stage.stop_daemon()
    network.vpn_down()


def _new_flows(stage) -> None:
    cases = (("TCP", ["connect"], 443, "tcp"), ("TCP to the name port", ["connect"], 53, "tcp"),
             ("datagram to 443", ["datagram"], 443, "udp"),
             ("datagram to another port", ["datagram"], 5353, "udp"))
    for name, words, port, protocol in cases:
        for next_address in (stage.ipv4, stage.ipv6):
            address = next_address()
            since = stage.daemon.mark()
            stage.expect_denied(f"blocked: {name} to {address}",
                                stage.chatter.run(*words, address, port), address)
            stage.expect_line(f"blocked: {name} to {address} is logged",
                              f"BLOCK: {CHATTER} {protocol.upper()} -> {address}:{port}", since)
            stage.expect_record(f"blocked: {name} to {address} is recorded", address,
                                bundleId=CHATTER, routingDecision="block", actualRoute="blocked",
                                destinationPort=port, protocolType=protocol, isVpnConnected=False,
                                sourceIp=None)
    address = stage.ipv4()
    stage.expect_denied("blocked: IPv4 through an IPv6 socket",
                        stage.chatter.run("connect", address, 80, "--mapped"), address)
    address = stage.ipv4()
    stage.chatter.run("datagram", address, 5353, "--unconnected", "--patience", 0.3)
    stage.expect_nothing_arrived("blocked: unconnected datagram", address)
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        stage.expect_tunnel(f"blocked: name look-ups go on, {address}",
                            stage.chatter.run("resolve", address, 53), address)
        stage.expect_no_record(f"blocked: name look-ups leave no record, {address}", address)


def _bound_to_an_interface(stage) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        report = stage.chatter.run("connect", address, 80, "--bind-device", network.PHYSICAL)
        stage.expect_denied(f"blocked: bound to an interface, {address}", report, address)


def _accounts_of_the_system(stage) -> None:
    """An application of a bundle is itself whoever runs it."""
    if stage.applications_run_as_one_account():
        return
    address = stage.ipv4()
    stage.expect_denied("blocked: also when root runs it",
                        stage.chatter.run("connect", address, 80, user=None), address)


def _one_after_the_other_on_a_port(stage) -> None:
    """Datagrams of a program that has the port and the peer of the one before are its own."""
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        words = ("datagram", address, 8080, "--source-port", 40123, "--patience", 0.5)
        stage.expect_tunnel(f"a port to {address} is used", stage.studio.run(*words), address)
        bytes_before = network.seen_at(address)[0].bytesReceived
        report = stage.chatter.run(*words)
        stage.checks.check(f"blocked: also on that port to {address}",
                           (report["outcome"], network.seen_at(address)[0].bytesReceived) ==
                           ("failed", bytes_before), (report, network.seen_at(address)))
        stage.expect_tunnel(f"and the next on it, to {address}, is not", stage.studio.run(*words), address)


def _others_are_not_blocked(stage) -> None:
    for application, expect in ((stage.courier, stage.expect_physical),
                                (stage.ledger, stage.expect_tunnel), (stage.nobody, stage.expect_tunnel)):
        address = stage.ipv4()
        expect(f"not blocked: {application.identifier}", application.run("connect", address, 80), address)


def _running_connections(stage) -> None:
    """Blocking reaches a relayed connection by its session, a watched one at its next byte."""
    stage.apply(RULES)
    relayed, watched = stage.chatter, stage.ledger
    for application, next_address in ((relayed, stage.ipv4), (watched, stage.ipv4), (watched, stage.ipv6)):
        address = next_address()
        upload = application.start("upload", address, 8080, "--duration", 20)
        upload.report()
        since = stage.daemon.mark()
        changed_at = stage.now()
        stage.apply(RULES.but(blockedApps=(application.identifier,)))
        stage.expect_ended(f"newly blocked: {application.identifier}'s upload to {address} ends",
                           upload.finish(), changed_at, ENDED)
        if application is watched:
            stage.expect_line("newly blocked: the watched connection met it at its next byte",
                              f"BLOCK DROP (existing flow): {application.identifier}", since)
        stage.apply(RULES)

    for next_address in (stage.ipv4, stage.ipv6):
        stage.apply(RULES)
        address = next_address()
        datagrams = watched.start("datagrams", address, 5353, "--duration", 20)
        datagrams.report()
        since, changed_at = stage.daemon.mark(), stage.now()
        stage.apply(RULES.but(blockedApps=(watched.identifier,)))
        stage.expect_ended(f"newly blocked: running datagrams to {address} end", datagrams.finish(),
                           changed_at, ENDED)
        stage.expect_line(f"newly blocked: running datagrams to {address}: logged",
                          f"BLOCK DROP (existing flow): {watched.identifier}", since)

    # Before it had a rule its connection was none of the filter's business; a flush brings it back.
    stage.apply(RULES)
    address = stage.ipv4()
    upload = stage.nobody.start("upload", address, 8080, "--duration", 20)
    other_address = stage.ipv4()
    other = stage.studio.start("upload", other_address, 8080, "--duration", 20)
    upload.report()
    other.report()
    changed_at = stage.now()
    stage.apply(RULES.but(blockedApps=("com.example.nobody",)))
    stage.expect_ended("newly blocked: an upload that no rule had covered ends",
                       upload.finish(), changed_at, ENDED)
    stage.expect_untouched("newly blocked: another application's upload goes on untouched",
                           other)


def _unblocked(stage) -> None:
    stage.apply(BLOCKED)
    address = stage.ipv4()
    process = stage.chatter.start("serve")
    stage.expect_denied("before unblocking", process.ask("connect", address, 80), address)
    stage.apply(RULES)
    address = stage.ipv4()
    stage.expect_physical("after unblocking, by the same process",
                          process.ask("connect", address, 80), address)
    process.stop()
