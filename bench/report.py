#!/usr/bin/env python3
"""Makes tables and charts from what vsupt_bench measured.

usage: report.py [--docs DOCS] RESULTS.json...

Prints the tables. With DOCS, writes DOCS/performance.md and the charts in DOCS/performance/ too.
Ends with 1 when a benchmark gave a wrong result. What is wanted of each row is in goals.json;
everything else is read out of the names of the benchmarks, "group, workload/side".
"""
import argparse
import collections
import json
import pathlib
import statistics
import sys

from tabulate import tabulate

import charts
import results
from results import IN_THREAD, LIMIT, OURS, TAIL, figure

WANTED = json.loads(pathlib.Path(__file__).with_name('goals.json').read_text(encoding='utf-8'))
HEADINGS = ['workload', 'ours', 'best peer', 'ratio', 'goal', 'limit']


class Ratio:
    """Ours to something else, and what is wanted of that."""

    def __init__(self, value, goal):
        self.value, self.goal = value, goal

    def is_met(self):
        return None not in (self.value, self.goal) and round(self.value, 2) <= self.goal

    def cells(self):
        return ['-' if self.value is None else f'{self.value:.2f}',
                '-' if self.goal is None else f'{self.goal:.2f}' + ' met' * self.is_met()]


class Row:
    """A line of the table: a side of ours against the best peer. Has no ratio without a peer."""

    def __init__(self, workload, side):
        self.workload, self.side = workload, side
        self.name = workload.name + side[len(OURS):]
        self.ours = workload.sides[side]
        peers = workload.peers()
        self.peer = min(peers, key=peers.get) if peers else None
        best = peers.get(self.peer)
        goal = WANTED['goals'].get(f'{workload.name}/{side}')
        self.ratio = Ratio(None if best is None else self.ours / best, goal)
        limits = workload.sides_of(LIMIT).values()
        self.is_limit_above = best is not None and bool(limits) and min(limits) > 2 * best

    def shown(self, figures, side):
        """A figure of a side, with its name unless it is ours."""
        if side is None:
            return '-'
        text = figure(figures[side], self.workload.unit)
        return text if side.startswith(OURS) else f'{text} ({side.split(": ")[-1]})'

    def cells(self):
        figures = self.workload.sides
        limits = [self.shown(figures, side) for side in self.workload.sides_of(LIMIT)]
        return [self.name, self.shown(figures, self.side), self.shown(figures, self.peer),
                *self.ratio.cells(), ', '.join(limits) or '-']

    def tail_cells(self):
        medians, figures = self.workload.medians, self.workload.sides
        return [self.name.split(', ', 1)[1], self.shown(medians, self.side),
                self.shown(medians, self.peer), self.shown(figures, self.side),
                self.shown(figures, self.peer), *self.ratio.cells()]


class InThread:
    """Ours in the body of a VarnThread against the same outside of it, and against the best peer,
    which runs outside."""

    def __init__(self, workload, side):
        outside = Row(workload, side.removesuffix(IN_THREAD))
        inside = Row(workload, side)
        self.ratio = Ratio(inside.ours / outside.ours, WANTED['in the body of a VarnThread'])
        self.to_peer = inside.ratio
        self.is_limit_above = False
        self.row = [outside.name, figure(outside.ours, workload.unit),
                    figure(inside.ours, workload.unit)]

    def cells(self):
        return [*self.row, *self.ratio.cells(), self.to_peer.cells()[0]]


def rows_of(workloads):
    return [Row(workload, side) for workload in workloads for side in workload.sides_of(OURS)]


def in_threads(workloads):
    return [InThread(workload, side) for workload in workloads for side in workload.sides
            if side.endswith(IN_THREAD)]


def table(headings, lines, style):
    return tabulate(lines, headings, tablefmt=style, disable_numparse=True)


def main_table(workloads, style):
    return table(HEADINGS, [row.cells() for row in rows_of(workloads)], style)


def tail_table(workloads, style):
    return table(['operation', 'median', 'best peer\'s', '99.9 %', 'best peer\'s', 'ratio', 'goal'],
                 [row.tail_cells() for row in rows_of(workloads)], style)


def growth_table(workloads, style):
    sides = list(workloads[0].sides_of(''))
    lines = [[workload.name.split(', ', 1)[1]] +
             [figure(workload.sides.get(side), workload.unit) for side in sides] +
             [Row(workload, OURS).ratio.cells()[0]] for workload in workloads]
    return table(['cost'] + sides + ['ratio'], lines, style)


def thread_table(workloads, style):
    return table(['workload', 'outside', 'inside', 'ratio', 'goal', 'inside to best peer'],
                 [row.cells() for row in in_threads(workloads)], style)


def summary(workloads):
    """Tails and threads have lines of their own: they are other figures of work that is counted."""
    def told(what, rows):
        ratios = [row.ratio.value for row in rows if row.ratio.value is not None]
        goals = [row.ratio.is_met() for row in rows if row.ratio.goal is not None]
        if not ratios:
            return f'- {what}: no ratios'
        met = f', {sum(goals)} of {len(goals)} goals are met' if goals else ''
        bound = sum(row.is_limit_above and row.ratio.value > 2 for row in rows)
        so_is_limit = f', {bound} of them as the limit is' if bound else ''
        return (f'- {what}: {len(ratios)} ratios, their geometric mean is '
                f'{statistics.geometric_mean(ratios):.2f}, {sum(ratio > 2 for ratio in ratios)} are '
                f'above 2.0{so_is_limit}{met}')
    tails = [workload for workload in workloads if workload.group == TAIL]
    others = [workload for workload in workloads if workload.group != TAIL]
    return '\n'.join((told('ours to the best peer', rows_of(others)),
                      told('tails, ours to the best peer', rows_of(tails)),
                      told('ours in the body of a VarnThread to outside', in_threads(workloads))))


def without_row(workloads):
    """The goals of rows that were not measured."""
    return sorted(WANTED['goals'].keys() -
                  {f'{row.workload.name}/{row.side}' for row in rows_of(workloads)})


def introduction(contexts, workloads):
    context = contexts[0]
    caches = ', '.join(f"L{cache['level']} {cache['type'].lower()} {cache['size'] // 1024} KiB"
                       for cache in context['caches'])
    return f'''# Performance

Measured by `./dev bench`, which builds a release and runs ours beside its peers in one process,
interleaved and repeated, in {len(contexts)} runs with other data each; figures are medians of a run
and geometric means of the runs, of processor time where one thread works. The ratio is ours to the
best peer: below 1 ours is faster, or smaller. A limit is no peer: it does by hand the least that the
contract or the machine leaves. Every side's result is checked before its clock starts.

{summary(workloads)}

- machine: {context['processor']}, {context['num_cpus']} processors, {caches}
- load when it began: {', '.join(f'{load:.1f}' for load in context['load_avg'])}
- date: {context['date'][:10]}
- seeds of the data: {', '.join(context.get('seed', '-') for context in contexts)}
- compiler: {context['compiler']}
- peers: {context['peers']}, the standard library
- peers that were not installed: {context['missing peers'] or 'none'}
'''


def sections(workloads):
    """The groups, and for each its table and its chart; tails and threads come last."""
    groups = collections.defaultdict(list)
    for workload in workloads:
        groups[workload.group].append(workload)
    for group, members in sorted(groups.items(), key=lambda item: item[0] == TAIL):
        if members[0].is_growth():
            yield group, members, growth_table, charts.curves
        elif group == TAIL:
            yield group, members, tail_table, charts.bars
        else:
            yield group, members, main_table, charts.bars
    if in_threads(workloads):
        yield 'in the body of a VarnThread', workloads, thread_table, None


def write_report(docs, contexts, workloads):
    pictures = docs / 'performance'
    pictures.mkdir(parents=True, exist_ok=True)
    for old in pictures.glob('*.svg'):
        old.unlink()
    text = [introduction(contexts, workloads)]
    for group, members, make_table, draw in sections(workloads):
        text.append(f'## {group[0].upper()}{group[1:]}\n')
        if group in WANTED['notes']:
            text.append(WANTED['notes'][group] + '\n')
        text.append(make_table(members, 'github') + '\n')
        if draw is not None:
            name = group.lower().replace(' ', '-') + '.svg'
            draw(pictures / name, members)
            text.append(f'![{group}](performance/{name})\n')
    (docs / 'performance.md').write_text('\n'.join(text), encoding='utf-8')


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split('usage: ')[1].splitlines()[0])
    parser.add_argument('--docs', type=pathlib.Path)
    parser.add_argument('results', nargs='+')
    given = parser.parse_args()
    contexts, named, wrong = results.read(given.results)
    workloads = list(named.values())
    for _, members, make_table, _ in sections(workloads):
        print(make_table(members, 'simple'), end='\n\n')
    print(summary(workloads))
    if given.docs is not None:
        write_report(given.docs, contexts, workloads)
        for name in without_row(workloads):
            print(f'not measured: {name}', file=sys.stderr)
    for name in wrong:
        print(f'wrong result: {name}', file=sys.stderr)
    return 1 if wrong else 0


if __name__ == '__main__':
    sys.exit(main())
