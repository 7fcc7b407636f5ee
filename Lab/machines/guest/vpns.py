"""The VPNs of the matrix, each raised and ended the way that a person does it, with far ends in the server."""

import ipaddress
import pathlib
import subprocess
from collections.abc import Callable

from uplink import card, CARD, run
from vantrylab import network, world

_TUNNELS = [ipaddress.ip_network(each) for each in ("10.7.0.0/24", "10.8.0.0/24", "10.9.0.0/24", "fd00:8::/64")]
_UPLINKS = [ipaddress.ip_network(each) for each in ("192.0.2.0/24", "2001:db8:1::/64")]


def way_of(client: str) -> str:
    """By which way an address that the server saw came to it."""
    address = ipaddress.ip_address(client)
    if any(address in each for each in _TUNNELS):
        return "tunnel"
    return "uplink" if any(address in each for each in _UPLINKS) else client


class Vpn:
    """One kind of VPN. `device` is its tunnel's, None where it has none."""

    name = ""
    device: str | None = None
    # The tunnel's in the server.
    far_device = "wg-server"
    manager = "systemd-networkd"
    # What the tunnel's own packets are, in words of nft, for firewalls that must let them out.
    carrier = "udp dport 51820"
    has_ipv6 = True
    # For some networks only: beside full ones it is the VPN where it is named.
    is_split = False

    def prepare(self) -> None:
        """Makes configuration and far end, once."""

    def up(self) -> None:
        raise NotImplementedError

    def down(self) -> None:
        raise NotImplementedError

    def wait_until_up(self) -> None:
        network.wait_until(lambda: "inet 10." in run("ip", "address", "show", "dev", self.device, check=False),
                           f"{self.name} is up", 30)


class WireGuard(Vpn):
    """wg-quick; split, only the upper half of the server's addresses goes through it."""

    def __init__(self, name: str, device: str, allowed: str):
        self.name, self.device, self._allowed = name, device, allowed
        self.is_split = "0.0.0.0/0" not in allowed
        self._unit = f"wg-quick@{device}"

    def prepare(self) -> None:
        write_wireguard(self.device, self._allowed)

    def up(self) -> None:
        run("systemctl", "start", self._unit)

    def down(self) -> None:
        run("systemctl", "stop", self._unit, check=False)


class NetworkManagerWireGuard(Vpn):
    name = "NetworkManager, WireGuard"
    device = "nmwg0"
    manager = "NetworkManager"

    def prepare(self) -> None:
        file = write_wireguard(self.device, "0.0.0.0/0, ::/0")
        run("nmcli", "connection", "delete", self.device, check=False)
        run("nmcli", "connection", "import", "type", "wireguard", "file", str(file))
        run("nmcli", "connection", "modify", self.device, "connection.autoconnect", "no")
        self.down()

    def up(self) -> None:
        run("nmcli", "--wait", "30", "connection", "up", self.device)

    def down(self) -> None:
        run("nmcli", "--wait", "30", "connection", "down", self.device, check=False)


class OpenVpn(Vpn):
    name = "OpenVPN, redirect-gateway"
    device = "tun0"
    far_device = "tun-server"
    unit = "openvpn-client@lab"
    carrier = "udp dport 1194"
    has_ipv6 = False

    def prepare(self) -> None:
        server = world.STATE / "openvpn-server.conf"
        if server.exists():
            return
        prints = {side: make_certificate(side) for side in ("server", "client")}
        common = ("proto udp\npersist-key\ntls-cert-profile insecure\n{keys}\n"
                  "<peer-fingerprint>\n{peer}\n</peer-fingerprint>\nverb 3\n")
        server.write_text(
            f"dev tun-server\ndev-type tun\nlocal {network.VPN_ENDPOINT}\nport 1194\ndh none\ntopology subnet\n"
            "server 10.7.0.0 255.255.255.0\npush \"redirect-gateway def1\"\nkeepalive 5 30\n"
            + common.format(keys=_key_lines("server"), peer=prints["client"]))
        client = pathlib.Path("/etc/openvpn/client/lab.conf")
        client.write_text(f"client\ndev tun0\nremote {network.VPN_ENDPOINT} 1194\nnobind\n"
                          + common.format(keys=_key_lines("client"), peer=prints["server"]))
        start_in_server(["openvpn", "--config", str(server)], "openvpn-server.log")

    def up(self) -> None:
        run("systemctl", "start", self.unit)

    def down(self) -> None:
        run("systemctl", "stop", self.unit, check=False)


class Ikev2(Vpn):
    """IPsec by policies, as a road warrior has it: an address of the tunnel's, and no device."""

    name = "IKEv2 (strongSwan)"
    carrier = "meta l4proto esp"
    has_ipv6 = False
    _connection = """connections {{ lab {{
        version = 2
        {ends}
        proposals = aes128-sha256-modp2048
        local {{ auth = psk
            id = {own} }}
        remote {{ auth = psk
            id = {other} }}
        children {{ lab {{ {child}
            esp_proposals = aes128-sha256 }} }}
        }} }}
        {pools}
        secrets {{ ike-lab {{ secret = "a secret of the lab" }} }}
        """

    def prepare(self) -> None:
        folder = world.STATE / "swanctl-server"
        folder.mkdir(exist_ok=True)
        (folder / "swanctl.conf").write_text(self._connection.format(
            ends=f"local_addrs = {network.VPN_ENDPOINT}\npools = lab", own="far", other="near",
            child="local_ts = 0.0.0.0/0", pools="pools { lab { addrs = 10.9.0.2-10.9.0.9 } }"))
        socket = "unix:///run/lab/charon.vici"
        settings = world.STATE / "strongswan-server.conf"
        settings.write_text("charon-systemd { load_modular = yes\n plugins { include /etc/strongswan.d/charon/*.conf\n"
                            f" vici {{ socket = {socket} }} }} }}\n")
        start_in_server(["env", f"STRONGSWAN_CONF={settings}", "charon-systemd"], "charon-server.log")
        network.wait_until((world.STATE / "charon.vici").exists, "the far end of IKEv2 starts", 30)
        run("env", f"SWANCTL_DIR={folder}", f"STRONGSWAN_CONF={settings}", "swanctl", "--load-all", "--noprompt",
            "--uri", socket)
        pathlib.Path("/etc/swanctl/conf.d/lab.conf").write_text(self._connection.format(
            ends=f"remote_addrs = {network.VPN_ENDPOINT}\nvips = 0.0.0.0", own="near", other="far",
            child="remote_ts = 0.0.0.0/0", pools=""))

    def up(self) -> None:
        run("systemctl", "start", "strongswan")
        run("swanctl", "--initiate", "--child", "lab", "--timeout", "20")

    def down(self) -> None:
        run("swanctl", "--terminate", "--ike", "lab", check=False)

    def wait_until_up(self) -> None:
        network.wait_until(lambda: "inet 10.9." in run("ip", "address"), f"{self.name} is up", 30)


def all_vpns() -> list[Vpn]:
    return [WireGuard("wg-quick, full tunnel", "wg0", "0.0.0.0/0, ::/0"),
            WireGuard("wg-quick, split tunnel", "wg1", "198.51.100.128/25, 10.8.0.0/24"),
            OpenVpn(), NetworkManagerWireGuard(), Ikev2()]


def write_wireguard(name: str, allowed: str) -> pathlib.Path:
    """Makes new keys and a file for wg-quick or an import, and the far end again with them."""
    key_file, public = network.wireguard_keys("client")
    run(*network.in_server(["ip", "link", "delete", "wg-server"]), check=False)
    server_public = network.wireguard_server_up(public)
    file = pathlib.Path(f"/etc/wireguard/{name}.conf")
    file.write_text(f"[Interface]\nPrivateKey = {pathlib.Path(key_file).read_text().strip()}\n"
                    f"Address = {network.TUNNEL_IPV4}/32, {network.TUNNEL_IPV6}/128\n[Peer]\n"
                    f"PublicKey = {server_public}\nEndpoint = {network.VPN_ENDPOINT}:51820\nAllowedIPs = {allowed}\n")
    file.chmod(0o600)
    return file


def make_certificate(side: str) -> str:
    """Makes a key and a certificate that vouches for itself; gives its fingerprint."""
    run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30",
        "-subj", f"/CN={side}", "-keyout", str(world.STATE / f"{side}.key"), "-out", str(world.STATE / f"{side}.crt"))
    told = run("openssl", "x509", "-in", str(world.STATE / f"{side}.crt"), "-noout", "-fingerprint", "-sha256")
    return told.strip().split("=")[1]


def _key_lines(side: str) -> str:
    return f"cert {world.STATE / side}.crt\nkey {world.STATE / side}.key"


def start_in_server(command: list[str], log: str) -> None:
    with open(world.STATE / log, "ab") as output:
        subprocess.Popen(network.in_server(command), stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                         start_new_session=True)
