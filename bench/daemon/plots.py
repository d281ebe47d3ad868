"""The plots of docs/performance.md and docs/performance-tables.md."""

from math import log10

PLOTS = {}
# Distinguishable with any colour vision, and by their marks.
LOOKS = {
    "kestcrond": ("#d55e00", "o", 2.4),
    "kestcrond, no copies": ("#d55e00", "o", 2.4),
    "cron": ("#0072b2", "s", 1.4),
    "bcron": ("#009e73", "^", 1.4),
    "BusyBox crond": ("#7b5ea7", "D", 1.4),
}


def plot(name):
    def keep(function):
        PLOTS[name] = function
        return function

    return keep


def curves(rows, column):
    """The points of each daemon, sorted."""
    found = {}
    for row in rows:
        if "median" in row and row["daemon"] in LOOKS and row[column] > 0:
            found.setdefault(row["daemon"], []).append((row[column], row["median"]))
    return {name: sorted(points) for name, points in found.items()}


def spread(places, least):
    """Moves overlapping labels apart, both of a pair by the same distance; keeps their order."""
    order = sorted(places, key=places.get)
    for _ in range(50):
        for low, high in zip(order, order[1:]):
            lacking = max(0, least - (places[high] - places[low]))
            places[low] -= lacking / 2
            places[high] += lacking / 2
    return places


def name_curves(axes, found):
    """Names each line at its right end."""
    low, high = (log10(value) for value in axes.get_ylim())
    ends = {name: (log10(points[-1][1]) - low) / (high - low) for name, points in found.items()}
    for name, place in spread(ends, 0.07).items():
        axes.annotate(
            name,
            (found[name][-1][0], 10 ** (low + place * (high - low))),
            xytext=(9, 0),
            textcoords="offset points",
            va="center",
            fontsize=9,
            color=LOOKS[name][0],
            annotation_clip=False,
        )


def draw_curves(axes, found, title, across, up):
    """Draws lines with two logarithmic axes."""
    from matplotlib.ticker import LogLocator

    axes.set_xscale("log")
    axes.set_yscale("log")
    for name, points in found.items():
        color, mark, width = LOOKS[name]
        axes.plot(*zip(*points), color=color, marker=mark, linewidth=width, markersize=5)
    axes.set_title(title, loc="left", fontsize=10)
    axes.set_xlabel(across)
    axes.set_ylabel(up)
    counts = sorted({count for points in found.values() for count, _ in points})
    axes.set_xticks(counts, [f"{count:,}" for count in counts])
    axes.minorticks_off()
    axes.yaxis.set_major_locator(LogLocator(subs=(1, 2, 5)))
    axes.yaxis.set_major_formatter(lambda value, _: f"{value:,.10g}")
    axes.grid(True, axis="y", color="#dddddd", linewidth=0.7)
    for side in ("top", "right"):
        axes.spines[side].set_visible(False)


def draw_pair(figure, sides):
    """Draws two charts side by side, each given as (curves, title, label across, label up)."""
    left = figure.add_subplot(1, 2, 1)
    pair = [left, figure.add_subplot(1, 2, 2, sharey=left)]
    for axes, side in zip(pair, sides):
        draw_curves(axes, *side)
    for axes, side in zip(pair, sides):  # after both have their final height
        name_curves(axes, side[0])


@plot("cycle")
def cycle(figure, rows):
    draw_pair(
        figure,
        [
            (
                curves([row for row in rows if row["per_file"] == layout], "jobs"),
                f"A cycle with no job due, {title}",
                "jobs",
                "CPU time, ms",
            )
            for layout, title in [(0, "all jobs in one file"), (1, "a file per job")]
        ],
    )


@plot("load")
def load(figure, rows):
    starts = [row for row in rows if row["what"] == "start" and row["kind"] == "cpu" and row["daemon"] != "kestcrond"]
    draw_pair(
        figure,
        [
            (
                curves([row for row in starts if row["per_file"] == layout], "jobs"),
                f"Exec to ready, {title}",
                "jobs",
                "CPU time, ms",
            )
            for layout, title in [(1, "a file per job"), (100, "files of 100 jobs")]
        ],
    )


@plot("memory")
def memory(figure, rows):
    draw_pair(
        figure,
        [
            (curves([row for row in rows if row["sort"] == sort], "jobs"), f"{sort.capitalize()} memory", "jobs", "KiB")
            for sort in ("proportional", "private")
        ],
    )


@plot("launch")
def launch(figure, rows):
    spans = [row for row in rows if row["what"] == "first to last" and row["batch"] > 1]
    draw_pair(
        figure,
        [
            (
                curves([row for row in spans if row["others"] == others], "batch"),
                f"From the first start to the last, {others:,} other jobs loaded",
                "jobs due in one minute",
                "ms",
            )
            for others in (0, 10000)
        ],
    )


def draw(directory, results):
    import matplotlib

    matplotlib.use("svg")
    import matplotlib.pyplot as pyplot

    matplotlib.rcParams["svg.hashsalt"] = "kestcrond"  # the same figures yield the same file
    directory.mkdir(parents=True, exist_ok=True)
    for name, function in PLOTS.items():
        rows = results.get(name, {}).get("rows", [])
        if not any("median" in row for row in rows):
            continue
        figure = pyplot.figure(figsize=(11, 4.2), layout="constrained")
        function(figure, rows)
        figure.savefig(directory / f"performance-{name}.svg", metadata={"Date": None})
        pyplot.close(figure)
