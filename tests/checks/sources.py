"""The tracked source files of the repository."""
import pathlib
import subprocess

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]


def Tracked(*patterns):
    """Also files that are new and not ignored, so that a check speaks before the commit does."""
    listing = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", *patterns],
                             cwd=REPOSITORY, check=True, stdout=subprocess.PIPE, text=True).stdout
    return [path for path in map(pathlib.PurePosixPath, sorted(set(listing.splitlines()))) if (REPOSITORY / path).is_file()]
