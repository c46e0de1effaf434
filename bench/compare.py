#!/usr/bin/env python3
"""Compares two builds: runs our sides of both in turn, and prints where they differ.

usage: compare.py SECONDS BEFORE AFTER [PATTERN]

BEFORE and AFTER are programs that vsupt_bench was copied or built to, each with its own library.
The figure of a row is the least of all rounds, as whatever disturbs a round makes it longer.
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import time

from tabulate import tabulate

import results
from results import OURS, figure

NOISE = 0.03


def names_of(program, pattern):
    listed = subprocess.run([program, '--benchmark_list_tests', f'--benchmark_filter={pattern}'],
                            check=True, capture_output=True, text=True).stdout.splitlines()
    return [name for name in listed if f'/{OURS}' in name]


def measure(program, names, file):
    pattern = '|'.join('^' + ''.join('\\' + c if c in '.*+?()[]{}^$|\\' else c for c in name) + '$'
                       for name in names)
    library = {**os.environ, 'LD_LIBRARY_PATH': str(pathlib.Path(program).parent)}
    subprocess.run([program, f'--benchmark_filter={pattern}', '--benchmark_min_time=0.01',
                    f'--benchmark_out={file}', '--benchmark_out_format=json'],
                   check=True, env=library, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return results.read(file, min)[1]


def main():
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    seconds, programs = float(sys.argv[1]), sys.argv[2:4]
    pattern = sys.argv[4] if len(sys.argv) == 5 else '.'
    after_names = names_of(programs[1], pattern)
    names = [name for name in names_of(programs[0], pattern) if name in after_names]
    best = [{}, {}]
    rounds, end = 0, time.monotonic() + seconds
    with tempfile.TemporaryDirectory() as folder:
        while rounds < 3 or time.monotonic() < end:
            for figures, program in zip(best, programs):
                for workload in measure(program, names, folder + '/run.json').values():
                    for side, value in workload.sides.items():
                        row = f'{workload.name}/{side}'
                        figures[row] = min(value, figures.get(row, value))
            rounds += 1
    ratios = {row: best[1][row] / value for row, value in best[0].items() if row in best[1]}
    lines = [[row, figure(best[0][row], 'ns'), figure(best[1][row], 'ns'), f'{ratio:.2f}']
             for row, ratio in sorted(ratios.items(), key=lambda item: -item[1])
             if abs(ratio - 1) > NOISE]
    if lines:
        print(tabulate(lines, ['row', 'before', 'after', 'ratio'], disable_numparse=True))
    print(f'{len(ratios) - len(lines)} of {len(ratios)} rows differ by less than {NOISE:.0%} '
          f'(least of {rounds} rounds)')


if __name__ == '__main__':
    sys.exit(main())
