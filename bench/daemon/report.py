"""Writes results as tables, on the terminal and in docs/performance-tables.md."""

import math
import re
import textwrap

from . import plots

BEGIN, END = "<!-- daemon -->", "<!-- /daemon -->"
OWN = "kestcrond"
FIGURES = {"values", "median", "low", "high"}
MINUTES_A_YEAR = 365.25 * 24 * 60
LAYOUTS = {0: "all jobs in one file", 1: "a file per job", 100: "files of 100 jobs"}


def number(value):
    """The number with three significant digits."""
    if value is None:
        return "–"
    if value == 0:
        return "0"
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    return f"{value:,.{digits}f}"


def figure(row):
    """The median with the lowest and the highest value, or the reason of a failure."""
    if row is None:
        return "–"
    if "median" not in row:
        return f"failed: {row.get('fault', 'nothing measured')}"[:80]
    if row["low"] == row["high"]:
        return number(row["median"])
    return f"{number(row['median'])} ({number(row['low'])}–{number(row['high'])})"


def markdown(head, lines, sides=None):
    """A table in Markdown; `sides` aligns each column to the left ("l") or to the right ("r")."""
    rules = {"l": "---", "r": "---:"}
    rows = [head, [rules[side] for side in sides or "l" + "r" * (len(head) - 1)], *lines]
    return "\n".join("| " + " | ".join(map(str, row)) + " |" for row in rows)


def chosen(rows, **wanted):
    return [row for row in rows if all(row.get(key) == value for key, value in wanted.items())]


def medians(rows, column):
    """The medians by the value of a column."""
    return {row[column]: row["median"] for row in rows if "median" in row}


def exponent(of_count):
    """The exponent with which the figure grows, from 100 to the largest count."""
    last = max(of_count, default=0)
    if 100 not in of_count or last <= 100 or min(of_count[100], of_count[last]) <= 0:
        return None
    return math.log(of_count[last] / of_count[100]) / math.log(last / 100)


def is_own(name):
    return name.startswith(OWN)


def grid(rows, column="jobs", growth=True, ratio="kestcrond to the lowest of the others"):
    """A table of daemons and sizes, the growth of each, and the ratio of ours to the best other daemon."""
    counts = sorted({row[column] for row in rows})
    # Ours first.
    daemons = sorted({row["daemon"]: None for row in rows}, key=lambda name: not is_own(name))
    of_daemon = {name: chosen(rows, daemon=name) for name in daemons}
    lines = []
    for name, cells in of_daemon.items():
        found = {row[column]: row for row in cells}
        line = [name, *(figure(found.get(count)) for count in counts)]
        lines.append(line + ([number(exponent(medians(cells, column)))] if growth else []))
    others = [
        medians(cells, column) for name, cells in of_daemon.items() if not is_own(name) and not name.startswith("bare")
    ]
    best = {count: min((cells[count] for cells in others if count in cells), default=None) for count in counts}
    for name, cells in of_daemon.items():
        if is_own(name) and len(daemons) > 1:
            own = medians(cells, column)
            lines.append(
                [
                    f"*{ratio}*",
                    *(number(own[count] / best[count]) if own.get(count) and best[count] else "–" for count in counts),
                ]
                + ([""] if growth else [])
            )
    head = ["", *(f"{count:,}" for count in counts)] + (["grows with the power"] if growth else [])
    return markdown(head, lines)


def cycle(rows):
    for layout in (0, 1):
        part = [row for row in rows if row["per_file"] == layout or row["jobs"] == 0]
        yield f"Milliseconds of CPU time for a cycle, {LAYOUTS[layout]}:\n\n{grid(part)}"


def drift(rows):
    drifts = []
    for row in chosen(rows, what="mean drift"):
        single = chosen(rows, daemon=row["daemon"], what="drift", jobs=row["jobs"])[0]
        per_year = row["median"] / 1000 * MINUTES_A_YEAR / 60
        drifts.append([row["daemon"], f"{row['jobs']:,}", number(row["median"]), figure(single), number(per_year)])
    late = [[row["daemon"], f"{row['jobs']:,}", figure(row)] for row in chosen(rows, what="late")]
    yield (
        "Milliseconds by which the time between two records exceeds 60 seconds, over the whole time "
        "and one by one, and the minutes of a year that pass without a cycle for it:\n\n"
        + markdown(["", "jobs", "over all", "one by one", "minutes a year"], drifts)
    )
    yield (
        "The others sleep until the minute begins and skip none. They sleep whole seconds, so the "
        "delay of their job within the minute, in milliseconds, depends on when they were started:\n\n"
        + markdown(["", "jobs", "late"], late)
    )


def load(rows):
    for layout in (1, 100):
        part = [
            row
            for row in chosen(rows, what="start", kind="cpu", per_file=layout)
            if row["daemon"] not in (OWN, "bare copies")
        ]
        yield (
            f"Milliseconds of CPU time from exec to ready, {LAYOUTS[layout]}; ours without "
            f"the copies of programs:\n\n{grid(part)}"
        )
    names = {"start": "start to ready", "reload": "SIGHUP to ready"}
    lines = [
        [
            f"{names[what]}, {LAYOUTS[layout]}, {'CPU' if kind == 'cpu' else 'elapsed'}",
            chosen(rows, daemon="kestcrond, no copies", what=what, kind=kind, per_file=layout),
        ]
        for what in names
        for layout in (1, 100)
        for kind in ("cpu", "wall")
    ]
    yield (
        "kestcrond at a start and at a reload, without copies, in milliseconds of CPU time and "
        "of time elapsed:\n\n" + grid([{**row, "daemon": name} for name, cells in lines for row in cells])
    )
    yield (
        "With copies, beside as many bare starts of the copy program one by one, in "
        "milliseconds, CPU time of all processes and time elapsed:\n\n" + copies(rows)
    )


def copies(rows):
    lines = []
    for kind, name in (("cpu", "CPU"), ("wall", "elapsed")):
        for what in ("start", "reload"):
            floor = {row["jobs"]: row for row in chosen(rows, daemon="bare copies", what=what, kind=kind)}
            for row in chosen(rows, daemon=OWN, what=what, kind=kind):
                bare = floor.get(row["jobs"], {})
                both = "median" in row and "median" in bare
                lines.append(
                    [
                        f"{what}, {name}",
                        f"{row['jobs']:,}",
                        figure(row),
                        figure(bare),
                        number(row["median"] / bare["median"] if both else None),
                    ]
                )
    return markdown(["", "jobs", "kestcrond", "bare copies", "ratio"], lines)


def memory(rows):
    for sort in ("proportional", "resident", "private"):
        yield (f"KiB of {sort} memory:\n\n" + grid(chosen(rows, sort=sort)))
    lines = []
    for name in dict.fromkeys(row["daemon"] for row in rows):
        line = [name]
        for sort in ("proportional", "private"):
            of_count = medians(chosen(rows, daemon=name, sort=sort), "jobs")
            last = max(of_count, default=0)
            line.append(number((of_count[last] - of_count[0]) / last) if last and 0 in of_count else "–")
        lines.append(line)
    yield (
        "KiB for each further job, from none to the largest number:\n\n"
        + markdown(["", "proportional", "private"], lines)
    )


def launch(rows):
    for others in sorted({row["others"] for row in rows}):
        part = [row for row in chosen(rows, others=others) if row["batch"]]
        for what, title in (
            ("first to last", "from the first start to the last"),
            ("cpu in all", "of CPU time in total"),
            ("cpu of the daemon", "of CPU time of the daemon itself"),
            ("cpu of the daemon per start", "of CPU time of the daemon itself per job"),
        ):
            # With one job the first start is also the last.
            cells = [row for row in chosen(part, what=what) if what != "first to last" or row["batch"] > 1]
            if cells:
                unit = "Microseconds" if what.endswith("per start") else "Milliseconds"
                yield (f"{unit} {title}, with {others:,} other jobs loaded:\n\n" + grid(cells, "batch", growth=False))
    yield lost(rows)


def lost(rows):
    """Names jobs that were not started, or started twice."""
    faults = [
        f"{row['daemon']} started {row['low']:,} of {row['batch']:,} with " f"{row['others']:,} others loaded"
        for row in chosen(rows, what="started")
        if row.get("low") != row["batch"]
    ]
    faults += [
        f"{row['daemon']} started {row['high']:,} of {row['batch']:,} twice"
        for row in chosen(rows, what="twice")
        if row.get("high")
    ]
    return "Lost or duplicate starts: " + ("; ".join(faults) if faults else "none, by any of them") + "."


def sizes(rows):
    lines = [
        [
            row["daemon"],
            f"{row['bytes']:,}" if "bytes" in row else row["fault"][:80],
            ", ".join(row.get("libraries", [])),
            row.get("note") or ", ".join(row.get("files", [])),
        ]
        for row in rows
    ]
    yield "Stripped programs, in bytes, and the libraries that they need:\n\n" + markdown(
        ["", "bytes", "libraries", "what is counted"], lines, "lrll"
    )


# The heading of each part, how it was measured, and the function that makes its tables.
SECTIONS = {
    "cycle": (
        "A cycle with no job due",
        """
Every daemon runs on a private machine of its own, all at the same time and by the real clock, with
jobs that are due on a day that does not exist. A figure is the CPU time of the process that checks the
jobs, by `/proc/PID/schedstat`, between two sleeps. The others check when a minute begins; ours
gets a request to reload at that moment, so that its cycle is right before theirs, with a file per job
last.""",
        cycle,
    ),
    "drift": (
        "What a cycle adds to a minute",
        """
A job that is due in every minute records when it runs; "jobs" is the number of other jobs, which are
not due. The figure includes the start of that job. "Bare sleep" is a program that only sleeps for 60
seconds, and shows how late the timer itself is.""",
        drift,
    ),
    "load": (
        "Loading",
        """
The CPU time of all processes of a control group, from the exec until the runtime documents are
written and the daemon sleeps; of the others, until no process of theirs has run for 0.3 seconds.
BusyBox has a crontab for each account, and looks up each account in a list of that length. Without
copies, an empty file replaces each copy; the CPU time of making these files alone is subtracted.""",
        load,
    ),
    "memory": (
        "Memory",
        """
From `/proc/PID/smaps_rollup`, with all jobs in one file and one daemon at a time; the sum of both
processes of bcron.""",
        memory,
    ),
    "launch": (
        "Many starts at once",
        """
The number of jobs in the head of a column is due in one minute, "maxDelay" is 0, and each job records
when it was started. No two daemons start jobs at the same time. The total CPU time is that of the daemon,
its children, the shells between them and the jobs, which are the same small static program for all. Bare
starts are those of a loop that starts the same program and waits for it.""",
        launch,
    ),
    "sizes": (
        "On disk",
        """
""",
        sizes,
    ),
}


def machine_line(machine):
    return (
        f"{machine['cpu']}, {machine['cores']} cores, {machine['memory_gib']} GiB, "
        f"Linux {machine['kernel']}; load {machine['load_before']} before"
    )


def wrapped(text):
    """A table whose introduction is wrapped to the width of the document."""
    above, gap, table = text.partition("\n\n")
    return textwrap.fill(above, 100) + gap + table


def section(name, found, images=""):
    title, how, tables = SECTIONS[name]
    faults = [
        " ".join(str(value) for key, value in row.items() if key not in FIGURES)
        for row in found["rows"]
        if "fault" in row
    ]
    whole = any(set(row) == {"fault"} for row in found["rows"])
    where = f"`{found['command']}`, {found['when']}, on {machine_line(found['machine'])}."
    parts = [f"## {title}", how.strip(), textwrap.fill(where, 100)]
    if found["quick"]:
        parts.append("**A quick run; the figures are not a measurement.**")
    if not whole:
        parts += map(wrapped, tables(found["rows"]))
    parts += [f"Failed: {fault}" for fault in faults]
    if images and name in plots.PLOTS and not whole:
        parts.append(f"![{title}]({images}/performance-{name}.svg)")
    return "\n\n".join(filter(None, parts))


def text(results, images=""):
    return "\n\n".join(section(name, results[name], images) for name in SECTIONS if name in results)


def peers(results):
    return ", ".join(dict.fromkeys(peer for part in results.values() for peer in part["peers"]))


def write(top, results):
    """Writes the tables between the markers of the document, and the plots to docs/images."""
    document = top / "docs/performance-tables.md"
    old = document.read_text() if document.exists() else f"# Performance tables\n\n{BEGIN}\n{END}\n"
    body = f"""{BEGIN}
Written by `scripts/bench --report` from what `sudo scripts/bench` measured. A figure is the median,
with the lowest and the highest in brackets. "Grows with the power" describes how a figure grows from
100 jobs to the largest number: 1 is in proportion, 0 is not at all. The others are Debian's:
{peers(results)}.

{text(results, "images")}
{END}"""
    if BEGIN not in old or END not in old:
        raise SystemExit(f"{document} has no markers for the tables: {BEGIN} … {END}")
    document.write_text(re.sub(f"{BEGIN}.*{END}", lambda _: body, old, flags=re.DOTALL))
    plots.draw(top / "docs/images", results)
