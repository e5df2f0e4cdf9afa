"""One page of plots, as SVG. The same rows make the same file."""
import fit

# Title, x, y, the curves that it holds, and whether its axes are logarithmic.
PANELS = (
    ("DASH consoles replacing each other", "consoles", "us for each", ("consoles",), True),
    ("Descriptors of the service afterwards", "consoles", "open", ("descriptors",), False),
    ("Trips", "bytes a frame", "us", ("trips",), True),
    ("Both ways of the trips", "bytes a frame", "MB/s", ("rate",), True),
    ("Traffic at full speed", "seconds", "MB/s", ("traffic rate",), False),
    ("Memory in traffic", "seconds", "KiB resident", ("traffic memory",), False),
    ("Descriptors in traffic", "seconds", "open", ("traffic descriptors",), False),
    ("Logs in traffic", "seconds", "KiB", ("traffic logs",), False),
    ("Start of the service", "adapters", "ms", ("start",), True),
    ("Properties of an instance", "properties", "ns a property", ("properties",), True),
    ("Instances in a message", "instances", "ns an instance", ("instances",), True),
    ("Nesting", "levels", "ns a level", ("nesting",), True),
)
COLUMNS = 3


def set_logarithmic(axis, set_scale):
    """Numbers in full, three to a decade where there are few decades; minor ticks would be half of
    the file."""
    from matplotlib import ticker
    set_scale("log")
    low, high = axis.get_data_interval()
    if 0 < low < high < 300 * low:
        axis.set_major_locator(ticker.LogLocator(subs=(1, 2, 5)))
    axis.set_major_formatter(ticker.StrMethodFormatter("{x:,g}"))
    axis.set_minor_locator(ticker.NullLocator())


def draw(axes, panel, lines, fits):
    title, x_name, y_name, names, is_logarithmic = panel
    for (curve, series), points in lines.items():
        if curve not in names:
            continue
        label = series
        if (curve, series) in fits:
            label += "  (%.2f)" % fits[curve, series][1]
        axes.plot([x for x, _ in points], [y for _, y in points], label=label, linewidth=1.2,
                  marker="o" if len(points) < 30 else None, markersize=3)
    axes.set_title(title, fontsize=10)
    axes.set_xlabel(x_name, fontsize=8)
    axes.set_ylabel(y_name, fontsize=8)
    axes.tick_params(labelsize=7)
    axes.grid(True, linewidth=0.3)
    if is_logarithmic:
        set_logarithmic(axes.xaxis, axes.set_xscale)
        set_logarithmic(axes.yaxis, axes.set_yscale)
    else:
        axes.set_ylim(bottom=0)
    if axes.lines:
        axes.legend(fontsize=7)


def write(rows, fits, path):
    # Here and not above: rows can be measured and printed without it.
    import matplotlib
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "growth", "svg.fonttype": "none",
                                "path.simplify": True})
    from matplotlib import pyplot
    lines = fit.series_of(rows)
    count = -(-len(PANELS) // COLUMNS)
    figure, grid = pyplot.subplots(count, COLUMNS, figsize=(13, 3.2 * count))
    for axes, panel in zip(grid.flat, PANELS):
        draw(axes, panel, lines, fits)
    figure.suptitle("How cost grows; in brackets the exponent of the whole cost (1 is linear)",
                    fontsize=12)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
