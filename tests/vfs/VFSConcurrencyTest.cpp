// File systems that several threads and sessions use at a time.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnDatabase.h>
#include <tarns/session/TarnTransaction.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "support/run_in_sessions.h"
#include "support/throws_tarn.h"
#include "vfs/vfs_fixture.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class VFSConcurrencyTest : public vfs_test {
 protected:
  // Runs work(i, files) in a thread each.
  template <class Work>
  void runThreads(int threads, const Work& work) {
    run_in_sessions(manager(), threads, [&](int i, TarnManager& session) {
      TarnVFS files(session, session.getObject("files"));
      work(i, files);
    });
  }
};

TEST_F(VFSConcurrencyTest, NumbersEveryDuplicate) {
  constexpr int kThreads = 4, kEach = 40;
  vfs().createFolder("f");
  runThreads(kThreads, [](int, TarnVFS& files) {
    for (int n = 0; n < kEach; ++n) {
      EXPECT_TRUE(files.addItem("f~report.txt", TarnVFSFile::Create(), true, true));
    }
  });
  std::set<std::string> expected{"report.txt"};
  for (int n = 1; n < kThreads * kEach; ++n) {
    expected.insert("report(" + std::to_string(n) + ").txt");
  }
  const auto names = vfs().getItemNames("f", {}, 1000);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
  EXPECT_EQ(names.size(), expected.size());
}

TEST_F(VFSConcurrencyTest, MakesEveryFolderOnce) {
  runThreads(4, [](int i, TarnVFS& files) {
    for (int n = 0; n < 25; ++n) {
      const std::string folder = "a~b" + std::to_string(n) + "~c";
      EXPECT_TRUE(files.createFolder(folder));
      EXPECT_TRUE(
          files.addItem(folder + "~" + std::to_string(i), TarnVFSFile::Create(), false, false));
    }
  });
  const auto names = vfs().getFolderNames("a");
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
  for (int n = 0; n < 25; ++n) {
    EXPECT_EQ(vfs().getItemNames("a~b" + std::to_string(n) + "~c"), "0~1~2~3") << n;
  }
}

// Folders are moved into each other, never into themselves, and nothing is lost.
TEST_F(VFSConcurrencyTest, MovesInCirclesAreRefused) {
  constexpr int kFolders = 4;
  const auto name = [](int i) { return "f" + std::to_string(i); };
  std::vector<xcptref<TarnVFSFolder>> folders;
  for (int i = 0; i < kFolders; ++i) vfs().createFolder(name(i));
  std::atomic<int> moves = 0;
  runThreads(kFolders, [&](int i, TarnVFS& files) {
    const TarnRef own = files.getFolder(name(i));
    for (int n = 0; n < 60; ++n) {
      TarnPath from, to;
      if (!files.getPath(own, from)) continue;
      const std::string top = name((i + 1 + n % (kFolders - 1)) % kFolders);
      if (n % 3 == 2) {
        if (files.moveFolder(from, "")) ++moves;
      } else if (files.isFolderExist(top) && files.moveFolder(from, top)) {
        ++moves;
      }
    }
  });
  EXPECT_GT(moves, 0);
  std::set<std::string> found;
  for (const auto& [path, content] : tree()) found.insert(path.substr(path.rfind('f')));
  EXPECT_EQ(found, (std::set<std::string>{"f0/", "f1/", "f2/", "f3/"}));
}

// Readers see one of the contents that were written, as a whole.
TEST_F(VFSConcurrencyTest, ReadersSeeWholeContents) {
  constexpr std::size_t kSize = 3 * TarnVFSContent::kPieceSize;
  put("x", std::string(kSize, 'a'));
  std::atomic<int> writers = 2;
  runThreads(4, [&](int i, TarnVFS& files) {
    if (i < 2) {
      for (char letter = 'b'; letter < 'r'; ++letter) {
        TarnVFSWriter writer(files, "x");
        writer.write(std::string_view(std::string(kSize + static_cast<std::size_t>(i), letter)));
        writer.finish();
      }
      --writers;
      return;
    }
    do {
      const std::string seen = TarnVFSReader(files, "x").readAll();
      EXPECT_GE(seen.size(), kSize);
      EXPECT_EQ(seen.find_first_not_of(seen[0]), std::string::npos);
    } while (writers > 0);
  });
}

// In which order folders and the bin are taken: with all of them held by somebody else, and no time
// to wait, a call names the one that it wanted first, and for writing: who had read it before would
// wait for others that did the same.
TEST_F(VFSConcurrencyTest, TakesTheBinFirstAndAFolderBeforeItLooksAtIt) {
  vfs().createFolder("f~g");
  for (const char* name : {"f~x", "f~binned"}) put(name, "1");
  unsigned long id = 0;
  ASSERT_TRUE(vfs().moveItemToBin("f~binned", &id));
  const std::string folder = "files~vfsSystem~vfsFolders~f", bin = "files~vfsRecycleBin";
  TarnManager other;
  other.connect(configuration().c_str());
  other.db().getCacheManager().set_lock_timeout(std::chrono::milliseconds(0));
  const struct {
    const char* what;
    const char* mountedOn;
    std::string wanted;
    std::function<void(TarnVFS&)> call;
  } cases[] = {
      {"binning", "", bin, [](TarnVFS& files) { files.moveItemToBin("f~x"); }},
      {"restoring", "", bin, [id](TarnVFS& files) { files.restoreFromBin(id); }},
      {"adding", "f", folder,
       [](TarnVFS& files) { files.addItem("y", TarnVFSItem::Create(), false, false); }},
      {"making", "f", folder, [](TarnVFS& files) { files.createFolder("h"); }},
      {"moving", "f", folder, [](TarnVFS& files) { files.moveItem("x", "g"); }},
      {"writing", "f", folder, [](TarnVFS& files) { TarnVFSWriter(files, "x").finish(); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::unique_ptr<TarnVFS> files;
    {
      const TarnAttachment attachment(other);
      files = std::make_unique<TarnVFS>(other, other.getObject("files"), c.mountedOn);
    }
    const TarnAttachment attachment(manager());
    TarnTransaction transaction(manager());
    for (const char* held : {"files", "files~vfsSystem", bin.c_str(), folder.c_str()}) {
      modify(manager().getObject(held))->touch();
    }
    std::jthread([&] {
      const TarnAttachment here(other);
      EXPECT_THAT(
          [&] { c.call(*files); },
          ThrowsTarn(101, HasSubstr("\"" + c.wanted + "\" could not be locked for writing")));
      files.reset();
    }).join();
    transaction.rollback();
  }
}

// Threads that have opened the file system on a folder, and others that have not, change that.
TEST_F(VFSConcurrencyTest, NothingIsLostInAFolderThatSomeHaveOpened) {
  constexpr int kThreads = 4, kEach = 25;
  vfs().createFolder("f~g");
  run_in_sessions(manager(), kThreads, [&](int i, TarnManager& session) {
    const bool isOpenedOnFolder = i < kThreads / 2;
    TarnVFS files(session, session.getObject("files"), isOpenedOnFolder ? "f" : "");
    const std::string above = isOpenedOnFolder ? "" : "f~";
    for (int n = 0; n < kEach; ++n) {
      const std::string name = std::to_string(i) + "-" + std::to_string(n);
      EXPECT_TRUE(files.addItem(above + name, TarnVFSFile::Create(), false, false));
      EXPECT_TRUE(files.createFolder(above + "g~" + std::to_string(n)));
      unsigned long id = 0;
      if (n % 3 == 0) {
        EXPECT_TRUE(files.moveItem(above + name, above + "g"));
      } else if (n % 3 == 1) {
        EXPECT_TRUE(files.moveItemToBin(above + name, &id));
        EXPECT_TRUE(files.restoreFromBin(id));
      }
    }
  });
  constexpr std::size_t kMoved = kThreads * ((kEach + 2) / 3);
  EXPECT_EQ(vfs().getItemNames("f~g", {}, 1000).size(), kMoved);
  EXPECT_EQ(vfs().getItemNames("f", {}, 1000).size(), kThreads * kEach - kMoved);
  EXPECT_EQ(vfs().getFolderNames("f~g").size(), kEach);
  EXPECT_EQ(vfs().listRecycleBin().size(), 0u);
}

TEST_F(VFSConcurrencyTest, BinsAndRestoresEveryItemOnce) {
  constexpr int kThreads = 4, kEach = 15;
  vfs().createFolder("f");
  runThreads(kThreads, [&](int i, TarnVFS& files) {
    for (int n = 0; n < kEach; ++n) {
      const std::string name = "f~" + std::to_string(i) + "-" + std::to_string(n);
      EXPECT_TRUE(files.addItem(name, TarnVFSFile::Create(), false, false));
      unsigned long id = 0;
      EXPECT_TRUE(files.moveItemToBin(name, &id));
      if (n % 2 == 0) {
        EXPECT_TRUE(files.restoreFromBin(id));
      }
    }
  });
  EXPECT_EQ(vfs().getItemNames("f", {}, 1000).size(), kThreads * ((kEach + 1) / 2));
  const auto entries = vfs().listRecycleBin();
  std::set<unsigned long> ids;
  for (const auto& entry : entries) ids.insert(entry.id);
  EXPECT_EQ(ids.size(), kThreads * (kEach / 2));
  EXPECT_EQ(vfs().getRecycleBin()->getUint32("vfsLastID"), kThreads * kEach);
}

}  // namespace
}  // namespace tarns
