"""Which way each new connection goes, and what is recorded of it.

With the VPN up: the decision words, the default, IPv4 and IPv6, streams and datagrams, sockets that
are bound to an interface, and the traffic that is nobody's business.
"""

import socket
import subprocess
import threading

from vantrylab import applications, network, world
from vantrylab.host import Rules

RULES = Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn",
                     "com.example.chatter": "block", "com.example.studio": "sideways"})


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(RULES)
    _direct(stage)
    _one_port_to_many_places(stage)
    _through_the_vpn(stage)
    _words_that_only_look_like_rules(stage)
    _datagrams_stay_on_the_systems_route(stage)
    _bound_to_an_interface(stage)
    _further_ways_of_a_connection(stage)
    _loopback_is_not_offered(stage)
    _accounts_of_the_system(stage)
    _direct_by_default(stage)
    stage.stop_daemon()
    network.vpn_down()


def _direct(stage) -> None:
    for name, next_address, words in (("IPv4", stage.ipv4, []), ("IPv6", stage.ipv6, []),
                                      ("IPv4 through an IPv6 socket", stage.ipv4, ["--mapped"])):
        address = next_address()
        report = stage.courier.run("connect", address, 443, *words)
        stage.expect_physical(f"direct, {name}", report, address)
        stage.expect_record(f"direct, {name}: recorded", address, bundleId="com.example.courier",
                            appName="courier", routingDecision="direct", actualRoute="direct",
                            sourceIp=network.CLIENT_IPV4, destinationPort=443, protocolType="tcp",
                            isVpnConnected=True)
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        report = stage.courier.run("echo", address, 8080, "--bytes", 3_000_000)
        stage.expect_physical(f"direct, three megabytes both ways to {address}", report, address)


def _one_port_to_many_places(stage) -> None:
    """An application may use a port of its own for several connections to different places."""
    for next_address in (stage.ipv4, stage.ipv6):
        process = [stage.courier.start("serve") for _ in range(2)]
        for number in range(6):
            address = next_address()
            report = process[number % 2].ask("connect", address, 80, "--source-port", 40404)
            stage.expect_physical(f"direct, from one port to place {number + 1}, {address}", report, address)
        for each in process:
            each.stop()


def _through_the_vpn(stage) -> None:
    for name, application, decision in (("a rule", stage.ledger, "vpn"), ("no rule", stage.nobody, "vpn"),
                                        ("an unknown word", stage.studio, "sideways")):
        for next_address in (stage.ipv4, stage.ipv6):
            address = next_address()
            report = application.run("echo", address, 80, "--bytes", 200_000)
            stage.expect_tunnel(f"VPN by {name}: {address}", report, address)
            stage.expect_record(f"VPN by {name}: {address} recorded", address,
                                bundleId=application.identifier, routingDecision=decision,
                                actualRoute="vpn", sourceIp=network.TUNNEL_IPV4, protocolType="tcp")


def _words_that_only_look_like_rules(stage) -> None:
    """Blocking is a list of its own: the word alone only keeps a connection off the direct path."""
    since = stage.daemon.mark()
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        stage.expect_tunnel(f"the rule 'block' alone does not block {address}",
                            stage.chatter.run("connect", address, 80), address)
        stage.expect_line(f"the rule 'block' is logged for {address}",
                          f"BLOCK (filter-enforced): com.example.chatter TCP -> {address}:80", since)
        stage.expect_no_record(f"the rule 'block' leaves no record of {address}", address)


def _datagrams_stay_on_the_systems_route(stage) -> None:
    for application in (stage.courier, stage.ledger, stage.nobody):
        for next_address in (stage.ipv4, stage.ipv6):
            for words in ([], ["--unconnected"]):
                address = next_address()
                report = application.run("datagram", address, 443, *words)
                stage.expect_tunnel(f"datagram of {application.identifier} {' '.join(words)} to {address}",
                                    report, address)
    address = stage.ipv4()
    stage.expect_tunnel("name look-up of a direct application",
                        stage.courier.run("resolve", address, 53), address)
    stage.expect_no_record("datagrams leave no record", address)


def _bound_to_an_interface(stage) -> None:
    address = stage.ipv4()
    report = stage.ledger.run("connect", address, 80, "--bind-device", network.PHYSICAL)
    stage.expect_physical("a socket bound to an interface keeps it", report, address)
    stage.expect_no_record("a socket bound to an interface is not the proxy's", address)
    # The server sees the same address on both ways.
    subprocess.run(["nft", "-f", "-"], check=True, text=True, input=f"""table inet watching {{
        counter tunnelled {{ }}
        chain sent {{ type filter hook postrouting priority 200;
                      oifname {network.tunnel_device()} udp dport 8080 counter name tunnelled; }}; }}""")
    for next_address in (stage.ipv4, stage.ipv6):
        for words in (["--unicast-interface"], ["--unconnected", "--unicast-interface"],
                      ["--unconnected", "--datagram-interface"]):
            address = next_address()
            stage.expect_physical(f"datagrams keep the interface that they choose: {' '.join(words)}, {address}",
                                  stage.ledger.run("datagram", address, 8080, *words, network.PHYSICAL), address)
    counter = subprocess.run(["nft", "list", "counter", "inet", "watching", "tunnelled"], check=True,
                             capture_output=True, text=True).stdout
    stage.checks.check("and none of them goes into the tunnel", "packets 0 " in counter, counter)
    subprocess.run(["nft", "delete", "table", "inet", "watching"], check=True)


MULTIPATH = """
import socket, sys, time
one = socket.socket(socket.AF_INET, socket.SOCK_STREAM, 262)
if sys.argv[1] == "serve":
    one.bind(("", 5001))
    one.listen()
    print("listens", flush=True)
    one, _ = one.accept()
    count = 0
    while piece := one.recv(65536):
        count += len(piece)
    print(count, flush=True)
else:
    one.connect((sys.argv[2], 5001))
    for _ in range(20):
        one.sendall(bytes(50000))
        time.sleep(0.05)
"""


def _further_ways_of_a_connection(stage) -> None:
    """Multipath TCP, which the kernel is told to spread over the physical interface too, stays where it began."""
    weaver, address = applications.make_interpreter("weaver"), stage.ipv4()
    stage.apply(RULES.but(rules={"weaver": "vpn"}))
    subprocess.run(["ip", "mptcp", "limits", "set", "subflow", "2"], check=True)
    subprocess.run(["ip", "mptcp", "endpoint", "add", network.CLIENT_IPV4, "dev", network.PHYSICAL, "subflow"], check=True)
    server = subprocess.Popen(network.in_server([weaver, "-c", MULTIPATH, "serve"]), stdout=subprocess.PIPE, text=True)
    server.stdout.readline()
    subprocess.run([weaver, "-c", MULTIPATH, "connect", address], check=True, timeout=60,
                   user=world.PERSON if world.is_root_world() else None)
    stage.checks.equal("Multipath TCP: all bytes arrive", server.communicate(timeout=60)[0].strip(), "1000000")
    stage.checks.equal("and all of them through the VPN: connections, further ways of them",
                       [_of_multipath(name) for name in ("MPCapableACKRX", "MPJoinSynRx")], [1, 0])
    subprocess.run(["ip", "mptcp", "endpoint", "flush"], check=True)
    stage.apply(RULES)


def _of_multipath(counter: str) -> int:
    """The kernel's, in the server's network."""
    shown = subprocess.run(network.in_server(["cat", "/proc/net/netstat"]), capture_output=True, text=True, check=True).stdout
    names, values = (line.split()[1:] for line in shown.splitlines() if line.startswith("MPTcpExt:"))
    return int(values[names.index(counter)])


def _loopback_is_not_offered(stage) -> None:
    since = stage.daemon.mark()
    with socket.create_server(("127.0.0.1", 0)) as listener:
        def greet():
            connection, _ = listener.accept()
            connection.sendall(b'{"client":"loopback"}\n')
            connection.close()
        greeter = threading.Thread(target=greet)
        greeter.start()
        report = stage.courier.run("connect", "127.0.0.1", listener.getsockname()[1])
        greeter.join(10)
    stage.checks.equal("loopback works", report["serverSaw"], "loopback")
    stage.checks.equal("loopback is never offered",
                       [each.text for each in stage.daemon.lines(since) if "TCP flow" in each.text], [])


def _accounts_of_the_system(stage) -> None:
    if stage.applications_run_as_one_account():
        return
    address = stage.ipv4()
    stage.expect_physical("an application of a bundle follows its rule also when root runs it",
                          stage.courier.run("connect", address, 80, user=None), address)


def _direct_by_default(stage) -> None:
    stage.apply(RULES.but(defaultAction="direct"))
    for application, expect in ((stage.nobody, stage.expect_physical), (stage.ledger, stage.expect_tunnel)):
        address = stage.ipv4()
        expect(f"direct by default: {application.identifier}",
               application.run("connect", address, 80), address)
    stage.apply(RULES)
