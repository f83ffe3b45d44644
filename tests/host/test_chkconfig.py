"""The order that chkconfig gives to real init.d scripts whose links do not say any."""
import pathlib
import re

import pytest

from lofterdev.host import Host
from lofterdev.repository import REPOSITORY

HEADERS = pathlib.Path(__file__).with_name("init-headers.txt")
FACILITIES = {
    "$syslog": ["rsyslog", "sysklogd", "syslog-ng", "dsyslog", "inetutils-syslogd"],
    "$network": ["networking", "ifupdown"],
    "$named": ["named", "dnsmasq", "lwresd", "bind9", "unbound", "pdns-recursor", "$network"],
    "$time": ["hwclock"],
    "$portmap": ["rpcbind"],
    "$mail-transport-agent": ["postfix"],
}


def read_headers() -> dict[str, dict[str, list[str]]]:
    headers = {}
    for block in re.split(r"^\[", HEADERS.read_text(), flags=re.MULTILINE)[1:]:
        name, *lines = block.strip().splitlines()
        headers[name.rstrip("]")] = {key: words.split() for key, words in (line.split(":", 1) for line in lines)}
    return headers


def dependencies_among(headers: dict[str, dict[str, list[str]]]) -> set[tuple[str, str]]:
    """(what comes first, what comes after it), of the scripts that run level 2 starts."""
    counted = {name for name, header in headers.items() if "2" in header["Default-Start"]}
    providers = {word: name for name in sorted(counted) for word in (name, *headers[name]["Provides"])}

    def scripts(word: str) -> set[str]:
        if word in FACILITIES:
            return {script for other in FACILITIES[word] for script in scripts(other)}
        return {providers[word]} if word in providers else set()
    pairs = set()
    for name in counted:
        header = headers[name]
        for word in header.get("Required-Start", []) + header.get("Should-Start", []):
            pairs |= {(first, name) for first in scripts(word)}
        for word in header.get("X-Start-Before", []):
            pairs |= {(name, after) for after in scripts(word)}
    last = {name for name in counted if "$all" in headers[name].get("Required-Start", []) + headers[name].get("Should-Start", [])}
    pairs |= {(first, name) for name in last for first in counted - last}
    return {(first, after) for first, after in pairs if first != after}


def write_script(host: Host, name: str, header: dict[str, list[str]]) -> None:
    lines = [f"# {key}: {' '.join(words)}" for key, words in header.items()]
    host.write_script(f"/etc/init.d/{name}", "\n".join(["### BEGIN INIT INFO", *lines, "### END INIT INFO"]))


def link(host: Host, entry: str) -> None:
    folder = host.path("/etc/rc2.d")
    folder.mkdir(exist_ok=True)
    (folder / entry).symlink_to(f"../init.d/{entry[3:]}")


def priorities(host: Host) -> dict[str, int]:
    outcome = host.run("/bin/chkconfig", "-p")
    assert (outcome.status, outcome.errors) == (0, "")
    return {line.split()[0].removeprefix("/etc/init.d/"): int(line.split()[1]) for line in outcome.output.splitlines()}


@pytest.fixture
def chkconfig_host(host: Host) -> Host:
    host.write("/bin/chkconfig", (REPOSITORY / "host/linux/chkconfig").read_bytes(), 0o755)
    host.write("/etc/insserv.conf.d/postfix", "# added by a package\n$mail-transport-agent +postfix\n")
    return host


@pytest.mark.parametrize("links", ["without links", "all links alike"])
def test_sixty_real_scripts_come_after_all_that_they_need(chkconfig_host: Host, links: str) -> None:
    headers = read_headers()
    pairs = dependencies_among(headers)
    assert len(headers) > 60 and len(pairs) > 100
    for name, header in headers.items():
        write_script(chkconfig_host, name, header)
        if links == "all links alike" and "2" in header["Default-Start"]:
            link(chkconfig_host, f"S01{name}")
    found = priorities(chkconfig_host)
    assert set(found) == {name for name, header in headers.items() if "2" in header["Default-Start"]}
    assert {(first, after) for first, after in pairs if found[first] >= found[after]} == set()
    # No group can be larger: nothing in it could have come with the group before.
    needed = {after: max(found[first] for first, other in pairs if other == after) for _, after in pairs}
    assert {name: needed.get(name, 0) + 1 for name in found} == found


def test_links_that_are_all_alike_say_what_runs_and_the_headers_when(chkconfig_host: Host) -> None:
    write_script(chkconfig_host, "logger", {"Provides": ["rsyslog"], "Default-Start": ["2"]})
    write_script(chkconfig_host, "web", {"Provides": ["web"], "Required-Start": ["$syslog"], "Default-Start": ["2"]})
    write_script(chkconfig_host, "mail", {"Provides": ["mail"], "Required-Start": ["$syslog"], "Default-Start": ["2"]})
    write_script(chkconfig_host, "elsewhere", {"Provides": ["elsewhere"], "Required-Start": ["web"], "Default-Start": ["3"]})
    chkconfig_host.write_script("/etc/init.d/plain", "exit 0")
    for entry in ("S01logger", "S01web", "S01elsewhere", "S01plain", "K01mail"):
        link(chkconfig_host, entry)
    assert priorities(chkconfig_host) == {"logger": 1, "plain": 1, "web": 2, "elsewhere": 3}


def test_links_that_differ_are_the_order(chkconfig_host: Host) -> None:
    for name in ("one", "two"):
        write_script(chkconfig_host, name, {"Provides": [name], "Default-Start": ["2"]})
    link(chkconfig_host, "S01two")
    link(chkconfig_host, "S02one")
    assert priorities(chkconfig_host) == {"two": 1, "one": 2}
