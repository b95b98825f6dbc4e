// The layout pass on a feed: 200 cells of 6 views each, stacked under one
// another in a 320-wide root, about 6,000 constraints in all.
//
//   FeedFromScratch   make the views and constraints, then layoutIfNeeded
//   FeedSolveOnly     layoutIfNeeded of a feed just made (the solve alone)
//   FeedEditConstant  one constant of one cell changed, then layoutIfNeeded
//
// The peer is kiwisolver (its core is C++), run by bench/layout_peer.py with
// Debian's python3-kiwisolver on the same constraints, which this binary
// writes out: it times adding them all and solving, and one constant change
// (remove, re-add) with its update. Its figures are printed beside ours.
#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>
#include <NimbFoundation/Platform/Graphics/View.h>

#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"

using namespace nimb;

namespace {

constexpr int kCells = 200;
using A = LayoutAttribute;
using R = LayoutRelation;

struct Feed {
  std::shared_ptr<View> root;
  std::vector<std::shared_ptr<View>> views;  // root first
  std::vector<std::shared_ptr<LayoutConstraint>> constraints;
  std::shared_ptr<LayoutConstraint> edited;  // a body height in the middle cell
};

Feed makeFeed() {
  Feed feed;
  feed.root = std::make_shared<View>(Rect(0, 0, 320, 100000));
  feed.views.push_back(feed.root);
  auto add = [&](const std::shared_ptr<View>& holder, const std::shared_ptr<View>& a, A attr, R rel,
                 const std::shared_ptr<View>& b, A attr2, double m, double c,
                 LayoutPriority p = LayoutPriorityRequired) {
    auto made = LayoutConstraint::constraintWithItem(a, attr, rel, b, attr2, m, c);
    made->setPriority(p);
    holder->addConstraint(made);
    feed.constraints.push_back(made);
    return made;
  };
  auto eq = [&](const std::shared_ptr<View>& holder, const std::shared_ptr<View>& a, A attr,
                const std::shared_ptr<View>& b, A attr2,
                double c) { return add(holder, a, attr, R::Equal, b, attr2, 1, c); };
  auto size = [&](const std::shared_ptr<View>& a, A attr, R rel, double c,
                  LayoutPriority p = LayoutPriorityRequired) {
    return add(a, a, attr, rel, nullptr, A::NotAnAttribute, 1, c, p);
  };
  std::shared_ptr<View> above;
  for (int i = 0; i < kCells; ++i) {
    auto cell = std::make_shared<View>();
    feed.root->addSubview(cell);
    std::shared_ptr<View> parts[6];
    for (auto& part : parts) {
      part = std::make_shared<View>();
      part->setTranslatesAutoresizingMaskIntoConstraints(false);
      cell->addSubview(part);
    }
    cell->setTranslatesAutoresizingMaskIntoConstraints(false);
    feed.views.push_back(cell);
    feed.views.insert(feed.views.end(), std::begin(parts), std::end(parts));
    auto& [thumb, title, subtitle, badge, body, footer] = parts;
    const auto& root = feed.root;
    eq(root, cell, A::Left, root, A::Left, 0);
    eq(root, cell, A::Right, root, A::Right, 0);
    if (above) {
      eq(root, cell, A::Top, above, A::Bottom, 1);
    } else {
      eq(root, cell, A::Top, root, A::Top, 0);
    }
    eq(cell, thumb, A::Left, cell, A::Left, 8);
    eq(cell, thumb, A::Top, cell, A::Top, 8);
    size(thumb, A::Width, R::Equal, 48);
    size(thumb, A::Height, R::Equal, 48);
    eq(cell, title, A::Left, thumb, A::Right, 8);
    eq(cell, title, A::Top, cell, A::Top, 8);
    size(title, A::Height, R::Equal, 20);
    eq(cell, title, A::Right, badge, A::Left, -8);
    eq(cell, subtitle, A::Left, title, A::Left, 0);
    eq(cell, subtitle, A::Right, title, A::Right, 0);
    eq(cell, subtitle, A::Top, title, A::Bottom, 4);
    size(subtitle, A::Height, R::GreaterThanOrEqual, 16);
    size(subtitle, A::Height, R::Equal, 18, 250);
    eq(cell, badge, A::Right, cell, A::Right, -8);
    eq(cell, badge, A::Top, cell, A::Top, 8);
    size(badge, A::Width, R::Equal, 24, 750);
    size(badge, A::Width, R::GreaterThanOrEqual, 16);
    size(badge, A::Height, R::Equal, 16);
    eq(cell, body, A::Left, cell, A::Left, 8);
    eq(cell, body, A::Right, cell, A::Right, -8);
    add(cell, body, A::Top, R::GreaterThanOrEqual, thumb, A::Bottom, 1, 8);
    add(cell, body, A::Top, R::GreaterThanOrEqual, subtitle, A::Bottom, 1, 8);
    size(body, A::Height, R::GreaterThanOrEqual, 40);
    auto bodyHeight = size(body, A::Height, R::Equal, 60, 500);
    eq(cell, footer, A::Left, cell, A::Left, 8);
    add(cell, footer, A::Width, R::Equal, cell, A::Width, 0.5, 0);
    eq(cell, footer, A::Top, body, A::Bottom, 4);
    size(footer, A::Height, R::Equal, 20);
    eq(cell, cell, A::Bottom, footer, A::Bottom, 8);
    if (i == kCells / 2) feed.edited = bodyHeight;
    above = cell;
  }
  return feed;
}

void FeedFromScratch(benchmark::State& state) {
  for (auto _ : state) {
    Feed feed = makeFeed();
    feed.root->layoutIfNeeded();
    benchmark::DoNotOptimize(feed.views.back()->frame());
  }
}
BENCHMARK(FeedFromScratch)->Unit(benchmark::kMillisecond);

void FeedSolveOnly(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    Feed feed = makeFeed();
    state.ResumeTiming();
    feed.root->layoutIfNeeded();
    benchmark::DoNotOptimize(feed.views.back()->frame());
    state.PauseTiming();
    feed = {};  // freeing is not part of the solve
    state.ResumeTiming();
  }
}
BENCHMARK(FeedSolveOnly)->Unit(benchmark::kMillisecond);

void FeedEditConstant(benchmark::State& state) {
  Feed feed = makeFeed();
  feed.root->layoutIfNeeded();
  double value = 60;
  for (auto _ : state) {
    value = value == 60 ? 90 : 60;
    feed.edited->setConstant(value);
    feed.root->layoutIfNeeded();
    benchmark::DoNotOptimize(feed.views.back()->frame());
  }
  if (feed.views.back()->frame().origin.y <= 0) state.SkipWithError("the feed did not lay out");
}
BENCHMARK(FeedEditConstant)->Unit(benchmark::kMicrosecond);

// One line per constraint for the peer: view index, attribute, relation,
// view index (-1: none), attribute, multiplier, constant, priority. The
// edited constraint is marked with a leading "*".
std::string writeFeed() {
  Feed feed = makeFeed();
  std::unordered_map<const View*, int> index;
  for (std::size_t i = 0; i < feed.views.size(); ++i) index[feed.views[i].get()] = int(i);
  char path[] = "/tmp/nimb-layout-feed-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return {};
  close(fd);
  std::ofstream out(path);
  out.precision(17);
  out << feed.views.size() << "\n";
  for (const auto& c : feed.constraints) {
    auto second = c->secondItem();
    out << (c == feed.edited ? "*" : "") << index[c->firstItem().get()] << " "
        << int(c->firstAttribute()) << " " << int(c->relation()) << " "
        << (second ? index[second.get()] : -1) << " " << int(c->secondAttribute()) << " "
        << c->multiplier() << " " << c->constant() << " " << c->priority() << "\n";
  }
  return path;
}

void printPeer(const nimb::bench::RatioReporter& reporter) {
  std::string feed = writeFeed();
  std::string script = std::string(NIMB_BENCH_DIR) + "/layout_peer.py";
  std::string command = "/usr/bin/python3 '" + script + "' '" + feed + "'";
  FILE* pipe = popen(command.c_str(), "r");
  double scratch = -1, edit = -1;
  if (pipe) {
    if (std::fscanf(pipe, "%lf %lf", &scratch, &edit) != 2) scratch = edit = -1;
    pclose(pipe);
  }
  std::remove(feed.c_str());
  double ours[3] = {reporter.seconds("FeedFromScratch"), reporter.seconds("FeedSolveOnly"),
                    reporter.seconds("FeedEditConstant")};
  std::printf("\nLayout of the feed against kiwisolver (median seconds):\n");
  if (scratch < 0) {
    std::printf("  peer unavailable (needs /usr/bin/python3 with kiwisolver)\n");
    return;
  }
  std::printf("  %-28s %12s %12s %8s\n", "", "ours", "kiwisolver", "ratio");
  std::printf("  %-28s %10.2f ms %10.2f ms %7.2fx\n", "from scratch (views+solve)", ours[0] * 1e3,
              scratch * 1e3, ours[0] / scratch);
  std::printf("  %-28s %10.2f ms %10.2f ms %7.2fx\n", "from scratch (solve only)", ours[1] * 1e3,
              scratch * 1e3, ours[1] / scratch);
  std::printf("  %-28s %10.1f us %10.1f us %7.2fx\n", "one constant, re-layout", ours[2] * 1e6,
              edit * 1e6, ours[2] / edit);
}

}  // namespace

int main(int argc, char** argv) {
  return nimb::bench::runWithRatios(argc, argv, {}, printPeer);
}
