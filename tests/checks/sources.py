"""The tracked source files of the repository."""
import pathlib
import subprocess

from lofterdev.repository import REPOSITORY


def tracked(*patterns: str) -> list[pathlib.PurePosixPath]:
    """Also files that are new and not ignored, so that a check speaks before the commit does."""
    listing = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", *patterns],
                             cwd=REPOSITORY, check=True, stdout=subprocess.PIPE, text=True).stdout
    return [path for path in map(pathlib.PurePosixPath, sorted(set(listing.splitlines()))) if (REPOSITORY / path).is_file()]
