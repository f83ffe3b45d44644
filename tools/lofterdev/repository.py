"""Where the working tree is, and how its tools call others and say what they do."""
import pathlib
import subprocess

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
HOST = REPOSITORY / "host"

Word = str | pathlib.Path | int | float


def say(text: object) -> None:
    print(f"==> {text}", flush=True)


def output(*command: Word) -> str:
    """What a command that has to succeed writes."""
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE, text=True).stdout
