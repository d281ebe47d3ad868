"""The programs on disk, stripped, and the libraries that they need."""

import re
import tempfile
from pathlib import Path

from . import programs
from .daemons import own_binary
from .programs import PEERS, TOP, run

NOTES = {"BusyBox crond": "the whole of BusyBox, of which crond is an applet"}


def stripped_size(program):
    with tempfile.NamedTemporaryFile() as small:
        run("strip", "-o", small.name, program, cwd=TOP)
        return Path(small.name).stat().st_size


def libraries(program):
    return re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-d", program, cwd=TOP))


def all_programs():
    """Yields the title and the files of each daemon, including its own library."""
    yield "kestcrond", [own_binary(copies=True)]
    small = TOP / "build/minsize/kestcrond"
    if small.exists():
        yield "kestcrond, minsize", [small]
    yield "cron", [PEERS / "cron/usr/sbin/cron"]
    yield "bcron", [
        *sorted((PEERS / "bcron/usr/sbin").iterdir()),
        next((PEERS / "libbg2").rglob("libbg.so.2")).resolve(),
    ]
    yield "BusyBox crond", [programs.PEERS / "busybox/busybox"]


def measure(_):
    rows = []
    for title, files in all_programs():
        try:
            needed = dict.fromkeys(name for file in files for name in libraries(file))
            rows.append(
                {
                    "daemon": title,
                    "bytes": sum(map(stripped_size, files)),
                    "files": [file.name for file in files],
                    "note": NOTES.get(title, ""),
                    "libraries": [name for name in needed if "libbg" not in name],
                }
            )
        except (RuntimeError, OSError) as fault:
            rows.append({"daemon": title, "fault": str(fault)})
    return rows
