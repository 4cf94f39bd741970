"""The table and the plot of a benchmark run: bench_report.py FIGURES.json [--svg FILE]"""
from statistics import median

from report import Axis, corner, panel, report, write_svg

WAYS = ("direct", "stunnel", "mosquitto", "daemon")
TITLES = ("direct TLS", "stunnel", "mosquitto", "cloud_svr")
COLOURS = ("#6b7280", "#2563eb", "#d97706", "#dc2626")
RATIOS = ("direct", "stunnel", "mosquitto")
CLIENTS = (1, 8, 32, 200)

# A row: its label, the case, the figure in the case's records (None: they are plain numbers), and
# the way that stands in cloud_svr's column when it isn't "daemon".
ROWS = (
    ("round trip, p50, us", "1 x 128", "p50"),
    ("round trip, p90, us", "1 x 128", "p90"),
    ("round trip, p99, us", "1 x 128", "p99"),
    ("round trip, 4 KiB, p50, us", "1 x 4096", "p50"),
    ("round trip, 16,000 B, p50, us", "1 x 16000", "p50"),
    ("round trip, log thrown away, p50, us", "1 x 128", "p50", "no log"),
    ("requests/s, 1 client", "1 x 128", "rps"),
    ("requests/s, 8 clients", "8 x 128", "rps"),
    ("requests/s, 32 clients", "32 x 128", "rps"),
    ("requests/s, 200 clients", "200 x 128", "rps"),
    ("requests/s, 32 clients, 4 KiB", "32 x 4096", "rps"),
    ("requests/s, 32 clients, 16,000 B", "32 x 16000", "rps"),
    ("requests/s, 32 clients, log thrown away", "32 x 128", "rps", "no log"),
    ("gateway's CPU per request, 1 client, us", "1 x 128", "cpu"),
    ("gateway's CPU per request, 32 clients, us", "32 x 128", "cpu"),
    ("the same, log thrown away, us", "32 x 128", "cpu", "no log"),
    ("cloud to device, plug-in, p50, us", "ask 1", "p50"),
    ("cloud to device, plug-in, 8 at once, requests/s", "ask 8", "rps"),
    ("cloud to device, registered client, p50, us", "ask 1", "p50", "registered"),
    ("cloud to device, registered client, 8 at once, requests/s", "ask 8", "rps", "registered"),
    ("start to first answer, ms", "first", None),
    ("lost connection to next answer, ms", "reconnect", None),
    ("PSS, 1 quiet client, KiB", "memory 1", "pss"),
    ("PSS, 32 quiet clients, KiB", "memory 32", "pss"),
    ("PSS, 200 quiet clients, KiB", "memory 200", "pss"),
    ("private memory, 1 quiet client, KiB", "memory 1", "private"),
    ("private memory, 200 quiet clients, KiB", "memory 200", "private"),
    ("peak RSS, KiB", "peak", None),
    ("threads, 1 quiet client", "memory 1", "threads"),
    ("threads, 200 quiet clients", "memory 200", "threads"),
    ("idle CPU, %", "idle", "cpu_percent"),
    ("idle wake-ups/s", "idle", "wake_ups"),
)


def values(figures, case, way, key):
    return [record if key is None else record[key]
            for record in figures.get(case, {}).get(way, [])]


def shown(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def ratio(ours, theirs):
    """The median over the rounds: what slows one round down slows all ways in it."""
    pairs = [our / their for our, their in zip(ours, theirs) if their > 0]
    return f"{median(pairs):.2f}" if pairs else ""


def table_row(figures, label, case, key, ours="daemon"):
    columns = {way: values(figures, case, ours if way == "daemon" else way, key) for way in WAYS}
    cells = [shown(median(columns[way]) if columns[way] else None) for way in WAYS]
    if key == "cpu":
        cells[0], columns["direct"] = "", []
    return [label, *cells, *(ratio(columns["daemon"], columns[way]) for way in RATIOS)]


def print_table(run):
    header = ["", *TITLES, *("/ " + title for title in TITLES[:3])]
    rows = []
    for mode, figures in run["figures"].items():
        rows.append([f"**{mode}**"] + [""] * (len(header) - 1))
        rows += [table_row(figures, *row) for row in ROWS if row[1] in figures]
    widths = [max(len(row[i]) for row in [header, *rows]) for i in range(len(header))]
    rule = ["-" * widths[0], *("-" * (width - 1) + ":" for width in widths[1:])]
    for row in [header, rule, *rows]:
        cells = [row[0].ljust(widths[0]), *(c.rjust(w) for c, w in zip(row[1:], widths[1:]))]
        print("| " + " | ".join(cells) + " |")


# ---- The plot: two panels, a mode in each row, both axes logarithmic

ACROSS = Axis(CLIENTS[0], CLIENTS[-1], {n: n for n in CLIENTS}, "clients")
PANELS = (("Round trip, p50, us", "p50", 10, 100000, (10, 100, 1000, 10000, 100000)),
          ("Requests/s", "rps", 1000, 200000, (1000, 3000, 10000, 30000, 100000)))


def lines(figures, key):
    for way, colour in zip(WAYS, COLOURS):
        yield colour, [(n, median(values(figures, f"{n} x 128", way, key))) for n in CLIENTS]


def plot(run, name):
    body = []
    for row, (mode, figures) in enumerate(run["figures"].items()):
        for column, (title, key, low, high, ticks) in enumerate(PANELS):
            up = Axis(low, high, {tick: f"{tick:,}" for tick in ticks})
            body += panel(corner(row, column), f"{title} ({mode})", ACROSS, up,
                          lines(figures, key), dots=True)
    write_svg(name, len(run["figures"]), zip(TITLES, COLOURS), body)


report(print_table, plot)
