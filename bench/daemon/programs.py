"""The measured programs, and those that measure.

The other cron daemons come from Debian: `cron` and `bcron` are unpacked from their packages but not installed,
and BusyBox is built from its source package, because the packaged one has no crond. All of them are in
build/bench/peers.
"""

import shutil
import subprocess
from pathlib import Path
from urllib.parse import unquote

TOP = Path(__file__).resolve().parents[2]
BUILD = TOP / "build/bench"
PEERS = BUILD / "peers"
TOOLS = BUILD / "daemon-tools"

PACKAGES = ["cron", "bcron", "libbg2"]
BUSYBOX_OPTIONS = {
    "CONFIG_CROND": "y",
    "CONFIG_FEATURE_CROND_D": "y",
    "CONFIG_FEATURE_CROND_CALL_SENDMAIL": "y",
    "CONFIG_FEATURE_CROND_SPECIAL_TIMES": "y",
    "CONFIG_FEATURE_CROND_DIR": '"/var/spool/cron"',
}


def run(*command, cwd=None):
    """Runs a command in the directory of the peers, and returns its output. The error of a failed command
    contains its output."""
    done = subprocess.run(
        [str(word) for word in command],
        cwd=cwd or PEERS,
        text=True,
        errors="replace",
        stdin=subprocess.DEVNULL,
        capture_output=True,
    )
    if done.returncode != 0:
        raise RuntimeError(f"{command[0]} failed: {(done.stdout + done.stderr)[-2000:]}")
    return done.stdout


def unpacked(package):
    """Downloads and unpacks a package; returns the directory of its files."""
    target = PEERS / package
    if not target.exists():
        run("apt-get", "download", package)
        fresh = PEERS / f"{package}.fresh"
        run("dpkg-deb", "-x", *PEERS.glob(f"{package}_*.deb"), fresh)
        fresh.rename(target)
    return target


def source_options():
    """Options with which apt-get finds source packages, without a change to the lists of the machine."""
    parts, lists, cache = PEERS / "apt/parts", PEERS / "apt/lists", PEERS / "apt/cache"
    for directory in (parts, lists / "partial", cache / "archives/partial"):
        directory.mkdir(parents=True, exist_ok=True)
    for listing in Path("/etc/apt/sources.list.d").glob("debian*.sources"):
        text = listing.read_text().replace("Types: deb\n", "Types: deb-src\n")
        (parts / listing.name).write_text(text)
    lines = Path("/etc/apt/sources.list")
    if lines.exists():
        (parts / "lines.list").write_text(
            "".join("deb-src" + line[3:] + "\n" for line in lines.read_text().splitlines() if line.startswith("deb "))
        )
    return [
        "-o",
        "Dir::Etc::SourceList=/dev/null",
        "-o",
        f"Dir::Etc::SourceParts={parts}",
        "-o",
        f"Dir::State::Lists={lists}",
        "-o",
        f"Dir::Cache={cache}",
    ]


def busybox():
    """Builds BusyBox as Debian configures it, with crond; returns the program."""
    program = PEERS / "busybox/busybox"
    if program.exists():
        return program
    options = source_options()
    run("apt-get", *options, "update")
    run("apt-get", *options, "source", "--download-only", "busybox")
    tree = PEERS / "busybox"
    shutil.rmtree(tree, ignore_errors=True)  # remains of a failed build
    run("dpkg-source", "-x", "--no-check", *PEERS.glob("busybox_*.dsc"), tree)
    lines = [
        line
        for line in (tree / "debian/config/pkg/deb").read_text().splitlines()
        if not any(f"{name}=" in line or f"{name} " in line for name in BUSYBOX_OPTIONS)
    ]
    lines += [f"{name}={value}" for name, value in BUSYBOX_OPTIONS.items()]
    (tree / ".config").write_text("\n".join(lines) + "\n")
    run("sh", "-c", "yes '' | make oldconfig && make -j2 busybox", cwd=tree)
    return program


def versions():
    """The names and Debian versions of the other daemons."""
    found = [
        archive.name.split("_")[:2]
        for name in PACKAGES
        for archive in PEERS.glob(f"{name}_*.deb")
        if not name.startswith("lib")
    ]
    log = PEERS / "busybox/debian/changelog"
    if log.exists():
        found.append(log.read_text().split(")", 1)[0].split(" ("))
    return [f"{name} {unquote(version)}" for name, version in found]


def build_tools():
    """Builds the static programs in the directory of this file."""
    TOOLS.mkdir(parents=True, exist_ok=True)
    for source in Path(__file__).parent.glob("*.c"):
        tool = TOOLS / source.stem
        if not tool.exists() or tool.stat().st_mtime < source.stat().st_mtime:
            run("cc", "-O2", "-Wall", "-Werror", "-static", "-o", tool, source, cwd=TOP)


def fetch_peers():
    """Downloads, unpacks and builds the other daemons; returns the reasons of failures."""
    PEERS.mkdir(parents=True, exist_ok=True)
    faults = {}
    for name, get in [(package, lambda name=package: unpacked(name)) for package in PACKAGES] + [("busybox", busybox)]:
        try:
            get()
        except (RuntimeError, OSError) as fault:
            faults[name] = str(fault)
    return faults
