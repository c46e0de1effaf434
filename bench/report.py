#!/usr/bin/env python3
"""Makes tables and charts from what vsupt_bench measured.

usage: report.py RESULTS.json [DOCS]

Prints the table. With DOCS, writes DOCS/performance.md and the charts in DOCS/performance/ too.
Ends with 1 when a benchmark gave a wrong result. Only the goals are kept here; everything else is
read out of the names of the benchmarks, "group, workload/side".
"""
import collections
import json
import math
import pathlib
import statistics
import sys
from html import escape

OURS = 'ours'
LIMIT = 'limit'
NANOSECONDS = {'ns': 1, 'us': 1e3, 'ms': 1e6, 's': 1e9}
JIT = 'PCRE2 JIT'
NO_CASE = 'ours, case-insensitive'
OLDER = 'ours, older form'

# The largest ratio to the best peer that is wanted: (workload, ratio, details). Details may name the
# side of ours, the peer that counts ("of"), one that does not ("without"), and a side whose figure
# is taken off all others first ("over").
GOALS = [
    ('log, record by 1 thread', 0.85, {}),
    ('log, record by 2 threads', 0.90, {}),
    ('log, suppressed record', 1.1, {'of': 'limit: load and compare'}),
    ('log, suppressed record', 2.0, {'ours': OLDER, 'of': 'limit: load and compare'}),
    ('log, record for a thread to write', 0.6, {'of': 'ours, at once'}),
    ('log, record for a thread to write', 1.1, {}),
    ('lock, free', 1.9, {}),
    ('lock, wanted by 2 threads', 2.0, {}),
    ('lock, nested three deep', 1.0, {}),
    ('object, smart pointer copy and release', 1.3, {'of': 'limit: plain mutex twice'}),
    ('thread, start and join', 1.05, {}),
    ('event, ping-pong of two threads', 0.3, {}),
    ('event, set with nobody waiting', 2.8, {}),
    ('notify, observers: 1', 0.9, {}),
    ('notify, observers: 10', 0.6, {}),
    ('notify, observers: 100', 0.5, {}),
    ('queue, per item, 1 to 1', 1.8, {}),
    ('queue, per item, 1 to 2', 1.8, {}),
    ('properties, load, per line', 1.05, {}),
    ('properties, load, per line', 1.4, {'ours': NO_CASE}),
    ('properties, save, per line', 0.55, {}),
    ('properties, look-up', 1.25, {}),
    ('properties, look-up', 1.9, {'ours': NO_CASE}),
    ('properties, look-up that fails', 1.25, {}),
    ('properties, look-up that fails', 1.9, {'ours': NO_CASE}),
    ('pattern, compile', 0.35, {}),
    *[(f'pattern, {name}', ratio, {'of': JIT})
      for name, ratio in [('literal in 1 KiB', 1.2), ('absent literal in 1 KiB', 1.2),
                          ('any in 1 KiB', 1.2), ('log line', 1.9), ('set run', 1.9),
                          ('key', 1.9)]],
    *[(f'pattern, {name}', 0.6, {'without': JIT})
      for name in ['literal in 1 KiB', 'absent literal in 1 KiB', 'any in 1 KiB', 'log line',
                   'set run', 'key']],
    ('pattern, x*y absent', 1.6, {}),
    ('pattern, x*y found', 1.1, {}),
    ('options, 20 arguments', 1.05, {}),
    ('date, now as text', 1.6, {}),
    ('date, RFC form parsed', 0.55, {}),
    ('date, a month added', 2.5, {}),
    *[(f'Blowfish, {mode} {size}', 0.8 if (mode, size) == ('ECB', '1 MiB') else 1.0, {})
      for mode in ['ECB', 'CBC'] for size in ['8 B', '1 KiB', '1 MiB']],
    ('stream, int written and read', 2.5, {}),
    ('stream, double written and read', 2.5, {}),
    ('stream, text written and read', 2.5, {}),
    ('text, split 100 fields', 0.50, {}),
    ('text, hex of 4 KiB', 0.18, {}),
    ('text, hex to 4 KiB', 0.22, {}),
    ('text, case-insensitive map look-up', 1.8, {}),
    ('text, narrow 64 characters', 1.1, {}),
    ('text, widen 64 characters', 1.1, {}),
    ('files, listed by wildcard, per entry', 0.87, {}),
    ('tree, path added', 0.45, {}),
    ('tree, path found', 0.80, {}),
    ('command, run to its end', 2.0, {'of': 'posix_spawn'}),
    ('command, run from 2 GiB', 2.0, {'of': 'posix_spawn'}),
    ('start-up, small program', 0.7, {'of': 'GLib', 'over': 'limit: empty program'}),
]

# What a reader must know about a group.
NOTES = {
    'object': 'All counts are guarded by one lock, by contract.',
    'properties': 'A look-up takes the lock of the set; the case-insensitive sets fold each '
                  'character that they compare.',
    'stream': 'Every value is moved under the lock of the stream, by contract.',
    'text': 'A case-insensitive comparison folds character by character, as the locale says; '
            'narrow() and widen() take their locale by value and end at the first NUL.',
    'start-up': 'Processor time of a program that does nothing; the ratio compares what it takes '
                'beyond the empty one. By contract ours reads the locale that the environment '
                'names.',
    'memory': 'The peak of the whole process, in KiB.',
}


class Workload:
    """The figures of all sides: nanoseconds, or KiB for memory."""

    def __init__(self, name):
        self.name = name
        self.group = name.split(', ', 1)[0]
        self.unit = 'KiB' if self.group == 'memory' else 'ns'
        self.sides = {}

    def peers(self):
        return {side: value for side, value in self.sides.items()
                if not side.startswith((OURS, LIMIT))}

    def limit(self):
        return next(((side, value) for side, value in self.sides.items()
                     if side.startswith(LIMIT)), None)


class Row:
    """A line of the table: ours against one peer. Has no ratio when there is none."""

    def __init__(self, workload, goal=None, ours=OURS, of=None, without=None, over=None):
        self.workload, self.goal = workload, goal
        self.ours = workload.sides.get(ours)
        peers = workload.peers()
        if of is not None:
            peers = {of: workload.sides[of]} if of in workload.sides else {}
        peers.pop(without, None)
        self.peer = min(peers, key=peers.get) if peers else None
        self.best = peers.get(self.peer)
        self.ratio = None
        if self.ours is not None and self.best is not None:
            base = workload.sides.get(over, 0)
            self.ratio = (self.ours - base) / (self.best - base) if self.best > base else None
        self.name = workload.name
        if ours != OURS:
            self.name += ours[len(OURS):]

    def is_met(self):
        return self.ratio is not None and self.goal is not None and self.ratio <= self.goal

    def cells(self):
        unit = self.workload.unit
        limit = self.workload.limit()
        return [self.name, figure(self.ours, unit),
                '-' if self.peer is None else f'{figure(self.best, unit)} ({self.peer})',
                '-' if self.ratio is None else f'{self.ratio:.2f}',
                '-' if limit is None else f'{figure(limit[1], unit)} ({limit[0].split(": ")[-1]})',
                '-' if self.goal is None else f'{self.goal:.2f}' + (' met' if self.is_met() else '')]


HEADINGS = ['workload', 'ours', 'best peer', 'ratio', 'limit', 'goal']


def figure(value, unit):
    if value is None:
        return '-'
    if unit == 'KiB':
        return f'{value:,.0f} KiB'
    for size, name in ((1e6, 'ms'), (1e3, 'µs')):
        if value >= size:
            return f'{value / size:.3g} {name}'
    return f'{value:.3g} ns'


def time_of(run):
    if 'KiB' in run:
        return run['KiB']
    if 'items_per_second' in run:
        return 1e9 / run['items_per_second']
    name = run['run_name']
    kind = 'real_time' if '/real_time' in name or '/manual_time' in name else 'cpu_time'
    return run[kind] * NANOSECONDS[run['time_unit']]


def read(results):
    """The workloads in the order of the run's definition, and the names of wrong benchmarks."""
    runs = collections.defaultdict(list)
    wrong = set()
    for run in sorted(results['benchmarks'], key=lambda run: run.get('family_index', 0)):
        if run.get('error_occurred'):
            wrong.add(run['run_name'])
        elif run.get('run_type') != 'aggregate':
            name, side = run['run_name'].split('/')[:2]
            runs[name, side].append(time_of(run))
    workloads = {}
    for (name, side), times in runs.items():
        workloads.setdefault(name, Workload(name)).sides[side] = statistics.median(times)
    return workloads, sorted(wrong)


def rows_of(workloads):
    rows = []
    for workload in workloads.values():
        goals = [Row(workload, ratio, **details) for name, ratio, details in GOALS
                 if name == workload.name]
        if not workload.group.startswith('growth'):
            rows += goals or [Row(workload)]
    return rows


def text_table(rows):
    lines = [HEADINGS] + [row.cells() for row in rows]
    widths = [max(len(line[column]) for line in lines) for column in range(len(HEADINGS))]
    return '\n'.join(' | '.join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip()
                     for line in lines)


def markdown_table(headings, lines):
    return '\n'.join('| ' + ' | '.join(line) + ' |'
                     for line in [headings, ['---'] * len(headings)] + lines)


def chart(group, workloads):
    """Bars on a logarithmic scale, those of ours dark and the limits hollow."""
    left, right, bar, width = 190, 130, 17, 780
    values = [value for workload in workloads for value in workload.sides.values() if value > 0]
    low = math.floor(math.log10(min(values)) - 0.15)
    high = max(math.ceil(math.log10(max(values))), low + 1)
    scale = (width - left - right) / (high - low)
    body, y = [], 20
    for workload in workloads:
        y += 16
        body.append(f'<text x="8" y="{y}" font-weight="bold">{escape(workload.name)}</text>')
        y += 6
        for side, value in sorted(workload.sides.items(), key=lambda item: item[1]):
            length = max((math.log10(max(value, 10 ** low)) - low) * scale, 1)
            style = ('fill="#b3541e"' if side.startswith(OURS) else
                     'fill="none" stroke="#777" stroke-dasharray="3 2"'
                     if side.startswith(LIMIT) else 'fill="#9db4c0"')
            weight = ' font-weight="bold"' if side.startswith(OURS) else ''
            body.append(
                f'<text x="{left - 8}" y="{y + 12}" text-anchor="end"{weight}>{escape(side)}</text>'
                f'<rect x="{left}" y="{y + 2}" width="{length:.1f}" height="{bar - 5}" {style}/>'
                f'<text x="{left + length + 6:.1f}" y="{y + 12}"{weight}>'
                f'{figure(value, workload.unit)}</text>')
            y += bar
    grid = []
    for power in range(low, high + 1):
        x = left + (power - low) * scale
        grid.append(f'<line x1="{x:.1f}" y1="22" x2="{x:.1f}" y2="{y}" stroke="#ddd"/>'
                    f'<text x="{x:.1f}" y="16" text-anchor="middle" fill="#666">'
                    f'{figure(10 ** power, workloads[0].unit)}</text>')
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {y + 10}" '
            f'width="{width}" font-family="sans-serif" font-size="12" role="img" '
            f'aria-label="{escape(group)}">\n'
            f'<rect width="100%" height="100%" fill="white"/>\n' +
            '\n'.join(grid + body) + '\n</svg>\n')


def growth_table(workloads):
    sides = [side for side in workloads[0].sides]
    lines = [[workload.name.split(', ', 1)[1]] +
             [figure(workload.sides.get(side), workload.unit) for side in sides]
             for workload in workloads]
    return markdown_table(['cost'] + sides, lines)


def write_report(docs, context, rows, workloads):
    groups = collections.defaultdict(list)
    for workload in workloads.values():
        groups[workload.group].append(workload)
    pictures = docs / 'performance'
    pictures.mkdir(parents=True, exist_ok=True)
    for old in pictures.glob('*.svg'):
        old.unlink()
    with_goal = [row for row in rows if row.goal is not None]
    met = sum(row.is_met() for row in with_goal)
    caches = ', '.join(f"L{cache['level']} {cache['type'].lower()} {cache['size'] // 1024} KiB"
                       for cache in context['caches'])
    text = [f'''# Performance

Measured by `./dev bench`, which builds a release and runs ours beside its peers in one process,
interleaved and repeated; figures are medians, of processor time where one thread works. The ratio
is ours to the best peer: below 1 ours is faster. A limit shows how far the machine itself lets one
go. Every side's result is checked before its clock starts. {met} of {len(with_goal)} goals are met.

- machine: {context['processor']}, {context['num_cpus']} processors, {caches}
- load when it began: {', '.join(f'{load:.1f}' for load in context['load_avg'])}
- date: {context['date'][:10]}
- compiler: {context['compiler']}
- peers: {context['peers']}, the standard library
- peers that were not installed: {context['missing peers'] or 'none'}
''']
    for group, members in groups.items():
        name = group.lower().replace(' ', '-') + '.svg'
        (pictures / name).write_text(chart(group, members), encoding='utf-8')
        text.append(f'## {group[0].upper()}{group[1:]}\n')
        if group in NOTES:
            text.append(NOTES[group] + '\n')
        if group.startswith('growth'):
            text.append(growth_table(members) + '\n')
        else:
            lines = [row.cells() for row in rows if row.workload.group == group]
            text.append(markdown_table(HEADINGS, lines) + '\n')
        text.append(f'![{group}](performance/{name})\n')
    (docs / 'performance.md').write_text('\n'.join(text), encoding='utf-8')


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    results = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding='utf-8'))
    workloads, wrong = read(results)
    rows = rows_of(workloads)
    print(text_table(rows))
    if len(sys.argv) == 3:
        write_report(pathlib.Path(sys.argv[2]), results['context'], rows, workloads)
    for name in wrong:
        print(f'wrong result: {name}', file=sys.stderr)
    return 1 if wrong else 0


if __name__ == '__main__':
    sys.exit(main())
