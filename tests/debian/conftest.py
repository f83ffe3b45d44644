"""The Debian machine whose disk `./dev vm debian` has made, booted once per module, and the services it is asked for."""
import functools
import socket
from collections.abc import Iterator

import pytest

from lofterdev.debian_machine import boot, DebianMachine
from lofterdev.waiting import eventually

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


@pytest.fixture(scope="module")
def machine() -> Iterator[DebianMachine]:
    """Logged in, once every daemon has answered."""
    with boot() as machine:
        machine.log_in()
        for name, (question, answer) in DAEMONS.items():
            eventually(functools.partial(answers, machine.ports[name], question, answer), f"{name} answers", SECONDS)
        yield machine
