#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/TempFile.h>
#include <tarns/util/XException.h>

#include <filesystem>
#include <string>

#include "support/scratch_directory.h"

namespace tarns {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode;
}

// Sets the umask for as long as it lives.
class Umask {
 public:
  explicit Umask(mode_t mask) : previous_(::umask(mask)) {}
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;
  ~Umask() { ::umask(previous_); }

 private:
  mode_t previous_;
};

TEST(FileFPTest, ReadsBackWhatItWrote) {
  const scratch_directory scratch;
  const std::string path = scratch.file("file");
  std::string content = "1\n0: host:100\n";
  for (int i = 0; i < 20; ++i) content += content;  // 14 MiB
  FileFP::WriteToFile(path.c_str(), content);
  EXPECT_TRUE(FileFP::ReadBytes(path.c_str()) == content);
  FileFP::WriteToFile(path.c_str(), std::string_view("a\0b", 3));
  XString text;
  EXPECT_TRUE(FileFP::ReadFromFile(path.c_str(), text, 1));
  EXPECT_EQ(text, "a");
  EXPECT_EQ(FileFP::ReadBytes(path.c_str()).size(), 3U);
}

TEST(FileFPTest, FindsAndSetsExtensions) {
  const struct {
    const char *path, *extension, *without, *with;  // null: none
  } cases[] = {
      {"a.txt", "txt", "a", "a.x"},
      {"a.tar.gz", "gz", "a.tar", "a.tar.x"},
      {"a", nullptr, "a", "a.x"},
      {"a.", "", "a", "a.x"},
      {".a", nullptr, ".a", ".a.x"},
      {"..", nullptr, "..", "...x"},
      {"d.d/a", nullptr, "d.d/a", "d.d/a.x"},
      {"d.d/.a.b", "b", "d.d/.a", "d.d/.a.x"},
      {"", nullptr, "", ".x"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.path);
    EXPECT_STREQ(FileFP::FindExtension(test.path), test.extension);
    XString path(test.path);
    FileFP::SetExtension(path, nullptr);
    EXPECT_EQ(path, test.without);
    path = test.path;
    FileFP::SetExtension(path, "x");
    EXPECT_EQ(path, test.with);
  }
  EXPECT_EQ(FileFP::FindExtension(nullptr), nullptr);
}

TEST(FileFPTest, WritesWithTheGivenPermissionsAndReplacesLinks) {
  const scratch_directory scratch;
  const std::string target = scratch.file("target");
  const std::string link = scratch.file("link");
  FileFP::WriteToFile(target.c_str(), "untouched");
  std::filesystem::create_symlink(target, link);
  for (const mode_t mask : {0, 077, 0777}) {
    const Umask umask(mask);
    FileFP::WriteToFile(link.c_str(), "new", 0640);
    EXPECT_EQ(ModeOf(link), static_cast<mode_t>(S_IFREG | 0640));
  }
  EXPECT_EQ(FileFP::ReadBytes(target.c_str()), "untouched");
  EXPECT_EQ(ModeOf(target), static_cast<mode_t>(S_IFREG | 0600));
}

TEST(FileFPTest, NamesTheFileInErrorsAndLeavesNothingBehind) {
  const scratch_directory scratch;
  const std::string missing = scratch.file("missing/file");
  XString text("kept");
  EXPECT_FALSE(FileFP::ReadFromFile(missing.c_str(), text, 0));
  EXPECT_EQ(text, "kept");
  EXPECT_THAT([&] { FileFP::ReadFromFile(missing.c_str(), text, 1); },
              ThrowsMessage<XException>("Cannot read the file \"" + missing +
                                        "\": No such file or directory."));
  EXPECT_THAT([&] { FileFP::ReadBytes(scratch.path().c_str()); },
              ThrowsMessage<XException>(HasSubstr("Is a directory")));
  EXPECT_THROW(FileFP::ReadBytes(nullptr), XException);
  EXPECT_THROW(FileFP::WriteToFile(missing.c_str(), "x"), XException);
  EXPECT_THROW(FileFP::WriteToFile(scratch.path().c_str(), "x"), XException);
  EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
}

TEST(TempFileTest, IsPrivateAndGoesUnlessKept) {
  const scratch_directory scratch;
  const Umask umask(0);
  std::string gone;
  std::string kept;
  {
    TempFile first(scratch.path().string(), "x-");
    TempFile second(scratch.path().string(), "x-");
    gone = first.getPath();
    kept = second.getPath();
    EXPECT_NE(gone, kept);
    EXPECT_THAT(gone, testing::StartsWith(scratch.file("x-")));
    EXPECT_EQ(ModeOf(gone), static_cast<mode_t>(S_IFREG | 0600));
    second.write("abc");
    second.sync();
    second.keep();
  }
  EXPECT_FALSE(std::filesystem::exists(gone));
  EXPECT_EQ(FileFP::ReadBytes(kept.c_str()), "abc");
  EXPECT_THAT([&] { TempFile(scratch.file("nowhere")); },
              ThrowsMessage<XException>(HasSubstr(scratch.file("nowhere"))));
}

}  // namespace
}  // namespace tarns
