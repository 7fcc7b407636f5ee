"""What became of an application's attempt, judged by the server's list and the application's own report."""

import dataclasses

from . import network, world

# A denied application is told so at once. This is far above what that takes and far below any
# time-out of a connection that is left hanging.
AT_ONCE_MILLISECONDS = 1000 * world.PATIENCE

# How an application may notice that something of it that was running has been ended.
ENDED = ("ECONNABORTED", "ECONNRESET", "EPIPE", "ECONNREFUSED")


@dataclasses.dataclass(frozen=True)
class Verdict:
    """Whether something is as expected, and in a few words what was seen."""

    is_so: bool
    seen: str


def went_physical(report: dict, address: str) -> Verdict:
    return _arrived_from(report, address, (network.CLIENT_IPV4, network.CLIENT_IPV6))


def went_through_tunnel(report: dict, address: str) -> Verdict:
    return _arrived_from(report, address, (network.TUNNEL_IPV4, network.TUNNEL_IPV6))


def was_denied(report: dict, address: str) -> Verdict:
    """Nothing arrived, and the application got an error at once."""
    is_so = report["error"] not in ("", "ETIMEDOUT", "EOF") and _failed_at_once(report, address)
    return Verdict(is_so, _describe(report, address))


def was_closed(report: dict, address: str) -> Verdict:
    """Nothing arrived, and the application's connection was taken and ended in order, at once."""
    return Verdict(report["error"] == "EOF" and _failed_at_once(report, address),
                   _describe(report, address))


def ended_after(report: dict, changed_at: float, errors: tuple[str, ...]) -> Verdict:
    """What was running ended with one of the errors, at once after the change."""
    delay = (report["at"] - changed_at) * 1000
    is_so = report["error"] in errors and 0 < delay < AT_ONCE_MILLISECONDS
    how = report["error"] or report["outcome"]
    return Verdict(is_so, f"{how} {delay:.0f} ms after the change")


def went_on(report: dict) -> Verdict:
    return Verdict((report["outcome"], report["error"]) == ("finished", ""),
                   f"{report['outcome']} {report['phase']} {report['error']}".strip()
                   + f" after {report['bytesSent']} bytes sent and {report['bytesReceived']} received")


def _failed_at_once(report: dict, address: str) -> bool:
    return (report["outcome"] == "failed" and report["milliseconds"] < AT_ONCE_MILLISECONDS
            and not network.seen_at(address))


def _arrived_from(report: dict, address: str, clients: tuple[str, str]) -> Verdict:
    client = clients[":" in address]
    arrived = {each.client for each in network.seen_at(address)}
    succeeded = report["outcome"] in ("connected", "answered", "finished")
    return Verdict(succeeded and report["serverSaw"] == client and arrived == {client},
                   _describe(report, address))


_WAYS = {network.CLIENT_IPV4: network.PHYSICAL, network.CLIENT_IPV6: network.PHYSICAL,
         network.TUNNEL_IPV4: "tunnel", network.TUNNEL_IPV6: "tunnel"}


def _describe(report: dict, address: str) -> str:
    arrived = sorted({each.client for each in network.seen_at(address)})
    server = " and ".join(f"{client} ({_WAYS.get(client, 'unknown')})" for client in arrived) or "nothing"
    application = "" if report["error"] == "" else f"; {report['error']} after {report['milliseconds']:.1f} ms"
    return f"server saw {server}{application}"
