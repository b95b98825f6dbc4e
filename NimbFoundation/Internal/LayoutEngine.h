// LayoutEngine: the layout pass of one view tree. The root view of a tree
// holds one once the tree has been laid out (View::layoutIfNeeded). It keeps
// a LinearSolver whose content mirrors the tree's constraints, so a pass
// after a small change costs a few pivots:
//
// - each view has four variables, its left, top, width and height in the
//   root's coordinates;
// - a view with a fixed frame (translatesAutoresizingMaskIntoConstraints, or
//   named by no constraint) is held at its frame relative to its superview by
//   four required equalities, unless no view of its subtree is named by a
//   constraint (nothing then reads its variables and it stays out of the
//   solver); a view laid out by constraints has its
//   intrinsic size held by its hugging (<=) and compression-resistance (>=)
//   priorities;
// - every constraint held in the tree whose items are in the tree and whose
//   numbers are finite becomes a solver constraint, priority 1000 required,
//   any lower priority a weight of that value.
//
// Constant changes and frame changes are applied as they are (solver
// constants); anything else (constraints added or removed, the tree changed,
// a priority or an intrinsic size changed) marks the structure dirty and the
// next pass compares the whole tree with what the solver holds.
//
// Thread rule: main thread only, like the views.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>
#include <NimbFoundation/Platform/Graphics/LinearSolver.h>

namespace NIMB_EXPORT nimb {
class View;
}

namespace nimb::detail {

class LayoutEngine : public std::enable_shared_from_this<LayoutEngine> {
 public:
  LayoutEngine();
  ~LayoutEngine();
  // Whether any tree in the process has been laid out: until then, changes
  // to views need not look for their tree's engine.
  static bool anyExists();
  LayoutEngine(const LayoutEngine&) = delete;
  LayoutEngine& operator=(const LayoutEngine&) = delete;

  void structureChanged() { structureDirty_ = true; }
  void constantChanged(const LayoutConstraint& constraint);
  void frameChanged(View& view);
  void needsLayout(View& view);

  // The pass over the tree of `root`, asked for by `caller`.
  void layout(View& root, View& caller);

  // View::systemLayoutSizeFittingSize: a one-off solve of `view`'s subtree.
  static Size fittingSize(View& view, Size target);

  // Maps a priority to a solver strength.
  static double strengthForPriority(LayoutPriority priority);

 private:
  struct ViewState;
  struct Installed;

  void sync(View& root, std::vector<View*>& flagged);
  void applyPending();
  void applySolution(std::vector<View*>& resized);
  void updateImplicit(ViewState& state);
  void install(const std::shared_ptr<LayoutConstraint>& constraint);
  void uninstall(const LayoutConstraint* constraint);
  void breakConstraint(const std::shared_ptr<LayoutConstraint>& constraint);
  bool isBroken(const LayoutConstraint* constraint) const;
  ViewState& stateFor(View& view);
  void forget(ViewState& state);

  LinearSolver solver_;
  std::unordered_map<const View*, std::unique_ptr<ViewState>> views_;
  std::unordered_map<std::uint64_t, ViewState*> owners_;  // variable id -> view
  std::unordered_map<const LayoutConstraint*, std::unique_ptr<Installed>> installed_;
  // Constraints left out because they could not hold; logged once each.
  std::unordered_map<const LayoutConstraint*, std::weak_ptr<LayoutConstraint>> broken_;
  // Changes since the last pass, each constraint or view once.
  std::unordered_map<const LayoutConstraint*, std::weak_ptr<LayoutConstraint>> pendingConstants_;
  std::unordered_set<View*> pendingFrames_;
  std::vector<std::weak_ptr<View>> pendingLayout_;
  // Views whose frame the next solution sets even if their variables stay.
  std::vector<ViewState*> reframe_;
  std::uint64_t applyStamp_ = 0;
  std::vector<ViewState*> affectedScratch_;
  bool structureDirty_ = true;
  std::uint64_t epoch_ = 0;
};

}  // namespace nimb::detail
