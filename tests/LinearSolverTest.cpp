// LinearSolver: hand-checked systems, then random systems compared with
// kiwisolver step by step (tests/kiwi_oracle.py).
#include <NimbFoundation/Platform/Graphics/LinearSolver.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

using namespace nimb;
namespace Strength = SolverStrength;

namespace {

// a*x + b*y + c RELATION 0
SolverConstraint make(double a, const SolverVariable& x, double b, const SolverVariable& y,
                      double c, SolverRelation relation, double strength = Strength::required) {
  return SolverConstraint(SolverExpression{{{x, a}, {y, b}}, c}, relation, strength);
}
SolverConstraint make(double a, const SolverVariable& x, double c, SolverRelation relation,
                      double strength = Strength::required) {
  return SolverConstraint(SolverExpression{{{x, a}}, c}, relation, strength);
}
constexpr auto EQ = SolverRelation::Equal;
constexpr auto LE = SolverRelation::LessOrEqual;
constexpr auto GE = SolverRelation::GreaterOrEqual;

void addAll(LinearSolver& solver, std::initializer_list<SolverConstraint> constraints) {
  for (const auto& c : constraints) EXPECT_EQ(solver.addConstraint(c), SolverStatus::Ok);
}

TEST(LinearSolver, RequiredConstraintsWeightedPreferencesAndEditVariables) {
  LinearSolver solver;
  SolverVariable x("x"), y("y");
  // x + y = 100, x >= 30, y <= 90; x prefers 10 (weak), y prefers 20 (strong).
  addAll(solver, {make(1, x, 1, y, -100, EQ), make(1, x, -30, GE), make(1, y, -90, LE),
                  make(1, x, -10, EQ, Strength::weak), make(1, y, -20, EQ, Strength::strong)});
  std::vector<std::string> changed;
  solver.updateVariables([&](const SolverVariable& v) { changed.push_back(v.name()); });
  EXPECT_DOUBLE_EQ(x.value(), 80);  // the strong wish wins
  EXPECT_DOUBLE_EQ(y.value(), 20);
  EXPECT_EQ(changed.size(), 2u);
  // A stronger wish on x flips the outcome, as far as x >= 30 lets it.
  auto strongX = make(1, x, -10, EQ, 2 * Strength::strong);
  ASSERT_EQ(solver.addConstraint(strongX), SolverStatus::Ok);
  solver.updateVariables();
  EXPECT_DOUBLE_EQ(x.value(), 30);
  EXPECT_DOUBLE_EQ(y.value(), 70);
  // Removing it restores the earlier solution; nothing else changed, so a
  // second update reports no variable.
  ASSERT_EQ(solver.removeConstraint(strongX), SolverStatus::Ok);
  solver.updateVariables();
  EXPECT_DOUBLE_EQ(x.value(), 80);
  changed.clear();
  solver.updateVariables([&](const SolverVariable& v) { changed.push_back(v.name()); });
  EXPECT_TRUE(changed.empty());
  // z = 10 and w = z make w = 10 redundant; when w = z goes, w = 10 takes
  // over and still beats a strong wish for w = -50.
  SolverVariable z("z"), w("w");
  auto wIsZ = make(1, w, -1, z, 0, EQ);
  addAll(solver,
         {make(1, z, -10, EQ), wIsZ, make(1, w, -10, EQ), make(1, w, 50, EQ, Strength::strong)});
  ASSERT_EQ(solver.removeConstraint(wIsZ), SolverStatus::Ok);
  solver.updateVariables();
  EXPECT_DOUBLE_EQ(w.value(), 10);
  EXPECT_DOUBLE_EQ(z.value(), 10);
  EXPECT_EQ(solver.constraintCount(), 8u);

  // Edit variables follow suggestions.
  solver.reset();
  SolverVariable left("left"), width("width"), right("right");
  addAll(solver, {SolverConstraint(SolverExpression{{{left, 1}, {width, 1}, {right, -1}}, 0}, EQ),
                  make(1, width, -10, GE), make(1, width, -50, EQ, Strength::weak)});
  ASSERT_EQ(solver.addEditVariable(left, Strength::strong), SolverStatus::Ok);
  ASSERT_EQ(solver.addEditVariable(right, Strength::medium), SolverStatus::Ok);
  EXPECT_EQ(solver.addEditVariable(left, Strength::weak), SolverStatus::DuplicateEditVariable);
  EXPECT_EQ(solver.addEditVariable(width, Strength::required), SolverStatus::BadRequiredStrength);
  for (double l : {0.0, 100.0, -40.0}) {
    ASSERT_EQ(solver.suggestValue(left, l), SolverStatus::Ok);
    ASSERT_EQ(solver.suggestValue(right, l + 30), SolverStatus::Ok);
    solver.updateVariables();
    EXPECT_DOUBLE_EQ(left.value(), l);
    EXPECT_DOUBLE_EQ(width.value(), 30);  // the medium edit beats the weak width
    EXPECT_DOUBLE_EQ(right.value(), l + 30);
  }
  ASSERT_EQ(solver.suggestValue(right, -40 + 5), SolverStatus::Ok);  // width >= 10 holds
  solver.updateVariables();
  EXPECT_DOUBLE_EQ(right.value(), -30);
  ASSERT_EQ(solver.removeEditVariable(right), SolverStatus::Ok);
  EXPECT_EQ(solver.suggestValue(right, 1), SolverStatus::UnknownEditVariable);
  solver.updateVariables();
  EXPECT_DOUBLE_EQ(width.value(), 50);
  EXPECT_EQ(solver.suggestValue(left, std::nan("")), SolverStatus::BadValue);
}

// Random adds, removals, constant changes and edits, with coefficients in
// units up to 100 apart: after every step each held required constraint
// holds, within 1e-3 of its largest variable (rounding drifts over long
// edit sequences), whatever was accepted or refused.
TEST(LinearSolver, RequiredConstraintsHoldThroughRandomChangesAcrossUnits) {
  for (double unit : {1.0, 100.0}) {
    for (unsigned seed = 1; seed <= 600; ++seed) {
      std::mt19937 rng(seed);
      auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
      std::vector<SolverVariable> vars(6);
      std::vector<SolverConstraint> held;
      LinearSolver solver;
      for (int step = 0; step < 60; ++step) {
        int op = pick(0, 9);
        if (op <= 4) {
          SolverExpression e;
          for (int t = pick(1, 3); t > 0; --t) {
            e.terms.push_back({vars[pick(0, 5)], pick(-3, 3) * (pick(0, 4) == 0 ? unit : 1.0)});
          }
          e.constant = pick(-100, 100) * (pick(0, 3) == 0 ? unit : 1.0);
          double strength = pick(0, 2) == 0 ? Strength::required : pick(1, 1000);
          SolverConstraint c(e, SolverRelation(pick(0, 2)), strength);
          if (solver.addConstraint(c) == SolverStatus::Ok) held.push_back(c);
        } else if (op == 5 && !held.empty()) {
          auto it = held.begin() + pick(0, int(held.size()) - 1);
          ASSERT_EQ(solver.removeConstraint(*it), SolverStatus::Ok);
          held.erase(it);
        } else if (op <= 7 && !held.empty()) {
          solver.setConstant(held[pick(0, int(held.size()) - 1)], pick(-100, 100));
        } else if (op == 8) {
          auto& v = vars[pick(0, 5)];
          if (!solver.hasEditVariable(v)) solver.addEditVariable(v, pick(1, 1000));
          solver.suggestValue(v, pick(-50, 50));
        } else if (op == 9) {
          solver.removeEditVariable(vars[pick(0, 5)]);
        }
        solver.updateVariables();
        ASSERT_EQ(solver.constraintCount(), held.size());
        for (const auto& c : held) {
          if (!c.isRequired()) continue;
          double value = c.expression().constant, largest = 0, coefficient = 0;
          for (const auto& t : c.expression().terms) {
            value += t.coefficient * t.variable.value();
            largest = std::max(largest, std::fabs(t.variable.value()));
            coefficient = std::max(coefficient, std::fabs(t.coefficient));
          }
          value /= coefficient > 0 ? coefficient : 1;
          double miss = c.relation() == EQ ? std::fabs(value) : c.relation() == LE ? value : -value;
          ASSERT_LE(miss, 1e-3 * (1 + largest))
              << "unit " << unit << " seed " << seed << " step " << step << ": " << value;
        }
      }
    }
  }
}

TEST(LinearSolver, SetConstantMatchesRemoveAndAddAndRejectsContradictions) {
  // Boxes a, b, c in a row with gaps; b's gap is changed both ways.
  auto build = [](LinearSolver& solver, std::vector<SolverVariable>& v, double gap) {
    v = {SolverVariable("a"), SolverVariable("b"), SolverVariable("c")};
    auto gapB = make(1, v[1], -1, v[0], -gap, GE);
    addAll(solver, {make(1, v[0], 0, EQ), make(1, v[2], -100, LE),
                    make(1, v[1], -1, v[2], 20, LE, Strength::strong),
                    make(1, v[2], -95, EQ, Strength::medium), gapB,
                    make(1, v[1], -30, EQ, Strength::weak)});
    return gapB;
  };
  LinearSolver edited, rebuilt;
  std::vector<SolverVariable> ve, vr;
  auto gap = build(edited, ve, 10);
  for (double g : {50.0, 5.0, 75.0}) {
    ASSERT_EQ(edited.setConstant(gap, -g), SolverStatus::Ok);
    rebuilt.reset();
    build(rebuilt, vr, g);
    edited.updateVariables();
    rebuilt.updateVariables();
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(ve[i].value(), vr[i].value(), 1e-9) << g << " " << i;
  }
  EXPECT_DOUBLE_EQ(ve[1].value(), 75);
  // With b <= c <= 100 required, b >= 150 cannot hold: rejected, nothing moves.
  ASSERT_EQ(edited.addConstraint(make(1, ve[1], -1, ve[2], 0, LE)), SolverStatus::Ok);
  edited.updateVariables();
  std::vector<double> before{ve[0].value(), ve[1].value(), ve[2].value()};
  EXPECT_EQ(edited.setConstant(gap, -150), SolverStatus::UnsatisfiableConstraint);
  EXPECT_EQ(gap.expression().constant, -75);
  auto tooFar = make(1, ve[1], -150, GE);
  EXPECT_EQ(edited.addConstraint(tooFar), SolverStatus::UnsatisfiableConstraint);
  EXPECT_EQ(edited.addConstraint(make(1, ve[0], -1, EQ)), SolverStatus::UnsatisfiableConstraint);
  EXPECT_FALSE(edited.hasConstraint(tooFar));
  bool anyChanged = false;
  edited.updateVariables([&](const SolverVariable&) { anyChanged = true; });
  EXPECT_FALSE(anyChanged);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ve[i].value(), before[i]);
  // The solver still works after the rejections.
  ASSERT_EQ(edited.setConstant(gap, -80), SolverStatus::Ok);
  edited.updateVariables();
  EXPECT_DOUBLE_EQ(ve[1].value(), 80);
  // Statuses for duplicates, strangers and bad numbers.
  EXPECT_EQ(edited.addConstraint(gap), SolverStatus::DuplicateConstraint);
  EXPECT_EQ(edited.removeConstraint(tooFar), SolverStatus::UnknownConstraint);
  EXPECT_EQ(edited.setConstant(tooFar, 1), SolverStatus::UnknownConstraint);
  EXPECT_EQ(edited.setConstant(gap, std::numeric_limits<double>::infinity()),
            SolverStatus::BadValue);
  EXPECT_EQ(edited.addConstraint(make(std::nan(""), ve[0], 1, EQ)), SolverStatus::BadValue);
  // Coefficients near the largest double are taken in the constraint's own
  // scale, without overflow: a + b = -1e-308 contradicts a = 0, b >= 80.
  EXPECT_EQ(edited.addConstraint(make(1, ve[0], 1e308, ve[1], 1e308, EQ)),
            SolverStatus::UnsatisfiableConstraint);
  EXPECT_EQ(edited.constraintCount(), 7u);
}

// Replays tests/kiwi_oracle.py's systems and compares every checked step.
TEST(LinearSolver, AgreesWithKiwisolverOnRandomSystems) {
  if (access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "/usr/bin/python3 is missing";
  auto oracle = nimb::test::runProgram({"/usr/bin/python3", KIWI_ORACLE_PATH, "1", "20"});
  if (oracle.exitCode == 3) {
    GTEST_SKIP() << "python3-kiwisolver is not installed (scripts/install-deps.sh installs it)";
  }
  ASSERT_EQ(oracle.exitCode, 0) << oracle.err.substr(0, 2000);
  std::istringstream lines(oracle.out);
  std::string line;
  int systems = 0, checks = 0;
  auto solver = std::make_unique<LinearSolver>();
  std::vector<SolverVariable> xs;
  std::map<int, SolverConstraint> held;
  auto relation = [](const std::string& r) { return r == "le" ? LE : r == "ge" ? GE : EQ; };
  auto readExpression = [&](std::istream& in) {  // constant, term count, {variable, coefficient}
    SolverExpression e;
    size_t k = 0;
    int v;
    double c;
    for (in >> e.constant >> k; k > 0 && in >> v >> c; --k) e.terms.push_back({xs.at(v), c});
    return e;
  };
  while (std::getline(lines, line)) {
    std::istringstream in(line);
    std::string op;
    in >> op;
    if (op.empty() || op[0] == '#') continue;
    SCOPED_TRACE("system " + std::to_string(systems) + ": " + line.substr(0, 60));
    if (op == "vars") {
      size_t n;
      in >> n;
      ++systems;
      solver = std::make_unique<LinearSolver>();
      xs = std::vector<SolverVariable>(n);  // n distinct variables
      held.clear();
    } else if (op == "add" || op == "unsat") {  // unsat: a required one that is refused
      int id = -1;
      std::string rel;
      double strength = Strength::required;
      if (op == "add") in >> id;
      in >> rel;
      if (op == "add") in >> strength;
      SolverConstraint c(readExpression(in), relation(rel), strength);
      ASSERT_EQ(solver->addConstraint(c),
                op == "add" ? SolverStatus::Ok : SolverStatus::UnsatisfiableConstraint);
      if (op == "add") held.emplace(id, c);
    } else if (op == "remove") {
      int id;
      in >> id;
      ASSERT_EQ(solver->removeConstraint(held.at(id)), SolverStatus::Ok);
      held.erase(id);
    } else if (op == "const" || op == "edit" || op == "suggest") {
      int i;  // a constraint's id, or a variable's index
      double number;
      in >> i >> number;
      ASSERT_EQ(op == "const"  ? solver->setConstant(held.at(i), number)
                : op == "edit" ? solver->addEditVariable(xs.at(i), number)
                               : solver->suggestValue(xs.at(i), number),
                SolverStatus::Ok);
    } else if (op == "expect") {
      ++checks;
      solver->updateVariables();
      for (size_t i = 0; i < xs.size(); ++i) {
        double expected;
        in >> expected;
        ASSERT_NEAR(xs[i].value(), expected, 1e-6) << "check " << checks << ", variable " << i;
      }
    } else {
      FAIL() << "unknown oracle line";
    }
  }
  EXPECT_EQ(systems, 20);
  EXPECT_EQ(checks, 20 * 5);
}

}  // namespace
