// Content: reading and writing in pieces, and what others see of it.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/vfs/TarnVFSStreams.h>

#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <tuple>

#include "support/throws_tarn.h"
#include "vfs/vfs_fixture.h"

namespace tarns {
namespace {

using testing::HasSubstr;

constexpr std::size_t kPiece = TarnVFSContent::kPieceSize;

std::string Bytes(std::size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
  return bytes;
}

class ContentTest : public vfs_test {
 protected:
  void collect() { ASSERT_TRUE(manager().startGarbageCollection()); }
};

TEST_F(ContentTest, KeepsContentOfAnySize) {
  std::size_t round = 0;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kPiece - 1, kPiece, kPiece + 1,
                                 3 * kPiece, 40 * kPiece + 5, 300 * kPiece}) {
    SCOPED_TRACE(size);
    const std::string path = "f" + std::to_string(round++);
    const std::string bytes = Bytes(size, static_cast<unsigned>(size));
    put(path, bytes);
    remount();
    EXPECT_TRUE(content(path) == bytes);
    EXPECT_EQ(vfs().getInfo(path)->size, size);
  }
}

TEST_F(ContentTest, GoesWithAFolderThatIsMovedAndNotIntoOneThatIsRemoved) {
  vfs().createFolder("a~b");
  TarnVFSWriter moved(vfs(), "a~b~x"), removed(vfs(), "a~b~y");
  for (TarnVFSWriter* writer : {&moved, &removed}) writer->write(std::string_view("text"));
  ASSERT_TRUE(vfs().moveFolder("a~b", ""));
  moved.finish();
  EXPECT_EQ(content("b~x"), "text");
  const auto removeAndFinish = [&] {
    manager().transaction([&] {
      ASSERT_TRUE(vfs().deleteFolder("b"));
      removed.finish();
    });
  };
  EXPECT_THAT(removeAndFinish, ThrowsTarn(7, testing::HasSubstr("a~b")));
  EXPECT_EQ(content("b~x"), "text");  // the transaction was rolled back
  ASSERT_TRUE(vfs().deleteFolder("b"));
  EXPECT_THAT([&] { removed.finish(); }, ThrowsTarn(7, testing::HasSubstr("a~b")));
}

// Random writes, cuts and reads, beside a string that is treated alike.
TEST_F(ContentTest, IsWrittenAnywhere) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE(seed);
    std::minstd_rand random(seed);
    std::string model;
    put("x", "");
    for (int session = 0; session < 4; ++session) {
      TarnVFSWriter writer(vfs(), "x", TarnVFSWriter::Mode::kUpdate);
      for (int step = 0; step < 12; ++step) {
        const std::size_t at = random() % (kPiece * 70);
        if (random() % 4 == 0) {
          writer.truncate(at);
          model.resize(at);
          continue;
        }
        const std::string bytes = Bytes(random() % (kPiece * 3), seed);
        writer.seek(at);
        writer.write(std::string_view(bytes));
        if (bytes.empty()) continue;
        if (model.size() < at + bytes.size()) model.resize(at + bytes.size());
        model.replace(at, bytes.size(), bytes);
        EXPECT_EQ(writer.tell(), at + bytes.size());
      }
      EXPECT_EQ(writer.getSize(), model.size());
      writer.finish();
      ASSERT_TRUE(content("x") == model);
    }
    if (seed % 2 == 0) collect();
    remount();
    TarnVFSReader reader(vfs(), "x");
    ASSERT_TRUE(reader.readAll() == model);
    for (int i = 0; i < 20 && !model.empty(); ++i) {
      const std::size_t at = random() % model.size();
      std::string part(random() % (2 * kPiece), '\0');
      reader.seek(at);
      part.resize(reader.read(part.data(), part.size()));
      EXPECT_TRUE(part == model.substr(at, part.size()));
    }
  }
}

// What was cut off does not come back, above all where the content has its old size again.
TEST_F(ContentTest, ReadsAsZerosWhatWasCutOff) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{7}, kPiece, kPiece + 1, 2 * kPiece}) {
    const std::string bytes = Bytes(size, 1);
    const std::vector<std::vector<std::size_t>> cuts{
        {0, size}, {size / 2, size},      {kPiece, 0, size}, {0, 3 * kPiece, size},
        {size},    {3 * kPiece, 0, size}, {kPiece, size}};
    for (const auto& sizes : cuts) {
      SCOPED_TRACE(testing::Message() << size << " bytes: " << testing::PrintToString(sizes));
      put("x", bytes);
      std::string model = bytes;
      TarnVFSWriter writer(vfs(), "x", TarnVFSWriter::Mode::kUpdate);
      for (const std::size_t next : sizes) {
        writer.truncate(next);
        model.resize(next);
      }
      writer.finish();
      EXPECT_TRUE(content("x") == model);
      remount();
      EXPECT_TRUE(content("x") == model);
    }
  }
}

TEST_F(ContentTest, IsReadAsItWas) {
  const std::string before = Bytes(5 * kPiece, 1), after = Bytes(6 * kPiece, 2);
  put("x", before);
  vfs().copyItemTo("x", "copy");
  TarnVFSReader reader(vfs(), "x");
  EXPECT_TRUE(reader.nextPiece() == std::string_view(before).substr(0, kPiece));
  put("x", after);
  vfs().deleteItem("x");
  collect();
  EXPECT_TRUE(reader.readAll() == before.substr(kPiece));
  EXPECT_TRUE(content("copy") == before);
  // Rewriting a byte of the copy leaves the rest shared, and other readers alone.
  TarnVFSReader other(vfs(), "copy");
  TarnVFSWriter writer(vfs(), "copy", TarnVFSWriter::Mode::kUpdate);
  writer.seek(4 * kPiece + 7);
  writer.write("!");
  writer.finish();
  std::string expected = before;
  expected[4 * kPiece + 7] = '!';
  EXPECT_TRUE(content("copy") == expected);
  EXPECT_TRUE(other.readAll() == before);
}

TEST_F(ContentTest, IsNotSeenBeforeItIsFinished) {
  const std::string old = "old", bytes = Bytes(100 * kPiece, 3);  // put away several times
  put("x", old);
  {
    TarnVFSWriter writer(vfs(), "x");
    writer.write(std::string_view(bytes));
    EXPECT_EQ(content("x"), old);
    collect();  // what is being written is kept
    writer.write("end");
    EXPECT_EQ(content("x"), old);
    // A second one takes the place where contents begin.
    TarnVFSWriter second(vfs(), "y");
    second.write(std::string_view(bytes));
    collect();
    writer.finish();
    EXPECT_TRUE(content("x") == bytes + "end");
    EXPECT_FALSE(vfs().isItemExist("y"));
    EXPECT_THAT([&] { writer.write("more"); }, ThrowsTarn(111, HasSubstr("finished")));
    EXPECT_THAT([&] { writer.finish(); }, ThrowsTarn(111, HasSubstr("finished")));
  }
  // Nothing leads to what was not finished.
  put("x", "");
  collect();
  const goods::check_result found = manager().check({});
  EXPECT_EQ(found.faults, 0u);
  EXPECT_LT(found.objects, 50u);
}

TEST_F(ContentTest, IsAStreamToo) {
  std::string expected;
  {
    TarnVFSOutput out(vfs(), "x");
    for (int i = 0; i < 60'000; ++i) {
      out << i << '\n';
      expected += std::to_string(i) + '\n';
    }
    const std::string large = Bytes(2 * kPiece, 5);
    out << large;
    expected += large;
    EXPECT_EQ(out.tellp(), static_cast<std::streamoff>(expected.size()));
    out.seekp(3).put('!');
    expected[3] = '!';
    out.seekp(-2, std::ios::end) << "end of it";
    expected.replace(expected.size() - 2, 2, "end of it");
    EXPECT_FALSE(vfs().isItemExist("x"));
    out.getWriter().setPermissions(0600);
    out.finish();
  }
  EXPECT_TRUE(content("x") == expected);
  EXPECT_EQ(vfs().getInfo("x")->permissions, 0600u);

  TarnVFSInput in(vfs(), "x");
  put("x", "other");  // the stream reads what was there
  int number = -1;
  in.seekg(static_cast<std::streamoff>(expected.find("50000"))) >> number;
  EXPECT_EQ(number, 50'000);
  EXPECT_EQ(in.tellg(), static_cast<std::streamoff>(expected.find("50000") + 5));
  in.seekg(-9, std::ios::end);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "end of it");
  EXPECT_TRUE(in.eof());
  in.clear();
  EXPECT_TRUE(in.seekg(0));
  EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == expected);
  EXPECT_FALSE(in.seekg(1, std::ios::end));
  in.clear();
  EXPECT_FALSE(in.seekg(-1));

  { TarnVFSOutput(vfs(), "x") << "not finished"; }
  EXPECT_EQ(content("x"), "other");
  TarnVFSOutput failed(vfs(), "x");
  failed.seekp(std::numeric_limits<std::streamoff>::max());
  failed << "12" << std::flush;
  EXPECT_TRUE(failed.bad());
  EXPECT_THAT([&] { failed.finish(); }, ThrowsTarn(0, HasSubstr("has failed")));
  EXPECT_EQ(content("x"), "other");
  EXPECT_THAT([&] { TarnVFSInput(vfs(), "no"); }, ThrowsTarn(7, HasSubstr("no")));
  EXPECT_THAT([&] { TarnVFSOutput(vfs(), "no~x"); }, ThrowsTarn(7, HasSubstr("no~x")));
}

TEST_F(ContentTest, SeesConflicts) {
  using Mode = TarnVFSWriter::Mode;
  put("x", "1");
  TarnVFSWriter append(vfs(), "x", Mode::kUpdate);
  append.seek(1);
  append.write("2");
  TarnVFSWriter fresh(vfs(), "new", Mode::kNew);
  fresh.write("mine");
  put("x", "other");
  put("new", "other");
  EXPECT_THAT([&] { append.finish(); }, ThrowsTarn(0, HasSubstr("\"x\" has been written to")));
  EXPECT_THAT([&] { fresh.finish(); }, ThrowsTarn(0, HasSubstr("\"new\" exists already")));
  EXPECT_EQ(content("x"), "other");
  EXPECT_EQ(content("new"), "other");
  vfs().deleteItem("new");
  fresh.finish();  // the reason is gone
  EXPECT_EQ(content("new"), "mine");
  TarnVFSWriter far(vfs(), "far");
  for (const std::uint64_t at : {~std::uint64_t{0}, std::uint64_t{1} << 63}) {
    far.seek(at);
    EXPECT_THAT([&] { far.write("12"); }, ThrowsTarn(111, HasSubstr("2^63")));
  }
  EXPECT_THAT([&] { TarnVFSWriter(vfs(), "no~x"); }, ThrowsTarn(7, HasSubstr("no~x")));
  EXPECT_THAT([&] { TarnVFSWriter(vfs(), "no", Mode::kUpdate); }, ThrowsTarn(7, HasSubstr("no")));
  EXPECT_THAT([&] { TarnVFSReader(vfs(), "no"); }, ThrowsTarn(7, HasSubstr("no")));
}

TEST_F(ContentTest, GivesPlainItemsContent) {
  const auto plain = TarnVFSItem::Create();
  modify(plain)->setValue("color", "red");
  ASSERT_TRUE(vfs().addItem("x", plain, false, false));
  EXPECT_EQ(content("x"), "");
  put("x", "bytes");
  EXPECT_EQ(content("x"), "bytes");
  EXPECT_STREQ(vfs().getItem("x")->getXString("color"), "red");
}

TEST_F(ContentTest, KeepsAttributes) {
  TarnVFSWriter writer(vfs(), "x.png");
  writer.setModified({-5, 999'999'999});
  writer.setPermissions(0640);
  writer.finish();
  remount();
  TarnVFSInfo info = *vfs().getInfo("x.png");
  EXPECT_EQ(info.modified, (TarnVFSTime{-5, 999'999'999}));
  EXPECT_EQ(info.permissions, 0640u);
  EXPECT_LT(TarnVFSTime{}, info.created);
  xcptref<TarnVFSFile> file(vfs().getItem("x.png"));
  EXPECT_EQ(file->getContentType("x.png"), "image/png");
  modify(file)->setContentType("text/x-mine");
  EXPECT_EQ(file->getContentType("x.png"), "text/x-mine");
  for (const auto& [name, type] : {std::pair{"A.PDF", "application/pdf"},
                                   {"a", "application/octet-stream"},
                                   {".gz", "application/octet-stream"},
                                   {"a.tar.gz", "application/gzip"}}) {
    EXPECT_STREQ(TarnVFSFile::GetContentTypeFor(name), type) << name;
  }
  // Writing anew keeps what is not told.
  put("x.png", "again");
  info = *vfs().getInfo("x.png");
  EXPECT_EQ(info.permissions, 0640u);
  EXPECT_LT(TarnVFSTime{}, info.modified);
  EXPECT_THAT([&] { modify(file)->setPermissions(010000); }, ThrowsTarn(111, HasSubstr("07777")));
  EXPECT_THAT(
      [&] {
        modify(file)->setModified({0, 1'000'000'000});
      },
      ThrowsTarn(111, HasSubstr("nanoseconds")));
}

// Any time that can be told is one, that of all zeros as well.
TEST_F(ContentTest, TellsTimesFromTimesThatWereNeverTold) {
  const auto file = TarnVFSFile::Create();
  vfs().addItem("x", file, false, false);
  vfs().createFolder("f");
  const auto folder = vfs().getFolder("f");
  modify(folder)->setPermissions(0700);
  const TarnVFSTime never = TarnVFSInfo::kNoTime;
  for (const TarnVFSTime time : {never, TarnVFSTime{0, 0}, TarnVFSTime{0, 1}, TarnVFSTime{-1, 0},
                                 TarnVFSTime{std::numeric_limits<std::int64_t>::min(), 0}, never}) {
    SCOPED_TRACE(testing::Message() << time.seconds << "." << time.nanoseconds);
    modify(xcptref<TarnVFSFile>(vfs().getItem("x")))->setModified(time);
    modify(xcptref<TarnVFSFile>(vfs().getItem("x")))->setCreated({0, 0});
    modify(vfs().getFolder("f"))->setModified(time);
    EXPECT_EQ(vfs().summarizeItemsIn("")->hasChild("Modified"), time != never);
    EXPECT_EQ(vfs().getInfo("x")->modified, time);
    remount();
    EXPECT_EQ(vfs().listItems("").front().info.modified, time);
    EXPECT_EQ(vfs().getInfo("x")->created, TarnVFSTime());
    EXPECT_EQ(vfs().getInfo("f")->modified, time);
  }
  // Stored by a program that did not note whether a time was told.
  const auto old = TarnVFSFile::Create();
  modify(old)->setValue("Modified", TarnData(std::int64_t{5}));
  EXPECT_EQ(old->getInfo().modified, (TarnVFSTime{5, 0}));
  EXPECT_EQ(old->getInfo().created, never);
}

TEST_F(ContentTest, StaysWhatItIsUnlessThatIsTold) {
  using Mode = TarnVFSWriter::Mode;
  put("x", "target");
  EXPECT_EQ(vfs().getInfo("x")->kind, TarnVFSInfo::Kind::kFile);
  modify(xcptref<TarnVFSFile>(vfs().getItem("x")))->setKind(TarnVFSInfo::Kind::kLink);
  for (const Mode mode : {Mode::kUpdate, Mode::kReplace}) {
    TarnVFSWriter writer(vfs(), "x", mode);
    writer.write("elsewhere");
    writer.finish();
    EXPECT_EQ(vfs().getInfo("x")->kind, TarnVFSInfo::Kind::kLink);
  }
  TarnVFSWriter writer(vfs(), "x");
  writer.setKind(TarnVFSInfo::Kind::kFile);
  writer.finish();
  EXPECT_EQ(vfs().getInfo("x")->kind, TarnVFSInfo::Kind::kFile);
}

// Nothing of a file system is lost in the text form of its branch.
TEST_F(ContentTest, ComesBackFromAnExport) {
  vfs().createFolder("a");
  put("a~small", std::string("\0\xFF~\n\"", 5));
  put("a~large", Bytes(3 * kPiece + 11, 9));
  const Tree before = tree();
  const std::string file = directory().file("export");
  manager().exportTo("files", file.c_str());
  manager().deleteBranch("files");
  manager().set("files", manager().importFromFile(file.c_str()));
  mount();
  EXPECT_TRUE(tree() == before);
}

}  // namespace
}  // namespace tarns
