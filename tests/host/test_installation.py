"""Installing without packages: where files may go, and that they can be taken away again."""
import os
import pathlib
import subprocess

from lofterdev.host import BUILD
from lofterdev.repository import REPOSITORY

REFUSAL = "a prefix of its own cannot be honoured"


def cmake(*words: str | pathlib.Path, root: pathlib.Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["cmake", *map(str, words)], env={**os.environ, "DESTDIR": str(root)}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def said(outcome: subprocess.CompletedProcess[str]) -> str:
    return " ".join(outcome.stdout.split())


def files(root: pathlib.Path) -> set[str]:
    return {path.relative_to(root).as_posix() for path in root.rglob("*") if not path.is_dir()}


def test_a_prefix_is_refused_when_it_is_given_to_an_installation(tmp_path: pathlib.Path) -> None:
    outcome = cmake("--install", BUILD, "--prefix", "/opt/lofter", root=tmp_path)
    assert outcome.returncode != 0
    assert REFUSAL in said(outcome)
    assert files(tmp_path) == set()


def test_a_prefix_is_refused_when_it_is_given_to_a_configuration(tmp_path: pathlib.Path) -> None:
    outcome = cmake("-S", REPOSITORY, "-B", tmp_path / "build", "-DCMAKE_INSTALL_PREFIX=/opt/lofter", root=tmp_path)
    assert outcome.returncode != 0
    assert REFUSAL in said(outcome)


def test_an_uninstallation_leaves_what_others_have_put_there(tmp_path: pathlib.Path) -> None:
    tmp_path = tmp_path / "root"
    assert cmake("--install", BUILD, root=tmp_path).returncode == 0
    # A list as an installation leaves it in its build tree, which other tests install from, too.
    build = tmp_path.with_name("build")
    build.mkdir()
    (build / "install_manifest.txt").write_text("".join(f"/{path}\n" for path in sorted(files(tmp_path))))
    plugin = tmp_path / "usr/libexec/lofter/plugins/mine.json"
    plugin.write_text("{}\n")
    outcome = cmake("-D", f"BUILD={build}", "-P", REPOSITORY / "cmake" / "Uninstall.cmake", root=tmp_path)
    assert outcome.returncode == 0, outcome.stdout
    assert files(tmp_path) == {"usr/libexec/lofter/plugins/mine.json"}
    left = {path.relative_to(tmp_path).as_posix() for path in tmp_path.rglob("*")}
    assert [path for path in left if "tessel" in path or "bootbank" in path or path == "usr/share/lofter"] == []


def test_the_demos_plugins_are_installed_for_the_demo_only(tmp_path: pathlib.Path) -> None:
    cmake("--install", BUILD, root=tmp_path)
    cmake("--install", BUILD, "--component", "host", root=tmp_path)
    assert list((tmp_path / "usr/libexec/lofter/plugins").iterdir()) == []
    cmake("--install", BUILD, "--component", "demo", root=tmp_path)
    assert {path.name for path in (tmp_path / "usr/libexec/lofter/plugins").iterdir()} == \
        {"hello.so", "inventory.so", "identity.so", "banner.so"}
