#include <NimbFoundation/Utils/VQSharedUDID.h>

#include <NimbFoundation/Platform/Storage/Pasteboard.h>
#include <NimbFoundation/Platform/Storage/UserDefaults.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <regex>
#include <vector>

#include "TestSupport.h"

using nimb::Dictionary;
using nimb::Error;
using nimb::Pasteboard;
using nimb::UserDefaults;
using nimb::VQSharedUDID;

namespace {

std::string slotName(int slot) {
  return VQSharedUDID::kSlotPrefix + std::to_string(slot);
}

// Publishes `identifier` in a slot as another application would.
void fillSlot(int slot, const std::string& identifier, const std::string& appUID = "other-app") {
  auto pasteboard = Pasteboard::pasteboardWithName(slotName(slot), true);
  ASSERT_NE(pasteboard, nullptr);
  pasteboard->setPersistent(true);
  VQSharedUDID::_setDict({{"SharedUDID", identifier}, {"SharedUDID_appUID", appUID}}, *pasteboard);
}

std::string described(const Error& error) {
  return *error.userInfo.at("description").asString();
}

std::string recordSlot() {
  auto record = UserDefaults::standardUserDefaults().objectForKey("SharedUDID");
  const nimb::Value* slot = record ? record->find("SharedUDID_slot") : nullptr;
  return slot && slot->asString() ? *slot->asString() : "";
}

// Each test starts as a first run on a device with no application yet: a
// home, defaults and pasteboards of its own, and no identifier cached in
// this process (opting in again drops it).
struct FirstRun {
  FirstRun() { UserDefaults::resetStandardUserDefaults(); }
  ~FirstRun() {
    VQSharedUDID::setOptOut(false);
    UserDefaults::resetStandardUserDefaults();
  }
  const nimb::test::ScopedHome home;
};

struct AppRun {
  std::string identifier;
  std::string slot;
};

// One application run in its own process, through nimbkit: its first call
// retrieves the identifier.
AppRun runAs(const std::string& appId) {
  auto r = nimb::test::runNimbkit({"udid", "--app-id", appId, "--verbose"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  std::smatch m;
  const std::regex lines(
      "([0-9a-f]{40})\ncode: 0\ndescription: SharedUDID succesfully retrieved\nslot: (.*)\n");
  EXPECT_TRUE(std::regex_match(r.out, m, lines)) << r.out;
  return m.empty() ? AppRun{} : AppRun{m[1], m[2]};
}

}  // namespace

TEST(VQSharedUDID, ApplicationsInSeparateProcessesAgreeAndClaimOneSlotEach) {
  const FirstRun fresh;
  const AppRun first = runAs("com.example.one");
  EXPECT_EQ(first.slot, slotName(0));
  auto expectRun = [&](const std::string& appId, int slot) {
    const AppRun run = runAs(appId);
    EXPECT_EQ(run.identifier, first.identifier) << appId;
    EXPECT_EQ(run.slot, slotName(slot)) << appId;
  };
  expectRun("com.example.two", 1);
  expectRun("org.elsewhere.three", 2);
  // Started again, an application keeps its slot and takes no other.
  expectRun("com.example.two", 1);
  const std::filesystem::directory_iterator store(Pasteboard::storeDirectory());
  EXPECT_EQ(std::count_if(begin(store), end(store),
                          [](const auto& e) { return e.path().extension() == ".pasteboard"; }),
            3);
  // Once its slot is gone and is the lowest free one, it claims it again.
  ASSERT_TRUE(Pasteboard::removePasteboardWithName(slotName(0)));
  expectRun("com.example.one", 0);
}

TEST(VQSharedUDID, FirstRunMakesAFreshIdentifierAndCachesItUnlessOptedOut) {
  const FirstRun fresh;
  Error error;
  const std::string id = VQSharedUDID::valueWithError(&error);
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{40}"))) << id;
  EXPECT_EQ(error.domain, "org.SharedUDID");
  EXPECT_EQ(error.code, 0);
  EXPECT_EQ(described(error), "SharedUDID succesfully retrieved");
  auto slot = Pasteboard::pasteboardWithName(slotName(0), false);
  ASSERT_NE(slot, nullptr);
  EXPECT_TRUE(slot->isPersistent());
  EXPECT_EQ(*VQSharedUDID::_getDictFromPasteboard(*slot).at("SharedUDID").asString(), id);

  // Opting out answers zeros until opting in again, which takes no second slot.
  VQSharedUDID::setOptOut(true);
  EXPECT_EQ(VQSharedUDID::valueWithError(&error), std::string(40, '0'));
  EXPECT_EQ(error.code, 1);
  const std::regex message(
      "Application with unique id [0-9A-F-]{36} is opted-out from SharedUDID as of "
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\+0000");
  EXPECT_TRUE(std::regex_match(described(error), message)) << described(error);
  VQSharedUDID::setOptOut(false);
  EXPECT_EQ(VQSharedUDID::valueWithError(&error), id);
  EXPECT_EQ(error.code, 0);
  EXPECT_EQ(recordSlot(), slotName(0));

  // Later calls answer from the cache, whatever the slots say now.
  for (int other : {1, 2}) fillSlot(other, std::string(40, 'b'));
  EXPECT_EQ(VQSharedUDID::valueWithError(&error), id);
  EXPECT_EQ(error.code, 0);
  EXPECT_EQ(described(error), "SharedUDID in cache from first call");
  EXPECT_NE(VQSharedUDID::_generateFreshSharedUDID(), VQSharedUDID::_generateFreshSharedUDID());
}

TEST(VQSharedUDID, TheStoredIdentifierWinsOverTheSlotsWithADiscrepancy) {
  const FirstRun fresh;
  const std::string a(40, 'a'), b(40, 'b');
  ASSERT_TRUE(
      UserDefaults::standardUserDefaults().setObject(Dictionary{{"SharedUDID", a}}, "SharedUDID"));
  for (int slot : {0, 1, 2}) fillSlot(slot, b);
  fillSlot(3, a);
  Error error;
  EXPECT_EQ(VQSharedUDID::valueWithError(&error), a);
  EXPECT_EQ(error.code, 2);
  EXPECT_EQ(described(error),
            "Found a discrepancy between stored SharedUDID (reliable) and redundant copies; one "
            "of the apps on the device is most likely corrupting the SharedUDID protocol");
  // It claimed the free slot 4 and saved the record with it.
  EXPECT_EQ(recordSlot(), slotName(4));
}

// The count beats the order; a tie goes to the identifier that sorts last,
// among the tied ones only.
TEST(VQSharedUDID, ElectionTakesTheMostHeldIdentifierAndTiesGoToTheLastSorted) {
  const std::string a(40, 'a'), b(40, 'b'), c(40, 'c');
  const struct {
    std::vector<std::string> held;
    std::optional<std::string> elected;
  } cases[] = {{{}, std::nullopt}, {{a}, a}, {{c, b, b}, b}, {{b, a}, b}, {{c, a, b, a, c}, c}};
  for (const auto& test : cases) {
    EXPECT_EQ(VQSharedUDID::_elect(test.held), test.elected) << ::testing::PrintToString(test.held);
  }
}

TEST(VQSharedUDID,
     AnApplicationWithoutIdentifierAdoptsTheElectedOneAndForeignPayloadsLeaveASlotFree) {
  const FirstRun fresh;
  const std::string b(40, 'b');
  fillSlot(0, b);
  // Slot 1 holds bytes that are no keyed archive; slot 2 holds no identifier.
  auto junk = Pasteboard::pasteboardWithName(slotName(1), true);
  junk->setPersistent(true);
  ASSERT_TRUE(junk->setData({'n', 'o', 'p', 'e'}, VQSharedUDID::kPasteboardType));
  auto empty = Pasteboard::pasteboardWithName(slotName(2), true);
  empty->setPersistent(true);
  VQSharedUDID::_setDict({{"SharedUDID_appUID", "x"}}, *empty);
  EXPECT_TRUE(VQSharedUDID::_getDictFromPasteboard(*junk).empty());

  EXPECT_EQ(VQSharedUDID::value(), b);
  EXPECT_EQ(recordSlot(), slotName(1));
  auto claimed = Pasteboard::pasteboardWithName(slotName(1), false);
  EXPECT_EQ(*VQSharedUDID::_getDictFromPasteboard(*claimed).at("SharedUDID").asString(), b);
}
