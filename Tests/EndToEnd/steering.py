"""Direct connections that the kernel carries: they are the application's own, beside whatever VPNs and
firewalls do, and end when and as they should."""

import collections
import os
import pathlib
import re
import signal
import subprocess
import time

from vantrylab import applications, host, network, verdicts, world
from vantrylab.host import Rules

COURIER = "com.example.courier"
RULES = Rules(rules={COURIER: "direct", "com.example.ledger": "vpn"})
ENDED = ("ECONNABORTED",)
TABLE = ("inet", "vantry_steering")
IDLE = 2000
PEERS, PEER_PREFIX, GAME_PORT = 200, "2001:db8:100::1:", 40404
GAME = f"""
import contextlib, socket, time
one = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
one.bind(("", {GAME_PORT}))
end = time.monotonic() + 120
while time.monotonic() < end:
    for number in range(1, {PEERS} + 1):
        with contextlib.suppress(OSError):
            one.sendto(b"move", (f"{PEER_PREFIX}{{number:x}}", 8080))
        # The server is to keep up.
        time.sleep(0.003)
"""
NEIGHBOUR = f"""
import socket
asking = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
asking.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("{network.CLIENT_IPV4}"))
asking.sendto(b"who is there", ("224.0.0.251", 5353))
"""


def run(stage) -> None:
    network.vpn_up("policy")
    stage.start_daemon(RULES)
    if not stage.is_carried_by_kernel():
        print("      this kernel, or this account, carries no connections: only the relay is there")
        stage.stop_daemon()
        network.vpn_down()
        return
    _like_the_applications_own(stage)
    _beside_vpns_and_firewalls(stage)
    _rules_change(stage)
    _hanging_in_a_dead_vpn(stage)
    _datagrams(stage)
    _removed_by_others(stage)
    _no_way(stage)
    _interface_goes(stage)
    _ends_of_the_daemon(stage)
    network.vpn_down()


def _like_the_applications_own(stage) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        report = stage.courier.run("tally", address, 8080, "--bytes", 3_000_000)
        stage.expect_physical(f"{address}: the answer after its own end arrives", report, address)
        address, since = next_address(), stage.daemon.mark()
        report = stage.courier.run("connect", address, 7)
        stage.checks.check(f"{address}: a refused port is one for the application",
                           (report["phase"], report["error"]) == ("connect", "ECONNREFUSED") and
                           report["milliseconds"] < verdicts.AT_ONCE_MILLISECONDS, report)
        stage.expect_line(f"{address}: the session hears why", "Connection failed: Connection refused", since)
        stage.expect_line(f"{address}: the session ends", "Session ended:", since)
    address, since = stage.ipv4(), stage.daemon.mark()
    silent = stage.courier.run("connect", "192.0.2.77", 80, "--patience", 0.5)
    stage.expect_line("an application that gives up ends its session", "Session ended:", since)
    stage.checks.equal("an application that gives up", silent["error"], "ETIMEDOUT")


def _beside_vpns_and_firewalls(stage) -> None:
    """Each of what stands in the way of direct connections on ordinary machines."""
    device = network.tunnel_device()
    obstacles = {
        "a VPN's rule for its address":
            f"chain raw {{ type filter hook prerouting priority raw;"
            f" iifname != {device} ip daddr {network.TUNNEL_IPV4} fib saddr type != local drop; }}",
        "a kill switch":
            f"chain out {{ type filter hook output priority 0; meta l4proto icmpv6 accept;"
            f" meta mark 51820 accept; oifname != {{ lo, {device} }} reject; }}",
        "a firewall that denies":
            "chain out { type filter hook output priority 0; policy drop; ct state established,related accept;"
            " oifname lo accept; meta l4proto { icmpv6, udp } accept; tcp dport { 80, 8080 } accept; };"
            " chain in { type filter hook input priority 0; policy drop; iifname lo accept;"
            " ct state established,related accept; meta l4proto icmpv6 accept; }"}
    for name, rules in obstacles.items():
        subprocess.run(["nft", f"table inet obstacle {{ {rules}; }}"], check=True)
        _all_pass(stage, name)
        subprocess.run(["nft", "delete", "table", "inet", "obstacle"], check=True)
    _beside_ipsec(stage)
    _beside_split_tunnel(stage)
    strict = pathlib.Path("/proc/sys/net/ipv4/conf/all/rp_filter")
    strict.write_text("1")
    # Looked at when the network changes next.
    subprocess.run(["ip", "rule", "add", "fwmark", "77", "table", "77", "pref", "900"], check=True)
    stage.checks.eventually("rules stay before those of others", lambda: (_is_first_rule(899), _rules()))
    # The lab's VPN does not do what one has to for its own packets to pass this filter.
    _direct_passes(stage, "a strict reverse-path filter, and a rule of others before ours")
    subprocess.run(["ip", "rule", "delete", "pref", "900"], check=True)
    strict.write_text("0")


def _beside_ipsec(stage) -> None:
    """Policies that forbid what is steered, one for a tunnel's address on the physical interface, and those of
    connections that go by the machine's own address: L2TP, and one from host to host."""
    own, outer = "10.9.0.2", network.CLIENT_IPV4
    subprocess.run(["ip", "address", "add", own, "dev", network.PHYSICAL], check=True)
    mark, mask = re.search(r"fwmark (0x[0-9a-f]+)/(0x[0-9a-f]+) lookup 7681", _rules()).groups()
    forbidding = [["dst", each, "dir", "out", "mark", mark, "mask", mask] for each in (
        network.SERVER_RANGE_IPV4, network.SERVER_RANGE_IPV6)]
    selected = {
        "transport": ["src", outer, "dst", "192.0.2.77", "proto", "udp", "sport", "1701", "dir", "out"],
        "tunnel": ["src", outer, "dst", "192.0.2.77", "dir", "out"]}
    tunnelled = ["src", own, "dst", "0.0.0.0/0", "dir", "out"]
    for policy in forbidding:
        subprocess.run(["ip", "xfrm", "policy", "add", *policy, "action", "block", "priority", "300"], check=True)
    for mode, policy in (*selected.items(), ("tunnel", tunnelled)):
        subprocess.run(["ip", "xfrm", "policy", "add", *policy, "tmpl", "src", outer, "dst", "192.0.2.77", "proto", "esp",
                        "mode", mode], check=True)
    stage.checks.eventually("IPsec: no source is the tunnel's", lambda: (own not in _sources(), _sources()))
    _direct_passes(stage, "IPsec by policies")
    for policy in (*forbidding, *selected.values(), tunnelled):
        subprocess.run(["ip", "xfrm", "policy", "delete", *policy], check=True)
    stage.checks.eventually("IPsec: without its policies there are none of ours", lambda: (not _policies(), _policies()))
    subprocess.run(["ip", "address", "delete", f"{own}/32", "dev", network.PHYSICAL], check=True)


def _beside_split_tunnel(stage) -> None:
    """One that has only some addresses, beside a firewall that lets only it out."""
    subprocess.run(["ip", "tuntap", "add", "tun9", "mode", "tun"], check=True)
    subprocess.run(["ip", "link", "set", "tun9", "up"], check=True)
    subprocess.run(["nft", "table inet obstacle { chain out { type filter hook output priority 0;"
                    " meta l4proto icmpv6 accept; oifname != { lo, tun9 } reject; }; }"], check=True)
    for address in (stage.ipv4(), stage.ipv6()):
        subprocess.run(["ip", "route", "add", address, "dev", "tun9"], check=True)
        network.wait_until(lambda: _is_towards(address), f"the steered are led to {address} like others")
        report = stage.courier.run("tally", address, 8080, "--bytes", 300_000)
        stage.expect_physical(f"beside a split tunnel that alone may be used: {address}", report, address)
    subprocess.run(["nft", "delete", "table", "inet", "obstacle"], check=True)
    subprocess.run(["ip", "link", "delete", "tun9"], check=True)


def _is_towards(address: str) -> bool:
    """Whether a steered socket's packets are routed into the tunnel, as firewalls see it."""
    family = "-6" if ":" in address else "-4"
    table = subprocess.run(["ip", family, "route", "show", "table", "7697"], check=False, capture_output=True, text=True)
    return f"{address} dev tun9" in table.stdout


def _sources() -> str:
    return subprocess.run(["nft", "list", "chain", *TABLE, "naming"], check=True, capture_output=True, text=True).stdout


def _policies() -> str:
    return subprocess.run(["ip", "xfrm", "policy"], check=True, capture_output=True, text=True).stdout


def _direct_passes(stage, name: str) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        report = stage.courier.run("tally", address, 8080, "--bytes", 300_000)
        stage.expect_physical(f"beside {name}: {address}", report, address)


def _all_pass(stage, name: str) -> None:
    _direct_passes(stage, name)
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        stage.expect_tunnel(f"beside {name}: what is none of ours, to {address}",
                            stage.ledger.run("connect", address, 80), address)


def _rules() -> str:
    return subprocess.run(["ip", "rule"], check=True, capture_output=True, text=True).stdout


def _is_first_rule(preference: int) -> bool:
    return _rules().splitlines()[1].startswith(f"{preference}:")


def _hanging_in_a_dead_vpn(stage) -> None:
    """An opening that is sent again goes the way that the rule says by then."""
    address = stage.ipv4()
    # After the connection has its entry.
    subprocess.run(["nft", f"table netdev dead {{ chain out {{ type filter hook egress device {network.tunnel_device()}"
                    f" priority 0; ip daddr {address} counter drop; }}; }}"], check=True)
    hanging = stage.ledger.start("connect", address, 80, "--patience", 15)
    stage.checks.eventually("its opening has gone into the tunnel",
                            lambda: ("packets 0 " not in _dead(), _dead()))
    stage.apply(RULES.but(rules={"com.example.ledger": "direct"}))
    stage.expect_physical("a program that hangs in a dead VPN goes on when it is direct", hanging.finish(), address)
    stage.apply(RULES)
    subprocess.run(["nft", "delete", "table", "netdev", "dead"], check=True)


def _dead() -> str:
    return subprocess.run(["nft", "list", "table", "netdev", "dead"], check=True, capture_output=True, text=True).stdout


def _rules_change(stage) -> None:
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        upload = stage.courier.start("upload", address, 8080, "--duration", 20)
        upload.report()
        changed_at = stage.now()
        stage.apply(RULES.but(rules={COURIER: "vpn"}))
        stage.expect_ended(f"no longer direct: the upload to {address}", upload.finish(), changed_at, ENDED)
        stage.checks.eventually(f"no longer direct: the server hears of {address}", lambda: (
            [each.state for each in network.seen_at(address)] == ["reset"], network.seen_at(address)))
        stage.apply(RULES)


def _datagrams(stage) -> None:
    """Those of direct applications go directly once that is asked for, and move with rules and the VPN."""
    address = stage.ipv4()
    stage.expect_tunnel("a datagram takes the VPN unless asked for", stage.courier.run("datagram", address, 8080), address)
    _direct_datagrams(stage, True)
    for address in (stage.ipv4(), stage.ipv6()):
        for port in (8080, 443):
            report = stage.courier.run("datagram", address, port)
            stage.expect_physical(f"then it is direct, {address} port {port}", report, address)
    for what, name, port in (("a name look-up stays", "courier", 53), ("a VPN rule stays", "ledger", 8080),
                             ("no rule stays", "chatter", 8080)):
        address = stage.ipv4()
        stage.expect_tunnel(what, stage.applications[name].run("datagram", address, port), address)
    _a_game(stage)
    _neighbours(stage)
    flow, address = _asking(stage)
    stage.apply(RULES.but(rules={COURIER: "vpn"}))
    _moved(stage, "a socket in use moves to the VPN with its rule", address, network.TUNNEL_IPV4)
    changed_at = stage.now()
    stage.apply(RULES)
    # A send that comes before the application has taken its error finds the socket without a peer.
    stage.expect_ended("back it begins again, as a connection does", flow.finish(), changed_at,
                       (*ENDED, "EDESTADDRREQ"))
    flow, address = _asking(stage)
    stage.apply(RULES.but(blockedApps=(COURIER,)))
    stage.checks.check("a block ends it", flow.finish()["error"] != "")
    stage.apply(RULES)
    _direct_datagrams(stage, False)
    address = stage.ipv4()
    stage.expect_tunnel("off again", stage.courier.run("datagram", address, 8080), address)


def _direct_datagrams(stage, is_wanted: bool) -> None:
    host.write_preferences(logLevel="debug", directDatagrams=is_wanted)
    state = "go directly" if is_wanted else "system"
    network.wait_until(lambda: state in stage.health("directDatagrams"), "the preference is in force")


def _a_game(stage) -> None:
    """One socket with many peers moves with its rule."""
    def apply(**rules):
        stage.apply(RULES.but(**{"rules": {"game": "direct"}, **rules}))

    def bytes_from(*clients) -> collections.Counter:
        # From whichever port: that of the socket may be taken by an answer that came late.
        count = collections.Counter()
        for each in network.observations():
            if each.server.startswith(PEER_PREFIX) and each.client in clients:
                count[each.server] += each.bytesReceived
        return count

    def going_on_from(*clients) -> int:
        before = bytes_from(*clients)
        time.sleep(1.5)
        after = bytes_from(*clients)
        return sum(after[peer] > before[peer] for peer in after)

    def all_go_on_from(client: str):
        going_on = going_on_from(client)
        return going_on == PEERS, f"{going_on} peers"

    def none_goes_on_from(*clients):
        before = bytes_from(*clients)
        time.sleep(1.5)
        return bytes_from(*clients) == before, "datagrams"
    apply()
    game = subprocess.Popen([str(applications.make_interpreter("game")), "-c", GAME], user=world.PERSON if
                            world.is_root_world() else None)
    stage.checks.eventually(f"a game's {PEERS} peers are reached directly", lambda: all_go_on_from(network.CLIENT_IPV6), seconds=30)
    apply(rules={"game": "vpn"})
    stage.checks.eventually("with its rule all move to the VPN", lambda: all_go_on_from(network.TUNNEL_IPV6), seconds=10)
    stage.checks.check("and none stays", *none_goes_on_from(network.CLIENT_IPV6))
    apply()
    stage.checks.eventually("and back with it", lambda: all_go_on_from(network.CLIENT_IPV6), seconds=30)
    apply(blockedApps=("game",))
    stage.checks.eventually("a block ends all", lambda: none_goes_on_from(network.CLIENT_IPV6, network.TUNNEL_IPV6))
    _direct_datagrams(stage, False)
    apply(rules={"game": "vpn"})
    stage.checks.eventually("direct or not, with a VPN rule all are in the tunnel",
                            lambda: all_go_on_from(network.TUNNEL_IPV6), seconds=10)
    apply(rules={"game": "vpn"}, vpnConnected=False, vpnFallback="block")
    # What is looked at during the change may begin a flow of its own, which may pass.
    stage.checks.eventually("the fallback stops them", lambda: (
        (number := going_on_from(network.CLIENT_IPV6, network.TUNNEL_IPV6)) < PEERS / 10, number))
    apply(rules={"game": "vpn"})
    stage.checks.eventually("which they are again when it is back", lambda: all_go_on_from(network.TUNNEL_IPV6), seconds=10)
    apply(rules={})
    stage.checks.eventually("and stay when the rule goes, as the system's own route leads there",
                            lambda: all_go_on_from(network.TUNNEL_IPV6), seconds=10)
    _direct_datagrams(stage, True)
    game.kill()
    game.wait()
    stage.apply(RULES)


def _neighbours(stage) -> None:
    """What is for the neighbours on the link is no rule's business."""
    subprocess.run(network.in_server(["nft", "table inet near { chain arriving { type filter hook prerouting priority -290;"
                                      f" iifname net0 ip saddr {network.CLIENT_IPV4} ip daddr 224.0.0.251 udp dport 5353"
                                      " counter; }; }"]), check=True)
    for rule in ("direct", "vpn"):
        stage.apply(RULES.but(rules={"game": rule}))
        subprocess.run([str(world.APPLICATIONS / "bin" / "game"), "-c", NEIGHBOUR], check=True,
                       user=world.PERSON if world.is_root_world() else None)
    # The second may wait for its verdict when the program has ended.
    def arrived() -> tuple[bool, str]:
        listed = subprocess.run(network.in_server(["nft", "list", "table", "inet", "near"]), capture_output=True, text=True)
        return "packets 2 " in listed.stdout, listed.stdout
    stage.checks.eventually("multicast on the link arrives, whatever the rule", arrived)
    stage.apply(RULES)


def _asking(stage):
    """A socket that asks again and again, and its aim."""
    address = stage.ipv4()
    flow = stage.courier.start("datagrams", address, 8080, "--duration", 20, "--repeat", 0.1)
    flow.report()
    return flow, address


def _moved(stage, what: str, address: str, client: str) -> None:
    def latest():
        seen = network.seen_at(address)
        before = sum(each.bytesReceived for each in seen if each.client == client)
        time.sleep(0.05)
        after = sum(each.bytesReceived for each in network.seen_at(address) if each.client == client)
        return after > before > 0, seen
    stage.checks.eventually(what, latest)


def _removed_by_others(stage) -> None:
    upload, since = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20), stage.daemon.mark()
    upload.report()
    subprocess.run(["nft", "delete", "table", *TABLE], check=True)
    stage.expect_line("packet rules that others remove are put back",
                      "The packet rules of direct connections had been removed and were put back", since)
    subprocess.run("ip route flush table 7681; ip rule delete table 7681; ip -6 rule delete table 7681",
                   shell=True, check=True)
    stage.checks.eventually("routing rules that others remove are put back",
                            lambda: ("lookup 7681" in _rules(), _rules()))
    stage.expect_untouched("a direct upload has gone on", upload)
    _all_pass(stage, "what was put back")


def _no_way(stage) -> None:
    """One family has no way, then both: the next address at once, or late."""
    subprocess.run(["ip", "-6", "address", "delete", f"{network.CLIENT_IPV6}/64", "dev", "eth0"], check=True)
    stage.checks.eventually("the family is lost", lambda: ("dead" in _errors(stage, stage.ipv6()), ""))
    address = stage.ipv4()
    stage.expect_physical("the other family goes on", stage.courier.run("connect", address, 80), address)
    subprocess.run(["ip", "-6", "address", "add", f"{network.CLIENT_IPV6}/64", "dev", "eth0", "nodad"], check=True)

    def is_back():
        address = stage.ipv6()
        report = stage.courier.run("connect", address, 80)
        return report["serverSaw"] == network.CLIENT_IPV6, report
    stage.checks.eventually("the family is back", is_back)


def _errors(stage, address: str) -> str:
    report = stage.courier.run("connect", address, 80)
    at_once = report["milliseconds"] < 2 * verdicts.AT_ONCE_MILLISECONDS
    return "dead" if at_once and report["error"] in ("EHOSTUNREACH", "ENETUNREACH") else report["error"]


def _interface_goes(stage) -> None:
    upload = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
    upload.report()
    changed_at, since = stage.now(), stage.daemon.mark()
    subprocess.run(["ip", "address", "delete", f"{network.CLIENT_IPV4}/24", "dev", "eth0"], check=True)
    stage.expect_ended("the address goes: the upload ends", upload.finish(), changed_at, ENDED)
    stage.expect_line("the address goes: the session hears of it", "Connection failed: Network is down", since)
    subprocess.run(["ip", "address", "add", f"{network.CLIENT_IPV4}/24", "dev", "eth0"], check=True)
    network.physical_up()

    def goes_direct():
        report = stage.courier.run("connect", stage.ipv4(), 80)
        return report["serverSaw"] == network.CLIENT_IPV4, report
    stage.checks.eventually("the address is back: direct again", goes_direct)
    _better_interface_comes_and_goes(stage)
    stage.checks.eventually("the better interface is gone: direct by the other one", goes_direct)


def _better_interface_comes_and_goes(stage) -> None:
    address = "192.168.77.2"
    for words in ("link add eth1 type veth peer name net1 netns server", "link set eth1 up",
                  f"address add {address}/24 dev eth1"):
        subprocess.run(["ip", *words.split()], check=True)
    for words in ("link set net1 up", "address add 192.168.77.1/24 dev net1"):
        subprocess.run(network.in_server(["ip", *words.split()]), check=True)
    subprocess.run("ip route add default via 192.168.77.1 dev eth1 metric 5".split(), check=True)

    def leaves_by_it():
        report = stage.courier.run("connect", stage.ipv4(), 80)
        return report["serverSaw"] == address, report
    stage.checks.eventually("a better interface comes: direct by that", leaves_by_it)
    upload = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
    upload.report()
    changed_at = stage.now()
    subprocess.run(["ip", "link", "delete", "eth1"], check=True)
    stage.expect_ended("it goes: the upload ends, though there is another one", upload.finish(), changed_at, ENDED)


def _ends_of_the_daemon(stage) -> None:
    """A kill leaves connections running until the next start; a stop ends them in order."""
    upload = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 60)
    upload.report()
    crowd, crowded = _many_idle_ones(stage)
    stage.daemon.stop(signal.SIGKILL)
    time.sleep(0.3)
    stage.checks.check("a killed daemon leaves the upload running", upload.process.poll() is None)
    stage.checks.equal("and all the idle ones", _states_at(crowded), {"open": IDLE})
    started_at = stage.now()
    stage.start_daemon(RULES)
    ready_at, report = stage.now(), upload.finish()
    stage.checks.check("the next start ends it", report["error"] in ENDED and
                       started_at < report["at"] < ready_at + verdicts.AT_ONCE_MILLISECONDS / 1000, report)
    stage.checks.equal("and all the idle ones", _states_at(crowded), {"reset": IDLE})
    crowd.stop()
    stage.checks.check("no one cleans up beside a daemon", stage.clean_up() == 1)
    second = subprocess.run((world.BUILD / "vantryd",), capture_output=True, text=True, timeout=20)
    stage.checks.check("no second daemon starts", second.returncode == 1 and "running already" in second.stderr, second)
    address = stage.ipv4()
    stage.expect_physical("a new one is direct", stage.courier.run("connect", address, 80), address)
    upload = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
    upload.report()
    stage.daemon.stop(signal.SIGKILL)
    cleaned_at = stage.now()
    stage.checks.check("what a killed daemon leaves can be taken away", stage.clean_up() == 0)
    stage.expect_ended("and its connections are ended", upload.finish(), cleaned_at, ENDED)
    _nothing_left(stage, "cleaning up leaves nothing")
    stage.start_daemon(RULES)

    address = stage.ipv4()
    reading = stage.courier.start("read", address, 8080, "--duration", 20)
    reading.report()
    stopped_at = stage.now()
    stage.stop_daemon()
    stage.expect_ended("a stop ends a connection in order", reading.finish(), stopped_at, ("EOF",))
    _nothing_left(stage, "a stop leaves nothing")


def _many_idle_ones(stage):
    """Connections that take no descriptor of the daemon's, and their aim."""
    def descriptors():
        return len(os.listdir(f"/proc/{stage.daemon.process.pid}/fd"))
    before, address = descriptors(), stage.ipv4()
    crowd = stage.courier.start("crowd", address, 8080, "--count", IDLE, "--duration", 60)
    crowd.report()
    stage.checks.check(f"{IDLE} idle connections take no descriptor", descriptors() < before + 10, descriptors())
    return crowd, address


def _states_at(address: str) -> dict[str, int]:
    return collections.Counter(each.state for each in network.seen_at(address))


def _nothing_left(stage, what: str) -> None:
    left = subprocess.run("nft list tables; ip rule; ip -6 rule", shell=True, capture_output=True, text=True).stdout
    stage.checks.check(what, "vantry" not in left and "768" not in left, left)
    # It had been strict for a while.
    marks_count = pathlib.Path("/proc/sys/net/ipv4/conf/eth0/src_valid_mark").read_text().strip()
    stage.checks.equal(f"{what} of the reverse-path filter", marks_count, "0")
