// Picking a photo through the desktop portal: the kit against a private
// session bus (dbus-daemon) with a fake portal (tests/fake_portal.py, run by
// python3-dbusmock) that answers every chooser with a pick, a cancel or a
// non-image file.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "TestSupport.h"

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Graphics/Image.h>
#include <NimbFoundation/Platform/Graphics/ImagePickerController.h>
#include <NimbFoundation/Platform/Runtime.h>

namespace nimb {
namespace {

using test::pumpFor;
using test::pumpUntil;

using test::FakeMachine;

constexpr const char* kPython = "/usr/bin/python3";

struct Call {
  ImagePickerController* picker = nullptr;
  ImagePickerMediaInfo info;
  bool onMainThread = false;
};

NimbKitCompletion recordInto(std::vector<Call>& calls) {
  return [&calls](ImagePickerController* picker, const ImagePickerMediaInfo& info) {
    calls.push_back({picker, info, RunLoop::isMainThread()});
  };
}

class ImagePickerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto reason = test::privateBusUnavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    dir_ = test::makeTemporaryDirectory("nimb-picker");
    machine_->realMonotonic = true;
    address_ = test::startPrivateBus(bus_);
    ASSERT_FALSE(address_.empty()) << "the bus did not start";
    machine_->variables["DBUS_SESSION_BUS_ADDRESS"] = address_;
  }

  void TearDown() override {
    NimbKit& kit = NimbKit::sharedInstance();
    if (auto picker = kit.imagePicker()) picker->dismiss();
    kit.setCompletion(nullptr);
    for (auto* program : {&portal_, &bus_}) test::stopProgram(*program);
    pumpFor(0.05);
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  // Starts the fake portal answering `answer` and waits until it serves.
  void startPortal(const std::string& answer, int delayMs = 100) {
    const std::string parameters = "{\"answer\": \"" + answer + "\", \"record\": \"" + dir_ +
                                   "/calls\", \"delay_ms\": " + std::to_string(delayMs) + "}";
    portal_ = test::startProgram({"env", "DBUS_SESSION_BUS_ADDRESS=" + address_, kPython, "-m",
                                  "dbusmock", "--template", FAKE_PORTAL_PATH, "-p", parameters});
    ASSERT_TRUE(pumpUntil(
        [] {
          return ImagePickerController::isSourceTypeAvailable(ImagePickerSourceType::kPhotoLibrary);
        },
        10))
        << "the fake portal did not start";
  }

  // nimbkit pick on the test's bus.
  test::ToolResult runPick() {
    return test::runProgram({"env", "DBUS_SESSION_BUS_ADDRESS=" + address_, NIMBKIT_PATH, "pick"});
  }

  std::vector<std::string> recordedCalls() {
    std::vector<std::string> lines;
    std::ifstream in(dir_ + "/calls");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  FakeMachine machine_;
  std::string dir_;
  std::string address_;
  test::RunningProgram bus_;
  test::RunningProgram portal_;
};

TEST_F(ImagePickerTest, PickDeliversImageOnceOnMainRunLoopAndDismisses) {
  const std::string path = dir_ + "/photo one.png";
  std::ofstream(path, std::ios::binary)
      << test::pngBody(Image::withBitmap(Bitmap{3, 2, Data(3 * 2 * 4, 0x80)}));
  const std::string pictures = dir_ + "/Pictures";
  std::filesystem::create_directory(pictures);
  std::ofstream(dir_ + "/xdg-user-dir")
      << "#!/bin/sh\n[ \"$1\" = PICTURES ] && echo '" << pictures << "'\n";
  std::filesystem::permissions(dir_ + "/xdg-user-dir", std::filesystem::perms::owner_all);
  machine_->variables["PATH"] = dir_ + ":/usr/bin:/bin";
  startPortal(path);
  EXPECT_FALSE(ImagePickerController::isSourceTypeAvailable(ImagePickerSourceType::kCamera));

  NimbKit& kit = NimbKit::sharedInstance();
  std::vector<Call> calls;
  kit.fetchImageFromAlbum(nullptr, recordInto(calls));
  auto picker = kit.imagePicker();
  ASSERT_TRUE(picker && picker->isPresented());
  EXPECT_EQ(picker->delegate(), static_cast<Object*>(&kit));
  EXPECT_TRUE(calls.empty()) << "answers come on a later turn of the main run loop";
  ASSERT_TRUE(pumpUntil([&] { return !calls.empty(); }));
  pumpFor(0.3);
  ASSERT_EQ(calls.size(), 1u);
  const Call& call = calls[0];
  EXPECT_TRUE(call.onMainThread);
  EXPECT_EQ(call.picker, picker.get());
  EXPECT_FALSE(picker->isPresented());
  EXPECT_FALSE(kit.completion());
  ASSERT_TRUE(call.info.originalImage);
  EXPECT_EQ(call.info.originalImage->size(), Size(3, 2));
  ASSERT_TRUE(call.info.mediaURL);
  EXPECT_EQ(call.info.mediaURL->absoluteString(), "file://" + dir_ + "/photo%20one.png");
  EXPECT_EQ(call.info.referenceURL, call.info.mediaURL);
  EXPECT_EQ(call.info.path, path);
  EXPECT_EQ(call.info.mediaType, "public.image");

  // What the portal was asked: an image filter, modal, in the pictures
  // folder given as a NUL-terminated byte string.
  auto recorded = recordedCalls();
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0],
            "{\"parent_window\": \"\", \"title\": \"Choose a photo\", \"modal\": true, "
            "\"filters\": [[\"Images\", [[1, \"image/*\"]]]], \"current_folder\": \"" +
                pictures + "\\u0000\"}");

  // nimbkit pick prints what the completion received.
  auto tool = runPick();
  EXPECT_EQ(tool.exitCode, 0) << tool.err;
  EXPECT_EQ(tool.out,
            "url: file://" + dir_ + "/photo%20one.png\ntype: public.image\nimage: 3 x 2\n");

  // A second request replaces the first, whose dialog is open at the portal
  // when it comes: that answer arrives after all and must be ignored. A file
  // that is no picture comes without an image entry.
  test::stopProgram(portal_);
  const std::string notes = dir_ + "/notes.txt";
  std::ofstream(notes) << "not a picture";
  startPortal(notes, 500);
  const size_t asked = recordedCalls().size();
  std::vector<Call> first, second;
  kit.fetchImageFromAlbum(nullptr, recordInto(first));
  auto firstPicker = kit.imagePicker();
  ASSERT_TRUE(pumpUntil([&] { return recordedCalls().size() == asked + 1; }));
  kit.fetchImageFromAlbum(nullptr, recordInto(second));
  auto secondPicker = kit.imagePicker();
  EXPECT_NE(firstPicker, secondPicker);
  EXPECT_FALSE(firstPicker->isPresented());
  ASSERT_TRUE(pumpUntil([&] { return !second.empty(); }));
  pumpFor(0.3);
  EXPECT_TRUE(first.empty());
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].picker, secondPicker.get());
  recorded = recordedCalls();
  ASSERT_EQ(recorded.size(), asked + 3);
  EXPECT_EQ(recorded[asked + 1].rfind("{\"closed\": ", 0), 0u) << "the first dialog was closed";
  EXPECT_FALSE(second[0].info.originalImage);
  ASSERT_TRUE(second[0].info.mediaURL);
  EXPECT_EQ(second[0].info.mediaURL->absoluteString(), "file://" + notes);
  EXPECT_EQ(second[0].info.mediaType, "public.image");
}

TEST_F(ImagePickerTest, CancelOrNoPortalCallsNothingAndKeepsTheCompletion) {
  startPortal("cancel");
  NimbKit& kit = NimbKit::sharedInstance();
  std::vector<Call> calls;
  kit.fetchImageFromAlbum(nullptr, recordInto(calls));
  auto picker = kit.imagePicker();
  ASSERT_TRUE(picker && picker->isPresented());
  EXPECT_TRUE(pumpUntil([&] { return !picker->isPresented(); })) << "the dialog ended";
  pumpFor(0.2);
  EXPECT_TRUE(calls.empty());
  auto kept = kit.completion();
  ASSERT_TRUE(kept);
  kept(nullptr, {});
  EXPECT_EQ(calls.size(), 1u) << "the stored completion is the one given";

  // A delegate that answers imagePickerControllerDidCancel: hears of it.
  struct Watcher : Object {
    explicit Watcher(Class* cls) : Object(cls) {}
    std::vector<ImagePickerController*> cancelled;
  };
  Class* cls = objc_registerClass("PickerCancelWatcher", Object::classObject());
  class_addMethod(cls, sel_registerName("imagePickerControllerDidCancel:"),
                  IMP(+[](Object* self, Selector, ImagePickerController* picker) {
                    static_cast<Watcher*>(self)->cancelled.push_back(picker);
                  }));
  Watcher watcher(cls);
  auto own = ImagePickerController::create();
  own->setDelegate(&watcher);
  ASSERT_TRUE(own->present());
  EXPECT_FALSE(own->present()) << "presented already";
  ASSERT_TRUE(pumpUntil([&] { return !watcher.cancelled.empty(); }));
  EXPECT_EQ(watcher.cancelled, std::vector<ImagePickerController*>{own.get()});
  EXPECT_FALSE(own->isPresented());

  // Without the portal (a bus without it, then no bus at all) nothing is
  // presented or called, and nimbkit pick says so.
  test::stopProgram(portal_);
  kit.setCompletion(nullptr);
  auto before = kit.imagePicker();
  std::vector<Call> unanswered;
  for (bool withBus : {true, false}) {
    if (!withBus) {
      machine_->variables["DBUS_SESSION_BUS_ADDRESS"] = std::nullopt;
      machine_->variables["XDG_RUNTIME_DIR"] = dir_;
    }
    EXPECT_FALSE(
        ImagePickerController::isSourceTypeAvailable(ImagePickerSourceType::kPhotoLibrary));
    kit.fetchImageFromAlbum(nullptr, recordInto(unanswered));
    EXPECT_EQ(kit.imagePicker(), before) << "no picker was presented";
    EXPECT_TRUE(kit.completion()) << "the completion is stored all the same";
    auto idle = ImagePickerController::create();
    EXPECT_FALSE(idle->present());
    EXPECT_FALSE(idle->isPresented());
  }
  pumpFor(0.2);
  EXPECT_TRUE(unanswered.empty());
  machine_->variables["DBUS_SESSION_BUS_ADDRESS"] = address_;
  auto tool = runPick();
  EXPECT_EQ(tool.exitCode, 1);
  EXPECT_NE(tool.err.find("no desktop portal"), std::string::npos) << tool.err;
}

}  // namespace
}  // namespace nimb
