#!/usr/bin/env python3
"""Differential oracle for LinearSolver: builds random constraint systems from
a seed, solves them with kiwisolver (from scratch at every check) and prints
every step and the values kiwisolver found, one line each:

  vars N
  add ID REL STRENGTH CONSTANT K VAR COEF ...   (REL: le eq ge; expr REL 0)
  remove ID
  const ID CONSTANT       (the constraint's expression gets a new constant)
  edit VAR STRENGTH
  suggest VAR VALUE
  unsat REL CONSTANT K VAR COEF ...  (a required constraint that cannot hold)
  expect V0 V1 ...
  # NOTE                  (ignored by readers)

Coefficients are layout-like (1, -1, 2, -0.5, up to three terms): on dense
random coefficients kiwisolver itself now and then stops short of the optimum.
Every system has a unique optimum: each variable is also pulled toward a
random value at weak strength with a weight of its own, and the required
constraints hold at a known point. Exit status 3 when kiwisolver is missing.
"""
import itertools
import random
import sys

try:
    import kiwisolver as kiwi
except ImportError:
    print("kiwisolver is not installed", file=sys.stderr)
    sys.exit(3)

REQUIRED = 1001001000.0


def main(seed):
    rng = random.Random(seed)
    n = rng.randint(25, 50)
    xs = [kiwi.Variable("x%d" % i) for i in range(n)]
    point = [rng.uniform(0, 100) for _ in range(n)]
    out = ["vars %d" % n]
    held = {}  # id -> (kiwi constraint, rel, strength, terms, constant)
    edits = {}  # var -> [strength, suggested value]
    ids = itertools.count()

    def kiwi_constraint(rel, strength, terms, constant):
        e = sum((c * xs[v] for v, c in terms), kiwi.Expression([], constant))
        c = {"le": e <= 0, "eq": e == 0, "ge": e >= 0}[rel]
        return c if strength >= REQUIRED else c | strength

    def fmt_terms(terms):
        return "%d %s" % (len(terms), " ".join("%d %r" % (v, c) for v, c in terms))

    def add(rel, strength, terms, constant):
        cid = next(ids)
        held[cid] = (kiwi_constraint(rel, strength, terms, constant), rel, strength, terms, constant)
        out.append("add %d %s %r %r %s" % (cid, rel, strength, constant, fmt_terms(terms)))

    def random_terms():
        chosen = rng.sample(range(n), rng.randint(1, 3))
        return [(v, rng.choice([-1.0, 1.0, 1.0, 2.0, -0.5])) for v in chosen]

    def at_point(terms):
        return sum(c * point[v] for v, c in terms)
    def objective(values):
        total = 0.0
        for _, rel, strength, terms, constant in held.values():
            e = constant + sum(c * values[v] for v, c in terms)
            miss = abs(e) if rel == "eq" else max(0.0, e if rel == "le" else -e)
            total += miss * (1e12 if strength >= REQUIRED else strength)
        return total + sum(s * abs(values[v] - x) for v, (s, x) in edits.items())

    def solve(order):
        solver = kiwi.Solver()
        for c in order:
            solver.addConstraint(c[0])
        for v, (strength, value) in edits.items():
            solver.addEditVariable(xs[v], strength)
            solver.suggestValue(xs[v], value)
        solver.updateVariables()
        return [x.value() for x in xs]

    def expect():
        # Fresh solvers for every check: the optimum is unique, so the
        # incremental path under test must land on what a new solve finds.
        # kiwisolver now and then stops at a worse vertex (which one depends
        # on the order of its symbols), so it solves twice, in two orders, and
        # the lower objective wins.
        order = list(held.values())  # the weak pulls come first in both
        found = [solve(order), solve(order[:n] + order[n:][::-1])]
        best = min(found, key=objective)
        if any(abs(a - b) > 1e-7 for a, b in zip(*found)):
            out.append("# kiwisolver disagreed with itself: objectives %r"
                       % [objective(f) for f in found])
        out.append("expect " + " ".join(repr(x) for x in best))

    # Weak pulls first (they also keep every variable bounded), never removed.
    for v in range(n):
        add("eq", rng.uniform(0.1, 0.9), [(v, 1.0)], -rng.uniform(0, 100))
    pulls = n
    # Required: equalities and inequalities that hold at `point`.
    for _ in range(n // 4):
        terms = random_terms()
        add("eq", REQUIRED, terms, -at_point(terms))
    for _ in range(n):
        terms = random_terms()
        rel = rng.choice(["le", "ge"])
        gap = rng.uniform(0, 20) * (1 if rel == "le" else -1)
        add(rel, REQUIRED, terms, -at_point(terms) - gap)
    # Preferences: random targets at random strengths and weights.
    for _ in range(n):
        terms = random_terms()
        base = rng.choice([1e6, 1e3, 1.0])
        add(rng.choice(["le", "eq", "ge"]), base * rng.uniform(0.5, 5), terms,
            rng.uniform(-150, 150))
    expect()

    # A contradiction of a held required constraint is rejected.
    for cid in rng.sample(sorted(k for k in held if held[k][2] >= REQUIRED), 3):
        _, rel, _, terms, constant = held[cid]
        flipped = [(v, -c) for v, c in terms]
        # -(e + C) + 5 REL 0 reads e + C = 5 or >= 5; the ge case mirrors it.
        shifted = -constant + 5.0 if rel != "ge" else -constant - 5.0
        out.append("unsat %s %r %s" % (rel, shifted, fmt_terms(flipped)))
    # Incremental steps, each compared.
    for cid in rng.sample(sorted(k for k in held if k >= pulls), 8):
        del held[cid]
        out.append("remove %d" % cid)
    expect()
    changeable = sorted(k for k in held if k >= pulls and (held[k][2] < REQUIRED or held[k][1] != "eq"))
    for cid in rng.sample(changeable, 8):
        _, rel, strength, terms, constant = held[cid]
        if strength >= REQUIRED:  # loosen, so it still holds
            constant += rng.uniform(0, 10) * (-1 if rel == "le" else 1)
        else:
            constant += rng.uniform(-30, 30)
        held[cid] = (kiwi_constraint(rel, strength, terms, constant), rel, strength, terms, constant)
        out.append("const %d %r" % (cid, constant))
    expect()
    edited = rng.sample(range(n), 4)
    for v in edited:
        strength = 1e6 * rng.uniform(0.5, 2)
        edits[v] = [strength, 0.0]
        out.append("edit %d %r" % (v, strength))
    for _ in range(2):
        for v in edited:
            value = rng.uniform(-50, 150)
            edits[v][1] = value
            out.append("suggest %d %r" % (v, value))
        expect()
    print("\n".join(out))


if __name__ == "__main__":
    # Seeds first..last, each system opened by a `vars` line.
    first = int(sys.argv[1]) if len(sys.argv) > 1 else 1
    last = int(sys.argv[2]) if len(sys.argv) > 2 else first
    for seed in range(first, last + 1):
        main(seed)
