"""What is in the packages of `./dev package`."""
import os
import pathlib
import subprocess

import pytest

from lofterdev.repository import REPOSITORY

PACKAGES = REPOSITORY / "build" / "debian"
# What Debian wants in a package, and cmake does not install.
DEBIANS = ("usr/share/doc/", "usr/share/lintian/")


def files(root: pathlib.Path) -> set[str]:
    """Files, and directories that are empty. Packages have manual pages compressed."""
    found = {path.relative_to(root).as_posix() for path in root.rglob("*") if not path.is_dir() or not any(path.iterdir())}
    return {path.removesuffix(".gz") for path in found if not path.startswith(DEBIANS)}


def unpacked(name: str, folder: pathlib.Path) -> set[str]:
    archive, = PACKAGES.glob(f"{name}_*.deb")
    subprocess.run(["dpkg-deb", "-x", archive, folder], check=True)
    return files(folder)


def installed(folder: pathlib.Path, *options: str) -> set[str]:
    subprocess.run(["cmake", "--install", REPOSITORY / "build" / "release", *options], check=True, stdout=subprocess.DEVNULL,
                   env={**os.environ, "DESTDIR": str(folder)})
    return files(folder)


def test_packages_and_cmake_install_the_same_files(tmp_path: pathlib.Path) -> None:
    unpacked("lofter", tmp_path / "packages")
    unpacked("lofter-analyze", tmp_path / "packages")
    assert unpacked("lofter-dev", tmp_path / "packages") == installed(tmp_path / "root")
    assert unpacked("lofter-host", tmp_path / "host") == installed(tmp_path / "host-root", "--component", "host")


@pytest.mark.parametrize("name", ["lofter", "lofter-analyze", "lofter-dev", "lofter-host"])
def test_no_package_has_a_plugin(tmp_path: pathlib.Path, name: str) -> None:
    assert [path for path in unpacked(name, tmp_path) if path.startswith("usr/libexec/lofter/plugins/")] == []
