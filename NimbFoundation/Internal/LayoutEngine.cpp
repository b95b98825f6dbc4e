#include <NimbFoundation/Internal/LayoutEngine.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <unordered_set>

#include <NimbFoundation/Platform/Env/SystemLog.h>
#include <NimbFoundation/Platform/Graphics/View.h>

namespace nimb::detail {

namespace {

// How many times one layoutIfNeeded solves again after layoutSubviews
// overrides changed the constraints.
constexpr int kMaxPasses = 8;

SolverRelation solverRelation(LayoutRelation relation) {
  switch (relation) {
    case LayoutRelation::LessThanOrEqual:
      return SolverRelation::LessOrEqual;
    case LayoutRelation::GreaterThanOrEqual:
      return SolverRelation::GreaterOrEqual;
    default:
      return SolverRelation::Equal;
  }
}

}  // namespace

// The solver's view of one view.
struct LayoutEngine::ViewState {
  View* view = nullptr;
  ViewState* parent = nullptr;
  std::vector<ViewState*> children;  // as of the last sync
  std::uint64_t applied = 0;         // the last solution that set its frame
  SolverVariable left{"left"}, top{"top"}, width{"width"}, height{"height"};
  std::uint64_t seen = 0;
  bool named = false;
  // Named by a constraint, or above a view that is: the solver needs its
  // variables. A fixed view that is not needed stays out of the solver.
  bool needed = false;
  // Held at its frame: four required equalities (left, top, width, height).
  bool fixed = false;
  const ViewState* fixedParent = nullptr;
  Rect heldFrame;
  std::optional<SolverConstraint> frame[4];
  bool frameBroken = false;
  // Laid out by constraints: hugging and compression resistance per axis
  // (width hug, width resist, height hug, height resist).
  std::optional<SolverConstraint> intrinsic[4];
  double intrinsicSize[2] = {ViewNoIntrinsicMetric, ViewNoIntrinsicMetric};
  LayoutPriority intrinsicPriority[4] = {};

  void addTerms(SolverExpression& e, LayoutAttribute attribute, double k) const {
    switch (attribute) {
      case LayoutAttribute::Left:
      case LayoutAttribute::Leading:
        e.terms.push_back({left, k});
        break;
      case LayoutAttribute::Right:
      case LayoutAttribute::Trailing:
        e.terms.push_back({left, k});
        e.terms.push_back({width, k});
        break;
      case LayoutAttribute::Top:
        e.terms.push_back({top, k});
        break;
      case LayoutAttribute::Bottom:
      case LayoutAttribute::Baseline:
        e.terms.push_back({top, k});
        e.terms.push_back({height, k});
        break;
      case LayoutAttribute::Width:
        e.terms.push_back({width, k});
        break;
      case LayoutAttribute::Height:
        e.terms.push_back({height, k});
        break;
      case LayoutAttribute::CenterX:
        e.terms.push_back({left, k});
        e.terms.push_back({width, k / 2});
        break;
      case LayoutAttribute::CenterY:
        e.terms.push_back({top, k});
        e.terms.push_back({height, k / 2});
        break;
      default:
        break;
    }
  }
};

struct LayoutEngine::Installed {
  std::shared_ptr<LayoutConstraint> constraint;
  SolverConstraint solved;
  double constant;
  LayoutPriority priority;
};

namespace {

// The solver form of `c`: first - multiplier * second - constant REL 0.
template <typename StateOf>
SolverConstraint toSolver(const LayoutConstraint& c, StateOf&& stateOf) {
  SolverExpression e;
  stateOf(c.firstItem().get())->addTerms(e, c.firstAttribute(), 1.0);
  if (auto second = c.secondItem())
    stateOf(second.get())->addTerms(e, c.secondAttribute(), -c.multiplier());
  e.constant = -c.constant();
  return SolverConstraint(std::move(e), solverRelation(c.relation()),
                          LayoutEngine::strengthForPriority(c.priority()));
}

SolverConstraint frameConstraint(const SolverVariable& own, const SolverVariable* parent,
                                 double value) {
  SolverExpression e;
  e.terms.push_back({own, 1});
  if (parent) e.terms.push_back({*parent, -1});
  e.constant = -value;
  return SolverConstraint(std::move(e), SolverRelation::Equal, SolverStrength::required);
}

SolverConstraint sizeConstraint(const SolverVariable& v, double size, SolverRelation relation,
                                LayoutPriority priority) {
  SolverExpression e;
  e.terms.push_back({v, 1});
  e.constant = -size;
  return SolverConstraint(std::move(e), relation, LayoutEngine::strengthForPriority(priority));
}

// The four required equalities that hold `s` at `frame` (left and top
// relative to its parent's, when it has one), in the order left, top,
// width, height; none for a number that is not finite.
template <typename State>
std::array<std::optional<SolverConstraint>, 4> frameConstraints(const State& s, Rect frame) {
  const double values[4] = {frame.origin.x, frame.origin.y, frame.size.width, frame.size.height};
  const SolverVariable* own[4] = {&s.left, &s.top, &s.width, &s.height};
  const SolverVariable* parentVars[4] = {s.parent ? &s.parent->left : nullptr,
                                         s.parent ? &s.parent->top : nullptr, nullptr, nullptr};
  std::array<std::optional<SolverConstraint>, 4> out;
  for (int i = 0; i < 4; ++i) {
    if (std::isfinite(values[i])) out[i] = frameConstraint(*own[i], parentVars[i], values[i]);
  }
  return out;
}

// What a view's content asks of one axis (0 horizontal, 1 vertical): its
// intrinsic size, held by hugging (<=) and compression resistance (>=).
struct AxisWish {
  bool has;
  double size;
  LayoutPriority priority[2];  // hugging, compression resistance
};

AxisWish intrinsicWish(const View& view, int axis) {
  Size size = view.intrinsicContentSize();
  double value = axis == 0 ? size.width : size.height;
  LayoutAxis a = axis == 0 ? LayoutAxis::Horizontal : LayoutAxis::Vertical;
  return {
      std::isfinite(value) && value >= 0,
      value,
      {view.contentHuggingPriorityForAxis(a), view.contentCompressionResistancePriorityForAxis(a)}};
}

// Constraint k (0 hugging, 1 compression resistance) of `wish` on `size`.
SolverConstraint intrinsicConstraint(const SolverVariable& size, const AxisWish& wish, int k) {
  return sizeConstraint(size, wish.size,
                        k == 0 ? SolverRelation::LessOrEqual : SolverRelation::GreaterOrEqual,
                        wish.priority[k]);
}

// Removes each held constraint of `list` from `solver` and forgets it.
template <std::size_t N>
void dropAll(LinearSolver& solver, std::optional<SolverConstraint> (&list)[N]) {
  for (auto& c : list) {
    if (c) solver.removeConstraint(*c);
    c.reset();
  }
}

// The constraints held by `holders` whose items are all views of `states`
// (`inTree` tells), each once, in the order they were made, so that among
// contradicting ones the last made is the one left out. Their items are
// marked as named.
template <typename States, typename InTree>
std::vector<std::shared_ptr<LayoutConstraint>> constraintsAmong(
    const std::vector<const View*>& holders, States& states, InTree&& inTree) {
  std::vector<std::shared_ptr<LayoutConstraint>> wanted;
  std::unordered_set<const LayoutConstraint*> seen;
  for (const View* holder : holders) {
    for (const auto& c : holder->constraints()) {
      if (!seen.insert(c.get()).second) continue;
      auto first = c->firstItem();
      auto second = c->secondItem();
      if (!first || !inTree(first.get())) continue;
      if (c->secondAttribute() != LayoutAttribute::NotAnAttribute &&
          (!second || !inTree(second.get()))) {
        continue;
      }
      states.at(first.get())->named = true;
      if (second) states.at(second.get())->named = true;
      wanted.push_back(c);
    }
  }
  std::sort(wanted.begin(), wanted.end(),
            [](const auto& a, const auto& b) { return a->sequence() < b->sequence(); });
  return wanted;
}

// Every view of `view`'s subtree, parents before children.
void collectSubtree(View& view, std::vector<std::pair<View*, View*>>& out) {
  out.clear();
  out.push_back({&view, nullptr});
  for (std::size_t i = 0; i < out.size(); ++i) {
    View* v = out[i].first;
    for (const auto& sub : v->subviews()) out.push_back({sub.get(), v});
  }
}

// Children before parents: a view is needed when it is named or has a
// needed subview.
template <typename States>
void markNeeded(const std::vector<std::pair<View*, View*>>& order, States& states) {
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    auto& s = *states.at(it->first);
    if (s.named) s.needed = true;
    if (s.needed && it->second) states.at(it->second)->needed = true;
  }
}

bool finite(const LayoutConstraint& c) {
  return std::isfinite(c.constant());
}

}  // namespace

namespace {
std::atomic<long> liveEngines{0};
}  // namespace

LayoutEngine::LayoutEngine() {
  liveEngines.fetch_add(1, std::memory_order_relaxed);
}

LayoutEngine::~LayoutEngine() {
  liveEngines.fetch_sub(1, std::memory_order_relaxed);
}

bool LayoutEngine::anyExists() {
  return liveEngines.load(std::memory_order_relaxed) != 0;
}

double LayoutEngine::strengthForPriority(LayoutPriority priority) {
  if (!(priority < LayoutPriorityRequired)) return SolverStrength::required;
  return std::max<double>(priority, 1);
}

void LayoutEngine::constantChanged(const LayoutConstraint& constraint) {
  if (structureDirty_) return;  // the next sync compares every constant
  pendingConstants_.try_emplace(&constraint,
                                const_cast<LayoutConstraint&>(constraint).weak_from_this());
}

void LayoutEngine::frameChanged(View& view) {
  if (!structureDirty_) pendingFrames_.insert(&view);
}

void LayoutEngine::needsLayout(View& view) {
  pendingLayout_.push_back(view.weak_from_this());
}

LayoutEngine::ViewState& LayoutEngine::stateFor(View& view) {
  auto& slot = views_[&view];
  if (!slot) {
    slot = std::make_unique<ViewState>();
    slot->view = &view;
    for (const SolverVariable* v : {&slot->left, &slot->top, &slot->width, &slot->height}) {
      owners_[v->id()] = slot.get();
    }
  }
  return *slot;
}

void LayoutEngine::forget(ViewState& state) {
  dropAll(solver_, state.frame);
  dropAll(solver_, state.intrinsic);
  for (const SolverVariable* v : {&state.left, &state.top, &state.width, &state.height}) {
    owners_.erase(v->id());
  }
}

bool LayoutEngine::isBroken(const LayoutConstraint* constraint) const {
  auto it = broken_.find(constraint);
  return it != broken_.end() && it->second.lock().get() == constraint;
}

void LayoutEngine::breakConstraint(const std::shared_ptr<LayoutConstraint>& constraint) {
  // A new constant may let it hold: this engine must hear of it.
  constraint->engine_ = weak_from_this();
  if (isBroken(constraint.get())) return;
  broken_[constraint.get()] = constraint;
  SystemLog::log(
      "Unable to satisfy %s together with the required constraints already held; "
      "leaving it out",
      constraint->description().c_str());
}

void LayoutEngine::install(const std::shared_ptr<LayoutConstraint>& constraint) {
  if (!finite(*constraint)) {
    breakConstraint(constraint);
    return;
  }
  SolverConstraint solved =
      toSolver(*constraint, [&](const View* v) { return views_.at(v).get(); });
  if (solver_.addConstraint(solved) != SolverStatus::Ok) {
    breakConstraint(constraint);
    return;
  }
  broken_.erase(constraint.get());
  constraint->engine_ = weak_from_this();
  installed_[constraint.get()] = std::make_unique<Installed>(
      Installed{constraint, std::move(solved), constraint->constant(), constraint->priority()});
}

void LayoutEngine::uninstall(const LayoutConstraint* constraint) {
  auto it = installed_.find(constraint);
  if (it == installed_.end()) return;
  solver_.removeConstraint(it->second->solved);
  installed_.erase(it);
}

void LayoutEngine::updateImplicit(ViewState& s) {
  View& view = *s.view;
  bool wantFixed = view.translatesAutoresizingMaskIntoConstraints() || !s.named;
  if (wantFixed) {
    dropAll(solver_, s.intrinsic);
    auto fresh = frameConstraints(s, view.frame());
    // Held already, all four, under the same parent: only the numbers move.
    bool present = s.needed && s.fixed && s.fixedParent == s.parent;
    for (int i = 0; i < 4; ++i) present = present && s.frame[i] && fresh[i];
    if (present) {
      if (view.frame() != s.heldFrame) {
        for (int i = 0; i < 4; ++i) {
          solver_.setConstant(*s.frame[i], fresh[i]->expression().constant);
        }
        s.heldFrame = view.frame();
      }
      return;
    }
    dropAll(solver_, s.frame);
    s.fixed = true;
    s.heldFrame = view.frame();
    if (!s.needed) {
      // Its frame is kept as given and no place depends on its variables.
      s.fixedParent = nullptr;
      s.frameBroken = false;
      return;
    }
    s.fixedParent = s.parent;
    for (int i = 0; i < 4; ++i) {
      if (!fresh[i]) continue;
      if (solver_.addConstraint(*fresh[i]) == SolverStatus::Ok) {
        s.frame[i] = std::move(fresh[i]);
      } else if (!s.frameBroken) {
        s.frameBroken = true;
        SystemLog::log(
            "Unable to hold the frame of %s together with the required constraints "
            "already held; leaving it out",
            view.description().c_str());
      }
    }
    return;
  }

  dropAll(solver_, s.frame);
  s.fixed = false;
  s.frameBroken = false;
  const SolverVariable* vars[2] = {&s.width, &s.height};
  for (int axis = 0; axis < 2; ++axis) {
    AxisWish wish = intrinsicWish(view, axis);
    std::optional<SolverConstraint>* pair = &s.intrinsic[axis * 2];
    bool samePriorities = pair[0] && s.intrinsicPriority[axis * 2] == wish.priority[0] &&
                          s.intrinsicPriority[axis * 2 + 1] == wish.priority[1];
    if (wish.has && samePriorities) {
      if (s.intrinsicSize[axis] != wish.size) {
        for (int k = 0; k < 2; ++k) solver_.setConstant(*pair[k], -wish.size);
        s.intrinsicSize[axis] = wish.size;
      }
      continue;
    }
    for (int k = 0; k < 2; ++k) {
      if (pair[k]) solver_.removeConstraint(*pair[k]);
      pair[k].reset();
    }
    if (!wish.has) continue;
    s.intrinsicSize[axis] = wish.size;
    for (int k = 0; k < 2; ++k) {
      s.intrinsicPriority[axis * 2 + k] = wish.priority[k];
      SolverConstraint c = intrinsicConstraint(*vars[axis], wish, k);
      if (solver_.addConstraint(c) == SolverStatus::Ok) pair[k] = std::move(c);
    }
  }
}

void LayoutEngine::sync(View& root, std::vector<View*>& flagged) {
  ++epoch_;
  std::vector<std::pair<View*, View*>> order;
  collectSubtree(root, order);
  std::vector<const View*> holders;
  for (auto [view, parent] : order) {
    ViewState& s = stateFor(*view);
    s.seen = epoch_;
    ViewState* parentState = parent ? views_.at(parent).get() : nullptr;
    // Its frame is computed afresh even if no variable of it changes: it may
    // be new here, moved, or back from a tree whose layout set its frame
    // since (a view is known by its address, which a new view may reuse).
    reframe_.push_back(&s);
    s.parent = parentState;
    s.children.clear();
    if (parentState) parentState->children.push_back(&s);
    s.named = false;
    s.needed = false;
    if (view->needsLayout()) flagged.push_back(view);
    holders.push_back(view);
  }
  // The constraints the solver should hold: both items alive and in this
  // tree. Their items are laid out by constraints.
  auto wanted = constraintsAmong(holders, views_, [&](const View* v) {
    auto it = views_.find(v);
    return it != views_.end() && it->second->seen == epoch_;
  });
  std::unordered_set<const LayoutConstraint*> wantedSet;
  for (const auto& c : wanted) wantedSet.insert(c.get());
  markNeeded(order, views_);

  // Out first: constraints no longer held, views no longer in the tree.
  std::vector<const LayoutConstraint*> gone;
  for (const auto& [raw, entry] : installed_) {
    const auto& c = *entry->constraint;
    bool stale = !wantedSet.count(raw) || entry->priority != c.priority() || !finite(c);
    if (stale) gone.push_back(raw);
  }
  for (const auto* raw : gone) uninstall(raw);
  std::erase_if(broken_, [&](const auto& entry) {
    auto c = entry.second.lock();
    return !c || !wantedSet.count(c.get());
  });
  for (auto it = views_.begin(); it != views_.end();) {
    if (it->second->seen != epoch_) {
      std::erase(reframe_, it->second.get());
      forget(*it->second);
      it = views_.erase(it);
    } else {
      ++it;
    }
  }

  // Frames and intrinsic sizes first, then the constraints.
  for (auto [view, parent] : order) updateImplicit(*views_.at(view));
  for (const auto& c : wanted) {
    auto it = installed_.find(c.get());
    if (it == installed_.end()) {
      install(c);
      continue;
    }
    // Another tree's engine may have installed it meanwhile (its views went
    // there and came back): changes of its constant must reach this one.
    c->engine_ = weak_from_this();
    if (it->second->constant != c->constant()) {
      if (solver_.setConstant(it->second->solved, -c->constant()) == SolverStatus::Ok) {
        it->second->constant = c->constant();
      } else {
        uninstall(c.get());
        breakConstraint(c);
      }
    }
  }
  structureDirty_ = false;
  pendingConstants_.clear();
  pendingFrames_.clear();
}

void LayoutEngine::applyPending() {
  auto constants = std::move(pendingConstants_);
  pendingConstants_.clear();
  for (const auto& [raw, weak] : constants) {
    auto c = weak.lock();
    if (!c) continue;
    auto it = installed_.find(c.get());
    if (it == installed_.end()) {
      // Left out before: the next sync tries it again with its new constant.
      if (isBroken(c.get())) structureDirty_ = true;
      continue;
    }
    Installed& entry = *it->second;
    if (entry.constant == c->constant()) continue;
    if (finite(*c) && solver_.setConstant(entry.solved, -c->constant()) == SolverStatus::Ok) {
      entry.constant = c->constant();
    } else {
      uninstall(c.get());
      breakConstraint(c);
      // Constraints left out earlier may hold now.
      structureDirty_ = true;
    }
  }
  auto frames = std::move(pendingFrames_);
  pendingFrames_.clear();
  for (View* view : frames) {
    auto it = views_.find(view);
    if (it == views_.end()) continue;
    ViewState& s = *it->second;
    if (s.fixed && view->frame() != s.heldFrame) updateImplicit(s);
  }
}

void LayoutEngine::applySolution(std::vector<View*>& resized) {
  // Each view once per solution: a stamp instead of a set, as this runs
  // after every edit.
  const std::uint64_t stamp = ++applyStamp_;
  auto& affected = affectedScratch_;
  affected.clear();
  auto mark = [&](ViewState* s) {
    if (s->applied == stamp) return;
    s->applied = stamp;
    affected.push_back(s);
  };
  solver_.updateVariables([&](const SolverVariable& v) {
    auto it = owners_.find(v.id());
    if (it != owners_.end()) mark(it->second);
  });
  for (ViewState* s : reframe_) mark(s);
  reframe_.clear();
  // A moved view moves its children's frames relative to it as well.
  for (std::size_t i = 0, moved = affected.size(); i < moved; ++i) {
    for (ViewState* child : affected[i]->children) mark(child);
  }
  for (ViewState* s : affected) {
    if (s->fixed) continue;  // keeps exactly the frame it was given
    double px = s->parent ? s->parent->left.value() : 0;
    double py = s->parent ? s->parent->top.value() : 0;
    Rect frame(s->left.value() - px, s->top.value() - py, s->width.value(), s->height.value());
    View& view = *s->view;
    if (frame == view.frame_) continue;
    if (frame.size != view.frame_.size) resized.push_back(&view);
    view.frame_ = frame;
  }
}

void LayoutEngine::layout(View& root, View& caller) {
  for (int pass = 0; pass < kMaxPasses; ++pass) {
    std::vector<View*> candidates;  // marked for layoutSubviews
    if (structureDirty_) {
      sync(root, candidates);
    } else {
      applyPending();
      if (structureDirty_) sync(root, candidates);
    }
    std::vector<View*> resized;
    applySolution(resized);
    candidates.insert(candidates.end(), resized.begin(), resized.end());
    candidates.push_back(&caller);
    for (const auto& weak : pendingLayout_) {
      if (auto v = weak.lock()) candidates.push_back(v.get());
    }
    pendingLayout_.clear();
    std::unordered_set<View*> resizedSet(resized.begin(), resized.end());

    // Parents before children, each view once, only views of this tree.
    std::vector<std::pair<std::size_t, View*>> byDepth;
    std::unordered_set<View*> unique;
    for (View* v : candidates) {
      if (!unique.insert(v).second) continue;
      std::size_t depth = 0;
      View* top = v;
      for (auto up = v->superview(); up; up = up->superview()) {
        ++depth;
        top = up.get();
      }
      if (top == &root) byDepth.push_back({depth, v});
    }
    std::stable_sort(byDepth.begin(), byDepth.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    // Held for the calls, which may drop views from the tree.
    std::vector<std::shared_ptr<View>> holds;
    for (auto& entry : byDepth) holds.push_back(entry.second->weak_from_this().lock());
    for (std::size_t i = 0; i < byDepth.size(); ++i) {
      View* v = byDepth[i].second;
      if (!holds[i] && v != &root && v != &caller) continue;
      if (!v->needsLayout_ && !resizedSet.count(v)) continue;
      v->needsLayout_ = false;
      v->layoutSubviews();
    }
    if (!structureDirty_ && pendingConstants_.empty() && pendingFrames_.empty()) break;
  }
}

Size LayoutEngine::fittingSize(View& view, Size target) {
  LinearSolver solver;
  std::unordered_map<const View*, std::unique_ptr<ViewState>> states;
  std::vector<std::pair<View*, View*>> order;
  collectSubtree(view, order);
  std::vector<const View*> holders;
  for (auto up = view.superview(); up; up = up->superview()) holders.push_back(up.get());
  for (auto [v, parent] : order) {
    auto s = std::make_unique<ViewState>();
    s->view = v;
    s->parent = parent ? states.at(parent).get() : nullptr;
    states[v] = std::move(s);
    holders.push_back(v);
  }
  // Constraints among the subtree's views, wherever in the tree they are held.
  auto wanted =
      constraintsAmong(holders, states, [&](const View* v) { return states.count(v) != 0; });
  markNeeded(order, states);

  ViewState& self = *states.at(&view);
  solver.addConstraint(frameConstraint(self.left, nullptr, 0));
  solver.addConstraint(frameConstraint(self.top, nullptr, 0));
  for (auto [v, parent] : order) {
    ViewState& s = *states.at(v);
    bool fixed = v != &view && (v->translatesAutoresizingMaskIntoConstraints() || !s.named);
    if (fixed) {
      if (!s.needed) continue;
      for (auto& c : frameConstraints(s, v->frame())) {
        if (c) solver.addConstraint(*c);
      }
      continue;
    }
    const SolverVariable* vars[2] = {&s.width, &s.height};
    for (int axis = 0; axis < 2; ++axis) {
      AxisWish wish = intrinsicWish(*v, axis);
      if (!wish.has) continue;
      for (int k = 0; k < 2; ++k) solver.addConstraint(intrinsicConstraint(*vars[axis], wish, k));
    }
  }
  for (const auto& c : wanted) {
    if (finite(*c)) {
      solver.addConstraint(toSolver(*c, [&](const View* v) { return states.at(v).get(); }));
    }
  }
  double fitting = strengthForPriority(LayoutPriorityFittingSizeLevel);
  auto clampTarget = [](double v) { return std::isfinite(v) ? v : 0.0; };
  solver.addEditVariable(self.width, fitting);
  solver.addEditVariable(self.height, fitting);
  solver.suggestValue(self.width, clampTarget(target.width));
  solver.suggestValue(self.height, clampTarget(target.height));
  solver.updateVariables();
  return {self.width.value(), self.height.value()};
}

}  // namespace nimb::detail
