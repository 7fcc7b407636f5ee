"""What becomes of connections while the VPN is down: by the host's word alone, and for real."""

import os
import pathlib
import signal
import subprocess

import flapping
from vantrylab import network
from vantrylab.host import Rules
from vantrylab.verdicts import ENDED

LEDGER, NOBODY = "com.example.ledger", "com.example.nobody"
UP = Rules(rules={"com.example.courier": "direct", LEDGER: "vpn"}, vpnFallback="block")
DOWN = UP.but(vpnConnected=False)
PRIVATE = "10.77.0.0/24"


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(UP)
    _watched_connections_end(stage)
    _watched_connections_go_on(stage)
    stage.apply(UP)
    _the_tunnel_goes_unannounced(stage)
    _the_tunnel_really_goes(stage)
    _new_flows_with_fallback_block(stage)
    _new_flows_with_fallback_allow(stage)
    _blocked_as_well(stage)
    network.vpn_up()
    stage.apply(UP)
    address = stage.ipv4()
    stage.expect_tunnel("the VPN is back", stage.ledger.run("connect", address, 80), address)
    _comes_by_policy(stage)
    _another_vpn_carries_less(stage)
    _flaps(stage)
    stage.stop_daemon()


def _watched_connections_end(stage) -> None:
    """The host's word is enough; the tunnel itself stays up here, so that nothing else ends them."""
    cases = (("upload", 8080, "VPN FALLBACK DROP", False), ("datagrams", 443, "QUIC BLOCK (deferred)", True),
             ("datagrams", 5353, "VPN FALLBACK DROP", False), ("datagrams", 53, "VPN FALLBACK DROP", False))
    for mode, port, line, is_recorded in cases:
        for next_address in (stage.ipv4, stage.ipv6):
            # In IPv6 what runs is older than the rule for it.
            is_older = next_address == stage.ipv6
            stage.apply(UP.but(rules={"com.example.courier": "direct"}) if is_older else UP)
            name, address = f"VPN down: running {mode} to port {port}", next_address()
            direct_address = stage.ipv4()
            running = stage.ledger.start(mode, address, port, "--duration", 20)
            direct = stage.courier.start("upload", direct_address, 8080, "--duration", 20)
            running.report()
            direct.report()
            if is_older:
                since = stage.daemon.mark()
                stage.apply(UP)
                stage.expect_line(f"{name}: watched from its rule on", f"MONITORING flow: {LEDGER}", since)
            since, changed_at = stage.daemon.mark(), stage.now()
            stage.apply(DOWN)
            stage.expect_ended(f"{name} at {address} end", running.finish(), changed_at, ENDED)
            stage.expect_line(f"{name} at {address}: logged", f"{line}: {LEDGER}", since)
            stage.expect_untouched(f"{name}: a direct upload goes on", direct)
            if is_recorded:
                stage.expect_record(f"{name} at {address}: recorded", address, bundleId=LEDGER,
                                    routingDecision="vpn", actualRoute="blocked", destinationPort=443,
                                    protocolType="udp", isVpnConnected=False)
            elif mode == "upload":
                stage.expect_record(f"{name} at {address}: recorded at its start alone", address,
                                    actualRoute="vpn")
            else:
                stage.expect_no_record(f"{name} at {address}: not recorded", address)


def _watched_connections_go_on(stage) -> None:
    """The host's word is all that changes, and the fallback lets them pass."""
    stage.apply(UP)
    running = [stage.ledger.start(mode, address, 8080, "--duration", 20)
               for mode in ("upload", "datagrams") for address in (stage.ipv4(), stage.ipv6())]
    for each in running:
        each.report()
    stage.apply(DOWN.but(vpnFallback="allow"))
    for each in running:
        stage.expect_untouched("VPN down, fallback allow: what runs goes on", each)
    stage.checks.check("the guard's chain stays: were it removed, packets that wait for a verdict would be lost",
                       "chain leaving" in _guard() and "drop" not in _guard(), _guard())


def _flaps(stage) -> None:
    """A few of what Tests/Flaps plays a hundred times."""
    stage.apply(flapping.RULES)
    for name in ("wg-quick", "openvpn killed"):
        outcome = flapping.play(flapping.VPNS[name](), 3, lambda _: None, "lasting")
        stage.checks.check(f"{name} flaps: much goes through the tunnel", outcome.through_tunnel > 100, outcome)
        stage.checks.equal(f"{name} flaps: nothing in the clear", outcome.sent_in_clear, [])


def _guard() -> str:
    return subprocess.run(["nft", "list", "table", "inet", "vantry_guard"], capture_output=True, text=True).stdout


def _is_guarded() -> bool:
    return "counter" in _guard() and "meta nfproto" not in _guard()


def _its_process_ends(stage) -> None:
    """The table that guards the tunnel goes with the process that made it, and comes back with another one."""
    since = stage.daemon.mark()
    children = pathlib.Path(f"/proc/{stage.daemon.process.pid}/task").glob("*/children")
    for child in " ".join(each.read_text() for each in children).split():
        os.kill(int(child), signal.SIGKILL)
    stage.expect_line("the end of the process that guards is said", "What keeps watched flows in the tunnel", since)
    network.wait_until(_is_guarded, "the kernel guards the tunnel again")


def _comes_by_policy(stage) -> None:
    """What takes the default then are rules and a table of the VPN's own, which come after its interface."""
    stage.apply(UP.but(vpnFallback="allow"))
    network.vpn_down()
    stage.apply(UP)
    network.vpn_up("policy")
    network.wait_until(_is_guarded, "the kernel guards both families of a tunnel that comes by policy")


def _another_vpn_carries_less(stage) -> None:
    """A VPN for some networks only, after one for all: the rest takes the system's own route again."""
    network.vpn_down()
    stage.apply(DOWN)
    for words in ("tuntap add tun9 mode tun", "link set tun9 up", "address add 10.77.0.2/16 dev tun9"):
        subprocess.run(["ip", *words.split()], check=True)
    stage.apply(UP)
    network.wait_until(lambda: "drop" not in _guard(),
                       "the kernel no longer keeps flows in a tunnel that is not for them")
    for address in (stage.ipv4(), stage.ipv6()):
        stage.expect_physical("a VPN for some networks comes after one for all",
                              stage.ledger.run("connect", address, 80), address)
    subprocess.run(["ip", "link", "delete", "tun9"], check=True)


def _the_tunnel_goes_unannounced(stage) -> None:
    """The daemon hears of it later than the packets: none of a VPN-ruled application may leave in the clear."""
    network.wait_until(_is_guarded, "the kernel guards the tunnel")
    _its_process_ends(stage)
    kept_before = stage.health("keptInTunnel")
    network.vpn_down()
    for words, next_address in (("connect", stage.ipv4), ("connect", stage.ipv6), ("datagram", stage.ipv4)):
        address = next_address()
        stage.ledger.run(words, address, 8080, "--patience", 0.5)
        stage.expect_nothing_arrived(f"the tunnel is gone, unsaid: {words} to {address}", address)
    # Such routes may have come from the server that gives out addresses, or from a router, which answers for all.
    answers = "/proc/sys/net/ipv4/conf/net0/arp_ignore"
    subprocess.run(network.in_server(["sh", "-c", f"echo 0 >{answers}"]), check=True)
    for way in (("via", network.GATEWAY_IPV4, "proto", "dhcp"), ("dev", network.PHYSICAL, "scope", "link")):
        address = stage.ipv4()
        prefix = address.rpartition(".")[0] + ".0/24"
        for each in (prefix, PRIVATE):
            subprocess.run(["ip", "route", "add", each, *way], check=True)
        network.wait_until(lambda: PRIVATE in _guard(), "the kernel lets a private network be reached")
        stage.ledger.run("connect", address, 8080, "--patience", 0.5)
        stage.expect_nothing_arrived(f"the tunnel is gone, unsaid: connect by a route {' '.join(way)}", address)
        for each in (prefix, PRIVATE):
            subprocess.run(["ip", "route", "delete", each], check=True)
    subprocess.run(network.in_server(["sh", "-c", f"echo 1 >{answers}"]), check=True)
    address = stage.ipv4()
    stage.expect_physical(f"the tunnel is gone, unsaid: no rule at {address}",
                          stage.nobody.run("connect", address, 80), address)
    network.vpn_up()
    address = stage.ipv4()
    stage.expect_tunnel("the tunnel is back, unsaid", stage.ledger.run("connect", address, 80), address)
    kept = stage.health("keptInTunnel")
    stage.checks.check("status counts what was kept from leaving, over changes of the rules", kept > kept_before,
                       f"{kept} after {kept_before}")


def _the_tunnel_really_goes(stage) -> None:
    address, direct_address = stage.ipv6(), stage.ipv4()
    upload = stage.ledger.start("upload", address, 8080, "--duration", 20)
    direct = stage.courier.start("upload", direct_address, 8080, "--duration", 20)
    unruled = stage.nobody.start("upload", stage.ipv6(), 8080, "--duration", 20)
    for each in (upload, direct, unruled):
        each.report()
    with_its_address = f"src host {network.TUNNEL_IPV4} or src host {network.TUNNEL_IPV6}"
    with flapping.capture([], network.PHYSICAL, with_its_address) as strays:
        network.vpn_down()
        changed_at = stage.now()
        stage.apply(DOWN)
        stage.expect_ended("the tunnel goes: the upload through it ends", upload.finish(), changed_at, ENDED)
    stage.checks.equal("the tunnel goes: nothing bears its address elsewhere", strays, [])
    unruled.stop()
    stage.expect_untouched("the tunnel goes: a direct upload goes on", direct)


def _new_flows_with_fallback_block(stage) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        for words, port, protocol in (("connect", 80, "tcp"), ("connect", 53, "tcp"), ("datagram", 443, "udp")):
            address, since = next_address(), stage.daemon.mark()
            name = f"fallback block: {words} to {address} port {port}"
            stage.expect_denied(name, stage.ledger.run(words, address, port), address)
            stage.expect_line(f"{name}: logged",
                              f"VPN BLOCK: {LEDGER} {protocol.upper()} -> {address}:{port}", since)
            stage.expect_record(f"{name}: recorded", address, bundleId=LEDGER, routingDecision="vpn",
                                actualRoute="blocked", destinationPort=port, protocolType=protocol)
        for words, port in (("resolve", 53), ("datagram", 123), ("datagram", 8080)):
            address = next_address()
            name = f"fallback block: {words} to {address} port {port} passes"
            stage.expect_physical(name, stage.ledger.run(words, address, port), address)
            stage.expect_no_record(f"{name} without a record", address)
        address = next_address()
        stage.expect_physical(f"fallback block: a direct application at {address}",
                              stage.courier.run("connect", address, 80), address)
        stage.expect_record(f"fallback block: the direct connection to {address} is recorded", address,
                            routingDecision="direct", actualRoute="direct", isVpnConnected=False)
        address, since = next_address(), stage.daemon.mark()
        stage.expect_physical(f"fallback block: an application without a rule at {address}",
                              stage.nobody.run("connect", address, 80), address)
        stage.expect_line(f"fallback block: an application without a rule at {address}: logged",
                          f"VPN fallback BLOCK (filter-enforced): {NOBODY} -> {address}:80", since)
        stage.expect_no_record(f"fallback block: an application without a rule at {address}: not recorded",
                               address)


def _new_flows_with_fallback_allow(stage) -> None:
    stage.apply(DOWN.but(vpnFallback="allow"))
    for next_address in (stage.ipv4, stage.ipv6):
        for words, port in (("connect", 80), ("datagram", 443), ("datagram", 8080)):
            address = next_address()
            name = f"fallback allow: {words} to {address} port {port}"
            stage.expect_physical(name, stage.ledger.run(words, address, port), address)
            if words == "connect":
                stage.expect_record(f"{name}: recorded as direct", address, bundleId=LEDGER,
                                    routingDecision="vpn", actualRoute="direct",
                                    sourceIp=network.CLIENT_IPV4, isVpnConnected=False)
    address = stage.ipv4()
    upload = stage.ledger.start("upload", address, 8080, "--duration", 20)
    stage.expect_untouched("fallback allow: an upload goes on", upload)


def _blocked_as_well(stage) -> None:
    """An application that is blocked and has lost its VPN is blocked, in the words of a block."""
    stage.apply(DOWN.but(blockedApps=(LEDGER,)))
    for next_address in (stage.ipv4, stage.ipv6):
        address, since = next_address(), stage.daemon.mark()
        stage.expect_denied(f"blocked, and its VPN down: {address}", stage.ledger.run("connect", address, 80),
                            address)
        stage.expect_line(f"blocked, and its VPN down: {address}: logged",
                          f"BLOCK: {LEDGER} TCP -> {address}:80", since)
        stage.checks.equal(f"blocked, and its VPN down: {address}: not as one that lost its VPN",
                           [each.text for each in stage.daemon.lines(since) if "VPN BLOCK" in each.text], [])
        stage.expect_record(f"blocked, and its VPN down: {address}: recorded", address,
                            routingDecision="block", actualRoute="blocked")
