#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/Pasteboard.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "TestSupport.h"

using namespace nimb;
using namespace nimb::test;

namespace {

constexpr std::string_view kType = "org.SharedUDID";
const std::string kSlot = "org.SharedUDID.slot.0";

class PasteboardTest : public ::testing::Test {
 protected:
  std::string root = makeTemporaryDirectory("nimb-pasteboards");
  std::string store = root + "/store";
  FakeMachine machine;
  void SetUp() override { machine->pasteboardDir = store; }
  void TearDown() override { std::filesystem::remove_all(root); }
  static std::set<std::string> entries(const std::string& dir) {
    std::set<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename());
    return names;
  }
};

}  // namespace

TEST_F(PasteboardTest, CreateReadWriteAndRemove) {
  auto board = Pasteboard::pasteboardWithName(kSlot, true);
  ASSERT_NE(board, nullptr);
  EXPECT_FALSE(board->dataForPasteboardType(kType));

  ASSERT_TRUE(board->setData(dataOf("first"), kType));
  EXPECT_EQ(board->dataForPasteboardType(kType), dataOf("first"));
  auto second = Pasteboard::pasteboardWithName(kSlot, false);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->dataForPasteboardType(kType), dataOf("first"));
  // setData replaces the whole contents, items of other types included.
  ASSERT_TRUE(second->setData(dataOf("other"), "public.text"));
  EXPECT_FALSE(board->dataForPasteboardType(kType));
  EXPECT_EQ(board->dataForPasteboardType("public.text"), dataOf("other"));

  // Another process sees this one's writes, and this one sees its writes.
  EXPECT_EQ(exitStatus(forkChild([] {
              auto b = Pasteboard::pasteboardWithName(kSlot, false);
              if (!b || b->dataForPasteboardType("public.text") != dataOf("other")) return 1;
              return b->setData(Data{}, kType) ? 0 : 2;
            })),
            0);
  EXPECT_EQ(board->dataForPasteboardType(kType), Data{});
  const std::string file = store + "/" + kSlot + ".pasteboard";
  EXPECT_EQ(modeOf(store), 0700u);
  EXPECT_EQ(modeOf(file), 0600u);

  // A damaged file is a pasteboard without data, until the next write.
  ASSERT_TRUE(FileManager::writeAtomically(file, std::string_view("bplist00 garbage")));
  EXPECT_FALSE(board->dataForPasteboardType(kType));
  EXPECT_NE(Pasteboard::pasteboardWithName(kSlot, false), nullptr);
  ASSERT_TRUE(board->setData(dataOf("repaired"), kType));
  EXPECT_EQ(second->dataForPasteboardType(kType), dataOf("repaired"));

  EXPECT_TRUE(Pasteboard::removePasteboardWithName(kSlot));
  auto again = Pasteboard::removePasteboardWithName(kSlot);
  ASSERT_FALSE(again);
  EXPECT_EQ(again.error(), (SystemError{ENOENT, file}));
  EXPECT_EQ(Pasteboard::pasteboardWithName(kSlot, false), nullptr);
  auto late = board->setData(dataOf("late"), kType);  // a removed pasteboard stays gone
  ASSERT_FALSE(late);
  EXPECT_EQ(late.error(), (SystemError{ENOENT, file}));
  EXPECT_EQ(entries(store), std::set<std::string>{".lock"});

  machine->pasteboardDir = std::nullopt;
  machine->variables["XDG_DATA_HOME"] = root + "/data";
  EXPECT_EQ(Pasteboard::storeDirectory(), root + "/data/NimbFoundation/Pasteboards");
}

// A FIFO or a symbolic link under a pasteboard's name is no pasteboard: it
// reads as missing at once, and the next one made there replaces it, never
// the link's target.
TEST_F(PasteboardTest, LinksAndFifosReadAsMissingAndAreReplaced) {
  auto elsewhere = Pasteboard::pasteboardWithName("elsewhere", true);
  ASSERT_TRUE(elsewhere && elsewhere->setData(dataOf("secret"), kType));
  const std::string target = store + "/elsewhere.pasteboard", file = store + "/planted.pasteboard";
  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  for (bool fifo : {true, false}) {
    std::filesystem::remove(file);
    ASSERT_EQ(fifo ? ::mkfifo(file.c_str(), 0600) : ::symlink(target.c_str(), file.c_str()), 0);
    EXPECT_EQ(Pasteboard::pasteboardWithName("planted", false), nullptr) << fifo;
    auto replaced = Pasteboard::pasteboardWithName("planted", true);
    ASSERT_NE(replaced, nullptr) << fifo;
    EXPECT_FALSE(replaced->dataForPasteboardType(kType)) << fifo;
    EXPECT_TRUE(replaced->setData(dataOf("fine"), kType)) << fifo;
    EXPECT_TRUE(FileManager::isRegularFile(file, FollowLinks::No)) << fifo;
  }
  ::alarm(0);
  EXPECT_EQ(elsewhere->dataForPasteboardType(kType), dataOf("secret"));
}

TEST_F(PasteboardTest, NamesNeverReachOutsideTheFolder) {
  // A decoy where "../x" would land if names were used as paths.
  std::string decoy = root + "/x.pasteboard";
  ASSERT_TRUE(FileManager::writeAtomically(decoy, std::string_view("decoy")));
  const std::vector<std::string> names{
      "../x", "a/b", ".", "..", ".lock", "%2E", {"n\0ul", 4}, std::string(NAME_MAX - 11, 'a')};
  for (const auto& name : names) {
    auto board = Pasteboard::pasteboardWithName(name, true);
    ASSERT_NE(board, nullptr) << name;
    ASSERT_TRUE(board->setData(dataOf(name), kType));
  }
  // Every name has a file of its own in the folder, and nothing else moved.
  for (const auto& name : names) {
    EXPECT_EQ(Pasteboard::pasteboardWithName(name, false)->dataForPasteboardType(kType),
              dataOf(name));
  }
  EXPECT_EQ(entries(root), (std::set<std::string>{"store", "x.pasteboard"}));
  EXPECT_EQ(entries(store).size(), names.size() + 1);  // and ".lock"
  for (const std::string& refused :
       {std::string(), std::string(NAME_MAX - 10, 'a'), std::string(90, '/')}) {
    EXPECT_EQ(Pasteboard::pasteboardWithName(refused, true), nullptr) << refused;
  }
  EXPECT_TRUE(Pasteboard::removePasteboardWithName("../x"));
  EXPECT_EQ(FileManager::contentsAtPath(decoy), dataOf("decoy"));
  EXPECT_EQ(entries(store).size(), names.size());
}

TEST_F(PasteboardTest, NonPersistentPasteboardsEndWithTheirOwner) {
  int toChild[2], fromChild[2];
  ASSERT_TRUE(pipe(toChild) == 0 && pipe(fromChild) == 0);
  pid_t child = forkChild([&] {
    auto temporary = Pasteboard::pasteboardWithName("temporary", true);
    auto kept = Pasteboard::pasteboardWithName("kept", true);
    if (!temporary || !kept) return 1;
    kept->setPersistent(true);
    if (!temporary->setData(dataOf("t"), kType) || !kept->setData(dataOf("k"), kType)) return 2;
    char c = 0;
    if (write(fromChild[1], &c, 1) != 1 || read(toChild[0], &c, 1) != 1) return 3;
    return 0;  // _exit runs no exit handlers: "temporary" stays on disk
  });
  char c = 0;
  ASSERT_EQ(read(fromChild[0], &c, 1), 1);
  // While its owner runs, another process uses the non-persistent one freely.
  auto temporary = Pasteboard::pasteboardWithName("temporary", false);
  ASSERT_NE(temporary, nullptr);
  EXPECT_EQ(temporary->dataForPasteboardType(kType), dataOf("t"));
  ASSERT_EQ(write(toChild[1], &c, 1), 1);
  ASSERT_EQ(exitStatus(child), 0);
  for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) close(fd);

  EXPECT_TRUE(FileManager::fileExists(store + "/temporary.pasteboard"));
  EXPECT_FALSE(temporary->dataForPasteboardType(kType));
  EXPECT_FALSE(temporary->setData(dataOf("x"), kType));
  EXPECT_EQ(Pasteboard::pasteboardWithName("temporary", false), nullptr);
  EXPECT_FALSE(FileManager::fileExists(store + "/temporary.pasteboard"));
  auto kept = Pasteboard::pasteboardWithName("kept", false);
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->dataForPasteboardType(kType), dataOf("k"));

  // A normal exit deletes the process's own non-persistent pasteboards, and
  // only those: not the parent's it inherited the list of.
  ASSERT_NE(Pasteboard::pasteboardWithName("parents", true), nullptr);
  EXPECT_EQ(exitStatus(forkChild([] {
              auto own = Pasteboard::pasteboardWithName("own", true);
              auto k = Pasteboard::pasteboardWithName("kept", false);
              if (!own || !k) return 1;
              std::exit(0);
            })),
            0);
  EXPECT_FALSE(FileManager::fileExists(store + "/own.pasteboard"));
  EXPECT_TRUE(FileManager::fileExists(store + "/kept.pasteboard"));
  EXPECT_NE(Pasteboard::pasteboardWithName("parents", false), nullptr);
}

TEST_F(PasteboardTest, ConcurrentWritersNeverTearTheFile) {
  auto board = Pasteboard::pasteboardWithName("org.SharedUDID.slot.7", true);
  ASSERT_NE(board, nullptr);
  board->setPersistent(true);
  constexpr int kRounds = 300;
  // Payloads of varying size whose every byte is determined by its first two.
  auto byteAt = [](const Data& d, std::size_t i) { return std::uint8_t(d[0] * 31 + d[1] + i); };
  auto payload = [&](std::uint8_t writer, int round) {
    Data d(100 + static_cast<std::size_t>(round * 37 % 4000));
    d[0] = writer;
    d[1] = static_cast<std::uint8_t>(round);
    for (std::size_t i = 2; i < d.size(); ++i) d[i] = byteAt(d, i);
    return d;
  };
  auto wellFormed = [&](const std::optional<Data>& d) {
    bool ok = d && d->size() >= 2;
    for (std::size_t i = 2; ok && i < d->size(); ++i) ok = (*d)[i] == byteAt(*d, i);
    return ok;
  };
  // Writer 2 also flips the persistence flag; writer 1's read-modify-writes
  // must never bring back a flag it has replaced.
  auto writer = [&](std::uint8_t id) {
    return [&, id] {
      auto b = Pasteboard::pasteboardWithName("org.SharedUDID.slot.7", false);
      if (!b) return 1;
      for (int round = 0; round < kRounds; ++round) {
        if (!b->setData(payload(id, round), kType)) return 2;
        if (!wellFormed(b->dataForPasteboardType(kType))) return 3;
        if (id == 2) {
          bool persistent = round % 2 == 1 || round == kRounds - 1;
          b->setPersistent(persistent);
          if (b->isPersistent() != persistent) return 4;
        }
      }
      return 0;
    };
  };
  pid_t first = forkChild(writer(1)), second = forkChild(writer(2));
  EXPECT_EQ(exitStatus(first), 0);
  EXPECT_EQ(exitStatus(second), 0);
  EXPECT_TRUE(wellFormed(board->dataForPasteboardType(kType)));
  EXPECT_TRUE(board->isPersistent());
  EXPECT_EQ(entries(store), (std::set<std::string>{".lock", "org.SharedUDID.slot.7.pasteboard"}));
}
