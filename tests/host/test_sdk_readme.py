"""The commands of the kit's README, run word for word and in its order, lead to a boot that runs the plugin."""
import os
import pathlib
import re
import shutil
import subprocess

import pytest

from lofterdev.host import BUILD, ENVIRONMENT, Host
from lofterdev.repository import REPOSITORY

README = REPOSITORY / "sdk" / "README.md"
PLUGINS = "usr/libexec/lofter/plugins"


@pytest.fixture
def checkout(tmp_path: pathlib.Path) -> pathlib.Path:
    """What the README takes for the repository: nothing that its commands make lands in the real one."""
    (tmp_path / "build").mkdir()
    (tmp_path / "build" / "release").symlink_to(BUILD)
    for part in ("host", "tools"):
        (tmp_path / part).symlink_to(REPOSITORY / part)
    shutil.copytree(REPOSITORY / "sdk", tmp_path / "sdk")
    return tmp_path


def test_following_the_readme_boots_the_plugin(checkout: pathlib.Path) -> None:
    blocks = re.findall(r"^```sh\n(.*?)^```$", README.read_text(), re.MULTILINE | re.DOTALL)
    assert blocks
    (checkout / "commands").write_text("".join(blocks))
    followed = subprocess.run(["sh", "-eux", "commands"], cwd=checkout, text=True, timeout=300,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              env={**ENVIRONMENT, "HOME": os.environ.get("HOME", "/")})
    print(followed.stdout)
    assert followed.returncode == 0
    # Once in the boot, once by hand.
    assert followed.stdout.count("\nmy-step ran\n") == 2
    assert "executing start plugin: my-step\n" in followed.stdout
    plugins = {path.name for path in (checkout / "host-root" / PLUGINS).iterdir()}
    assert plugins == {"my-step.so", "hello.so", "inventory.so", "identity.so", "banner.so", "greeting.json"}
    for step in ("hello", "inventory", "identity", "banner"):
        assert f"executing start plugin: {step}\n" in followed.stdout
    assert "Method invocation failed" not in followed.stdout
    assert (checkout / "host-root/run/banner").read_text() == "Welcome\n"
    assert (checkout / "host-root/run/greeting").read_text() == "good morning\n"


def test_the_three_line_plugin_of_the_readme_compiles_as_c_and_as_cxx(tmp_path: pathlib.Path) -> None:
    source = re.search(r"^```c\n(.*?)^```$", README.read_text(), re.MULTILINE | re.DOTALL).group(1)
    assert source.count("\n") == 3
    for compiler, suffix, standards in (("gcc", "c", ("c11", "c17")), ("g++", "cpp", ("c++17", "c++20"))):
        path = tmp_path / f"plugin.{suffix}"
        path.write_text(source)
        for standard in standards:
            subprocess.run([compiler, f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fPIC", "-shared",
                            f"-I{REPOSITORY / 'sdk' / 'include'}", "-o", tmp_path / "plugin.so", path], check=True)


def test_pkg_config_names_the_folder_for_plugins(host: Host) -> None:
    environment = {**os.environ, "PKG_CONFIG_PATH": str(host.path("/usr/share/pkgconfig"))}

    def ask(word: str) -> str:
        return subprocess.run(["pkg-config", word, "lofter"], env=environment, check=True, text=True, stdout=subprocess.PIPE).stdout.strip()
    assert ask("--variable=plugindir") == "/usr/libexec/lofter/plugins"
    assert ask("--variable=includedir") == "/usr/include"
    assert host.exists("/usr/include/lofter/plugin.h")
    assert host.exists("/usr/share/man/man7/lofter-plugin.7")


@pytest.mark.parametrize("build", ["make", "cmake"])
def test_a_symbol_that_is_nowhere_is_found_when_the_template_is_built(host: Host, tmp_path: pathlib.Path, build: str) -> None:
    shutil.copytree(REPOSITORY / "sdk" / "template", tmp_path / "my-step")
    source = tmp_path / "my-step" / "my-step.c"
    source.write_text(source.read_text().replace('puts("my-step ran");', "int Nowhere(void); Nowhere();"))
    environment = {**os.environ, "CMAKE_PREFIX_PATH": str(host.path("/usr")), "PKG_CONFIG_SYSROOT_DIR": str(host.path("/")),
                   "PKG_CONFIG_PATH": str(host.path("/usr/share/pkgconfig"))}
    commands = {"make": "make", "cmake": "cmake -B build && cmake --build build"}
    outcome = subprocess.run(["sh", "-c", commands[build]], cwd=tmp_path / "my-step", env=environment, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert outcome.returncode != 0
    assert "undefined reference to `Nowhere'" in outcome.stdout
