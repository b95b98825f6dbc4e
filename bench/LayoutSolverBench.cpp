// LinearSolver on a layout feed: 200 cells of 6 boxes (4,800 variables,
// 5,600 constraints), built and solved from scratch, and one constant in the
// middle cell changed and the layout updated. The same feed is written out
// for bench/layout_solver_peer.py, which times the same two operations with
// kiwisolver (there a constant change is a removal and an addition).
#include <NimbFoundation/Platform/Graphics/LinearSolver.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

using nimb::LinearSolver;
using nimb::SolverConstraint;
using nimb::SolverRelation;
namespace Strength = nimb::SolverStrength;

constexpr int kCells = 200;
constexpr int kBoxes = 6;

// A constraint over variable numbers: sum(coefficient * var) + constant REL 0.
struct FeedConstraint {
  std::vector<std::pair<int, double>> terms;
  double constant;
  SolverRelation relation;
  double strength;
};

struct Feed {
  int variables = kCells * kBoxes * 4;
  std::vector<FeedConstraint> constraints;
  int changed = -1;  // the constraint whose constant the edit benchmark changes
};

// Box b of cell c: left, top, width, height.
int L(int c, int b) {
  return (c * kBoxes + b) * 4;
}
int T(int c, int b) {
  return L(c, b) + 1;
}
int W(int c, int b) {
  return L(c, b) + 2;
}
int H(int c, int b) {
  return L(c, b) + 3;
}

Feed makeFeed() {
  Feed feed;
  auto add = [&](std::vector<std::pair<int, double>> terms, double constant,
                 SolverRelation relation, double strength = Strength::required) {
    feed.constraints.push_back({std::move(terms), constant, relation, strength});
  };
  constexpr auto EQ = SolverRelation::Equal;
  constexpr auto GE = SolverRelation::GreaterOrEqual;
  constexpr auto LE = SolverRelation::LessOrEqual;
  for (int c = 0; c < kCells; ++c) {
    // Box 0 is the cell: full width, stacked under the previous cell, as
    // short as its content allows.
    add({{L(c, 0), 1}}, 0, EQ);
    add({{W(c, 0), 1}}, -375, EQ);
    if (c == 0) {
      add({{T(c, 0), 1}}, 0, EQ);
    } else {
      add({{T(c, 0), 1}, {T(c - 1, 0), -1}, {H(c - 1, 0), -1}}, 0, EQ);
    }
    add({{H(c, 0), 1}}, -44, EQ, Strength::weak);
    // Box 1, an avatar pinned to the top left corner.
    add({{L(c, 1), 1}, {L(c, 0), -1}}, -16, EQ);
    add({{T(c, 1), 1}, {T(c, 0), -1}}, -12, EQ);
    add({{W(c, 1), 1}}, -40, EQ, Strength::strong);
    add({{H(c, 1), 1}, {W(c, 1), -1}}, 0, EQ);
    // Box 2, a title right of the avatar, at least 200 wide if it can be.
    add({{L(c, 2), 1}, {L(c, 1), -1}, {W(c, 1), -1}}, -12, EQ);
    add({{T(c, 2), 1}, {T(c, 0), -1}}, -12, EQ);
    add({{L(c, 2), 1}, {W(c, 2), 1}, {L(c, 0), -1}, {W(c, 0), -1}}, 16, LE);
    add({{W(c, 2), 1}}, -200, GE, 750);
    add({{H(c, 2), 1}}, -20, EQ, Strength::strong);
    // Box 3, a subtitle under the title.
    add({{L(c, 3), 1}, {L(c, 2), -1}}, 0, EQ);
    add({{T(c, 3), 1}, {T(c, 2), -1}, {H(c, 2), -1}}, -4, EQ);
    add({{W(c, 3), 1}, {W(c, 2), -1}}, 0, EQ);
    add({{H(c, 3), 1}}, -16, EQ, Strength::strong);
    // Box 4, the body, below both avatar and subtitle (the cell's weak
    // height pulls it up against them).
    add({{L(c, 4), 1}, {L(c, 0), -1}}, -16, EQ);
    add({{T(c, 4), 1}, {T(c, 1), -1}, {H(c, 1), -1}}, -8, GE);
    add({{T(c, 4), 1}, {T(c, 3), -1}, {H(c, 3), -1}}, -8, GE);
    add({{W(c, 4), 1}, {W(c, 0), -1}}, 32, EQ);
    if (c == kCells / 2) feed.changed = static_cast<int>(feed.constraints.size());
    add({{H(c, 4), 1}}, -(60.0 + (c % 7) * 10), EQ, Strength::strong);
    // Box 5, a button under the body on the right, at most 120 wide if it can be.
    add({{L(c, 5), 1}, {W(c, 5), 1}, {L(c, 0), -1}, {W(c, 0), -1}}, 16, EQ);
    add({{T(c, 5), 1}, {T(c, 4), -1}, {H(c, 4), -1}}, -8, EQ);
    add({{W(c, 5), 1}}, -60, GE);
    add({{W(c, 5), 1}}, -120, LE, 250);
    add({{H(c, 5), 1}}, -30, EQ, Strength::strong);
    add({{T(c, 0), 1}, {H(c, 0), 1}, {T(c, 5), -1}, {H(c, 5), -1}}, -12, GE);
  }
  return feed;
}

struct Built {
  std::vector<nimb::SolverVariable> variables;
  std::vector<SolverConstraint> constraints;
};

Built build(const Feed& feed) {
  Built built;
  built.variables.resize(feed.variables);
  for (const auto& f : feed.constraints) {
    nimb::SolverExpression e;
    for (auto [v, c] : f.terms) e.terms.push_back({built.variables[v], c});
    e.constant = f.constant;
    built.constraints.emplace_back(std::move(e), f.relation, f.strength);
  }
  return built;
}

const Feed& feed() {
  static const Feed f = makeFeed();
  return f;
}

void BM_BuildAndSolve(benchmark::State& state) {
  Built built = build(feed());
  for (auto _ : state) {
    LinearSolver solver;
    for (const auto& c : built.constraints) {
      if (solver.addConstraint(c) != nimb::SolverStatus::Ok) state.SkipWithError("add failed");
    }
    solver.updateVariables();
    benchmark::DoNotOptimize(built.variables[H(kCells - 1, 0)].value());
  }
  state.counters["constraints"] = static_cast<double>(built.constraints.size());
}
BENCHMARK(BM_BuildAndSolve)->Unit(benchmark::kMillisecond);

void BM_SetConstantAndUpdate(benchmark::State& state) {
  Built built = build(feed());
  LinearSolver solver;
  for (const auto& c : built.constraints) solver.addConstraint(c);
  solver.updateVariables();
  const SolverConstraint& changed = built.constraints[feed().changed];
  double constants[2] = {-90, changed.expression().constant};
  std::size_t moved = 0, i = 0;
  for (auto _ : state) {
    solver.setConstant(changed, constants[i++ & 1]);
    solver.updateVariables([&](const nimb::SolverVariable&) { ++moved; });
  }
  state.counters["moved/iter"] = static_cast<double>(moved) / state.iterations();
}
BENCHMARK(BM_SetConstantAndUpdate)->Unit(benchmark::kMicrosecond);

// Writes the feed, runs the peer on it and returns its two figures in seconds.
bool runPeer(double& buildSeconds, double& setSeconds) {
  char path[] = "/tmp/nimb-layout-feed-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return false;
  FILE* out = fdopen(fd, "w");
  const Feed& f = feed();
  std::fprintf(out, "vars %d changed %d\n", f.variables, f.changed);
  for (const auto& c : f.constraints) {
    const char* rel = c.relation == SolverRelation::Equal         ? "eq"
                      : c.relation == SolverRelation::LessOrEqual ? "le"
                                                                  : "ge";
    std::fprintf(out, "%s %.17g %.17g %zu", rel, c.strength, c.constant, c.terms.size());
    for (auto [v, k] : c.terms) std::fprintf(out, " %d %.17g", v, k);
    std::fprintf(out, "\n");
  }
  std::fclose(out);
  std::string command =
      std::string("/usr/bin/python3 '") + NIMB_BENCH_DIR + "/layout_solver_peer.py' " + path;
  FILE* pipe = popen(command.c_str(), "r");
  bool ok = false;
  if (pipe) {
    ok = std::fscanf(pipe, "build_solve_seconds %lf set_constant_seconds %lf", &buildSeconds,
                     &setSeconds) == 2;
    pclose(pipe);
  }
  unlink(path);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  return nimb::bench::runWithRatios(argc, argv, {}, [](const nimb::bench::RatioReporter& r) {
    double kiwiBuild = 0, kiwiSet = 0;
    if (!runPeer(kiwiBuild, kiwiSet)) {
      std::printf(
          "\nkiwisolver peer did not run (needs /usr/bin/python3 and python3-kiwisolver)\n");
      return;
    }
    double build = r.seconds("BM_BuildAndSolve"), set = r.seconds("BM_SetConstantAndUpdate");
    std::printf("\n%-36s %12s %12s %8s\n", "layout feed (200 cells)", "ours", "kiwisolver",
                "ratio");
    if (build > 0) {
      std::printf("%-36s %9.3f ms %9.3f ms %8.2f\n", "add all + updateVariables", build * 1e3,
                  kiwiBuild * 1e3, build / kiwiBuild);
    }
    if (set > 0) {
      std::printf("%-36s %9.2f us %9.2f us %8.2f\n", "setConstant + updateVariables", set * 1e6,
                  kiwiSet * 1e6, set / kiwiSet);
    }
  });
}
