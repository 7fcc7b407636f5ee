"""What becomes of direct connections while there is no physical interface, for each fallback.

The VPN's own packets have a second wire here, so the VPN outlives the interface.
"""

from vantrylab import host, network
from vantrylab.host import Rules

COURIER = "com.example.courier"
BLOCK = Rules(rules={COURIER: "direct", "com.example.render": "direct", "com.example.ledger": "vpn"},
              directFallback="block")
VPN = BLOCK.but(directFallback="vpn")


def run(stage) -> None:
    network.spare_carrier_up()
    network.vpn_up()
    stage.start_daemon(BLOCK)
    address = stage.ipv4()
    stage.expect_physical("interface there", stage.courier.run("connect", address, 80), address)
    _lose_interface(stage)
    _closed_at_once(stage)
    stage.apply(VPN)
    _left_to_the_vpn(stage)
    _interface_returns(stage)
    stage.stop_daemon()
    network.vpn_down()
    network.spare_carrier_down()


def _lose_interface(stage) -> None:
    since = stage.daemon.mark()
    network.physical_down()
    stage.expect_line("the loss is noticed", "No physical interface found", since)


def _closed_at_once(stage) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        address, since = next_address(), stage.daemon.mark()
        report = stage.courier.run("connect", address, 80)
        expect = stage.expect_denied if stage.is_carried_by_kernel() else stage.expect_closed
        expect(f"fallback block: {address} is closed at once", report, address)
        stage.expect_line(f"fallback block: {address}: logged",
                          f"No physical interface, BLOCKING direct flow per fallback setting: {COURIER}", since)
        stage.expect_record(f"fallback block: {address}: recorded", address, bundleId=COURIER,
                            routingDecision="direct", actualRoute="direct", sourceIp=None)
    stage.checks.equal("fallback block leaves no failure record", host.failures(), [])
    address = stage.ipv4()
    stage.expect_tunnel("fallback block: the VPN's applications go on",
                        stage.ledger.run("connect", address, 80), address)


def _left_to_the_vpn(stage) -> None:
    first = None
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        first = first or address
        stage.expect_tunnel(f"fallback to the VPN: {address}", stage.courier.run("connect", address, 80), address)
        stage.expect_record(f"fallback to the VPN: {address} recorded", address, bundleId=COURIER,
                            routingDecision="direct", actualRoute="vpn", sourceIp=network.TUNNEL_IPV4)
    stage.checks.equal("fallback to the VPN: one failure record for the application",
                       [(each["bundleId"], each["host"]) for each in host.failures()], [(COURIER, first)])


def _interface_returns(stage) -> None:
    since = stage.daemon.mark()
    network.physical_up()
    stage.expect_line("the return is noticed", "Physical interface detected: eth0", since)

    def goes_direct():
        report = stage.courier.run("connect", stage.ipv4(), 80)
        return report["serverSaw"] == network.CLIENT_IPV4, report
    stage.checks.eventually("direct again", goes_direct)
