"""The main verdicts in every way in which VPNs take over a machine's routes."""

import signal

from vantrylab import network
from vantrylab.host import Rules

RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn"},
              blockedApps=("com.example.chatter",))


def run(stage) -> None:
    stage.start_daemon(RULES)
    for layout in network.LAYOUTS:
        # A direct upload that began without the VPN lives through its coming and going.
        upload = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
        upload.report()
        network.vpn_up(layout)
        _verdicts(stage, layout)
        tunnelled = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
        tunnelled.report()
        network.vpn_down()
        stage.expect_untouched(f"{layout}: a direct upload outlives the tunnel under it", tunnelled)
        stage.expect_untouched(f"{layout}: a direct upload outlives the VPN's coming", upload)
        address = stage.ipv4()
        stage.expect_physical(f"{layout}, VPN gone", stage.ledger.run("connect", address, 80), address)
    _restart(stage)
    stage.stop_daemon()


def _verdicts(stage, layout: str) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        for application, expect in ((stage.courier, stage.expect_physical),
                                    (stage.ledger, stage.expect_tunnel),
                                    (stage.nobody, stage.expect_tunnel),
                                    (stage.chatter, stage.expect_denied)):
            address = next_address()
            expect(f"{layout}: {application.identifier} to {address}",
                   application.run("connect", address, 80), address)
    address = stage.ipv4()
    report = stage.courier.run("echo", address, 8080, "--bytes", 1_000_000)
    stage.expect_physical(f"{layout}: a megabyte both ways, direct", report, address)
    _first_datagram_after_a_change(stage, layout)


def _restart(stage) -> None:
    """A daemon that starts when a VPN has already taken the default route away knows the one before."""
    network.vpn_up("replaced-default")
    for ending in (signal.SIGKILL, signal.SIGTERM):
        stage.daemon.stop(ending)
        stage.start_daemon(RULES)
        for address in (stage.ipv4(), stage.ipv6()):
            stage.expect_physical(f"without a default route, started after {ending.name}: to {address}",
                                  stage.courier.run("connect", address, 80), address)
    network.vpn_down()


def _first_datagram_after_a_change(stage, layout: str) -> None:
    """Nothing is lost where each flow's next packet is looked at again, the VPN's own included."""
    for number in range(6):
        stage.apply(RULES.but(blockedApps=RULES.blockedApps + ("com.example.absent",) * (number % 2 == 0)))
        address = stage.ipv4()
        report = stage.nobody.run("datagram", address, 8080, "--patience", 1)
        stage.expect_tunnel(f"{layout}: the first datagram after change {number + 1}", report, address)
