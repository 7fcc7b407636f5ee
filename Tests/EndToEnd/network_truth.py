"""The lab itself: whether its server can be believed. Needs no daemon.

In every layout of the VPN's routes an ordinary connection arrives with the tunnel's address, and
one that is pinned to the physical interface with that interface's.
"""

from vantrylab import network


def run(stage) -> None:
    checks, courier = stage.checks, stage.applications["courier"]
    stage.expect_physical("no VPN: IPv4", courier.run("connect", address := stage.ipv4(), 80), address)
    stage.expect_physical("no VPN: IPv6", courier.run("connect", address := stage.ipv6(), 80), address)
    for layout in network.LAYOUTS:
        network.vpn_up(layout)
        _each_way(stage, courier, layout)
        network.vpn_down()
        stage.expect_physical(f"{layout}, VPN gone",
                              courier.run("connect", address := stage.ipv4(), 80), address)
    _spare_carrier(stage, courier)
    checks.equal("the tunnel is gone", network.has_interface("utun0"), False)


def _each_way(stage, courier, layout: str) -> None:
    for family, next_address in (("IPv4", stage.ipv4), ("IPv6", stage.ipv6)):
        for words in (["connect"], ["datagram"], ["datagram", "--unconnected"]):
            name = f"{layout}: {family} {' '.join(words)}"
            address = next_address()
            report = courier.run(*words, address, 8080)
            stage.expect_tunnel(name, report, address)
    # A physical default route that the VPN took away cannot carry what is pinned to its interface.
    if layout != "replaced-default":
        address = stage.ipv4()
        stage.expect_physical(f"{layout}: pinned to {network.PHYSICAL}", courier.run(
            "connect", address, 80, "--bind-device", network.PHYSICAL), address)
    address = stage.ipv4()
    stage.expect_tunnel(f"{layout}: a name look-up", courier.run("resolve", address, 53), address)


def _spare_carrier(stage, courier) -> None:
    """The VPN outlives the physical interface when its own packets have another way."""
    network.spare_carrier_up()
    network.vpn_up()
    network.physical_down()
    address = stage.ipv4()
    stage.expect_tunnel("physical interface lost, VPN carried elsewhere",
                        courier.run("connect", address, 80), address)
    network.vpn_down()
    report = courier.run("connect", address := stage.ipv4(), 80, "--patience", 1)
    stage.expect_nothing_arrived("neither: nothing arrives", address)
    stage.checks.equal("neither: the application fails", report["outcome"], "failed")
    network.physical_up()
    network.spare_carrier_down()
    stage.expect_physical("physical interface back",
                          courier.run("connect", address := stage.ipv4(), 80), address)
