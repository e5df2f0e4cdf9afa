"""Fitted exponents: the slope of a curve's upper half on logarithmic axes. 1 is linear."""
import math

# Curve -> what x counts, the unit of y, and whether y is for each of x, so that the whole cost has
# one power more. Curves that are missing here are no cost.
COSTS = {
    "consoles": ("consoles", "us a console", True),
    "descriptors": ("consoles", "open afterwards", False),
    "trips": ("bytes", "us a trip", False),
    "traffic memory": ("seconds", "KiB", False),
    "traffic descriptors": ("seconds", "open", False),
    "traffic logs": ("seconds", "KiB", False),
    "properties": ("properties", "ns a property", True),
    "instances": ("instances", "ns an instance", True),
    "nesting": ("levels", "ns a level", True),
    "start": ("adapters", "ms", False),
}
# A linear cost is seen with an exponent up to this; caches and noise make the rest.
LINEAR = 1.15


def series_of(rows):
    """(curve, series) -> points, in the order of x."""
    found = {}
    for curve, series, x, y in rows:
        found.setdefault((curve, series), []).append((x, y))
    return {key: sorted(points) for key, points in found.items()}


def slope(points):
    """Least squares on logarithms; 0 for fewer than two points."""
    pairs = [(math.log(x), math.log(y)) for x, y in points if x > 0 and y > 0]
    if len(pairs) < 2:
        return 0.0
    middle_x = sum(x for x, _ in pairs) / len(pairs)
    middle_y = sum(y for _, y in pairs) / len(pairs)
    across = sum((x - middle_x) ** 2 for x, _ in pairs)
    return sum((x - middle_x) * (y - middle_y) for x, y in pairs) / across


def all_fits(rows):
    """(curve, series) -> (points, exponent of the whole cost)."""
    fits = {}
    for (curve, series), points in series_of(rows).items():
        if curve in COSTS:
            upper = points[len(points) // 2:] if len(points) > 3 else points
            fits[curve, series] = (points, slope(upper) + (1 if COSTS[curve][2] else 0))
    return fits


def verdict(exponent):
    return "linear or better" if exponent <= LINEAR else "more than linear, see below"


def table(fits):
    """In Markdown: each curve's first and last point, and its exponent."""
    lines = ["| curve | from | to | exponent | |", "|---|---|---|---|---|"]
    for (curve, series), (points, exponent) in fits.items():
        x_name, unit, _ = COSTS[curve]
        ends = ["%.4g %s at %s %s" % (y, unit, format(x, ","), x_name)
                for x, y in (points[0], points[-1])]
        lines.append("| %s, %s | %s | %s | %.2f | %s |" % (
            curve, series, *ends, exponent, verdict(exponent)))
    return "\n".join(lines) + "\n"
