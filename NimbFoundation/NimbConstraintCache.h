// NimbConstraintCache and NimbConstraintCacheManager: take a snapshot of a
// view's place in the layout under a key (its superview, its own
// constraints, the superview's constraints that involve it, and the
// constraints of its whole subview tree), let the caller detach the view,
// and later put it back with all those constraints by naming the key.
//
// Calling order: cacheViewConstraints while the view is in place, detach it
// (View::removeFromSuperview, which drops the constraints that involve it),
// then restoreViewConstraintsToSuperView with the same key.
//
// A record holds its views strongly: a cached view stays alive after it
// leaves its superview for as long as its record is kept.
//
// Thread rule: main thread only, like the views. No locks.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>
#include <NimbFoundation/Platform/Graphics/View.h>

namespace NIMB_EXPORT nimb {

// One snapshot record. The top record of a capture fills every field; the
// records of subviews leave superView empty and superConstraints empty.
class NimbConstraintCache {
 public:
  using ConstraintList = std::vector<std::shared_ptr<LayoutConstraint>>;
  using RecordList = std::vector<std::shared_ptr<NimbConstraintCache>>;

  // The constraints `view` held at capture time.
  const ConstraintList& constraints() const { return constraints_; }
  void setConstraints(ConstraintList constraints) { constraints_ = std::move(constraints); }
  // Top record: NimbKit::ALView_AllConstraints(view) at capture time (the
  // view's own constraints, then the superview's that name the view).
  const ConstraintList& superConstraints() const { return superConstraints_; }
  void setSuperConstraints(ConstraintList list) { superConstraints_ = std::move(list); }
  // One record per direct subview, in subview order; nullopt when the view
  // had no subviews.
  const std::optional<RecordList>& subviewsCache() const { return subviewsCache_; }
  void setSubviewsCache(std::optional<RecordList> records) { subviewsCache_ = std::move(records); }
  std::shared_ptr<View> superView() const { return superView_; }
  void setSuperView(std::shared_ptr<View> view) { superView_ = std::move(view); }
  std::shared_ptr<View> view() const { return view_; }
  void setView(std::shared_ptr<View> view) { view_ = std::move(view); }

 private:
  ConstraintList constraints_;
  ConstraintList superConstraints_;
  std::optional<RecordList> subviewsCache_;
  std::shared_ptr<View> superView_;
  std::shared_ptr<View> view_;
};

// The records by key, with the capture and the restore.
class NimbConstraintCacheManager {
 public:
  using Container = std::map<std::string, std::shared_ptr<NimbConstraintCache>>;

  // Takes a snapshot of `view` under `key`. false, changing nothing, for no
  // view or no key (nullopt). With alwaysCache on and a record already under
  // the key, answers true and keeps the old record as it is.
  bool cacheViewConstraints(const std::shared_ptr<View>& view,
                            const std::optional<std::string>& key);
  // Puts the view recorded under `key` back: true at once, doing nothing,
  // when `view` still has a superview. false when there is no record, or it
  // has no view or no superview, or the recorded superview cannot take the
  // view back (it is now inside the view); nothing is put back then.
  // Otherwise the recorded view becomes the last subview of the recorded
  // superview, its constraints are added back to it, the recorded
  // superConstraints to the superview (the view's own among them, which the
  // superview then holds as well), and each recorded descendant gets its
  // constraints back; with alwaysCache off the record is then removed. The
  // view re-attached is the record's, not `view`.
  bool restoreViewConstraintsToSuperView(const std::shared_ptr<View>& view,
                                         const std::optional<std::string>& key);

  // The records of `view`'s direct subviews, depth first; nullopt when it
  // has none.
  std::optional<NimbConstraintCache::RecordList> recursiveCacheConstraintsOfSubviews(
      const std::shared_ptr<View>& view);
  // Adds each record's constraints back to its view, then its subviews'.
  void recursiveRestoreSubviewsConstraints(
      const std::optional<NimbConstraintCache::RecordList>& records);

  const Container& cacheContainer() const { return cacheContainer_; }
  void setCacheContainer(Container container) { cacheContainer_ = std::move(container); }
  // true (the default): the first record under a key is kept and reused, and
  // restoring leaves it in place. false: each capture replaces the record and
  // a successful restore removes it.
  bool alwaysCache() const { return alwaysCache_; }
  void setAlwaysCache(bool always) { alwaysCache_ = always; }

 private:
  Container cacheContainer_;
  bool alwaysCache_ = true;
};

}  // namespace nimb
