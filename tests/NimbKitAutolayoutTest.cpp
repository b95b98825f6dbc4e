// NimbKit's Autolayout extension: lookups by attribute, constants, collapsing
// and restoring, and sizing from content.
#include <NimbFoundation/NimbKit.h>

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using namespace nimb;

namespace {

using A = LayoutAttribute;

std::shared_ptr<LayoutConstraint> sized(const std::shared_ptr<View>& view, A attribute,
                                        double constant) {
  return LayoutConstraint::constraintWithItem(view, attribute, LayoutRelation::Equal, nullptr,
                                              A::NotAnAttribute, 1, constant);
}

// A 320 x 480 root with `view` placed at its top left by constraints.
struct Screen {
  std::shared_ptr<View> root = std::make_shared<View>(Rect(0, 0, 320, 480));
  std::shared_ptr<View> view = std::make_shared<View>();
  Screen() {
    view->setTranslatesAutoresizingMaskIntoConstraints(false);
    root->addSubview(view);
    for (A edge : {A::Left, A::Top}) {
      root->addConstraint(LayoutConstraint::constraintWithItem(view, edge, LayoutRelation::Equal,
                                                               root, edge, 1, 0));
    }
  }
};

}  // namespace

TEST(NimbKitAutolayout, LookupPrefersTheSuperviewAndIgnoresSecondItems) {
  Screen s;
  auto own = sized(s.view, A::Height, 44);
  s.view->addConstraint(own);
  EXPECT_EQ(NimbKit::ALView_constraintForAttribute(s.view, A::Height), own);
  // Naming the view only as second item does not count.
  s.root->addConstraint(LayoutConstraint::constraintWithItem(
      s.root, A::Height, LayoutRelation::Equal, s.view, A::Height, 1, 0));
  EXPECT_EQ(NimbKit::ALView_constraintForAttribute(s.view, A::Height), own);
  auto held = sized(s.view, A::Height, 50);
  s.root->addConstraint(held);
  EXPECT_EQ(NimbKit::ALView_constraintForAttribute(s.view, A::Height), held);
  EXPECT_EQ(NimbKit::ALView_constraintConstantforAttribute(s.view, A::Height), 50);

  double missing = NimbKit::ALView_constraintConstantforAttribute(s.view, A::Width);
  EXPECT_NE(missing, missing);
  EXPECT_EQ(NimbKit::ALView_constraintForAttribute(nullptr, A::Height), nullptr);

  // Own constraints, then the superview's naming the view in either place.
  auto all = NimbKit::ALView_AllConstraints(s.view);
  ASSERT_EQ(all.size(), 5u);
  EXPECT_EQ(all[0], own);
  EXPECT_EQ(all[4], held);
  EXPECT_TRUE(NimbKit::ALView_AllConstraints(nullptr).empty());
}

TEST(NimbKitAutolayout, SettingAConstantMakesAConstraintOnlyOnce) {
  Screen s;
  EXPECT_FALSE(NimbKit::ALView_setConstraintConstant(s.view, 30, A::Width));
  auto made = s.root->constraints().back();
  EXPECT_EQ(made->firstItem(), s.view);
  EXPECT_EQ(made->secondAttribute(), A::NotAnAttribute);
  EXPECT_EQ(made->constant(), 30);
  EXPECT_TRUE(NimbKit::ALView_setConstraintConstant(s.view, 12, A::Width));
  EXPECT_EQ(made->constant(), 12);
  EXPECT_EQ(s.root->constraints().size(), 3u);

  auto alone = std::make_shared<View>();
  EXPECT_FALSE(NimbKit::ALView_setConstraintConstant(alone, 5, A::Width));
  EXPECT_TRUE(alone->constraints().empty());
}

TEST(NimbKitAutolayout, CollapseKeepsTheConstantInAlphaUntilShown) {
  Screen s;
  s.view->addConstraint(sized(s.view, A::Width, 100));
  auto height = sized(s.view, A::Height, 44);
  s.view->addConstraint(height);
  EXPECT_EQ(NimbKit::ALView_GetSize(s.view), Size(100, 44));

  NimbKit::ALView_hideByHeight(s.view, true);
  EXPECT_EQ(s.view->alpha(), 44);
  EXPECT_EQ(height->constant(), 0);
  EXPECT_TRUE(s.view->isHidden());
  NimbKit::ALView_hideByHeight(s.view, true);  // already hidden: nothing
  EXPECT_EQ(s.view->alpha(), 44);

  NimbKit::ALView_hideByHeight(s.view, false);
  EXPECT_EQ(height->constant(), 44);
  EXPECT_FALSE(s.view->isHidden());
  EXPECT_EQ(s.view->alpha(), 1.0);
  NimbKit::ALView_hideByHeight(s.view, false);  // already shown: nothing
  EXPECT_EQ(height->constant(), 44);

  // Whatever changes alpha meanwhile changes what comes back.
  NimbKit::ALView_hideByWidth(s.view, true);
  s.view->setAlpha(70);
  NimbKit::ALView_hideByWidth(s.view, false);
  EXPECT_EQ(NimbKit::ALView_GetSize(s.view), Size(70, 44));
}

TEST(NimbKitAutolayout, CollapseWithoutAConstraintUsesTheCurrentSize) {
  auto root = std::make_shared<View>(Rect(0, 0, 320, 480));
  auto view = std::make_shared<View>(Rect(0, 0, 90, 33));
  root->addSubview(view);
  NimbKit::ALView_hideByHeight(view, true);
  EXPECT_EQ(view->alpha(), 33);
  auto made = NimbKit::ALView_constraintForAttribute(view, A::Height);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(root->constraints(), (std::vector{made}));
  EXPECT_EQ(made->constant(), 0);
  NimbKit::ALView_hideByHeight(view, false);
  EXPECT_EQ(made->constant(), 33);
  EXPECT_FALSE(view->isHidden());

  // Showing a view that has no constraint for the attribute does nothing.
  auto bare = std::make_shared<View>();
  bare->setHidden(true);
  NimbKit::ALView_hideByWidth(bare, false);
  EXPECT_TRUE(bare->isHidden());
  EXPECT_EQ(NimbKit::ALView_GetSize(nullptr), Size(0, 0));
}

TEST(NimbKitAutolayout, SizeToSubviewsIsAlways320Wide) {
  auto cell = std::make_shared<View>(Rect(50, 60, 100, 100));
  auto line = std::make_shared<View>();
  line->setTranslatesAutoresizingMaskIntoConstraints(false);
  cell->addSubview(line);
  for (A edge : {A::Top, A::Left}) {
    cell->addConstraint(
        LayoutConstraint::constraintWithItem(line, edge, LayoutRelation::Equal, cell, edge, 1, 6));
  }
  cell->addConstraint(LayoutConstraint::constraintWithItem(
      cell, A::Bottom, LayoutRelation::GreaterThanOrEqual, line, A::Bottom, 1, 6));
  line->addConstraint(sized(line, A::Height, 21));
  line->addConstraint(sized(line, A::Width, 500));
  NimbKit::ALView_SizeToSubviews(cell);
  EXPECT_EQ(cell->frame(), Rect(0, 0, 320, 33));
  EXPECT_EQ(&NimbKit::sharedInstance(), &NimbKit::sharedInstance());
}
