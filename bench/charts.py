"""Draws charts of workloads."""
import matplotlib
import matplotlib.figure

from results import LIMIT, OURS, figure

matplotlib.rcParams['svg.hashsalt'] = 'the same picture for the same figures'
DARK = '#b3541e'


def colour_of(side):
    if side.startswith(OURS):
        return DARK
    return 'none' if side.startswith(LIMIT) else '#9db4c0'


def save(drawing, file):
    drawing.savefig(file, bbox_inches='tight', metadata={'Date': None})


def bars(file, workloads):
    """Bars on a logarithmic scale, those of ours dark and the limits hollow."""
    drawn = [sorted(workload.sides_of('').items(), key=lambda item: item[1])
             for workload in workloads]
    values = [value for sides in drawn for _, value in sides]
    left, right = min(values) / 2, max(values) * 4
    drawing = matplotlib.figure.Figure(figsize=(9, 1 + 0.2 * len(values) + 0.4 * len(workloads)))
    axes = drawing.add_subplot()
    place, labels = 0, []
    for workload, sides in zip(workloads, drawn):
        axes.text(left, place + 1, workload.name, weight='bold', size=8, va='center')
        place += 2
        for side, value in sides:
            axes.barh(place, value, color=colour_of(side), edgecolor='#777777', linewidth=0.5)
            axes.text(value * 1.05, place, figure(value, workload.unit), size=7, va='center')
            labels.append((place, side))
            place += 1
    axes.set(xscale='log', xlim=(left, right), ylim=(place, 0), xlabel=workloads[0].unit)
    axes.set_yticks([at for at, _ in labels], [label for _, label in labels], size=7)
    save(drawing, file)


def size_of(workload):
    """The number that ends the name."""
    return int(workload.name.rsplit(' ', 1)[1].replace(',', ''))


def curves(file, workloads):
    """One curve a side, over the sizes that end the names of the workloads."""
    drawing = matplotlib.figure.Figure(figsize=(7, 4))
    axes = drawing.add_subplot()
    for side in workloads[0].sides_of(''):
        points = [(size_of(workload), workload.sides[side])
                  for workload in workloads if side in workload.sides]
        axes.plot(*zip(*points), marker='o', label=side,
                  color=DARK if side == OURS else None,
                  linestyle='--' if side.startswith(LIMIT) else '-')
    axes.set(xscale='log', yscale='log', ylabel=workloads[0].unit,
             xlabel=workloads[0].name.split(', ', 1)[1].rsplit(' ', 1)[0] + ' ...')
    axes.legend(fontsize=7)
    save(drawing, file)
