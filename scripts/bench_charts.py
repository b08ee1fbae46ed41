#!/usr/bin/env python3
"""Charts and tables from zbiap_bench's JSON output (--benchmark_out_format=json).

Usage: scripts/bench_charts.py [--cpu] SIZES_JSON CHART_DIR

Reads the benchmarks run over sizes (the *BySize families, fitted to a complexity, and the
peers measured over the same sizes) and writes, into CHART_DIR:
  flat-cost.svg   each BySize family's time per item relative to its time per item at 100
                  (at 1 for the compound store, whose sizes are held stores), with the 1.5 goal;
  catalogue.svg   time per product against products: ours (JSON text to records) beside
                  simdjson's and nlohmann's DOM parses of the same text;
  receipts.svg    time per purchase against purchases: ours beside the OpenSSL-only decoder.
It prints a Markdown table of each family's fit and per-item ratio. Times are wall-clock unless
--cpu is given (use it on a busy machine). Standard library only; the SVG is written by hand.
"""

import json
import math
import sys
from collections import defaultdict
from pathlib import Path

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
COLOURS = ["#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd", "#8c564b", "#17becf"]


def load_series(path, field):
    """{family: {size: nanoseconds per operation}} and {family: (big_o, rms)}."""
    data = json.loads(Path(path).read_text())
    series = defaultdict(dict)
    fits = {}
    for run in data["benchmarks"]:
        if run.get("run_type") == "aggregate":
            if run.get("aggregate_name") == "BigO":
                fits[run["run_name"]] = [run["big_o"], None]
            elif run.get("aggregate_name") == "RMS":
                fits.setdefault(run["run_name"], [None, None])[1] = run["rms"]
            continue
        if "error_occurred" in run and run["error_occurred"]:
            continue
        family, _, arg = run["run_name"].partition("/")
        arg = arg.split("/")[0]
        if not arg.isdigit():
            continue
        series[family][int(arg)] = run[field] * UNIT_NS[run["time_unit"]]
    return series, fits


def per_item(points):
    """Time per item at each size of the family's range (powers of ten, or of two for the
    compound store); sizes added beside the range, as 1,100 for the peers, are left out."""
    def in_range(n):
        return n & (n - 1) == 0 or 10 ** round(math.log10(n)) == n
    return {n: t / n for n, t in sorted(points.items()) if in_range(n)}


def base_size(points):
    return 100 if 100 in points else min(points)


def fmt_time(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.3g} {unit}"
    return f"{ns:.3g} ns"


class Chart:
    """A line chart with a logarithmic x axis and a linear or logarithmic y axis."""

    W, H, LEFT, RIGHT, TOP, BOTTOM = 720, 420, 80, 200, 40, 60

    def __init__(self, title, xlabel, ylabel, log_y):
        self.title, self.xlabel, self.ylabel, self.log_y = title, xlabel, ylabel, log_y
        self.lines = []  # (label, [(x, y)], dashed)

    def add(self, label, points, dashed=False):
        if points:
            self.lines.append((label, sorted(points), dashed))

    def _ranges(self):
        xs = [x for _, pts, _ in self.lines for x, _ in pts]
        ys = [y for _, pts, _ in self.lines for _, y in pts]
        x0, x1 = math.floor(math.log10(min(xs))), math.ceil(math.log10(max(xs)))
        if x0 == x1:
            x1 += 1
        if self.log_y:
            y0 = math.floor(math.log10(min(ys)))
            y1 = math.ceil(math.log10(max(ys)))
            if y0 == y1:
                y1 += 1
        else:
            y0, y1 = 0.0, max(ys) * 1.15
        return x0, x1, y0, y1

    def svg(self):
        x0, x1, y0, y1 = self._ranges()
        pw = self.W - self.LEFT - self.RIGHT
        ph = self.H - self.TOP - self.BOTTOM

        def px(x):
            return self.LEFT + (math.log10(x) - x0) / (x1 - x0) * pw

        def py(y):
            v = math.log10(y) if self.log_y else y
            return self.TOP + ph - (v - y0) / (y1 - y0) * ph

        out = [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.W}" height="{self.H}" '
            f'font-family="sans-serif" font-size="12">',
            f'<rect width="{self.W}" height="{self.H}" fill="white"/>',
            f'<text x="{self.W / 2 - self.RIGHT / 2}" y="22" text-anchor="middle" '
            f'font-size="15">{self.title}</text>',
        ]
        for e in range(x0, x1 + 1):
            x = self.LEFT + (e - x0) / (x1 - x0) * pw
            out.append(f'<line x1="{x:.1f}" y1="{self.TOP}" x2="{x:.1f}" '
                       f'y2="{self.TOP + ph}" stroke="#ddd"/>')
            out.append(f'<text x="{x:.1f}" y="{self.TOP + ph + 18}" '
                       f'text-anchor="middle">{10 ** e:,}</text>')
        if self.log_y:
            ticks = [(10.0 ** e, fmt_time(10.0 ** e)) for e in range(int(y0), int(y1) + 1)]
        else:
            step = 10 ** math.floor(math.log10(y1 / 5))
            for m in (1, 2, 5, 10):
                if y1 / (step * m) <= 8:
                    step *= m
                    break
            ticks = [(i * step, f"{i * step:g}") for i in range(int(y1 / step) + 1)]
        for value, label in ticks:
            y = py(value) if (value > 0 or not self.log_y) else None
            if y is None:
                continue
            out.append(f'<line x1="{self.LEFT}" y1="{y:.1f}" x2="{self.LEFT + pw}" '
                       f'y2="{y:.1f}" stroke="#ddd"/>')
            out.append(f'<text x="{self.LEFT - 6}" y="{y + 4:.1f}" '
                       f'text-anchor="end">{label}</text>')
        out.append(f'<rect x="{self.LEFT}" y="{self.TOP}" width="{pw}" height="{ph}" '
                   f'fill="none" stroke="#444"/>')
        out.append(f'<text x="{self.LEFT + pw / 2}" y="{self.H - 15}" '
                   f'text-anchor="middle">{self.xlabel}</text>')
        out.append(f'<text transform="translate(18 {self.TOP + ph / 2}) rotate(-90)" '
                   f'text-anchor="middle">{self.ylabel}</text>')
        for i, (label, pts, dashed) in enumerate(self.lines):
            colour = "#888" if dashed else COLOURS[i % len(COLOURS)]
            path = " ".join(f"{px(x):.1f},{py(y):.1f}" for x, y in pts)
            dash = ' stroke-dasharray="6 4"' if dashed else ""
            out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" '
                       f'stroke-width="2"{dash}/>')
            if not dashed:
                for x, y in pts:
                    out.append(f'<circle cx="{px(x):.1f}" cy="{py(y):.1f}" r="3" '
                               f'fill="{colour}"/>')
            ly = self.TOP + 10 + 20 * i
            lx = self.LEFT + pw + 12
            out.append(f'<line x1="{lx}" y1="{ly}" x2="{lx + 22}" y2="{ly}" '
                       f'stroke="{colour}" stroke-width="2"{dash}/>')
            out.append(f'<text x="{lx + 28}" y="{ly + 4}">{label}</text>')
        out.append("</svg>")
        return "\n".join(out) + "\n"


FLAT_LABELS = {
    "BM_ProductInfosFromJSONBySize": "catalogue to records",
    "BM_ReceiptDecodeBySize": "receipt decode",
    "BM_ManagerMergeBySize": "manager merge",
    "BM_AccountStoreListBySize": "account store list",
    "BM_CompoundStoreJoinsBySize": "compound joins (stores)",
    "BM_DurationSortBySize": "duration sort",
}


def main(argv):
    field, clock = "real_time", "wall-clock"
    if argv and argv[0] == "--cpu":
        field, clock, argv = "cpu_time", "CPU time", argv[1:]
    if len(argv) != 2:
        sys.exit(__doc__)
    series, fits = load_series(argv[0], field)
    chart_dir = Path(argv[1])
    chart_dir.mkdir(parents=True, exist_ok=True)

    flat = Chart(f"Cost per item against size, relative to the cost at 100 ({clock})",
                 "items (held stores for the compound store)", "time per item / at 100", False)
    print("| benchmark | fit | per item at base | per item at top | ratio |")
    print("|---|---|---|---|---|")
    for family, label in FLAT_LABELS.items():
        points = series.get(family)
        if not points:
            continue
        items = per_item(points)
        base = base_size(items)
        top = max(items)
        ratio = items[top] / items[base]
        flat.add(label, [(n, t / items[base]) for n, t in items.items()])
        big_o, rms = fits.get(family, [None, None])
        fit = f"{big_o} (RMS {rms * 100:.0f} %)" if big_o and rms is not None else (big_o or "-")
        print(f"| {label} | {fit} | {fmt_time(items[base])} at {base:,} | "
              f"{fmt_time(items[top])} at {top:,} | {ratio:.2f} |")
    if flat.lines:
        xs = [x for _, pts, _ in flat.lines for x, _ in pts]
        flat.add("goal: 1.5", [(min(xs), 1.5), (max(xs), 1.5)], dashed=True)
        (chart_dir / "flat-cost.svg").write_text(flat.svg())

    catalogue = Chart(f"Catalogue: time per product ({clock})", "products (about 1 KB of JSON each)",
                      "time per product", True)
    for family, label in (("BM_ProductInfosFromJSONBySize", "ours: JSON to records"),
                          ("BM_PeerSimdjsonDOMParseCatalog", "simdjson DOM parse"),
                          ("BM_PeerNlohmannParseCatalog", "nlohmann DOM parse")):
        catalogue.add(label, list(per_item(series.get(family, {})).items()))
    if catalogue.lines:
        (chart_dir / "catalogue.svg").write_text(catalogue.svg())

    receipts = Chart(f"Receipts: time per purchase ({clock})", "purchases", "time per purchase",
                     True)
    for family, label in (("BM_ReceiptDecodeBySize", "ours"),
                          ("BM_PeerOpenSSLReceiptDecodeWriter", "OpenSSL-only decoder")):
        receipts.add(label, list(per_item(series.get(family, {})).items()))
    if receipts.lines:
        (chart_dir / "receipts.svg").write_text(receipts.svg())


if __name__ == "__main__":
    main(sys.argv[1:])
