#include <NimbFoundation/NimbConstraintCache.h>

#include <NimbFoundation/NimbKit+Autolayout.h>

namespace nimb {

bool NimbConstraintCacheManager::cacheViewConstraints(const std::shared_ptr<View>& view,
                                                      const std::optional<std::string>& key) {
  if (!view || !key) return false;
  // The first snapshot under a key is kept, even if the view has changed.
  if (alwaysCache_ && cacheContainer_.count(*key)) return true;
  auto record = std::make_shared<NimbConstraintCache>();
  record->setView(view);
  record->setSuperView(view->superview());
  record->setConstraints(view->constraints());
  record->setSuperConstraints(NimbKitAutolayout::ALView_AllConstraints(view));
  record->setSubviewsCache(recursiveCacheConstraintsOfSubviews(view));
  cacheContainer_[*key] = std::move(record);
  return true;
}

std::optional<NimbConstraintCache::RecordList>
NimbConstraintCacheManager::recursiveCacheConstraintsOfSubviews(const std::shared_ptr<View>& view) {
  if (!view || view->subviews().empty()) return std::nullopt;
  NimbConstraintCache::RecordList records;
  for (const auto& subview : view->subviews()) {
    auto record = std::make_shared<NimbConstraintCache>();
    record->setView(subview);
    record->setConstraints(subview->constraints());
    record->setSubviewsCache(recursiveCacheConstraintsOfSubviews(subview));
    records.push_back(std::move(record));
  }
  return records;
}

bool NimbConstraintCacheManager::restoreViewConstraintsToSuperView(
    const std::shared_ptr<View>& view, const std::optional<std::string>& key) {
  // A view that still has a superview is taken to be in place already.
  if (view && view->superview()) return true;
  if (!key) return false;
  auto it = cacheContainer_.find(*key);
  if (it == cacheContainer_.end()) return false;
  // Held here: removing the record below must not free what is being used.
  std::shared_ptr<NimbConstraintCache> record = it->second;
  auto recordView = record ? record->view() : nullptr;
  auto superView = record ? record->superView() : nullptr;
  if (!recordView || !superView) return false;
  superView->addSubview(recordView);
  // Refused when the superview has gone inside the view meanwhile (a cycle):
  // then nothing is put back.
  if (recordView->superview() != superView) return false;
  recordView->addConstraints(record->constraints());
  // superConstraints starts with the view's own constraints, so the
  // superview holds those as well from now on.
  superView->addConstraints(record->superConstraints());
  recursiveRestoreSubviewsConstraints(record->subviewsCache());
  if (!alwaysCache_) cacheContainer_.erase(*key);
  return true;
}

void NimbConstraintCacheManager::recursiveRestoreSubviewsConstraints(
    const std::optional<NimbConstraintCache::RecordList>& records) {
  if (!records) return;
  for (const auto& record : *records) {
    if (!record) continue;
    if (auto view = record->view()) view->addConstraints(record->constraints());
    recursiveRestoreSubviewsConstraints(record->subviewsCache());
  }
}

}  // namespace nimb
