#!/usr/bin/env python3
"""kiwisolver side of LayoutSolverBench: reads the feed the benchmark wrote
(`vars N changed I`, then one constraint a line: REL STRENGTH CONSTANT K VAR
COEF ..., meaning sum(COEF * VAR) + CONSTANT REL 0), and times

  build_solve:  a new Solver, every constraint added, updateVariables();
  set_constant: constraint I's constant changed (kiwisolver has no in-place
                change: the constraint is removed and one with the other
                constant added), then updateVariables().

Prints `build_solve_seconds X set_constant_seconds Y` (medians)."""
import statistics
import sys
import timeit

import kiwisolver as kiwi

REQUIRED = 1001001000.0


def main(path):
    with open(path) as f:
        header = f.readline().split()
        n, changed = int(header[1]), int(header[3])
        rows = [line.split() for line in f if line.strip()]
    xs = [kiwi.Variable() for _ in range(n)]

    def constraint(row, constant=None):
        rel, strength, k = row[0], float(row[1]), int(row[3])
        const = float(row[2]) if constant is None else constant
        e = sum((float(row[5 + 2 * i]) * xs[int(row[4 + 2 * i])] for i in range(k)),
                kiwi.Expression([], const))
        c = {"le": e <= 0, "eq": e == 0, "ge": e >= 0}[rel]
        return c if strength >= REQUIRED else c | strength

    constraints = [constraint(r) for r in rows]

    def build():
        solver = kiwi.Solver()
        for c in constraints:
            solver.addConstraint(c)
        solver.updateVariables()
        return solver

    build_times = timeit.repeat(build, number=1, repeat=5)

    solver = build()
    pair = [constraints[changed], constraint(rows[changed], -90.0)]
    state = [0]

    def set_constant():
        held, other = pair[state[0] & 1], pair[(state[0] + 1) & 1]
        state[0] += 1
        solver.removeConstraint(held)
        solver.addConstraint(other)
        solver.updateVariables()

    number = 200
    set_times = timeit.repeat(set_constant, number=number, repeat=5)
    print("build_solve_seconds %.9g set_constant_seconds %.9g"
          % (statistics.median(build_times), statistics.median(set_times) / number))


if __name__ == "__main__":
    main(sys.argv[1])
