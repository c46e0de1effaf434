"""Reads what vsupt_bench measured: of each workload the figures of its sides."""
import collections
import json
import pathlib
import statistics

OURS = 'ours'
LIMIT = 'limit'
IN_THREAD = ', in a VarnThread'
TAIL = 'tail'
NANOSECONDS = {'ns': 1, 'us': 1e3, 'ms': 1e6, 's': 1e9}
# Groups whose figures are counters of that name, and no times.
UNITS = {'memory': 'KiB', 'size': 'B'}


class Workload:
    """The figures of all sides: nanoseconds, or an amount of memory. In the group of tails a figure
    is the 99.9th percentile, and medians has the others."""

    def __init__(self, name):
        self.name = name
        self.group = name.split(', ', 1)[0]
        self.unit = UNITS.get(self.group, 'ns')
        self.sides = {}
        self.medians = {}

    def is_growth(self):
        return self.group.startswith('growth')

    def sides_of(self, *kinds):
        """Without those in the body of a VarnThread."""
        return {side: value for side, value in self.sides.items()
                if side.startswith(kinds) and not side.endswith(IN_THREAD)}

    def peers(self):
        return {side: value for side, value in self.sides.items()
                if not side.startswith((OURS, LIMIT))}


def figure_of(run):
    for counter in (TAIL, *UNITS.values()):
        if counter in run:
            return run[counter]
    if 'items_per_second' in run:
        return 1e9 / run['items_per_second']
    name = run['run_name']
    kind = 'real_time' if '/real_time' in name or '/manual_time' in name else 'cpu_time'
    return run[kind] * NANOSECONDS[run['time_unit']]


def figure(value, unit):
    if value is None:
        return '-'
    if unit != 'ns':
        return f'{value:,.0f} {unit}'
    for size, name in ((1e6, 'ms'), (1e3, 'µs')):
        if value >= size:
            return f'{value / size:.3g} {name}'
    return f'{value:.3g} ns'


def read(files, summary=statistics.median):
    """The contexts of runs, their workloads in the order of their definition, and the names of the
    benchmarks that gave a wrong result. Each run has drawn other data: a figure is the geometric
    mean of what the repetitions in each run come to."""
    contexts, wrong = [], set()
    figures = collections.defaultdict(list)
    medians = collections.defaultdict(list)
    for file in files:
        results = json.loads(pathlib.Path(file).read_text(encoding='utf-8'))
        contexts.append(results['context'])
        runs = collections.defaultdict(list)
        for run in sorted(results['benchmarks'], key=lambda run: run.get('family_index', 0)):
            if run.get('error_occurred'):
                wrong.add(f"{run['run_name']}, seed {results['context'].get('seed')}")
            elif run.get('run_type') != 'aggregate':
                runs[tuple(run['run_name'].split('/')[:2])].append(run)
        for row, repetitions in runs.items():
            figures[row].append(summary(map(figure_of, repetitions)))
            if TAIL in repetitions[0]:
                medians[row].append(summary(run['median'] for run in repetitions))
    workloads = {}
    for (name, side), values in figures.items():
        workload = workloads.setdefault(name, Workload(name))
        workload.sides[side] = statistics.geometric_mean(values)
        if (name, side) in medians:
            workload.medians[side] = statistics.geometric_mean(medians[name, side])
    return contexts, workloads, sorted(wrong)
