"""Everything that one run of scenarios plays with: the network, the applications, the daemon, the host.

Expectations are judged by the server's own list, by what the application got, and by the delay.
"""

from . import applications, network
from .checks import Checks

# A denied application is told so at once. This is far above what that takes and far below any
# time-out of a connection that is left hanging.
AT_ONCE_MILLISECONDS = 1000


class Stage:
    def __init__(self, checks: Checks):
        self.checks = checks
        self.applications = applications.lay_out()
        self._addresses_used = 0

    def ipv4(self) -> str:
        """An address of the server that no check has used yet."""
        self._addresses_used += 1
        return network.server_ipv4(self._addresses_used)

    def ipv6(self) -> str:
        self._addresses_used += 1
        return network.server_ipv6(self._addresses_used)

    def expect_physical(self, what: str, report: dict, address: str) -> None:
        self._expect_seen(what, report, address, (network.CLIENT_IPV4, network.CLIENT_IPV6))

    def expect_tunnel(self, what: str, report: dict, address: str) -> None:
        self._expect_seen(what, report, address, (network.TUNNEL_IPV4, network.TUNNEL_IPV6))

    def expect_denied(self, what: str, report: dict, address: str) -> None:
        """Nothing arrives, and the application gets an error at once."""
        arrived = network.seen_at(address)
        is_prompt = report["milliseconds"] < AT_ONCE_MILLISECONDS
        is_denied = report["outcome"] == "failed" and report["error"] not in ("", "ETIMEDOUT")
        self.checks.check(what, is_denied and is_prompt and not arrived, (report, arrived))

    def expect_nothing_arrived(self, what: str, address: str) -> None:
        self.checks.equal(what, network.seen_at(address), [])

    def _expect_seen(self, what: str, report: dict, address: str, clients: tuple[str, str]) -> None:
        client = clients[":" in address]
        arrived = {each.client for each in network.seen_at(address)}
        succeeded = report["outcome"] in ("connected", "answered", "finished")
        self.checks.check(what, succeeded and report["serverSaw"] == client and arrived == {client},
                          (report, arrived))
