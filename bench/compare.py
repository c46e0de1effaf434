#!/usr/bin/env python3
"""Compares two builds: runs our sides of both in turn, and prints where they differ.

usage: compare.py SECONDS BEFORE AFTER [PATTERN]

BEFORE and AFTER are programs that vsupt_bench was copied or built to, each with its own library.
Both get the same data in a round, and the next ones other data. The figure of a row is the least of
the rounds with data of one shape, as whatever disturbs a round makes it longer, and of the three
shapes the geometric mean.
"""
import collections
import os
import pathlib
import random
import statistics
import subprocess
import sys
import tempfile
import time

from tabulate import tabulate

import results
from results import OURS, figure

NOISE = 0.03
# Groups that only a PATTERN compares: they take long, or never twice the same.
UNSTEADY = ('growth', 'tail', 'command')


def names_of(program, pattern):
    listed = subprocess.run([program, '--benchmark_list_tests', f'--benchmark_filter={pattern}'],
                            check=True, capture_output=True, text=True).stdout.splitlines()
    return [name for name in listed if f'/{OURS}' in name and
            (pattern != '.' or not name.startswith(UNSTEADY))]


def measure(program, names, seed, file):
    pattern = '|'.join('^' + ''.join('\\' + c if c in '.*+?()[]{}^$|\\' else c for c in name) + '$'
                       for name in names)
    environment = {**os.environ, 'LD_LIBRARY_PATH': str(pathlib.Path(program).parent),
                   'VSUPT_BENCH_SEED': str(seed)}
    subprocess.run([program, f'--benchmark_filter={pattern}', '--benchmark_min_time=0.005',
                    f'--benchmark_out={file}', '--benchmark_out_format=json'],
                   check=True, env=environment, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    return results.read([file], min)[1]


def main():
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    seconds, programs = float(sys.argv[1]), sys.argv[2:4]
    pattern = sys.argv[4] if len(sys.argv) == 5 else '.'
    after_names = names_of(programs[1], pattern)
    names = [name for name in names_of(programs[0], pattern) if name in after_names]
    best = [collections.defaultdict(dict), collections.defaultdict(dict)]
    rounds, end, seed = 0, time.monotonic() + seconds, random.randrange(10000)
    with tempfile.TemporaryDirectory() as folder:
        while rounds < 3 or time.monotonic() < end:
            for figures, program in zip(best, programs):
                for workload in measure(program, names, seed + rounds, folder + '/run.json').values():
                    for side, value in workload.sides.items():
                        shapes = figures[f'{workload.name}/{side}', workload.unit]
                        shapes[rounds % 3] = min(value, shapes.get(rounds % 3, value))
            rounds += 1
    before, after = ({row: statistics.geometric_mean(shapes.values())
                      for row, shapes in figures.items()} for figures in best)
    ratios = {row: after[row] / value for row, value in before.items() if row in after}
    lines = [[row[0], figure(before[row], row[1]), figure(after[row], row[1]), f'{ratio:.2f}']
             for row, ratio in sorted(ratios.items(), key=lambda item: -item[1])
             if abs(ratio - 1) > NOISE]
    if lines:
        print(tabulate(lines, ['row', 'before', 'after', 'ratio'], disable_numparse=True))
    print(f'{len(ratios) - len(lines)} of {len(ratios)} rows differ by less than {NOISE:.0%} '
          f'(least of {rounds} rounds)')


if __name__ == '__main__':
    sys.exit(main())
