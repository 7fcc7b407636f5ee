"""The distributions that there are machines of: suites, packages, and where packages come from.

Package sources are those of the machine that makes them, with the suite put in place: what apt is told
here is all that is known about mirrors.
"""

import dataclasses
import pathlib
import re
import subprocess

PROJECT = pathlib.Path(__file__).resolve().parent.parent.parent
KEYRING = "/usr/share/keyrings/debian-archive-keyring.gpg"

# What a machine has: a kernel, the services that people have, and what the lab runs there.
_MACHINE = """
    linux-image-cloud-amd64 systemd systemd-sysv systemd-resolved libnss-resolve dbus dbus-user-session udev
    libpam-systemd polkitd adduser sudo kmod procps iproute2 iputils-ping iptables nftables conntrack tcpdump python3
    bash-completion man-db ca-certificates util-linux-extra busybox-static strace
    network-manager wireguard-tools openvpn strongswan-swanctl charon-systemd openssl dnsmasq-base
    ufw firewalld podman crun netavark aardvark-dns fuse3 squashfuse squashfs-tools flatpak ostree
    libnetfilter-queue1 libmnl0 libnftnl11 libnftables1 libsystemd0 libelf1 zlib1g
""".split()

# What things are built with, beside what the package itself asks for.
BUILD_PACKAGES = ["build-essential", "ccache", "cmake", "debhelper", "ninja-build", "pkgconf", "lintian"]


class CannotMake(Exception):
    """What this computer lacks for a machine, in words for the person at it."""


class BuildFailed(Exception):
    """What went wrong while the project itself was built."""


@dataclasses.dataclass(frozen=True)
class Distribution:
    name: str
    suite: str
    own_packages: tuple[str, ...]

    def machine_packages(self) -> list[str]:
        return sorted({*_MACHINE, *self.own_packages})

    def sources(self) -> list[str]:
        """Lines of a sources list: this machine's, for this distribution."""
        return sorted({f"deb [signed-by={KEYRING}] {address} {self.suite}{pocket} {component}"
                       for address, pocket, component in _sources_here()})


DISTRIBUTIONS = {each.name: each for each in (
    Distribution("debian-12", "bookworm", ("libfmt9", "libpugixml1v5", "libbpf1")),
    Distribution("debian-13", "trixie", ("libfmt10", "libpugixml1v5", "libbpf1")))}


def _sources_here() -> list[tuple[str, str, str]]:
    """(address, what follows the code name, component) of each of Debian's own package sources here."""
    told = subprocess.run(["apt-get", "indextargets", "--format",
                           "$(CREATED_BY)|$(REPO_URI)|$(CODENAME)|$(RELEASE)|$(COMPONENT)|$(ORIGIN)|$(LABEL)"],
                          capture_output=True, text=True).stdout
    found = []
    for line in told.splitlines():
        kind, address, codename, release, component, origin, _ = line.split("|")
        pocket = re.search(r"(-updates|-security)?$", codename or release)[0]
        if kind == "Packages" and origin == "Debian" and component == "main" and "backports" not in release:
            found.append((address, pocket, component))
    if not found:
        raise CannotMake("apt knows no package source of Debian here (or no lists yet: apt-get update)")
    return found
