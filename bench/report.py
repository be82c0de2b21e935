"""Results as text, Markdown and SVG."""

import html
import math

UNITS = {
    "instructions": "instructions", "systemCalls": "system calls", "allocations": "allocations",
    "cpuNanos": "CPU, ns", "cpuRatio": "CPU, x the first peer", "peakBytes": "peak bytes",
    "systemCallsPerRun": "system calls", "systemCallsPerThousand": "system calls a 1000",
    "receivesPerThousand": "receives a 1000", "seamShare": "share of the library's instructions",
    "seamCpuShare": "share of the CPU",
    "overshootMillis": "ms",
}


def number(value):
    """Three digits that matter."""
    if value is None:
        return ""
    if value == 0:
        return "0"
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    text = f"{value:,.{min(digits, 4)}f}"
    return text.rstrip("0").rstrip(".") if "." in text else text


def verdict(figure):
    value, must, goal = figure["value"], figure["must"], figure["goal"]
    if must is None:
        return ""
    # A reply that the network cut in two, or a reserve that grew, is one in many exchanges.
    counts = ("allocations", "systemCalls", "systemCallsPerRun")
    near = 0.05 if figure["measure"] in counts and must >= 1 else 1e-9
    if value <= goal + near:
        return "goal"
    return "must" if value <= must + near else "MISSED"


def ratio_to_goal(figure):
    return number(figure["value"] / figure["goal"]) if figure["goal"] else ""


def spread(figure):
    return f"±{figure['spread'] / 2:.0%}" if figure.get("spread") else ""


def peers_of(row):
    return "; ".join(f"{peer['name']} {number(peer['cpuNanos'])} ns ({number(peer['ratio'])}x)"
                     for peer in row["peers"])


def lines_of(row, before):
    for figure in row["figures"]:
        old = before.get((row["name"], figure["measure"]))
        yield (UNITS[figure["measure"]], number(old), number(figure["value"]), spread(figure),
               number(figure["must"]), number(figure["goal"]), ratio_to_goal(figure),
               verdict(figure))


HEADS = ("", "before", "now", "spread", "must", "goal", "x goal", "reached")


def text_of(row, before):
    lines = [f"{row['name']}: {row['title']}"]
    cells = [HEADS, *lines_of(row, before)]
    widths = [max(len(line[i]) for line in cells) for i in range(len(HEADS))]
    for line in cells:
        lines.append(("  " + line[0].ljust(max(widths[0], 26)) + "  " +
                      "  ".join(c.rjust(max(w, 7)) for c, w in zip(line[1:], widths[1:]))).rstrip())
    if row["peers"]:
        lines.append("  beside it: " + peers_of(row))
    return "\n".join(lines)


def origin_of(one):
    return (f"Revision {one['revision']}, {one['date']}, {one['machine']}; "
            f"{one['runs']} interleaved runs.")


def marks_of(measured):
    """{origin: mark}: where not all was measured at once, each row says which it belongs to."""
    origins = list(dict.fromkeys(origin_of(one) for one in measured))
    return {origin: f" [{i + 1}]" if len(origins) > 1 else "" for i, origin in enumerate(origins)}


def markdown_of(results, before):
    marks = marks_of([*results["rows"], *results["growth"]])
    lines = [f"{origin}{mark}\n" for origin, mark in marks.items()]
    lines += ["| work | figure | before | now | spread | must | goal | now / goal | reached |",
              "|---|---|---:|---:|---:|---:|---:|---:|---|"]
    for row in results["rows"]:
        title = f"{row['title']} (`{row['name']}`){marks[origin_of(row)]}"
        for line in lines_of(row, before):
            lines.append("| " + " | ".join((title, *line)) + " |")
            title = ""
    lines += ["", "Beside it, in the same runs, CPU for one operation; in brackets what the "
              "library takes, divided by that:", "", "| work | peers |", "|---|---|"]
    lines += [f"| `{row['name']}` | {peers_of(row)} |" for row in results["rows"] if row["peers"]]
    return "\n".join([*lines, "", growth_markdown(results["growth"], marks)])


def growth_markdown(growth, marks=None):
    lines = []
    for one in growth:
        heads = " | ".join([one["axis"], *(line["name"] for line in one["lines"])])
        mark = marks[origin_of(one)] if marks else ""
        title = one["title"][0].upper() + one["title"][1:]
        lines += [f"**{title}**: CPU of one {one['per']}.{mark}", "",
                  f"| {heads} |",
                  "|---:" * (1 + len(one["lines"])) + "|"]
        for i, x in enumerate(one["points"]):
            cells = [time_text(line["values"][i]) for line in one["lines"]]
            lines.append(f"| {x:,} | " + " | ".join(cells) + " |")
        lines.append("")
    return "\n".join(lines)


def time_text(nanos):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanos >= size:
            return f"{number(nanos / size)} {unit}"
    return f"{number(nanos)} ns"


class Svg:
    """A drawing that is read on light and dark pages alike."""

    def __init__(self, width, height):
        self.parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
                      f'width="{width}" height="{height}" font-family="sans-serif" font-size="12">',
                      f'<rect width="{width}" height="{height}" fill="#ffffff"/>']

    def line(self, x1, y1, x2, y2, colour="#cccccc", width=1.0):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
                          f'stroke="{colour}" stroke-width="{width}"/>')

    def bar(self, x, y, width, height, colour):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0.5):.1f}" '
                          f'height="{height:.1f}" fill="{colour}"/>')

    def dot(self, x, y, colour):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')

    def text(self, x, y, text, anchor="start", bold=False):
        weight = ' font-weight="bold"' if bold else ""
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{weight}>'
                          f"{html.escape(text)}</text>")

    def whole(self):
        return "\n".join([*self.parts, "</svg>", ""])


COLOURS = ("#1f5fa8", "#c4572b", "#3b8a4a", "#8a4a9e")
GOOD, FAIR, BAD = "#3b8a4a", "#d09a1e", "#c23b2e"


def rows_svg(results):
    """A bar for each figure that has a goal: how far it is from what it must not exceed."""
    bars = [(row, figure) for row in results["rows"] for figure in row["figures"] if figure["must"]]
    left, width, step = 420, 480, 18
    svg = Svg(left + width + 80, 60 + step * len(bars))
    # From a 32nd of the limit to eight times it.
    place = lambda share: left + width * (math.log2(min(max(share, 1 / 32), 8)) + 5) / 8
    svg.text(10, 20, "Each figure, divided by what it must not exceed; the notch is the goal",
             bold=True)
    for power in range(-5, 4):
        svg.line(place(2.0**power), 34, place(2.0**power), 50 + step * len(bars),
                 "#444444" if power == 0 else "#dddddd")
        svg.text(place(2.0**power), 32, f"{number(2.0**power)}x", "middle")
    for i, (row, figure) in enumerate(bars):
        y = 40 + step * i
        colour = {"goal": GOOD, "must": FAIR}.get(verdict(figure), BAD)
        svg.text(left - 8, y + 12, f"{row['name']}: {UNITS[figure['measure']]}", "end")
        svg.bar(left, y + 2, place(figure["value"] / figure["must"]) - left, step - 4, colour)
        if figure["goal"]:
            goal = place(figure["goal"] / figure["must"])
            svg.line(goal, y, goal, y + step, "#000000", 2)
        svg.text(left + width + 6, y + 12, number(figure["value"]))
    return svg.whole()


def growth_svg(growth):
    """Small plots, both axes logarithmic: cost in proportion is a straight line at 45 degrees."""
    wide, high, columns = 460, 300, 2
    rows = (len(growth) + columns - 1) // columns
    svg = Svg(wide * columns, high * rows)
    for i, one in enumerate(growth):
        plot(svg, one, wide * (i % columns), high * (i // columns), wide, high)
    return svg.whole()


def powers_between(low, high):
    return range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)


def plot(svg, one, x, y, wide, high):
    left, right, top, bottom = x + 70, x + wide - 20, y + 30, y + high - 70
    values = [value for line in one["lines"] for value in line["values"]]
    xs, ys = powers_between(one["points"][0], one["points"][-1]), powers_between(min(values),
                                                                                 max(values))
    across = lambda v: left + (right - left) * (math.log10(v) - xs[0]) / max(xs[-1] - xs[0], 1)
    up = lambda v: bottom - (bottom - top) * (math.log10(v) - ys[0]) / max(ys[-1] - ys[0], 1)
    svg.text(x + wide / 2, y + 18, one["title"], "middle", True)
    for power in xs:
        svg.line(across(10.0**power), top, across(10.0**power), bottom)
        svg.text(across(10.0**power), bottom + 16, f"{10**power:.0e}".replace("e+0", "e"), "middle")
    for power in ys:
        svg.line(left, up(10.0**power), right, up(10.0**power))
        svg.text(left - 6, up(10.0**power) + 4, time_text(10.0**power), "end")
    for line, colour, place in zip(one["lines"], COLOURS, range(4)):
        points = [(across(p), up(v)) for p, v in zip(one["points"], line["values"])]
        for (x1, y1), (x2, y2) in zip(points, points[1:]):
            svg.line(x1, y1, x2, y2, colour, 2)
        for px, py in points:
            svg.dot(px, py, colour)
        svg.dot(left + place % 2 * 190, bottom + 34 + place // 2 * 16, colour)
        svg.text(left + 8 + place % 2 * 190, bottom + 38 + place // 2 * 16, line["name"])
