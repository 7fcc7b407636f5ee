"""The firewalls of the matrix, as a person sets them up."""

from uplink import run
from vantrylab import network
from vpns import Vpn


class Firewall:
    name = "none"

    def up(self, vpn: Vpn) -> None:
        pass

    def down(self) -> None:
        pass


class Ufw(Firewall):
    """Nothing in, and out only the web's port 80 and what the VPN itself needs."""

    name = "ufw"

    def up(self, vpn: Vpn) -> None:
        run("ufw", "--force", "reset")
        for direction in ("incoming", "outgoing"):
            run("ufw", "default", "deny", direction)
        run("ufw", "allow", "out", "80/tcp")
        for port in ("51820", "1194", "500", "4500"):
            run("ufw", "allow", "out", f"{port}/udp")
        run("ufw", "allow", "out", "to", network.VPN_ENDPOINT, "proto", "esp")
        run("ufw", "--force", "enable")

    def down(self) -> None:
        run("ufw", "--force", "disable", check=False)


class Firewalld(Firewall):
    name = "firewalld"

    def up(self, vpn: Vpn) -> None:
        run("systemctl", "start", "firewalld")

    def down(self) -> None:
        run("systemctl", "stop", "firewalld", check=False)


class KillSwitch(Firewall):
    """Lets only the tunnel, and what carries it, leave the machine."""

    name = "kill switch"

    def up(self, vpn: Vpn) -> None:
        tunnel = f'oifname "{vpn.device}"' if vpn.device else "rt ipsec exists"
        run("nft", f"""table inet killswitch {{
            chain output {{
                type filter hook output priority filter; policy drop;
                oifname "lo" accept
                {tunnel} accept
                ip daddr {network.VPN_ENDPOINT} accept
                udp dport {{ 67, 547 }} accept
                icmpv6 type {{ nd-neighbor-solicit, nd-neighbor-advert, nd-router-solicit }} accept
            }}
        }}""")

    def down(self) -> None:
        run("nft", "delete", "table", "inet", "killswitch", check=False)


def all_firewalls() -> list[Firewall]:
    return [Firewall(), Ufw(), Firewalld(), KillSwitch()]
