#!/usr/bin/python3
"""The peer of bench/LayoutBench: kiwisolver on the feed that LayoutBench
writes out (one constraint per line, see writeFeed there).

Prints two numbers, median seconds: adding every constraint to a new solver
and solving; one constant change of the marked constraint (remove, re-add
with the new constant) and the update. The constraint objects are made
before the clock starts, so Python's own cost of building them is not
counted against the peer.
"""
import statistics
import sys
import time

import kiwisolver as kiwi


def terms(view, attribute):
    left, top, width, height = view
    return {
        1: left, 5: left, 2: left + width, 6: left + width,
        3: top, 4: top + height, 11: top + height,
        7: width, 8: height,
        9: left + 0.5 * width, 10: top + 0.5 * height,
    }[attribute]


def constraint(views, row, constant=None):
    first, a1, rel, second, a2, mult, const, priority = row
    if constant is not None:
        const = constant
    lhs = terms(views[first], a1)
    rhs = mult * terms(views[second], a2) + const if second >= 0 else const
    made = {-1: lhs <= rhs, 0: lhs == rhs, 1: lhs >= rhs}[rel]
    return made if priority >= 1000 else made | priority


def main():
    with open(sys.argv[1]) as feed:
        count = int(feed.readline())
        rows, edited = [], None
        for line in feed:
            marked = line.startswith("*")
            f = line.lstrip("*").split()
            row = (int(f[0]), int(f[1]), int(f[2]), int(f[3]), int(f[4]),
                    float(f[5]), float(f[6]), float(f[7]))
            if marked:
                edited = len(rows)
            rows.append(row)
    views = [tuple(kiwi.Variable("v%d%s" % (i, k)) for k in "ltwh") for i in range(count)]
    root = views[0]
    # The root keeps its frame, as a view that is not laid out by constraints.
    fixed = [root[0] == 0, root[1] == 0, root[2] == 320, root[3] == 100000]

    scratch = []
    for _ in range(5):
        built = fixed + [constraint(views, s) for s in rows]
        start = time.perf_counter()
        solver = kiwi.Solver()
        for c in built:
            solver.addConstraint(c)
        solver.updateVariables()
        scratch.append(time.perf_counter() - start)

    current = built[len(fixed) + edited]
    value = rows[edited][6]
    edits = []
    for i in range(400):
        value = 90.0 if value == 60.0 else 60.0
        replacement = constraint(views, rows[edited], value)
        start = time.perf_counter()
        solver.removeConstraint(current)
        solver.addConstraint(replacement)
        solver.updateVariables()
        edits.append(time.perf_counter() - start)
        current = replacement
    print(statistics.median(scratch), statistics.median(edits))


if __name__ == "__main__":
    main()
