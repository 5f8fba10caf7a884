// tarns vfs: real trees that go into the database and come back, and everything in between.
#include <gmock/gmock.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSFile.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "support/killed_process.h"
#include "support/run_program.h"
#include "tools/vfs_command.h"

namespace tarns {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;

namespace fs = std::filesystem;

std::string Bytes(std::size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
  return bytes;
}

void Write(const fs::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

void SetTime(const fs::path& path, timespec time) {
  const timespec times[2] = {time, time};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), &times[0], AT_SYMLINK_NOFOLLOW), 0) << path;
}

// Everything below a directory, and itself as "": kind, mode, time and content of each path.
std::map<std::string, std::string> PictureOf(const fs::path& top) {
  std::map<std::string, std::string> picture;
  const auto add = [&](const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    std::string text = std::to_string(S_ISLNK(status.st_mode) ? S_IFLNK : status.st_mode) + " " +
                       std::to_string(status.st_mtim.tv_sec) + "." +
                       std::to_string(status.st_mtim.tv_nsec) + " ";
    if (S_ISLNK(status.st_mode)) text += fs::read_symlink(path).string();
    if (S_ISREG(status.st_mode)) {
      std::ifstream file(path, std::ios::binary);
      text += std::string(std::istreambuf_iterator<char>(file), {});
    }
    picture[path.string().substr(top.string().size())] = text;
  };
  add(top);
  for (const auto& entry : fs::recursive_directory_iterator(top)) add(entry.path());
  return picture;
}

class VfsCommandTest : public testing::Test {
 protected:
  VfsCommandTest() { EXPECT_EQ(run({"init"}).status, 0); }

  std::vector<std::string> command(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{PROGRAM_TARNS_COMMAND, "-d", file("db")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }
  program_result run(const std::vector<std::string>& arguments) {
    return run_program(command(arguments));
  }
  // One that must succeed; its output.
  std::string vfs(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "vfs");
    const program_result result = run(arguments);
    EXPECT_EQ(result.status, 0) << arguments[1] << ": " << result.err;
    return result.out;
  }
  // Runs `work(files)` on the file system in a session of the test's own.
  template <class Work>
  void inSession(const Work& work) {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect((file("db") + "/tarns.conf").c_str());
    const TarnAttachment attachment(manager);
    TarnVFS files(manager, manager.getNoFail("files"));
    work(files);
  }
  std::string file(const std::string& name) { return directory_.file(name); }

 private:
  scratch_directory directory_;
};

// A tree with everything that is awkward about real ones.
void MakeAwkwardTree(const fs::path& top) {
  fs::create_directories(top / "empty");
  fs::create_directories(top / "a~b" / "%7E");
  Write(top / "a~b" / "~", "tilde");
  Write(top / "a~b" / "%7E" / "%25", "percent");
  Write(top / "...", "dots");
  Write(top / ".hidden", "");
  Write(top / "report(2).txt", "brackets");
  Write(top / "new\nline \\ \"quote\"", "odd");
  Write(top / "gr\xC3\xBC\xC3\x9F", "utf-8");
  Write(top / "\xFF\xFE", "no utf-8");
  Write(top / std::string(255, 'n'), "long");
  const std::size_t piece = TarnVFSContent::kPieceSize;
  Write(top / "piece", Bytes(piece, 1));
  Write(top / "more", Bytes(piece + 1, 2));
  Write(top / "zeros", std::string(3 * piece, '\0'));
  Write(top / "big", Bytes(9 << 20, 3));
  for (int i = 0; i < 300; ++i) Write(top / "empty" / std::to_string(i), std::to_string(i));
  fs::create_symlink("../outside", top / "link");
  fs::create_symlink("empty", top / "directory link");
  fs::create_symlink("no such", top / "a~b" / "broken~link");
  fs::permissions(top / "piece", fs::perms(04751));
  fs::permissions(top / "more", fs::perms(0400));
  SetTime(top / "report(2).txt", {-1, 999'999'999});
  SetTime(top / "more", {1'000'000'000, 1});
  SetTime(top / "link", {7, 8});
  SetTime(top / "piece", {0, 0});
  SetTime(top / "directory link", {0, 0});
  SetTime(top / "a~b" / "%7E", {5'000'000'000, 123});
  fs::permissions(top / "a~b" / "%7E", fs::perms(0500));
  SetTime(top / "empty", {0, 0});
}

TEST_F(VfsCommandTest, RealTreesComeBackAsTheyWere) {
  const fs::path source = file("source");
  MakeAwkwardTree(source);
  ASSERT_EQ(::mkfifo((source / "pipe").c_str(), 0600), 0);
  SetTime(source, {1, 2});
  program_result result = run({"vfs", "put", source, "a~tree"});
  EXPECT_EQ(result.status, 3) << "something was skipped";
  EXPECT_THAT(result.err, AllOf(HasSubstr("pipe"), HasSubstr("skipped")));
  fs::remove(source / "pipe");
  SetTime(source, {1, 2});
  vfs({"get", "a~tree", file("copy")});
  const auto before = PictureOf(source);
  EXPECT_TRUE(PictureOf(file("copy")) == before);

  // Putting it again changes nothing; a file that is left out stays.
  fs::remove(source / "...");
  SetTime(source, {1, 2});
  vfs({"put", source.string() + "/", "a~tree"});
  vfs({"get", "a~tree", file("again")});
  EXPECT_TRUE(PictureOf(file("again")) == before);
  // The copy is written over when asked for only.
  result = run({"vfs", "get", "a~tree", file("copy")});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("File exists"));
  Write(fs::path(file("copy")) / "big", "changed");
  vfs({"get", "a~tree", file("copy"), "--overwrite"});
  EXPECT_TRUE(PictureOf(file("copy")) == before);
  fs::permissions(source / "a~b" / "%7E", fs::perms(0700));
  for (const char* copy : {"copy", "again"}) {
    fs::permissions(fs::path(file(copy)) / "a~b" / "%7E", fs::perms(0700));
  }
}

TEST_F(VfsCommandTest, EveryNameHasAnInverse) {
  std::minstd_rand random(7);
  for (int round = 0; round < 20'000; ++round) {
    std::string name;
    for (std::size_t i = random() % 8; i > 0; --i) name += "~%72E5a"[random() % 7];
    const std::string inTree = NameInTree(name);
    EXPECT_EQ(inTree.find('~'), std::string::npos);
    ASSERT_EQ(NameOfFile(inTree), name);
  }
}

TEST_F(VfsCommandTest, SingleFilesGoToPathsAndIntoFolders) {
  Write(file("x.txt"), "hello");
  vfs({"put", file("x.txt")});
  vfs({"mkdir", "f~g"});
  vfs({"put", file("x.txt"), "f"});
  vfs({"put", file("x.txt"), "new~y"});
  EXPECT_EQ(vfs({"cat", "x.txt"}) + vfs({"cat", "f~x.txt"}) + vfs({"cat", "new~y"}),
            "hellohellohello");
  fs::create_directory(file("dir"));
  vfs({"get", "new~y", file("dir")});
  vfs({"get", "new~y", file("z")});
  EXPECT_TRUE(fs::exists(file("dir") + "/y"));
  EXPECT_TRUE(fs::exists(file("z")));
  vfs({"put", "--base", "other~place", file("x.txt")});
  EXPECT_EQ(vfs({"ls", "--base", "other~place"}), "x.txt\n");

  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* message;
  } failures[] = {
      {{"vfs", "put", file("none")}, 1, "none"},
      {{"vfs", "get", "none"}, 1, "\"none\""},
      {{"vfs", "get", "x.txt", file("none") + "/x"}, 3, "none"},
      {{"vfs", "cat", "f"}, 1, "\"f\""},
      {{"vfs", "ls", "none"}, 1, "\"none\""},
      {{"vfs", "ls", "--base", "none"}, 1, "none"},
      {{"vfs", "mv", "f", "f~g"}, 3, "within"},
      {{"vfs", "mv", "none", "f"}, 1, "\"none\""},
      {{"vfs", "mv", "f", "no~such"}, 1, "There is no folder \"no\""},
      {{"vfs", "mv", "f~x.txt", "g~"}, 1, "There is no folder \"g\""},
      {{"vfs", "mv", "f", "f~g~h"}, 3, "that is within it"},
      {{"vfs", "mv", "", "f"}, 3, "is the whole file system"},
      {{"vfs", "cp", "--share", "none", "f"}, 1, "\"none\""},
      {{"vfs", "cp", "--share", "f", "h"}, 2, "is for items"},
      {{"vfs", "mkdir", "x.txt"}, 3, "There is an item \"x.txt\""},
      {{"vfs", "mkdir", "x.txt~h"}, 3, "There is an item \"x.txt\""},
      {{"vfs", "put", file("x.txt"), "x.txt~h~i"}, 3, "There is an item \"x.txt\""},
      {{"vfs", "mv", "f~g", "x.txt"}, 3, "There is an item \"x.txt\""},
      {{"vfs", "cp", "-r", "f", "new~y"}, 3, "There is an item \"new~y\""},
      {{"vfs", "stat", "x.txt~"}, 1, "\"x.txt~\""},
      {{"vfs", "cp", "f", "h"}, 2, "-r"},
      {{"vfs", "rm", "f"}, 2, "-r"},
      {{"vfs", "bin", "restore", "7"}, 1, "7"},
      {{"vfs", "bin", "rm", "18446744073709551616"}, 2, "\"18446744073709551616\""},
      {{"vfs", "bin", "empty", "--older", "-5"}, 2, "\"-5\""},
      {{"vfs", "bin", "ls", "--format", "raw"}, 2, "table and json"},
      {{"vfs", "put", file("dir"), "x.txt"}, 2, "is an item"},
      {{"vfs"}, 2, "subcommand"},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.arguments.size() > 1 ? failure.arguments[1] : "");
    const program_result result = run(failure.arguments);
    EXPECT_EQ(result.status, failure.status) << result.err;
    EXPECT_THAT(result.err, HasSubstr(failure.message));
  }
}

TEST_F(VfsCommandTest, ChangesAndLists) {
  Write(file("x"), "12345");
  vfs({"put", file("x"), "a~x.txt"});
  vfs({"cp", "a~x.txt", "a"});
  vfs({"cp", "--share", "a~x.txt", "shared"});
  inSession([](TarnVFS& files) { files.createFolder("a~x.txt"); });
  vfs({"cp", "-r", "a", "b"});
  EXPECT_EQ(vfs({"ls", "a"}), "x(1).txt\nx.txt\nx.txt\n");
  EXPECT_EQ(vfs({"ls", "a", "--limit", "1", "--after", "x(1).txt"}), "x.txt\n");
  EXPECT_EQ(vfs({"tree"}),
            ".\n  a/\n    x(1).txt  (5)\n    x.txt/\n    x.txt  (5)\n"
            "  b/\n    x(1).txt  (5)\n    x.txt/\n    x.txt  (5)\n  shared  (5)\n");
  EXPECT_THAT(vfs({"stat", "shared"}), AllOf(HasSubstr("references:  2"),
                                             HasSubstr("type:        application/octet-stream")));
  EXPECT_THAT(vfs({"--format", "json", "ls", "a"}),
              AllOf(HasSubstr(R"("name": "x.txt", "kind": "file", "size": 5)"),
                    HasSubstr(R"("kind": "folder")"), HasSubstr(R"("references": 2)")));
  EXPECT_THAT(vfs({"--format", "table", "ls"}), HasSubstr("MODE"));
  vfs({"rm", "a~x.txt", "--bin"});
  vfs({"rm", "-r", "b", "--bin"});
  vfs({"mkdir", "c"});
  vfs({"mv", "a", "c~d"});
  EXPECT_THAT(vfs({"bin", "ls"}), AllOf(HasSubstr("a~x.txt"), HasSubstr("folder")));
  EXPECT_EQ(vfs({"bin", "restore", "1"}), "a~x.txt\n");
  vfs({"bin", "empty"});
  EXPECT_EQ(vfs({"--format", "json", "bin", "ls"}), "[]\n");
  EXPECT_EQ(vfs({"tree"}),
            ".\n  a/\n    x.txt  (5)\n  c/\n    d/\n      x(1).txt  (5)\n      x.txt/\n"
            "  shared  (5)\n");
  EXPECT_EQ(run({"check", "--full"}).status, 0);
}

// What only looks, and what cannot be done, leaves a database as it was.
TEST_F(VfsCommandTest, LookingAndFailingMakeNoFileSystem) {
  ASSERT_EQ(run({"set", "app", "5"}).status, 0);
  Write(file("x"), "12345");
  const std::string before = run({"export", ""}).out;
  const std::vector<std::vector<std::string>> calls{{"ls"},
                                                    {"tree"},
                                                    {"stat"},
                                                    {"cat", "x"},
                                                    {"get", "x"},
                                                    {"mv", "x", "y"},
                                                    {"cp", "x", "y"},
                                                    {"rm", "x"},
                                                    {"bin", "ls"},
                                                    {"bin", "rm", "1"},
                                                    {"bin", "restore", "1"},
                                                    {"bin", "empty"},
                                                    {"put", file("none")}};
  for (const char* base : {"files", "app", "none"}) {
    for (std::vector<std::string> call : calls) {
      SCOPED_TRACE(call[0] + " in " + base);
      const bool isPut = call[0] == "put";
      call.insert(call.begin(), "vfs");
      call.insert(call.end(), {"--base", base});
      const program_result result = run(call);
      EXPECT_EQ(result.status, 1) << result.err;
      EXPECT_THAT(result.err, HasSubstr(isPut ? "No such file" : "There is no file system below"));
      EXPECT_THAT(result.err, testing::Not(HasSubstr("Ended early")));
    }
  }
  for (const std::vector<std::string>& call :
       {std::vector<std::string>{"mkdir", "a~~b"}, {"put", file("x"), "a~~b"}, {"put", "/"}}) {
    std::vector<std::string> all{"vfs"};
    all.insert(all.end(), call.begin(), call.end());
    EXPECT_NE(run(all).status, 0);
  }
  EXPECT_EQ(run({"export", ""}).out, before);
}

// A "~" at the end of a path means the folder of two things that bear one name.
TEST_F(VfsCommandTest, AFolderBesideAnItemOfItsNameIsNamedByAMark) {
  Write(file("x"), "12345");
  vfs({"put", file("x"), "n"});
  inSession([](TarnVFS& files) { files.createFolder("n~sub"); });
  EXPECT_EQ(vfs({"ls", "n"}), "n\n");
  EXPECT_EQ(vfs({"ls", "n~"}), "sub\n");
  EXPECT_THAT(vfs({"stat", "n"}), HasSubstr("file"));
  EXPECT_THAT(vfs({"stat", "n~"}), HasSubstr("folder"));
  vfs({"get", "n~", file("out")});
  EXPECT_TRUE(fs::is_directory(file("out") + "/sub"));
  vfs({"put", file("x"), "into~"});
  EXPECT_EQ(vfs({"cat", "into~x"}), "12345");
  EXPECT_EQ(run({"vfs", "mv", "n~", "m"}).status, 0);
  EXPECT_EQ(vfs({"ls"}), "into\nm\nn\n");
  const program_result refused = run({"vfs", "mv", "n", "m~sub"});
  EXPECT_EQ(refused.status, 0) << refused.err;
  EXPECT_EQ(vfs({"ls", "m~sub"}), "n\n");
  inSession([](TarnVFS& files) { files.createFolder("m~n"); });
  const program_result collides = run({"vfs", "mv", "m~sub~n", "m"});
  EXPECT_EQ(collides.status, 3);
  EXPECT_THAT(collides.err, HasSubstr("There is a folder \"m~n\" already"));
  vfs({"rm", "-r", "m~sub~"});
  EXPECT_EQ(vfs({"tree", "m~"}), "m\n  n/\n");
}

// A whole file system that was got goes back to where it was.
TEST_F(VfsCommandTest, TheWholeFileSystemGoesOutAndBack) {
  Write(file("x"), "12345");
  vfs({"put", file("x"), "a~x"});
  vfs({"put", file("x"), ""});
  EXPECT_EQ(vfs({"ls"}), "a\nx\n");
  vfs({"get", "", file("out")});
  vfs({"rm", "-r", "a"});
  vfs({"put", file("out"), ""});
  EXPECT_EQ(vfs({"tree"}), ".\n  a/\n    x  (5)\n  x  (5)\n");
  vfs({"get", "", file("again")});
  EXPECT_EQ(PictureOf(file("out")), PictureOf(file("again")));
}

// A directory that cannot be read for want of files to open is named with that reason.
TEST_F(VfsCommandTest, PutTellsThatTooManyFilesAreOpen) {
  fs::path deep = file("deep");
  for (int level = 0; level < 100; ++level) deep /= "d";
  fs::create_directories(deep);
  const program_result result =
      run_program({"/bin/sh", "-c",
                   "ulimit -n 64; " + std::string(PROGRAM_TARNS_COMMAND) + " -d '" + file("db") +
                       "' vfs put '" + file("deep") + "' d"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("Too many open files"));
  EXPECT_THAT(result.err, testing::Not(HasSubstr("Bad file descriptor")));
}

// A long file takes the place of a link, and is a file.
TEST_F(VfsCommandTest, PutReplacesLinksByFiles) {
  for (const std::size_t size : {std::size_t{5}, std::size_t{2} << 20}) {
    const std::string bytes = Bytes(size, 3);
    fs::create_symlink("target", file("x"));
    vfs({"put", file("x"), "y"});
    EXPECT_THAT(vfs({"stat", "y"}), HasSubstr("leads to:"));
    fs::remove(file("x"));
    Write(file("x"), bytes);
    vfs({"put", file("x"), "y"});
    EXPECT_THAT(vfs({"stat", "y"}), testing::Not(HasSubstr("leads to:")));
    EXPECT_TRUE(vfs({"cat", "y"}) == bytes);
    fs::remove(file("x"));
  }
}

// The text form has every byte of a content; JSON refuses what it cannot have.
TEST_F(VfsCommandTest, ContentIsExportedWholeOrNotAtAll) {
  const std::string bytes = std::string("a\0~\n\xFF", 5) + Bytes(3 * TarnVFSContent::kPieceSize, 5);
  Write(file("large"), bytes);
  Write(file("nul"), bytes.substr(0, 2));
  for (const char* name : {"large", "nul"}) {
    vfs({"put", "--base", name, file(name)});
    const program_result json = run({"export", name, "--format", "json"});
    EXPECT_EQ(json.status, 3);
    EXPECT_THAT(json.err, HasSubstr("which JSON cannot express"));
    ASSERT_EQ(run({"export", name, file("text"), "--format", "text"}).status, 0);
    ASSERT_EQ(run({"import", file("text"), "copy", "--format", "text", "--replace"}).status, 0);
    EXPECT_TRUE(vfs({"cat", "--base", "copy", name}) == vfs({"cat", "--base", name, name}));
  }
}

// What a file system holds does not lead out of the target of a get, nor do links that lie there.
TEST_F(VfsCommandTest, GetStaysWithinItsTarget) {
  inSession([](TarnVFS& files) {
    const auto evil = [&](const char* name) {
      const auto item = TarnVFSFile::Create();
      modify(item)->setContent(TarnVFSContent("evil"));
      files.addItem(std::string("f~") + name, item, true, false);
    };
    files.createFolder("f~..");
    files.createFolder("f~a/b");
    files.createFolder("f~out");
    for (const char* name : {"..", ".", "../escaped", "/tmp/escaped", "a/b", "good"}) evil(name);
    files.addItem("f~out~file", TarnVFSFile::Create(), false, false);
    files.addItem("f~..~file", TarnVFSFile::Create(), false, false);
  });
  const fs::path target = file("target");
  fs::create_directory(target);
  fs::create_directory(file("outside"));
  fs::create_directory_symlink(file("outside"), target / "out");
  Write(file("precious"), "precious");
  const auto outside = PictureOf(file("outside"));
  program_result result = run({"vfs", "get", "f", target});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, AllOf(HasSubstr("No file can have this name"),
                                HasSubstr("No directory can have this name"), HasSubstr("out\"")));
  EXPECT_TRUE(fs::exists(target / "good"));
  EXPECT_TRUE(PictureOf(file("outside")) == outside);
  EXPECT_EQ(std::distance(fs::directory_iterator(target), fs::directory_iterator()), 2);
  // A link in the place of a file is replaced, not followed.
  fs::remove(target / "good");
  fs::create_symlink(file("precious"), target / "good");
  run({"vfs", "get", "f", target, "--overwrite"});
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target / "good")));
  EXPECT_EQ(fs::file_size(file("precious")), 8u);
}

// An item that cannot be written leaves what it was to replace, and nothing beside it; its name
// does not lead out of a directory that it goes into.
TEST_F(VfsCommandTest, GetKeepsWhatItCannotReplace) {
  inSession([](TarnVFS& files) {
    const auto link = [&](const char* name, const TarnVFSContent& content) {
      const auto item = TarnVFSFile::Create();
      modify(item)->setContent(content);
      modify(item)->setKind(TarnVFSInfo::Kind::kLink);
      files.addItem(std::string("f~") + name, item, false, false);
    };
    files.createFolder("f");
    link("nul", TarnVFSContent(std::string_view("a\0b", 3)));
    TarnVFSContent huge;
    huge.size = std::uint64_t{1} << 60;
    link("huge", huge);
    link("../escaped", TarnVFSContent("x"));
  });
  const fs::path target = file("target");
  fs::create_directory(target);
  for (const char* name : {"nul", "huge"}) Write(target / name, name);
  const auto before = PictureOf(target);
  const program_result result = run({"vfs", "get", "f", target, "--overwrite"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, AllOf(HasSubstr("Invalid argument"), HasSubstr("File name too long")));
  const auto after = PictureOf(target);
  EXPECT_EQ(after.size(), before.size());
  for (const char* name : {"/nul", "/huge"}) EXPECT_EQ(after.at(name), before.at(name));
  EXPECT_THAT(vfs({"stat", "f~huge"}), HasSubstr("longer than links can be"));

  const program_result escaping = run({"vfs", "get", "f~../escaped", target});
  EXPECT_EQ(escaping.status, 2);
  EXPECT_THAT(escaping.err, HasSubstr("no file can have its name"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(file("escaped"))));
}

TEST_F(VfsCommandTest, PutLeavesOutTheDatabaseAndFindsNames) {
  const program_result result = run({"vfs", "put", file("db"), "s"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("holds the open database; skipped"));
  EXPECT_EQ(vfs({"ls", "s"}), "tarns.conf\n");
  fs::create_directories(file("named") + "/sub");
  vfs({"put", file("named") + "/."});
  vfs({"put", file("named") + "/sub/..", "f"});
  EXPECT_EQ(vfs({"ls"}), "f\nnamed\ns\n");
  EXPECT_EQ(run({"vfs", "put", "/"}).status, 2);

  inSession(
      [](TarnVFS& files) { files.createFolder("closed", nullptr, TarnVFSFolder::kNoSubFolders); });
  const program_result refused = run({"vfs", "put", file("named"), "closed"});
  EXPECT_EQ(refused.status, 3);
  EXPECT_THAT(refused.err, HasSubstr("takes no sub-folders"));
  EXPECT_EQ(vfs({"ls", "closed"}), "");
}

TEST_F(VfsCommandTest, PutGivesItemsWithoutContentContent) {
  fs::create_directories(file("s"));
  Write(file("s") + "/x", "bytes");
  inSession([](TarnVFS& files) {
    files.createFolder("s");
    const auto item = TarnVFSItem::Create();
    modify(item)->setValue("colour", TarnData("red"));
    files.addItem("s~x", item, false, false);
  });
  vfs({"put", file("s"), "s"});
  EXPECT_EQ(vfs({"cat", "s~x"}), "bytes");
  inSession([](TarnVFS& files) {
    EXPECT_STREQ(files.getItem("s~x")->getXString("colour"), "red");
    EXPECT_EQ(files.getItem("s~x")->getRefCount(), 1u);
  });
}

TEST_F(VfsCommandTest, FoldersWithinThemselvesAreShownOnce) {
  inSession([](TarnVFS& files) {
    files.createFolder("a~b");
    const auto b = files.getFolder("a~b");
    modify(b)->getChildWithNameNoFail("vfsFolders", TarnObject::GetType());
    modify(b->getFoldersNode())->addChild("c", files.getFolder("a"));
  });
  EXPECT_EQ(vfs({"tree"}), ".\n  a/\n    b/\n      c/  (within itself)\n");
  const program_result result = run({"vfs", "get", "a", file("got")});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("within itself; skipped"));
  EXPECT_TRUE(fs::is_directory(file("got") + "/b"));
}

TEST_F(VfsCommandTest, TellsWhatCouldNotBeReadOrWritten) {
  fs::create_directories(file("s") + "/closed");
  Write(file("s") + "/good", "1");
  Write(file("s") + "/zz", "2");
  Write(file("s") + "/secret", "3");
  fs::permissions(file("s") + "/secret", fs::perms(0));
  const bool isRoot = ::geteuid() == 0;
  const program_result result = run({"vfs", "put", file("s"), "s"});
  EXPECT_EQ(result.status, isRoot ? 0 : 3);
  if (!isRoot) {
    EXPECT_THAT(result.err, AllOf(HasSubstr("secret"), HasSubstr("Permission denied")));
  }
  EXPECT_THAT(vfs({"ls", "s"}), AllOf(HasSubstr("good"), HasSubstr("zz")));
  if (::access("/dev/full", W_OK) == 0) {
    const program_result full = run_program({"/bin/sh", "-c",
                                             std::string(PROGRAM_TARNS_COMMAND) + " -d '" +
                                                 file("db") + "' vfs cat s~good > /dev/full"});
    EXPECT_EQ(full.status, 3);
    EXPECT_THAT(full.err, HasSubstr("No space left"));
  }
}

// Interrupted while it puts a tree: what it says is stored is there, and nothing in part.
TEST_F(VfsCommandTest, AnInterruptedPutLeavesWholeFiles) {
  const fs::path source = file("source");
  for (int d = 0; d < 10; ++d) {
    fs::create_directories(source / std::to_string(d));
    for (int i = 0; i < 100; ++i) {
      Write(source / std::to_string(d) / std::to_string(i), Bytes(4000, 1));
    }
  }
  Write(source / "0" / "large", Bytes(12 << 20, 2));
  // It is stopped when it has read more than a megabyte.
  const program_result result = run_program(
      {"/bin/sh", "-c",
       std::string(PROGRAM_TARNS_COMMAND) + " -d '" + file("db") + "' vfs put '" + source.string() +
           "' s & i=0; until grep -q '^rchar: [0-9]\\{7\\}' /proc/$!/io || "
           "[ $i -gt 3000 ]; do i=$((i + 1)); sleep 0.01; done; kill -TERM $!; wait $!"});
  EXPECT_THAT(result.status, AnyOf(0, 128 + SIGTERM));
  EXPECT_THAT(result.err, HasSubstr(result.status == 0 ? "" : "Ended early"));
  EXPECT_EQ(run({"check", "--full"}).status, 0);
  if (run({"vfs", "stat", "s"}).status == 0) {
    vfs({"get", "s", file("copy")});
    const auto whole = PictureOf(source);
    for (const auto& [path, picture] : PictureOf(file("copy"))) {
      ASSERT_TRUE(whole.contains(path)) << path;
      if (fs::is_regular_file(source.string() + path)) {
        EXPECT_TRUE(whole.at(path) == picture) << path;
      }
    }
  }
  vfs({"put", source, "s"});
  vfs({"get", "s", file("whole")});
  EXPECT_TRUE(PictureOf(file("whole")) == PictureOf(source));
}

}  // namespace
}  // namespace tarns
