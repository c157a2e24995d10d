"""Rows of figures, and the table, JSON and chart that are made of them."""
import dataclasses
import html
import json
import math
import statistics


def spread_of(samples):
    """Half of the distance between the quartiles, as a share of the median."""
    middle = statistics.median(samples)
    if len(samples) < 2 or middle == 0:
        return 0.0
    low, _, high = statistics.quantiles(samples, n=4, method="inclusive")
    return (high - low) / 2 / abs(middle)


@dataclasses.dataclass
class Row:
    """One figure: samples of our program and, where there is one, of a peer that took turns.
    The limits are for the ratio of the two where there is a peer, otherwise for ours alone."""
    figure: str
    unit: str
    ours: list
    peer: list = None
    versus: str = ""
    reach: float = None
    proud: float = None
    workload: str = ""

    @property
    def complete(self):
        """Whether there are figures of everybody who was to be measured."""
        sides = [self.ours, self.peer] if self.versus else [self.ours]
        return all(side and all(map(math.isfinite, side)) for side in sides)

    @property
    def value(self):
        return statistics.median(self.ours)

    @property
    def ratios(self):
        """Of each round, whose two sides the machine's moods have met alike."""
        return [ours / peer for ours, peer in zip(self.ours, self.peer, strict=True)]

    @property
    def ratio(self):
        return statistics.median(self.ratios) if self.peer else None

    @property
    def spread(self):
        return spread_of(self.ratios if self.peer else self.ours)

    @property
    def judged(self):
        return self.value if self.ratio is None else self.ratio

    @property
    def verdict(self):
        if self.reach is None:
            return ""
        if self.proud is not None and self.judged <= self.proud:
            return "proud"
        return "reached" if self.judged <= self.reach else "MISSED"

    def cells(self):
        def limit(number):
            if number is None:
                return ""
            return ratio_text(number) if self.peer else text_of(number, self.unit)

        return [self.workload, self.figure, text_of(self.value, self.unit),
                text_of(statistics.median(self.peer), self.unit) if self.peer else "",
                ratio_text(self.ratio) if self.peer else "", f"{self.spread:.0%}",
                limit(self.reach), limit(self.proud), self.verdict, self.versus]

    def as_json(self):
        return {**dataclasses.asdict(self), "median": self.value, "ratio": self.ratio,
                "spread": self.spread, "verdict": self.verdict}


def ratio_text(number):
    """Three decimals; of what is smaller than a tenth the first two digits."""
    return f"{number:.3f}" if number >= 0.1 else f"{number:.2g}"


def text_of(number, unit):
    for large, size, of in (("GB", 1e9, "B"), ("MB", 1e6, "B"), ("kB", 1e3, "B"),
                            ("GB/s", 1e9, "B/s"), ("MB/s", 1e6, "B/s"),
                            ("s", 1, "s"), ("ms", 1e-3, "s"), ("us", 1e-6, "s"), ("ns", 1e-9, "s")):
        if of == unit and abs(number) >= size:
            return f"{number / size:.3g} {large}"
    return f"{number:,.0f} {unit}" if abs(number) >= 100 else f"{number:.3g} {unit}"


HEADINGS = ["workload", "figure", "ours", "peer", "ratio", "spread", "reach", "proud", "",
            "peer is"]


def table(rows):
    lines = [HEADINGS, *(row.cells() for row in rows)]
    widths = [max(len(line[column]) for line in lines) for column in range(len(HEADINGS))]
    right = range(2, 8)

    def text(line):
        return "  ".join(cell.rjust(width) if column in right else cell.ljust(width)
                         for column, (cell, width) in enumerate(zip(line, widths))).rstrip()

    return "\n".join([text(lines[0]), "  ".join("-" * width for width in widths),
                      *map(text, lines[1:])])


COLOURS = {"proud": "#2e7d32", "reached": "#f9a825", "MISSED": "#c62828"}


def chart(rows):
    """One bar for each figure that has limits. Its length is the share of what is to be reached,
    which is the line; the mark is what makes proud."""
    rows = [row for row in rows if row.reach]
    left, unit, step = 330, 260, 22
    height = step * len(rows) + 50

    def x(share):
        return left + unit * min(share, 2.2)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + 700}" height="{height}" '
             'font-family="sans-serif" font-size="12">',
             f'<rect width="{left + 700}" height="{height}" fill="white"/>',
             f'<text x="{x(1)}" y="18" text-anchor="middle">to be reached</text>']
    for number, row in enumerate(rows):
        y = 28 + step * number
        share = row.judged / row.reach
        label = html.escape(f"{row.workload}: {row.figure}")
        parts += [f'<text x="{left - 8}" y="{y + 13}" text-anchor="end">{label}</text>',
                  f'<rect x="{left}" y="{y}" width="{max(x(share) - left, 1):.0f}" height="16" '
                  f'fill="{COLOURS[row.verdict]}"/>',
                  f'<text x="{x(share) + 5:.0f}" y="{y + 13}">'
                  f'{html.escape(row.cells()[4] or row.cells()[2])}</text>']
        if row.proud is not None:
            mark = x(row.proud / row.reach)
            parts.append(f'<line x1="{mark:.0f}" y1="{y}" x2="{mark:.0f}" y2="{y + 16}" '
                         'stroke="black" stroke-width="2"/>')
    parts += [f'<line x1="{x(1)}" y1="24" x2="{x(1)}" y2="{height - 20}" stroke="black" '
              'stroke-dasharray="4 3"/>', "</svg>"]
    return "\n".join(parts) + "\n"


def write(directory, rows, machine):
    directory.mkdir(parents=True, exist_ok=True)
    results = {"machine": machine, "rows": [row.as_json() for row in rows]}
    (directory / "bench.json").write_text(json.dumps(results, indent=1) + "\n")
    (directory / "bench.svg").write_text(chart(rows))
    (directory / "bench.txt").write_text(table(rows) + "\n")
