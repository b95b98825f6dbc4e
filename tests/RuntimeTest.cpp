// The object runtime: selectors, class and method tables, dispatch and its
// cache, and the kit's method exchange seen by the kit's own classes.
#include <gtest/gtest.h>

#include <any>
#include <atomic>
#include <cctype>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Graphics/View.h>
#include <NimbFoundation/Platform/Runtime.h>

namespace nimb {
namespace {

struct Pet : Object {
  explicit Pet(Class* cls) : Object(cls) {}
};

constexpr auto& sel = sel_registerName;

// Animal ("speak" -> "animal", class method "kind" -> "animals") and Dog
// under it with nothing of its own, named uniquely for each test.
struct Zoo {
  Class* animal;
  Class* dog;
  explicit Zoo(const std::string& prefix)
      : animal(objc_registerClass(prefix + "Animal", Object::classObject())),
        dog(objc_registerClass(prefix + "Dog", animal)) {
    class_addMethod(
        animal, sel("speak"), +[](Object*, Selector) -> std::string { return "animal"; });
    class_addMethod(
        object_getClass(animal), sel("kind"),
        +[](Object*, Selector) -> std::string { return "animals"; });
  }
};

// Runs `work(t)` on `count` threads at once and gives back their answers.
template <typename Work>
auto onThreads(int count, Work work) {
  std::vector<decltype(work(0))> results(count);
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back([&, t] { results[t] = work(t); });
  for (auto& t : threads) t.join();
  return results;
}

// Wraps whatever "xx_speak" now runs, the way a swizzled method reaches
// the implementation it replaced.
std::string wrappedSpeak(Object* self, Selector) {
  return "wrapped " + msgSend<std::string>(self, sel("xx_speak"));
}

TEST(Runtime, SelectorsAreInternedAcrossThreads) {
  EXPECT_EQ(sel("layoutSubviews"), sel(std::string("layout") + "Subviews"));
  EXPECT_NE(sel("a:"), sel("a"));
  EXPECT_FALSE(sel(""));
  EXPECT_STREQ(sel_getName(sel("setImage:")), "setImage:");
  const auto seen = onThreads(4, [](int) {
    for (int i = 0; i < 200; ++i) sel_registerName("runtime.race." + std::to_string(i));
    return sel_registerName("runtime.race.199");
  });
  for (Selector s : seen) EXPECT_EQ(s, seen[0]);
}

TEST(Runtime, ClassesHaveMetaclassesUniqueNamesAndInheritedMethodTables) {
  Zoo zoo("Reg");
  EXPECT_EQ(objc_getClass("RegDog"), zoo.dog);
  EXPECT_EQ(class_getSuperclass(zoo.dog), zoo.animal);
  Class* meta = object_getClass(zoo.dog);
  EXPECT_TRUE(class_isMetaClass(meta));
  EXPECT_EQ(class_getSuperclass(meta), object_getClass(zoo.animal));
  EXPECT_STREQ(class_getName(meta), "RegDog");
  // The same registration again is the same class; another superclass is refused.
  EXPECT_EQ(objc_registerClass("RegDog", zoo.animal), zoo.dog);
  EXPECT_EQ(objc_registerClass("RegDog", Object::classObject()), nullptr);
  EXPECT_EQ(objc_registerClass("", nullptr), nullptr);
  EXPECT_EQ(objc_registerClass("RegCat", meta), nullptr);
  // The kit's names stay the kit's, even asked for before the kit uses them.
  EXPECT_EQ(objc_registerClass("ImageView", Object::classObject()), nullptr);
  EXPECT_EQ(class_getSuperclass(ImageView::classObject()), View::classObject());
  Pet rex(zoo.dog);
  EXPECT_TRUE(object_isKindOfClass(&rex, zoo.animal));
  EXPECT_FALSE(object_isKindOfClass(&rex, View::classObject()));
  EXPECT_EQ(rex.description().rfind("<RegDog: 0x", 0), 0u);
  EXPECT_EQ(zoo.dog->description(), "RegDog");

  Method* inherited = class_getInstanceMethod(zoo.dog, sel("speak"));
  ASSERT_NE(inherited, nullptr);
  EXPECT_EQ(inherited, class_getInstanceMethod(zoo.animal, sel("speak")));
  EXPECT_STREQ(method_getTypeEncoding(inherited), "{string}@:");
  EXPECT_NE(class_getClassMethod(zoo.dog, sel("kind")), nullptr);
  EXPECT_EQ(class_getInstanceMethod(zoo.dog, sel("kind")), nullptr);

  IMP bark = +[](Object*, Selector) -> std::string { return "bark"; };
  EXPECT_FALSE(class_addMethod(zoo.animal, sel("speak"), bark));      // its own already
  EXPECT_FALSE(class_addMethod(zoo.dog, sel("speak"), bark, "v@:"));  // wrong types
  EXPECT_FALSE(class_addMethod(zoo.dog, sel("speak"), IMP()));
  EXPECT_TRUE(class_addMethod(zoo.dog, sel("speak"), bark, "{string}@:"));  // only inherited
  Pet generic(zoo.animal);
  EXPECT_EQ(msgSend<std::string>(&rex, sel("speak")), "bark");
  EXPECT_EQ(msgSend<std::string>(&generic, sel("speak")), "animal");

  IMP growl = +[](Object*, Selector) -> std::string { return "growl"; };
  EXPECT_EQ(class_replaceMethod(zoo.dog, sel("speak"), growl), bark);
  EXPECT_EQ(msgSend<std::string>(&rex, sel("speak")), "growl");
  EXPECT_FALSE(class_replaceMethod(zoo.dog, sel("fetch"), growl));  // added: no previous
  EXPECT_TRUE(class_respondsToSelector(zoo.dog, sel("fetch")));
  EXPECT_FALSE(class_respondsToSelector(zoo.animal, sel("fetch")));
}

TEST(Runtime, CachedLookupsSeeChangesToSuperclasses) {
  Zoo zoo("Cache");
  Pet rex(zoo.dog);
  EXPECT_EQ(msgSend<std::string>(&rex, sel("speak")), "animal");  // now cached on Dog
  EXPECT_FALSE(class_respondsToSelector(zoo.dog, sel("sit")));    // a cached miss
  class_replaceMethod(
      zoo.animal, sel("speak"), +[](Object*, Selector) -> std::string { return "changed"; });
  class_addMethod(
      zoo.animal, sel("sit"), +[](Object*, Selector) {});
  EXPECT_EQ(msgSend<std::string>(&rex, sel("speak")), "changed");
  EXPECT_TRUE(class_respondsToSelector(zoo.dog, sel("sit")));
  EXPECT_EQ(msgSend<std::string>(static_cast<Object*>(nullptr), sel("speak")), "");
}

TEST(Runtime, DispatchRefusesAnotherSignature) {
  Zoo zoo("Sig");
  Pet rex(zoo.dog);
  auto sendAsInt = [&] { return msgSend<int>(&rex, sel("speak")); };
  auto sendUnknown = [&] { return msgSend<int>(&rex, sel("fly"), 2.0); };
#ifdef NDEBUG
  testing::internal::CaptureStderr();
  EXPECT_EQ(sendAsInt(), 0);
  EXPECT_EQ(sendUnknown(), 0);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("SigDog speak: sent as \"i@:\" but its implementation is \"{string}@:\""),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("SigDog fly: unrecognized selector"), std::string::npos) << log;
#else
  EXPECT_DEATH(sendAsInt(), "sent as \"i@:\" but its implementation is \"\\{string\\}@:\"");
  EXPECT_DEATH(sendUnknown(), "unrecognized selector");
#endif
  // Arguments are part of the signature, reference and const included.
  EXPECT_STREQ((typeEncoding<void, const std::string&>()), "v@:&r{string}");
  EXPECT_STRNE((typeEncoding<void, long>()), (typeEncoding<void, long long>()));
  EXPECT_EQ((typeEncoding<bool, Object*, Class*, Selector>()), TypeEncoding::intern("B@:@#:"));
  IMP speak = method_getImplementation(class_getInstanceMethod(zoo.dog, sel("speak")));
  EXPECT_EQ(speak.as<int>(), nullptr);
  ASSERT_NE(speak.as<std::string>(), nullptr);
}

// 64 selectors also grow Dog's cache past its first size while it is read.
TEST(Runtime, ConcurrentSendsWhileClassesRegister) {
  Zoo zoo("Race");
  for (int i = 0; i < 64; ++i) {
    class_addMethod(
        zoo.animal, sel("r" + std::to_string(i)),
        +[](Object*, Selector s) { return static_cast<int>(s.index()); });
  }
  // Three threads send while the fourth registers subclasses of Dog.
  const auto wrong = onThreads(4, [&](int t) {
    int wrongAnswers = 0;
    for (int i = 0; i < 30 && t == 3; ++i) {
      Class* puppy = objc_registerClass("RacePuppy" + std::to_string(i), zoo.dog);
      class_addMethod(
          puppy, sel("speak"), +[](Object*, Selector) -> std::string { return "yip"; });
    }
    Pet rex(zoo.dog);
    for (int round = 0; round < 20 && t < 3; ++round) {
      for (int i = 0; i < 64; ++i) {
        Selector s = sel("r" + std::to_string((i * (t + 1)) % 64));
        if (msgSend<int>(&rex, s) != static_cast<int>(s.index())) ++wrongAnswers;
      }
    }
    return wrongAnswers;
  });
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

TEST(NimbKitRuntime, SwizzleAddsForInheritedAndExchangesOwn) {
  Zoo zoo("Swz");
  Class* dog = zoo.dog;
  ASSERT_TRUE(class_addMethod(dog, sel("xx_speak"), &wrappedSpeak));
  IMP animalSpeak = method_getImplementation(class_getInstanceMethod(zoo.animal, sel("speak")));

  // Dog only inherits "speak": it gets its own pair, Animal keeps its own.
  EXPECT_TRUE(NimbKit::swizzleInstanceMethod(dog, sel("speak"), sel("xx_speak")));
  Pet rex(dog), generic(zoo.animal);
  EXPECT_EQ(msgSend<std::string>(&rex, sel("speak")), "wrapped animal");
  EXPECT_EQ(msgSend<std::string>(&generic, sel("speak")), "animal");
  EXPECT_EQ(method_getImplementation(class_getInstanceMethod(zoo.animal, sel("speak"))),
            animalSpeak);
  // Now Dog has both of its own: swizzling again exchanges them back.
  EXPECT_TRUE(NimbKit::swizzleInstanceMethod(dog, sel("speak"), sel("xx_speak")));
  EXPECT_EQ(msgSend<std::string>(&rex, sel("speak")), "animal");

  // Class methods, through the class object's metaclass.
  class_addMethod(
      object_getClass(dog), sel("xx_kind"),
      +[](Object*, Selector) -> std::string { return "dogs"; });
  EXPECT_TRUE(NimbKit::swizzleClassMethod(dog, sel("kind"), sel("xx_kind")));
  EXPECT_EQ(msgSend<std::string>(dog, sel("kind")), "dogs");
  EXPECT_EQ(msgSend<std::string>(zoo.animal, sel("kind")), "animals");
  EXPECT_EQ(msgSend<std::string>(dog, sel("xx_kind")), "animals");

  // No method for the selector to wrap (or for the wrapper): refused, tables as they were.
  testing::internal::CaptureStderr();
  EXPECT_FALSE(NimbKit_swizzleInstanceMethod(dog, sel("nothing"), sel("xx_speak")));
  EXPECT_FALSE(NimbKit::swizzleInstanceMethod(dog, sel("speak"), sel("nothing")));
  EXPECT_FALSE(NimbKit::swizzleInstanceMethod(nullptr, sel("speak"), sel("xx_speak")));
  // Methods of different signatures: refused too.
  ASSERT_TRUE(class_addMethod(
      dog, sel("xx_legs"), +[](Object*, Selector) -> int { return 4; }));
  EXPECT_FALSE(NimbKit::swizzleInstanceMethod(dog, sel("speak"), sel("xx_legs")));
  EXPECT_EQ(msgSend<int>(&rex, sel("xx_legs")), 4);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("no method for nothing"), std::string::npos);
  EXPECT_NE(log.find("signatures \"{string}@:\" and \"i@:\" differ"), std::string::npos);
  EXPECT_EQ(class_getInstanceMethod(dog, sel("nothing")), nullptr);
  EXPECT_EQ(msgSend<std::string>(&rex, sel("speak")), "animal");
}

// A counting layoutSubviews for image views that also runs the method it
// replaced.
std::atomic<int> swizzledLayouts{0};
void countingLayoutSubviews(Object* self, Selector) {
  ++swizzledLayouts;
  msgSend<void>(self, sel("test_layoutSubviews"));
}

struct CountingImageView : ImageView {
  int own = 0;
  void layoutSubviewsImplementation() override { ++own; }
};

TEST(NimbKitRuntime, SwizzledLayoutSubviewsRunsInTheLayoutPass) {
  Class* imageView = ImageView::classObject();
  IMP viewLayout = class_getMethodImplementation(View::classObject(), sel("layoutSubviews"));
  class_addMethod(imageView, sel("test_layoutSubviews"), &countingLayoutSubviews);
  ASSERT_TRUE(
      NimbKit::swizzleInstanceMethod(imageView, sel("layoutSubviews"), sel("test_layoutSubviews")));
  auto root = std::make_shared<View>(Rect{0, 0, 100, 100});
  auto picture = std::make_shared<CountingImageView>();
  auto plain = std::make_shared<View>(Rect{0, 0, 10, 10});
  root->addSubview(picture);
  root->addSubview(plain);
  swizzledLayouts = 0;
  for (auto& v : {root, std::static_pointer_cast<View>(picture), plain}) v->setNeedsLayout();
  root->layoutIfNeeded();
  EXPECT_EQ(swizzledLayouts.load(), 1);  // the image view only
  EXPECT_EQ(picture->own, 1);            // and through it, the replaced method
  EXPECT_EQ(class_getMethodImplementation(View::classObject(), sel("layoutSubviews")), viewLayout);
  EXPECT_EQ(picture->className(), "ImageView");
  // Exchanged back, the next pass runs the image view's own method alone.
  ASSERT_TRUE(
      NimbKit::swizzleInstanceMethod(imageView, sel("layoutSubviews"), sel("test_layoutSubviews")));
  picture->setNeedsLayout();
  root->layoutIfNeeded();
  EXPECT_EQ(swizzledLayouts.load(), 1);
  EXPECT_EQ(picture->own, 2);
}

std::string shoutingMd5(Object* self, Selector, std::optional<std::string> text) {
  std::string digest = msgSend<std::string>(self, sel("xx_md5:"), std::move(text));
  for (char& c : digest) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return digest;
}

TEST(NimbKitRuntime, KitClassMethodsAndSharedInstanceGoThroughTheRuntime) {
  Class* kit = NimbKit::classObject();
  class_addMethod(object_getClass(kit), sel("xx_md5:"), &shoutingMd5);
  ASSERT_TRUE(NimbKit::swizzleClassMethod(kit, sel("md5:"), sel("xx_md5:")));
  EXPECT_EQ(NimbKit::md5(""), "D41D8CD98F00B204E9800998ECF8427E");
  ASSERT_TRUE(NimbKit::swizzleClassMethod(kit, sel("md5:"), sel("xx_md5:")));
  EXPECT_EQ(NimbKit::md5(""), "d41d8cd98f00b204e9800998ecf8427e");
  for (const char* name :
       {"getStringLengthWithString:", "swizzleInstanceMethod:originalSelector:swizzledSelector:"}) {
    EXPECT_NE(class_getClassMethod(kit, sel(name)), nullptr) << name;
  }
  // The shared instance is one object of class NimbKit, from any thread.
  const auto seen = onThreads(8, [](int) { return &NimbKit::sharedInstance(); });
  for (NimbKit* kit : seen) EXPECT_EQ(kit, seen[0]);
  EXPECT_EQ(object_getClass(seen[0]), NimbKit::classObject());
  EXPECT_EQ(msgSend<Object*>(NimbKit::classObject(), sel("sharedInstance")), seen[0]);
}

TEST(Runtime, AssociatedValuesAreCopiesPerObjectAndKey) {
  static const char keyA = 0, keyB = 0;
  Class* cls = objc_registerClass("AssociatedPet", Object::classObject());
  Pet one(cls), two(cls);
  std::vector<int> numbers{1, 2};
  objc_setAssociatedObject(&one, &keyA, numbers);
  numbers.push_back(3);  // the stored copy does not change
  objc_setAssociatedObject(&one, &keyB, std::string("b"));
  objc_setAssociatedObject(&two, &keyA, 7);
  EXPECT_EQ(std::any_cast<std::vector<int>>(objc_getAssociatedObject(&one, &keyA)),
            (std::vector<int>{1, 2}));
  EXPECT_EQ(std::any_cast<std::string>(objc_getAssociatedObject(&one, &keyB)), "b");
  EXPECT_EQ(std::any_cast<int>(objc_getAssociatedObject(&two, &keyA)), 7);

  objc_setAssociatedObject(&one, &keyB, 5);  // replaced, of another type
  EXPECT_EQ(std::any_cast<int>(objc_getAssociatedObject(&one, &keyB)), 5);
  objc_setAssociatedObject(&one, &keyB, std::any());  // an empty value removes
  EXPECT_FALSE(objc_getAssociatedObject(&one, &keyB).has_value());
  objc_removeAssociatedObjects(&one);
  EXPECT_FALSE(objc_getAssociatedObject(&one, &keyA).has_value());
  EXPECT_EQ(std::any_cast<int>(objc_getAssociatedObject(&two, &keyA)), 7);
  objc_removeAssociatedObjects(&two);
  objc_setAssociatedObject(nullptr, &keyA, 1);
  EXPECT_FALSE(objc_getAssociatedObject(nullptr, &keyA).has_value());

  // Threads storing under their own keys all find their values.
  static const char keys[8] = {};
  onThreads(8, [&](int t) {
    for (int i = 0; i < 500; ++i) objc_setAssociatedObject(&one, &keys[t], t * 1000 + i);
    return 0;
  });
  for (int t = 0; t < 8; ++t) {
    EXPECT_EQ(std::any_cast<int>(objc_getAssociatedObject(&one, &keys[t])), t * 1000 + 499);
  }
  objc_removeAssociatedObjects(&one);
}

}  // namespace
}  // namespace nimb
