"""The table and the plot of a fleet's return: fleet_report.py FIGURES.json [--svg FILE]"""
from report import Axis, corner, panel, report, write_svg

TITLES = {False: "without jitter", True: "with jitter"}
COLOURS = {False: "#d97706", True: "#2563eb"}
CLOUD = "#6b7280"

MINUTE, HOUR, DAY = 60, 3600, 86400
ACROSS = Axis(1, 6 * DAY, {1: "1 s", 10: "10 s", MINUTE: "1 min", 10 * MINUTE: "10 min",
                           HOUR: "1 h", 6 * HOUR: "6 h", DAY: "1 d", 5 * DAY: "5 d"},
              "time since the loss")
ATTEMPTS = Axis(1, 2e6, {1: 1, 10: 10, 100: 100, 1e3: "1 k", 1e4: "10 k", 1e5: "100 k", 1e6: "1 M"})
SHARE = Axis(0, 100, {tick: f"{tick} %" for tick in range(0, 101, 25)}, scale=float)


def duration(seconds):
    if seconds < 120:
        return f"{seconds} s"
    if seconds < 2 * HOUR:
        return f"{seconds / MINUTE:.0f} min"
    return f"{seconds / HOUR:.0f} h"


def most_after(run, second):
    return max(most for begin, _, most, _ in run["bins"] if begin >= second)


def print_table(figures):
    print("| outage | | half back | 99 % back | all back | attempts per device "
          "| most attempts/s once the cloud is there |")
    print("|---|---|---:|---:|---:|---:|---:|")
    for run in figures["runs"]:
        cells = (f"{run['outage_minutes']} min", TITLES[run["jitter"]],
                 *(duration(run[key]) for key in ("half_s", "most_s", "all_s")),
                 f"{run['attempts'] / figures['devices']:.0f}",
                 f"{most_after(run, run['outage_minutes'] * MINUTE):,}")
        print("| " + " | ".join(cells) + " |")


def attempt_points(run):
    """A bin without attempts is at the bottom."""
    return [(begin + 1, most) for begin, _, most, _ in run["bins"]]


def share_points(run, devices):
    """A bin's last figure counts at its end."""
    ends = [begin + 1 for begin, *_ in run["bins"][1:]] + [run["bins"][-1][0] * 1.05]
    points = [(end, 100 * bin[3] / devices) for end, bin in zip(ends, run["bins"])]
    return points + [(ACROSS.high, 100)]


def plot(figures, name):
    outages = sorted({run["outage_minutes"] for run in figures["runs"]})
    body = []
    for row, minutes in enumerate(outages):
        runs = [run for run in figures["runs"] if run["outage_minutes"] == minutes]
        there = minutes * MINUTE
        columns = (("Attempts in the busiest second", ATTEMPTS, attempt_points),
                   ("Devices back", SHARE, lambda run: share_points(run, figures["devices"])))
        for column, (title, up, points) in enumerate(columns):
            lines = [(CLOUD, [(there, up.low), (there, up.high)])]
            lines += [(COLOURS[run["jitter"]], points(run)) for run in runs]
            body += panel(corner(row, column), f"{title}, {minutes} min outage", ACROSS, up, lines)
    legend = [(TITLES[jitter], COLOURS[jitter]) for jitter in TITLES] + [("cloud is back", CLOUD)]
    write_svg(name, len(outages), legend, body)


report(print_table, plot)
