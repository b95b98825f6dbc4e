// Constraints on views and the layout pass that solves them.
#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>
#include <NimbFoundation/Platform/Graphics/View.h>

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>

using namespace nimb;

namespace {

using A = LayoutAttribute;
using R = LayoutRelation;
using Ptr = std::shared_ptr<View>;

Ptr make(Rect frame = {}, bool byConstraints = true) {
  auto v = std::make_shared<View>(frame);
  v->setTranslatesAutoresizingMaskIntoConstraints(!byConstraints);
  return v;
}

// Made and held by `holder`: a.attr REL m * b.attr2 + c @ priority.
std::shared_ptr<LayoutConstraint> hold(const Ptr& holder, const Ptr& a, A attr, R rel, const Ptr& b,
                                       A attr2, double m, double c,
                                       LayoutPriority priority = LayoutPriorityRequired) {
  auto made = LayoutConstraint::constraintWithItem(a, attr, rel, b, attr2, m, c);
  EXPECT_NE(made, nullptr);
  if (!made) return nullptr;
  made->setPriority(priority);
  holder->addConstraint(made);
  return made;
}

std::shared_ptr<LayoutConstraint> pin(const Ptr& holder, const Ptr& a, A attr, const Ptr& b,
                                      double c = 0) {
  return hold(holder, a, attr, R::Equal, b, attr, 1, c);
}

std::shared_ptr<LayoutConstraint> fix(const Ptr& a, A attr, double c, R rel = R::Equal,
                                      LayoutPriority priority = LayoutPriorityRequired) {
  return hold(a, a, attr, rel, nullptr, A::NotAnAttribute, 1, c, priority);
}

class CountingView : public View {
 public:
  void layoutSubviewsImplementation() override { ++calls; }
  int calls = 0;
};

}  // namespace

TEST(LayoutConstraint, OnlyRelationsTheLayoutCanHoldAreMade) {
  auto a = make(), b = make();
  auto ok = [&](A x, const Ptr& second, A y, double m = 1) {
    return LayoutConstraint::constraintWithItem(a, x, R::Equal, second, y, m, 0) != nullptr;
  };
  EXPECT_TRUE(ok(A::Width, nullptr, A::NotAnAttribute));
  EXPECT_TRUE(ok(A::Leading, b, A::Left));
  EXPECT_TRUE(ok(A::Width, b, A::Height, 0));             // sizes may be scaled by 0
  EXPECT_FALSE(ok(A::Left, nullptr, A::NotAnAttribute));  // a position to a constant
  EXPECT_FALSE(ok(A::Width, nullptr, A::Width));
  EXPECT_FALSE(ok(A::Width, b, A::NotAnAttribute));
  EXPECT_FALSE(ok(A::NotAnAttribute, b, A::Width));
  EXPECT_FALSE(ok(A::Left, b, A::Top));    // across axes
  EXPECT_FALSE(ok(A::Width, b, A::Left));  // a size to a position
  EXPECT_FALSE(ok(A::Left, b, A::Left, 0));
  EXPECT_FALSE(ok(A::Width, b, A::Width, NAN));
  EXPECT_FALSE(ok(static_cast<A>(12), nullptr, A::NotAnAttribute));

  a->setAccessibilityIdentifier("label");
  b->setAccessibilityIdentifier("card");
  auto c =
      LayoutConstraint::constraintWithItem(a, A::Width, R::LessThanOrEqual, b, A::Width, 0.5, -8);
  c->setIdentifier("half");
  c->setPriority(2000);  // clamped
  EXPECT_EQ(c->priority(), 1000);
  c->setPriority(750);
  std::string text = c->description();
  EXPECT_NE(text.find("'half' label.width <= 0.5*card.width - 8 @750>"), std::string::npos) << text;
  EXPECT_FALSE(c->isActive());
}

TEST(LayoutConstraint, ActivationAndLeavingTheTreeDropConstraintsThatCrossIt) {
  auto root = make({}, false), box = make(), view = make(), child = make(), sibling = make();
  root->addSubview(box);
  box->addSubview(view);
  box->addSubview(sibling);
  view->addSubview(child);

  auto across =
      LayoutConstraint::constraintWithItem(view, A::Left, R::Equal, sibling, A::Left, 1, 0);
  across->setActive(true);  // the nearest common ancestor holds it
  EXPECT_EQ(box->constraints().back(), across);
  auto height = fix(view, A::Height, 44);
  box->addConstraint(height);  // held twice: by the view and by an ancestor
  auto siblingOnly = fix(sibling, A::Width, 10);
  auto inside = pin(view, child, A::Left, view);
  auto outward = pin(child, child, A::Width, sibling);
  auto rootHeld = pin(root, view, A::Top, root);

  // A new place in the same superview's order is no departure.
  box->addSubview(view);
  box->insertSubview(view, 0);
  EXPECT_EQ(box->subviews().front(), view);
  EXPECT_EQ(box->constraints().size(), 2u);
  EXPECT_TRUE(across->isActive() && outward->isActive() && rootHeld->isActive());

  view->removeFromSuperview();
  // Ancestors drop whatever names the subtree; the subtree drops what names
  // a view outside it; the rest stays.
  EXPECT_TRUE(box->constraints().empty());
  EXPECT_TRUE(root->constraints().empty());
  EXPECT_EQ(view->constraints(), (std::vector{height, inside}));
  EXPECT_TRUE(child->constraints().empty());
  EXPECT_EQ(sibling->constraints().size(), 1u);
  EXPECT_FALSE(across->isActive() || outward->isActive() || rootHeld->isActive());
  EXPECT_TRUE(height->isActive() && inside->isActive() && siblingOnly->isActive());
  height->setActive(false);
  EXPECT_EQ(view->constraints(), (std::vector{inside}));

  // A holder that goes away leaves its constraints inactive.
  auto orphan = fix(make(), A::Width, 1);
  EXPECT_FALSE(orphan->isActive());
}

TEST(Layout, FramesComeFromTheSolutionAndFollowEdits) {
  auto root = std::make_shared<CountingView>();
  root->setFrame({0, 0, 320, 480});
  auto card = make(), label = make();
  auto loose = make({5, 6, 7, 8});  // named by nothing: keeps its frame
  root->addSubview(card);
  root->addSubview(loose);
  card->addSubview(label);
  auto left = pin(root, card, A::Left, root, 10);
  pin(root, card, A::Right, root, -10);
  pin(root, card, A::Top, root, 20);
  auto height = fix(card, A::Height, 100);
  for (A center : {A::CenterX, A::CenterY}) pin(card, label, center, card);
  hold(card, label, A::Width, R::Equal, card, A::Width, 0.5, 0);
  hold(card, label, A::Height, R::Equal, nullptr, A::NotAnAttribute, 1, 30);

  root->layoutIfNeeded();
  EXPECT_EQ(card->frame(), Rect(10, 20, 300, 100));
  EXPECT_EQ(label->frame(), Rect(75, 35, 150, 30));  // relative to the card
  EXPECT_EQ(loose->frame(), Rect(5, 6, 7, 8));

  left->setConstant(30);
  height->setConstant(60);
  label->layoutIfNeeded();  // any view of the tree lays out the whole tree
  EXPECT_EQ(card->frame(), Rect(30, 20, 280, 60));
  EXPECT_EQ(label->frame(), Rect(70, 15, 140, 30));

  // A fixed frame that changes moves what hangs on it.
  root->setFrame({0, 0, 400, 480});
  root->layoutIfNeeded();
  EXPECT_EQ(card->frame(), Rect(30, 20, 360, 60));
  EXPECT_GE(root->calls, 1);  // resized, so laid out

  // Removing a constraint: the view falls back to what is left.
  left->setActive(false);
  fix(card, A::Width, 100);
  root->layoutIfNeeded();
  EXPECT_EQ(card->frame(), Rect(290, 20, 100, 60));

  // Placed against the root, then moved into the card (which drops the
  // constraints) and placed the same again: the same spot, now relative to
  // the card, although none of its variables changed.
  auto mark = make({1, 2, 3, 4});
  root->addSubview(mark);
  std::vector<std::shared_ptr<LayoutConstraint>> place = {
      pin(root, mark, A::Left, root, 300), pin(root, mark, A::Top, root, 30),
      fix(mark, A::Width, 0), fix(mark, A::Height, 0)};
  root->layoutIfNeeded();
  EXPECT_EQ(mark->frame(), Rect(300, 30, 0, 0));
  card->addSubview(mark);
  EXPECT_EQ(mark->constraints().size(), 2u);  // its own sizes stay
  root->addConstraints({place[0], place[1]});
  root->layoutIfNeeded();
  EXPECT_EQ(mark->frame(), Rect(10, 10, 0, 0));

  // Laid out in another tree and brought back: it gets its place here again,
  // and a constant it carries still reaches this tree's layout.
  auto elsewhere = make({0, 0, 50, 50}, false);
  elsewhere->addSubview(mark);
  elsewhere->layoutIfNeeded();
  card->addSubview(mark);
  root->addConstraints({place[0], place[1]});
  root->layoutIfNeeded();
  EXPECT_EQ(mark->frame(), Rect(10, 10, 0, 0));  // not the frame it had there
  place[2]->setConstant(5);
  root->layoutIfNeeded();
  EXPECT_EQ(mark->frame(), Rect(10, 10, 5, 0));
}

TEST(Layout, IntrinsicSizeHuggingCompressionResistanceAndContradictions) {
  auto root = make({0, 0, 300, 300}, false);
  auto image = std::make_shared<ImageView>(
      Image::withBitmap({80, 60, Data(80 * 60 * 4, 0xff)}, 2));  // 40 x 30 points
  image->setTranslatesAutoresizingMaskIntoConstraints(false);
  root->addSubview(image);
  for (A edge : {A::Left, A::Top}) pin(root, image, edge, root, 10);
  root->layoutIfNeeded();
  EXPECT_EQ(image->frame(), Rect(10, 10, 40, 30));

  // A wish stronger than hugging (250) stretches it; one weaker than
  // compression resistance (750) does not squeeze it.
  fix(image, A::Width, 60, R::GreaterThanOrEqual, 500);
  fix(image, A::Height, 10, R::LessThanOrEqual, 500);
  root->layoutIfNeeded();
  EXPECT_EQ(image->frame().size, Size(60, 30));
  image->setContentCompressionResistancePriority(400, LayoutAxis::Vertical);
  image->setContentHuggingPriority(600, LayoutAxis::Horizontal);
  root->layoutIfNeeded();
  EXPECT_EQ(image->frame().size, Size(40, 10));

  image->setImage(Image::withBitmap({20, 20, Data(20 * 20 * 4, 0xff)}, 1));
  root->layoutIfNeeded();
  EXPECT_EQ(image->frame().size, Size(20, 10));

  // Contradictions leave out the last made and are logged once.
  auto view = make();
  root->addSubview(view);
  for (A edge : {A::Left, A::Top}) pin(root, view, edge, root);
  fix(view, A::Width, 10);
  auto first = fix(view, A::Height, 44);
  auto second = fix(view, A::Height, 80);
  second->setIdentifier("too-tall");
  testing::internal::CaptureStderr();
  root->layoutIfNeeded();
  root->layoutIfNeeded();
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(view->frame(), Rect(0, 0, 10, 44));
  EXPECT_NE(log.find("'too-tall'"), std::string::npos) << log;
  EXPECT_EQ(log.find('\n'), log.size() - 1) << log;  // one line

  // A NaN constant is left out the same way; the rest still lays out.
  first->setConstant(NAN);
  testing::internal::CaptureStderr();
  root->layoutIfNeeded();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(view->frame(), Rect(0, 0, 10, 80));  // the other one holds now

  // Left out from its first pass, it is tried again once its constant lets
  // it hold.
  auto other = make();
  root->addSubview(other);
  for (A edge : {A::Left, A::Top}) pin(root, other, edge, root);
  fix(other, A::Height, 5);
  fix(other, A::Width, 50, R::LessThanOrEqual);
  auto wide = fix(other, A::Width, 70);
  testing::internal::CaptureStderr();
  root->layoutIfNeeded();
  wide->setConstant(20);
  root->layoutIfNeeded();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(other->frame(), Rect(0, 0, 20, 5));
}

TEST(Layout, FittingSizesAndDeepSubtreesOfFixedFramesThatCostTheSolverNothing) {
  // 10,000 levels of views keeping their frames under a view placed by
  // constraints: laid out and measured at once, without room in the solver
  // for every level. The box is as wide as five of its first level.
  auto root = make({0, 0, 100, 100}, false), box = make();
  root->addSubview(box);
  // Built from the bottom up, so that each addSubview's cycle check is short;
  // freed at the end without running out of stack.
  Ptr leaf = make({1, 1, 10, 10}, false), top = leaf;
  for (int i = 1; i < 10000; ++i) {
    auto level = make({1, 1, 10, 10}, false);
    level->addSubview(top);
    top = level;
  }
  box->addSubview(top);
  pin(root, box, A::Left, root, 5);
  pin(root, box, A::Top, root, 6);
  hold(box, box, A::Width, R::Equal, box->subviews()[0], A::Width, 5, 0);
  fix(box, A::Height, 40);
  root->layoutIfNeeded();
  EXPECT_EQ(box->frame(), Rect(5, 6, 50, 40));
  EXPECT_EQ(leaf->frame(), Rect(1, 1, 10, 10));
  EXPECT_EQ(box->systemLayoutSizeFittingSize(LayoutFittingExpandedSize), Size(50, 40));

  // Fitting sizes come from the subtree; measuring moves nothing.
  auto cell = make({0, 0, 999, 999}, false);
  auto thumb = make(), title = make();
  cell->addSubview(thumb);
  cell->addSubview(title);
  for (const auto& v : {thumb, title}) pin(cell, v, A::Top, cell, 8);
  pin(cell, thumb, A::Left, cell, 8);
  for (A side : {A::Width, A::Height}) fix(thumb, side, 40);
  hold(cell, title, A::Left, R::Equal, thumb, A::Right, 1, 8);
  fix(title, A::Width, 100, R::GreaterThanOrEqual);
  fix(title, A::Height, 20);
  hold(cell, cell, A::Bottom, R::GreaterThanOrEqual, thumb, A::Bottom, 1, 8);
  hold(cell, cell, A::Bottom, R::GreaterThanOrEqual, title, A::Bottom, 1, 8);
  hold(cell, cell, A::Right, R::GreaterThanOrEqual, title, A::Right, 1, 8);
  fix(cell, A::Width, 500, R::LessThanOrEqual);

  EXPECT_EQ(cell->systemLayoutSizeFittingSize(LayoutFittingCompressedSize), Size(164, 56));
  EXPECT_EQ(cell->systemLayoutSizeFittingSize(LayoutFittingExpandedSize),
            Size(500, LayoutFittingExpandedSize.height));
  EXPECT_EQ(cell->systemLayoutSizeFittingSize({200, 10}), Size(200, 56));
  EXPECT_EQ(cell->frame(), Rect(0, 0, 999, 999));
}
