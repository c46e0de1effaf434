#!/usr/bin/env python3
"""Makes tables and charts from what vsupt_bench measured.

usage: report.py RESULTS.json [DOCS]

Prints the table. With DOCS, writes DOCS/performance.md and the charts in DOCS/performance/ too.
Ends with 1 when a benchmark gave a wrong result. What is wanted of each row is in goals.json;
everything else is read out of the names of the benchmarks, "group, workload/side".
"""
import collections
import json
import pathlib
import statistics
import sys

import matplotlib.figure
from tabulate import tabulate

import results
from results import LIMIT, OURS, figure

WANTED = json.loads(pathlib.Path(__file__).with_name('goals.json').read_text(encoding='utf-8'))
HEADINGS = ['workload', 'ours', 'best peer', 'ratio', 'goal', 'limit']


class Row:
    """A line of the table: a side of ours against the best peer. Has no ratio without a peer."""

    def __init__(self, workload, side):
        self.workload, self.side = workload, side
        self.goal = WANTED['goals'].get(f'{workload.name}/{side}')
        self.ours = workload.sides[side]
        peers = workload.peers()
        self.peer = min(peers, key=peers.get) if peers else None
        self.best = peers.get(self.peer)
        self.ratio = None
        base = workload.sides.get(WANTED['taken off all sides first'].get(workload.name), 0)
        if self.best is not None and self.best > base:
            self.ratio = (self.ours - base) / (self.best - base)

    def is_met(self):
        return None not in (self.ratio, self.goal) and round(self.ratio, 2) <= self.goal

    def cells(self):
        unit = self.workload.unit
        limits = [f'{figure(value, unit)} ({side.split(": ")[-1]})'
                  for side, value in self.workload.sides_of(LIMIT).items()]
        return [self.workload.name + self.side[len(OURS):], figure(self.ours, unit),
                '-' if self.peer is None else f'{figure(self.best, unit)} ({self.peer})',
                '-' if self.ratio is None else f'{self.ratio:.2f}',
                '-' if self.goal is None else f'{self.goal:.2f}' + ' met' * self.is_met(),
                ', '.join(limits) or '-']


def rows_of(workloads):
    return [Row(workload, side) for workload in workloads.values() if not workload.is_growth()
            for side in workload.sides_of(OURS)]


def table(headings, lines, style):
    return tabulate(lines, headings, tablefmt=style, disable_numparse=True)


def summary(rows):
    ratios = [row.ratio for row in rows if row.ratio is not None]
    goals = [row for row in rows if row.goal is not None]
    if not ratios:
        return 'No row has a peer.'
    return (f'The geometric mean of {len(ratios)} ratios is {statistics.geometric_mean(ratios):.2f}, '
            f'{sum(ratio > 2 for ratio in ratios)} are above 2.0; '
            f'{sum(row.is_met() for row in goals)} of {len(goals)} goals are met.')


def colour_of(side):
    if side.startswith(OURS):
        return '#b3541e'
    return 'none' if side.startswith(LIMIT) else '#9db4c0'


def bars(file, workloads):
    """Bars on a logarithmic scale, those of ours dark and the limits hollow."""
    lines = [(workload.name, side, value) for workload in workloads
             for side, value in sorted(workload.sides.items(), key=lambda item: item[1])]
    lows, highs = zip(*[(value / 2, value * 4) for _, _, value in lines])
    drawing = matplotlib.figure.Figure(figsize=(9, 1 + 0.2 * len(lines) + 0.4 * len(workloads)))
    axes = drawing.add_subplot()
    place, labels = 0, []
    for (name, side, value), before in zip(lines, [None] + [line[0] for line in lines]):
        if name != before:
            axes.text(min(lows), place + 1, name, weight='bold', size=8, va='center')
            place += 2
        axes.barh(place, value, color=colour_of(side), edgecolor='#777777', linewidth=0.5)
        axes.text(value * 1.05, place, figure(value, workloads[0].unit), size=7, va='center')
        labels.append((place, side))
        place += 1
    axes.set(xscale='log', xlim=(min(lows), max(highs)), xlabel=workloads[0].unit)
    axes.set_yticks([at for at, _ in labels], [label for _, label in labels], size=7)
    axes.invert_yaxis()
    drawing.savefig(file, bbox_inches='tight', metadata={'Date': None})


def curves(file, workloads):
    """One curve a side, over the sizes that end the names of the workloads."""
    drawing = matplotlib.figure.Figure(figsize=(7, 4))
    axes = drawing.add_subplot()
    for side in workloads[0].sides:
        points = [(int(workload.name.rsplit(' ', 1)[1].replace(',', '')), workload.sides[side])
                  for workload in workloads if side in workload.sides]
        axes.plot(*zip(*points), marker='o', label=side,
                  color='#b3541e' if side.startswith(OURS) else None,
                  linestyle='--' if side.startswith(LIMIT) else '-')
    axes.set(xscale='log', yscale='log', ylabel=workloads[0].unit)
    axes.legend(fontsize=7)
    drawing.savefig(file, bbox_inches='tight', metadata={'Date': None})


def growth_table(workloads):
    sides = list(workloads[0].sides)
    lines = [[workload.name.split(', ', 1)[1]] +
             [figure(workload.sides.get(side), workload.unit) for side in sides]
             for workload in workloads]
    return table(['cost'] + sides, lines, 'github')


def introduction(context, rows):
    caches = ', '.join(f"L{cache['level']} {cache['type'].lower()} {cache['size'] // 1024} KiB"
                       for cache in context['caches'])
    return f'''# Performance

Measured by `./dev bench`, which builds a release and runs ours beside its peers in one process,
interleaved and repeated; figures are medians, of processor time where one thread works. The ratio
is ours to the best peer: below 1 ours is faster. A limit is no peer: it shows how far the machine
itself lets one go. Every side's result is checked before its clock starts. {summary(rows)}

- machine: {context['processor']}, {context['num_cpus']} processors, {caches}
- load when it began: {', '.join(f'{load:.1f}' for load in context['load_avg'])}
- date: {context['date'][:10]}
- compiler: {context['compiler']}
- peers: {context['peers']}, the standard library
- peers that were not installed: {context['missing peers'] or 'none'}
'''


def write_report(docs, context, rows, workloads):
    matplotlib.rcParams['svg.hashsalt'] = 'the same picture for the same figures'
    groups = collections.defaultdict(list)
    for workload in workloads.values():
        groups[workload.group].append(workload)
    pictures = docs / 'performance'
    pictures.mkdir(parents=True, exist_ok=True)
    for old in pictures.glob('*.svg'):
        old.unlink()
    text = [introduction(context, rows)]
    for group, members in groups.items():
        name = group.lower().replace(' ', '-') + '.svg'
        text.append(f'## {group[0].upper()}{group[1:]}\n')
        if group in WANTED['notes']:
            text.append(WANTED['notes'][group] + '\n')
        if members[0].is_growth():
            text.append(growth_table(members) + '\n')
            curves(pictures / name, members)
        else:
            lines = [row.cells() for row in rows if row.workload.group == group]
            text.append(table(HEADINGS, lines, 'github') + '\n')
            bars(pictures / name, members)
        text.append(f'![{group}](performance/{name})\n')
    (docs / 'performance.md').write_text('\n'.join(text), encoding='utf-8')


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    context, workloads, wrong = results.read(sys.argv[1])
    rows = rows_of(workloads)
    print(table(HEADINGS, [row.cells() for row in rows], 'simple'), summary(rows), sep='\n\n')
    if len(sys.argv) == 3:
        write_report(pathlib.Path(sys.argv[2]), context, rows, workloads)
    for name in wrong:
        print(f'wrong result: {name}', file=sys.stderr)
    return 1 if wrong else 0


if __name__ == '__main__':
    sys.exit(main())
