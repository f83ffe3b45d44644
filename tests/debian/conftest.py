"""The Debian machine whose disk `./dev vm debian` has made, booted once per module, and the services it is asked for."""
import os
import pathlib
import socket
import sys
from collections.abc import Iterator

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(REPOSITORY / "host" / "debian"), str(REPOSITORY / "host" / "machine")]
from debian_machine import DebianMachine  # noqa: E402
from support.waiting import Eventually  # noqa: E402

DAEMONS = {"http": (b"GET / HTTP/1.0\r\n\r\n", b" 200 OK"), "redis": (b"PING\r\n", b"+PONG"), "ssh": (b"", b"SSH-2.0-dropbear")}
SECONDS = 200


def answers(port: int, question: bytes, answer: bytes) -> bool:
    """Whether the machine's service on that port says so, asked from outside."""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=20) as connection:
            connection.sendall(question)
            said = b""
            while answer not in said and (data := connection.recv(4096)):
                said += data
            return answer in said
    except OSError:
        return False


def boot(directory: pathlib.Path) -> DebianMachine:
    """A machine with a shell on its serial line. All that the line shows is kept in a file beside the disk."""
    console = open(directory / "console.log", "a", encoding="utf-8")
    return DebianMachine(directory, watch=lambda text: (console.write(text), console.flush()))


@pytest.fixture(scope="module")
def machine() -> Iterator[DebianMachine]:
    """Logged in, once every daemon has answered."""
    with boot(pathlib.Path(os.environ["LOFTER_DEBIAN"])) as machine:
        machine.log_in()
        for name, (question, answer) in DAEMONS.items():
            Eventually(lambda: answers(machine.ports[name], question, answer), f"{name} answers", SECONDS)
        yield machine
