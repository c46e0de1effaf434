"""Reads what vsupt_bench measured: of each workload the figures of its sides."""
import collections
import json
import pathlib
import statistics

OURS = 'ours'
LIMIT = 'limit'
NANOSECONDS = {'ns': 1, 'us': 1e3, 'ms': 1e6, 's': 1e9}


class Workload:
    """The figures of all sides: nanoseconds, or KiB for memory."""

    def __init__(self, name):
        self.name = name
        self.group = name.split(', ', 1)[0]
        self.unit = 'KiB' if self.group == 'memory' else 'ns'
        self.sides = {}

    def is_growth(self):
        return self.group.startswith('growth')

    def sides_of(self, *kinds):
        return {side: value for side, value in self.sides.items() if side.startswith(kinds)}

    def peers(self):
        return {side: value for side, value in self.sides.items()
                if not side.startswith((OURS, LIMIT))}


def time_of(run):
    if 'KiB' in run:
        return run['KiB']
    if 'items_per_second' in run:
        return 1e9 / run['items_per_second']
    name = run['run_name']
    kind = 'real_time' if '/real_time' in name or '/manual_time' in name else 'cpu_time'
    return run[kind] * NANOSECONDS[run['time_unit']]


def figure(value, unit):
    if value is None:
        return '-'
    if unit == 'KiB':
        return f'{value:,.0f} KiB'
    for size, name in ((1e6, 'ms'), (1e3, 'µs')):
        if value >= size:
            return f'{value / size:.3g} {name}'
    return f'{value:.3g} ns'


def read(file, summary=statistics.median):
    """The context of a run, its workloads in the order of their definition, and the names of the
    benchmarks that gave a wrong result."""
    results = json.loads(pathlib.Path(file).read_text(encoding='utf-8'))
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
        workloads.setdefault(name, Workload(name)).sides[side] = summary(times)
    return results['context'], workloads, sorted(wrong)
