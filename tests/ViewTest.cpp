#include <NimbFoundation/Platform/Graphics/View.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>

using namespace nimb;

namespace {

using Views = std::vector<std::shared_ptr<View>>;

std::shared_ptr<View> make() {
  return std::make_shared<View>();
}

// The description with the address replaced by "ADDR".
std::string withoutAddress(const std::string& description) {
  return std::regex_replace(description, std::regex(": 0x[0-9a-f]+;"), ": ADDR;");
}

}  // namespace

TEST(View, SubviewsMoveBetweenSuperviewsInOrder) {
  auto first = make(), second = make(), a = make(), b = make(), c = make();
  first->addSubview(a);
  first->addSubview(b);
  first->insertSubview(c, 1);
  EXPECT_EQ(first->subviews(), (Views{a, c, b}));

  first->addSubview(a);  // already there: to the front
  EXPECT_EQ(first->subviews(), (Views{c, b, a}));
  first->insertSubview(a, 99);  // past the end: the front
  EXPECT_EQ(first->subviews().back(), a);

  // Passing an element of the old superview's own list.
  second->addSubview(first->subviews()[0]);
  EXPECT_EQ(first->subviews(), (Views{b, a}));
  EXPECT_EQ(second->subviews(), (Views{c}));
  EXPECT_EQ(c->superview(), second);

  b->removeFromSuperview();
  b->removeFromSuperview();  // no superview: nothing to do
  EXPECT_EQ(b->superview(), nullptr);
  EXPECT_EQ(first->subviews(), (Views{a}));
}

TEST(View, CyclesAndUnownedParentsAreRefused) {
  auto root = make(), child = make(), grandchild = make();
  root->addSubview(child);
  child->addSubview(grandchild);

  root->addSubview(root);
  grandchild->addSubview(root);
  grandchild->insertSubview(child, 0);
  child->addSubview(nullptr);
  EXPECT_TRUE(root->subviews().size() == 1 && grandchild->subviews().empty());
  EXPECT_EQ(child->subviews().size(), 1u);
  EXPECT_EQ(root->superview(), nullptr);
  EXPECT_EQ(child->superview(), root);

  // A parent not held by a shared_ptr cannot be referred back to.
  View onStack;
  onStack.addSubview(child);
  EXPECT_TRUE(onStack.subviews().empty());
  EXPECT_EQ(child->superview(), root);
}

TEST(View, SuperviewIsNotOwned) {
  auto child = make();
  std::weak_ptr<View> watch;
  {
    auto parent = make();
    watch = parent;
    parent->addSubview(child);
    EXPECT_EQ(child->superview(), parent);
  }
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(child->superview(), nullptr);

  // A subview only its superview owns survives removeFromSuperview() until it returns.
  auto parent = make();
  parent->addSubview(make());
  std::weak_ptr<View> only = parent->subviews()[0];
  parent->subviews()[0]->removeFromSuperview();
  EXPECT_TRUE(only.expired());
  EXPECT_TRUE(parent->subviews().empty());
}

TEST(View, PropertiesAndDescription) {
  auto view = std::make_shared<View>(Rect(10, 20, 100, 50));
  EXPECT_EQ(view->bounds(), Rect(0, 0, 100, 50));
  EXPECT_EQ(withoutAddress(view->description()), "<View: ADDR; frame = (10 20; 100 50)>");
  // Alpha is stored as given, out of range or NaN (the layout helpers keep a
  // constant there); only drawing clamps it.
  for (double set : {44.0, -0.5, double(NAN), 0.5}) {
    view->setAlpha(set);
    EXPECT_TRUE(view->alpha() == set || (std::isnan(set) && std::isnan(view->alpha()))) << set;
  }
  view->setHidden(true);
  view->setOpaque(false);
  view->setClipsToBounds(true);
  view->setFrame(Rect(0.25, -3, 1e3, 1.0 / 3));
  EXPECT_EQ(withoutAddress(view->description()),
            "<View: ADDR; frame = (0.25 -3; 1000 0.3333333333333333); hidden = YES; "
            "alpha = 0.5; opaque = NO; clipsToBounds = YES>");
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<void*>(view.get()));
  EXPECT_EQ(view->description().find(std::string("<View: ") + address + ";"), 0u);
}

TEST(View, ImageViewTakesItsFrameFromTheImageOnlyWhenMadeWithIt) {
  auto image = Image::withBitmap({8, 6, Data(8 * 6 * 4, 0xff)}, 2);
  ImageView fitted(image);
  EXPECT_EQ(withoutAddress(fitted.description()),
            "<ImageView: ADDR; frame = (0 0; 4 3); image = <Image 4x3 @2x>>");
  ImageView framed(Rect(1, 2, 30, 40));
  framed.setImage(image);
  EXPECT_EQ(framed.frame(), Rect(1, 2, 30, 40));  // unchanged by the image
}
