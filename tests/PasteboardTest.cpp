#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/Pasteboard.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>

#include "TestSupport.h"

using nimb::Data;
using nimb::FileManager;
using nimb::Pasteboard;

namespace {

constexpr std::string_view kType = "org.SharedUDID";

class PasteboardTest : public ::testing::Test {
 protected:
  std::string root = nimb::test::makeTemporaryDirectory("nimb-pasteboards");
  std::string store = root + "/store";
  void SetUp() override { Pasteboard::setStoreDirectory(store); }
  void TearDown() override {
    Pasteboard::setStoreDirectory("");
    std::filesystem::remove_all(root);
  }
  static std::set<std::string> entries(const std::string& dir) {
    std::set<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename());
    return names;
  }
};

// Runs `body` in a forked child that ends with _exit(body()) unless the body
// exits itself.
pid_t spawn(const std::function<int()>& body) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int exitStatus(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Data bytes(std::string_view s) {
  return Data(s.begin(), s.end());
}

}  // namespace

TEST_F(PasteboardTest, CreateReadWriteAndRemove) {
  EXPECT_EQ(Pasteboard::pasteboardWithName("org.SharedUDID.slot.0", false), nullptr);
  auto board = Pasteboard::pasteboardWithName("org.SharedUDID.slot.0", true);
  ASSERT_NE(board, nullptr);
  EXPECT_EQ(board->name(), "org.SharedUDID.slot.0");
  EXPECT_FALSE(board->isPersistent());
  EXPECT_FALSE(board->dataForPasteboardType(kType));

  ASSERT_TRUE(board->setData(bytes("first"), kType));
  EXPECT_EQ(board->dataForPasteboardType(kType), bytes("first"));
  auto second = Pasteboard::pasteboardWithName("org.SharedUDID.slot.0", false);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->dataForPasteboardType(kType), bytes("first"));
  // setData replaces the whole contents, items of other types included.
  ASSERT_TRUE(second->setData(bytes("other"), "public.text"));
  EXPECT_FALSE(board->dataForPasteboardType(kType));
  EXPECT_EQ(board->dataForPasteboardType("public.text"), bytes("other"));

  // Another process sees this one's writes, and this one sees its writes.
  EXPECT_EQ(exitStatus(spawn([] {
              auto b = Pasteboard::pasteboardWithName("org.SharedUDID.slot.0", false);
              if (!b || b->dataForPasteboardType("public.text") != bytes("other")) return 1;
              return b->setData(Data{}, kType) ? 0 : 2;
            })),
            0);
  EXPECT_EQ(board->dataForPasteboardType(kType), Data{});

  struct stat st {};
  ASSERT_EQ(stat(store.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(stat((store + "/org.SharedUDID.slot.0.pasteboard").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // A damaged file is a pasteboard without data, until the next write.
  ASSERT_TRUE(FileManager::writeAtomically(store + "/org.SharedUDID.slot.0.pasteboard",
                                           std::string_view("bplist00 garbage")));
  EXPECT_FALSE(board->dataForPasteboardType(kType));
  EXPECT_NE(Pasteboard::pasteboardWithName("org.SharedUDID.slot.0", false), nullptr);
  ASSERT_TRUE(board->setData(bytes("repaired"), kType));
  EXPECT_EQ(second->dataForPasteboardType(kType), bytes("repaired"));

  // A FIFO under a pasteboard's name is no pasteboard: read at once as
  // missing, and replaced by the next one made there.
  const std::string file = store + "/org.SharedUDID.slot.1.pasteboard";
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  ::alarm(20);  // a read that blocks fails the test instead of hanging it
  EXPECT_EQ(Pasteboard::pasteboardWithName("org.SharedUDID.slot.1", false), nullptr);
  auto replaced = Pasteboard::pasteboardWithName("org.SharedUDID.slot.1", true);
  ::alarm(0);
  ASSERT_NE(replaced, nullptr);
  EXPECT_TRUE(replaced->setData(bytes("fine"), kType));
  EXPECT_TRUE(Pasteboard::removePasteboardWithName("org.SharedUDID.slot.1"));

  EXPECT_TRUE(Pasteboard::removePasteboardWithName("org.SharedUDID.slot.0"));
  EXPECT_FALSE(Pasteboard::removePasteboardWithName("org.SharedUDID.slot.0"));
  EXPECT_EQ(Pasteboard::pasteboardWithName("org.SharedUDID.slot.0", false), nullptr);
  EXPECT_FALSE(board->setData(bytes("late"), kType));  // a removed pasteboard stays gone
  EXPECT_EQ(entries(store), std::set<std::string>{".lock"});

  Pasteboard::setStoreDirectory("");
  EXPECT_EQ(Pasteboard::storeDirectory(),
            std::string(std::getenv("XDG_DATA_HOME")) + "/NimbFoundation/Pasteboards");
}

TEST_F(PasteboardTest, NamesNeverReachOutsideTheFolder) {
  // A decoy where "../x" would land if names were used as paths.
  std::string decoy = root + "/x.pasteboard";
  ASSERT_TRUE(FileManager::writeAtomically(decoy, std::string_view("decoy")));
  const std::vector<std::string> names{"../x",
                                       "a/b",
                                       ".",
                                       "..",
                                       ".lock",
                                       "%2E",
                                       std::string("n\0ul", 4),
                                       std::string(NAME_MAX - 11, 'a')};
  for (const auto& name : names) {
    auto board = Pasteboard::pasteboardWithName(name, true);
    ASSERT_NE(board, nullptr) << name;
    ASSERT_TRUE(board->setData(bytes(name), kType));
  }
  // Every name has a file of its own in the folder, and nothing else moved.
  for (const auto& name : names) {
    EXPECT_EQ(Pasteboard::pasteboardWithName(name, false)->dataForPasteboardType(kType),
              bytes(name));
  }
  EXPECT_EQ(entries(root), (std::set<std::string>{"store", "x.pasteboard"}));
  EXPECT_EQ(entries(store).size(), names.size() + 1);  // and ".lock"
  EXPECT_EQ(Pasteboard::pasteboardWithName("", true), nullptr);
  EXPECT_EQ(Pasteboard::pasteboardWithName(std::string(NAME_MAX - 10, 'a'), true), nullptr);
  EXPECT_EQ(Pasteboard::pasteboardWithName(std::string(90, '/'), true), nullptr);

  EXPECT_TRUE(Pasteboard::removePasteboardWithName("../x"));
  EXPECT_EQ(FileManager::contentsAtPath(decoy), bytes("decoy"));
  EXPECT_EQ(entries(store).size(), names.size());
}

TEST_F(PasteboardTest, NonPersistentPasteboardsEndWithTheirOwner) {
  int toChild[2], fromChild[2];
  ASSERT_EQ(pipe(toChild), 0);
  ASSERT_EQ(pipe(fromChild), 0);
  pid_t child = spawn([&] {
    auto temporary = Pasteboard::pasteboardWithName("temporary", true);
    auto kept = Pasteboard::pasteboardWithName("kept", true);
    if (!temporary || !kept) return 1;
    kept->setPersistent(true);
    if (!temporary->setData(bytes("t"), kType) || !kept->setData(bytes("k"), kType)) return 2;
    char c = 0;
    if (write(fromChild[1], &c, 1) != 1 || read(toChild[0], &c, 1) != 1) return 3;
    return 0;  // _exit runs no exit handlers: "temporary" stays on disk
  });
  char c = 0;
  ASSERT_EQ(read(fromChild[0], &c, 1), 1);
  // While its owner runs, another process uses the non-persistent one freely.
  auto temporary = Pasteboard::pasteboardWithName("temporary", false);
  ASSERT_NE(temporary, nullptr);
  EXPECT_FALSE(temporary->isPersistent());
  EXPECT_EQ(temporary->dataForPasteboardType(kType), bytes("t"));
  ASSERT_EQ(write(toChild[1], &c, 1), 1);
  ASSERT_EQ(exitStatus(child), 0);
  for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) close(fd);

  EXPECT_TRUE(FileManager::fileExists(store + "/temporary.pasteboard"));
  EXPECT_FALSE(temporary->dataForPasteboardType(kType));
  EXPECT_FALSE(temporary->setData(bytes("x"), kType));
  EXPECT_EQ(Pasteboard::pasteboardWithName("temporary", false), nullptr);
  EXPECT_FALSE(FileManager::fileExists(store + "/temporary.pasteboard"));
  auto kept = Pasteboard::pasteboardWithName("kept", false);
  ASSERT_NE(kept, nullptr);
  EXPECT_TRUE(kept->isPersistent());
  EXPECT_EQ(kept->dataForPasteboardType(kType), bytes("k"));

  // A normal exit deletes the process's own non-persistent pasteboards, and
  // only those: not the parent's it inherited the list of.
  ASSERT_NE(Pasteboard::pasteboardWithName("parents", true), nullptr);
  EXPECT_EQ(exitStatus(spawn([] {
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
  auto payload = [](std::uint8_t writer, int round) {
    Data d(100 + static_cast<std::size_t>(round * 37 % 4000));
    d[0] = writer;
    d[1] = static_cast<std::uint8_t>(round);
    for (std::size_t i = 2; i < d.size(); ++i)
      d[i] = static_cast<std::uint8_t>(d[0] * 31 + d[1] + i);
    return d;
  };
  auto wellFormed = [](const std::optional<Data>& d) {
    if (!d || d->size() < 2) return false;
    for (std::size_t i = 2; i < d->size(); ++i) {
      if ((*d)[i] != static_cast<std::uint8_t>((*d)[0] * 31 + (*d)[1] + i)) return false;
    }
    return true;
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
  pid_t first = spawn(writer(1)), second = spawn(writer(2));
  EXPECT_EQ(exitStatus(first), 0);
  EXPECT_EQ(exitStatus(second), 0);
  EXPECT_TRUE(wellFormed(board->dataForPasteboardType(kType)));
  EXPECT_TRUE(board->isPersistent());
  EXPECT_EQ(entries(store), (std::set<std::string>{".lock", "org.SharedUDID.slot.7.pasteboard"}));
}
