// NimbConstraintCacheManager: capture, detach, restore.
#include <NimbFoundation/NimbConstraintCache.h>

#include <gtest/gtest.h>

#include <memory>

using namespace nimb;

namespace {

using A = LayoutAttribute;
using List = std::vector<std::shared_ptr<LayoutConstraint>>;

std::shared_ptr<LayoutConstraint> relate(const std::shared_ptr<View>& a, A attribute,
                                         const std::shared_ptr<View>& b, double constant) {
  return LayoutConstraint::constraintWithItem(a, attribute, LayoutRelation::Equal, b,
                                              b ? attribute : A::NotAnAttribute, 1, constant);
}

std::shared_ptr<View> make() {
  auto v = std::make_shared<View>();
  v->setTranslatesAutoresizingMaskIntoConstraints(false);
  return v;
}

// root > { panel > { icon > { dot } }, other }, each placed by constraints.
struct Tree {
  std::shared_ptr<View> root = std::make_shared<View>(Rect(0, 0, 320, 480));
  std::shared_ptr<View> panel = make(), icon = make(), dot = make(), other = make();
  List panelOwn, rootAboutPanel, iconOwn, dotOwn;
  Tree() {
    root->addSubview(panel);
    root->addSubview(other);
    panel->addSubview(icon);
    icon->addSubview(dot);
    panelOwn = {relate(panel, A::Height, nullptr, 80), relate(icon, A::Left, panel, 4)};
    panel->addConstraints(panelOwn);
    rootAboutPanel = {relate(panel, A::Top, root, 10), relate(panel, A::Left, root, 10),
                      relate(panel, A::Width, root, -20), relate(other, A::Top, panel, 100)};
    root->addConstraints(rootAboutPanel);
    root->addConstraints({relate(other, A::Left, root, 0), relate(other, A::Width, nullptr, 5),
                          relate(other, A::Height, nullptr, 5)});
    iconOwn = {relate(icon, A::Width, nullptr, 24), relate(icon, A::Height, nullptr, 24),
               relate(icon, A::Top, panel, 4), relate(dot, A::Left, icon, 2)};
    icon->addConstraints(iconOwn);
    dotOwn = {relate(dot, A::Width, nullptr, 3), relate(dot, A::Height, nullptr, 3),
              relate(dot, A::Top, icon, 2)};
    dot->addConstraints(dotOwn);
    root->layoutIfNeeded();
  }
};

}  // namespace

TEST(NimbConstraintCache, CaptureDetachRestorePutsEverythingBack) {
  Tree t;
  Rect panelFrame = t.panel->frame(), dotFrame = t.dot->frame();
  EXPECT_EQ(panelFrame, Rect(10, 10, 300, 80));
  NimbConstraintCacheManager manager;
  ASSERT_TRUE(manager.cacheViewConstraints(t.panel, "panel"));
  auto record = manager.cacheContainer().at("panel");
  EXPECT_EQ(record->superView(), t.root);
  EXPECT_EQ(record->superConstraints().size(), t.panelOwn.size() + 4);
  ASSERT_TRUE(record->subviewsCache() && record->subviewsCache()->size() == 1);
  auto iconRecord = record->subviewsCache()->front();
  EXPECT_EQ(iconRecord->superView(), nullptr);
  EXPECT_TRUE(iconRecord->superConstraints().empty());
  EXPECT_FALSE(iconRecord->subviewsCache()->front()->subviewsCache());  // dot: a leaf

  for (int round = 0; round < 2; ++round) {  // always-cache keeps the record for reuse
    t.panel->removeFromSuperview();
    EXPECT_TRUE(t.root->constraints().size() == 3 && t.panel->constraints().size() == 2);
    EXPECT_TRUE(manager.restoreViewConstraintsToSuperView(t.panel, "panel")) << round;
    EXPECT_EQ(t.root->subviews().back(), t.panel);  // on top of its siblings now
    EXPECT_EQ(t.panel->constraints(), t.panelOwn);
    EXPECT_EQ(t.icon->constraints(), t.iconOwn);
    EXPECT_EQ(t.dot->constraints(), t.dotOwn);
    // The superview holds the captured ones, the panel's own among them.
    for (const auto& c : record->superConstraints()) {
      EXPECT_NE(std::find(t.root->constraints().begin(), t.root->constraints().end(), c),
                t.root->constraints().end());
    }
    t.root->layoutIfNeeded();
    EXPECT_EQ(t.panel->frame(), panelFrame);
    EXPECT_EQ(t.dot->frame(), dotFrame);
  }
}

TEST(NimbConstraintCache, KeysRecordsAndTheAlwaysCacheSwitch) {
  Tree t;
  NimbConstraintCacheManager manager;
  EXPECT_FALSE(manager.cacheViewConstraints(t.panel, std::nullopt));
  EXPECT_FALSE(manager.cacheViewConstraints(nullptr, "k"));
  EXPECT_TRUE(manager.cacheContainer().empty());

  ASSERT_TRUE(manager.cacheViewConstraints(t.panel, "k"));
  auto first = manager.cacheContainer().at("k");
  EXPECT_TRUE(manager.cacheViewConstraints(t.other, "k"));  // kept: always-cache
  EXPECT_EQ(manager.cacheContainer().at("k"), first);
  // Still attached: true, and nothing is added.
  auto before = t.root->constraints();
  EXPECT_TRUE(manager.restoreViewConstraintsToSuperView(t.panel, "k"));
  EXPECT_EQ(t.root->constraints(), before);

  t.other->removeFromSuperview();
  EXPECT_FALSE(manager.restoreViewConstraintsToSuperView(t.other, "unknown"));
  manager.setAlwaysCache(false);
  EXPECT_TRUE(manager.cacheViewConstraints(t.other, "k"));  // replaces
  EXPECT_EQ(manager.cacheContainer().at("k")->view(), t.other);
  EXPECT_EQ(manager.cacheContainer().at("k")->superView(), nullptr);  // detached already
  EXPECT_FALSE(manager.restoreViewConstraintsToSuperView(t.other, "k"));

  t.root->addSubview(t.other);
  ASSERT_TRUE(manager.cacheViewConstraints(t.other, "k"));
  t.other->removeFromSuperview();
  EXPECT_TRUE(manager.restoreViewConstraintsToSuperView(t.other, "k"));
  EXPECT_TRUE(manager.cacheContainer().empty());  // removed once used
  t.other->removeFromSuperview();
  EXPECT_FALSE(manager.restoreViewConstraintsToSuperView(t.other, "k"));

  // The recorded superview has gone inside the view meanwhile: it cannot
  // take the view back, so false and no constraint is added anywhere.
  ASSERT_TRUE(manager.cacheViewConstraints(t.panel, "cycle"));
  t.panel->removeFromSuperview();
  t.dot->addSubview(t.root);
  auto rootHeld = t.root->constraints(), panelHeld = t.panel->constraints();
  EXPECT_FALSE(manager.restoreViewConstraintsToSuperView(t.panel, "cycle"));
  EXPECT_EQ(t.panel->superview(), nullptr);
  EXPECT_EQ(t.root->constraints(), rootHeld);
  EXPECT_EQ(t.panel->constraints(), panelHeld);
}
