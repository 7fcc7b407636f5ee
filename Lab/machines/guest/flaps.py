"""Inside a machine: what an application with a rule for the VPN sends while the VPN goes and comes, fallback "block".

usage: flaps.py [--vpn TEXT] [--count N]    only VPNs whose name holds the text

Sender, captures and figures are those of Tests/Flaps; the VPNs are real, and the daemon has to see by itself that
they are gone. Ends with status 1 where a packet left in the clear.
"""

import argparse
import pathlib
import sys
import time

import package
import uplink
from uplink import run
from vantrylab import applications, network, world
from vpns import NetworkManagerWireGuard, OpenVpn, Vpn, WireGuard

sys.path.append(str(world.PROJECT / "Tests" / "Flaps"))
import flapping  # noqa: E402


class KilledOpenVpn(OpenVpn):
    name = "OpenVPN, killed"

    def down(self) -> None:
        run("systemctl", "kill", "--signal=KILL", self.unit, check=False)
        # It is not to be started again before its time.
        super().down()


def all_flapping() -> list[Vpn]:
    return [WireGuard("wg-quick", "wg0", "0.0.0.0/0, ::/0"), OpenVpn(), KilledOpenVpn(), NetworkManagerWireGuard()]


def has_come(kind: str, lines: list[str], since: float) -> bool:
    return any(kind in line and float(line.split()[0]) >= since for line in lines[-500:])


def raised(vpn: Vpn, tunnelled: list[str]) -> float:
    """When the VPN's own steps were done; returns once the application is at work."""
    vpn.up()
    vpn.wait_until_up()
    since = time.time()
    for kind in flapping.KINDS:
        network.wait_until(lambda: has_come(kind, tunnelled, since), f"{kind} comes through {vpn.name}", 30)
    return since


def play(vpn: Vpn, count: int, program: pathlib.Path) -> flapping.Outcome:
    uplink.manage_by(vpn.manager)
    vpn.prepare()
    vpn.up()
    vpn.wait_until_up()
    outcome, returns, seconds_up = flapping.Outcome(count), [], 0.0
    with flapping.capture([], uplink.card(uplink.CARD)) as clear, \
            flapping.capture(network.in_server([]), vpn.far_device) as tunnelled:
        sender = flapping.traffic(program, 7200, "fleeting")
        since = raised(vpn, tunnelled)
        for number in range(count):
            if number % 10 == 0:
                print(f"{vpn.name}: {number} of {count}, {len(tunnelled)} packets through the tunnel", flush=True)
            time.sleep(flapping.UP_SECONDS)
            seconds_up += time.time() - since
            vpn.down()
            time.sleep(flapping.DOWN_SECONDS)
            returns.append(since := raised(vpn, tunnelled))
        sender.kill()
        sender.wait()
    vpn.down()
    # What a VPN without IPv6 leaves to the uplink is told by `vantryctl check`, and is no fault of a fall.
    outcome.take([line for line in clear if vpn.has_ipv6 or flapping.IPV6 not in line], tunnelled, returns)
    print(f"{vpn.name}, {outcome}; {outcome.through_tunnel / seconds_up:.0f} packets a second while it was up", flush=True)
    for line in outcome.sent_in_clear[:20]:
        print(f"  in the clear: {line.rstrip()}", flush=True)
    print(run("vantryctl", "status", check=False), flush=True)
    return outcome


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--vpn", default="")
    parser.add_argument("--count", type=int, default=100)
    options = parser.parse_args()
    uplink.up()
    package.leave_manual_unindexed()
    package.install()
    (world.APPLICATIONS / "bin").mkdir(exist_ok=True)
    program = applications.make_interpreter(flapping.PROGRAM)
    run("vantryctl", "rules", "set", flapping.PROGRAM, "vpn")
    run("vantryctl", "rules", "fallback", "vpn", "block")
    outcomes = [play(vpn, options.count, program) for vpn in all_flapping() if options.vpn in vpn.name]
    return 1 if any(each.sent_in_clear for each in outcomes) else 0


if __name__ == "__main__":
    sys.exit(main())
