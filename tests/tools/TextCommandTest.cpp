// The command with branches as text.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/run_program.h"
#include "support/scratch_directory.h"
#include "tools/BranchChanges.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class TextCommandTest : public testing::Test {
 protected:
  TextCommandTest() {
    EXPECT_EQ(run({"init"}).status, 0);
    EXPECT_EQ(run({"set", "m~press~speed", "40"}).status, 0);
    EXPECT_EQ(run({"set", "m~press~label", "a\nb"}).status, 0);
    EXPECT_EQ(run({"set", "m~saw~on", "true"}).status, 0);
  }

  program_result run(const std::vector<std::string>& arguments, const std::string& input = {}) {
    std::vector<std::string> all{PROGRAM_TARNS_COMMAND, "-d", file("db")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program(all, input);
  }
  // With an editor, which is a line for the shell.
  program_result edit(const std::string& editor, const std::string& path) {
    return run_program(
        {"/usr/bin/env", "-u", "VISUAL", "EDITOR=" + editor, "TMPDIR=" + directory_.path().string(),
         PROGRAM_TARNS_COMMAND, "-d", file("db"), "edit", path},
        {});
  }
  std::string text(const std::string& path = "") {
    return run({"export", path, "-", "--format", "text"}).out;
  }
  std::string file(const char* name) const { return directory_.file(name); }
  std::string bytesOf(const char* name) const {
    std::ifstream in(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  int numTemporaryFiles() const {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      count += static_cast<int>(entry.path().filename().string().starts_with("tarns-"));
    }
    return count;
  }

 private:
  scratch_directory directory_;
};

TEST_F(TextCommandTest, WritesAndReadsFilesByTheirEnding) {
  const std::string all = text();
  ASSERT_THAT(all, HasSubstr("\n        TarnObject press\n"));
  const std::string json = run({"export", ""}).out;
  for (const std::string name :
       {"a.txt", "a.tarns", "a.txt.zst", "a.tarns.zst", "a.json", "a", "a.json.zst", "a.zst"}) {
    SCOPED_TRACE(name);
    ASSERT_EQ(run({"export", "", file(name.c_str())}).status, 0);
    const bool isText = name.starts_with("a.t");
    EXPECT_EQ(bytesOf(name.c_str()) == (isText ? all : json), !name.ends_with(".zst"));
    ASSERT_EQ(run({"rm", "m"}).status, 0);
    const program_result imported = run({"import", file(name.c_str())});
    EXPECT_EQ(imported.status, 0) << imported.err;
    EXPECT_EQ(text(), all);
  }
  EXPECT_EQ(run({"import", "-", "copy", "--format", "text"}, text("m")).status, 0);
  EXPECT_EQ(run({"get", "copy~press~speed"}).out, "40\n");
}

TEST_F(TextCommandTest, MergesOrReplacesOrOnlySaysWhatWouldChange) {
  const std::string before = text("m");
  const std::string part =
      "TarnObject m\n  Children {\n    TarnObject press\n      Children {\n"
      "        TarnSint64Value speed\n          Value 41\n      }\n  }\n";
  const auto import = [&](const std::vector<std::string>& options) {
    std::vector<std::string> all{"import", "-", "m", "--format", "text"};
    all.insert(all.end(), options.begin(), options.end());
    return run(all, part);
  };
  EXPECT_EQ(import({"--dry-run"}).out, "- press~speed: Value 40\n+ press~speed: Value 41\n");
  EXPECT_EQ(import({"--dry-run", "--replace"}).out,
            "- press: TarnStringValue label\n- press~label: Value a\\nb\n- press~speed: Value 40\n"
            "- TarnObject saw\n- saw: TarnBooleanValue on\n- saw~on: Value True\n"
            "+ press~speed: Value 41\n");
  EXPECT_EQ(run({"import", "-", "m", "--dry-run"}, R"({"new": 1})").out,
            "+ TarnSint64Value new\n+ new: Value 1\n");
  EXPECT_EQ(text("m"), before);
  EXPECT_EQ(import({"--merge"}).status, 0);
  EXPECT_EQ(run({"get", "m~press~speed", "m~saw~on"}).out, "41\ntrue\n");
  EXPECT_EQ(import({"--replace"}).status, 0);
  EXPECT_EQ(text("m"), part);
  EXPECT_EQ(run({"import", "-", "m", "--replace"}, R"({"new": 1})").status, 0);
  EXPECT_EQ(run({"ls", "m"}).out, "new\n");
}

// Long enough to be stored in parts.
TEST_F(TextCommandTest, PutsALongTextInPlaceAsAWholeOrNotAtAll) {
  constexpr int kNodes = 25'000;
  std::string lines = "TarnObject m\n  Children {\n";
  for (int i = 0; i < kNodes; ++i) {
    lines += "    TarnSint32Value " + std::to_string(i) + "\n      Value 1\n";
  }
  const std::string before = text();
  const std::vector<std::string> replacing{"import", "-", "m", "--format", "text", "--replace"};
  const program_result cut = run(replacing, lines);
  EXPECT_EQ(cut.status, 3);
  EXPECT_THAT(cut.err, HasSubstr("the } that ends the children is missing"));
  EXPECT_EQ(text(), before);
  EXPECT_THAT(run({"gc"}).out, testing::Not(HasSubstr("removed: 0,")));
  EXPECT_EQ(run(replacing, lines + "  }\n").status, 0);
  EXPECT_EQ(run({"get", "m~0", "m~24999"}).out, "1\n1\n");
  EXPECT_EQ(run({"import", "-", "new~m", "--format", "text"}, lines + "  }\n").status, 0);
  EXPECT_EQ(text("new~m"), text("m"));
}

TEST_F(TextCommandTest, ChangesNothingWhenSomethingIsWrong) {
  const std::string before = text();
  ASSERT_EQ(run({"export", "", file("a.txt.zst")}).status, 0);
  const std::string compressed = bytesOf("a.txt.zst");
  struct Case {
    const char* file;
    std::string bytes, error;
  };
  const Case cases[] = {
      {"cut.txt.zst", compressed.substr(0, compressed.size() / 2), "the file was cut"},
      {"bad.txt.zst", "no zstd", "Cannot decompress"},
      {"cut.txt", before.substr(0, before.size() - 4), "the } that ends the children is missing"},
      {"bad.txt", "TarnObject a\n   b\n", "Line 2: "},
      {"class.txt", "Nobody a\n", "there is no class \"Nobody\""},
      {"empty.txt", "", "there is no node in the file"},
  };
  for (const Case& c : cases) {
    std::ofstream(file(c.file), std::ios::binary) << c.bytes;
    const program_result result = run({"import", file(c.file), "m", "--replace"});
    EXPECT_EQ(result.status, 3) << c.file;
    EXPECT_THAT(result.err, HasSubstr(c.error));
  }
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"import", file("cut.txt"), "--merge", "--replace"},
                                             {"import", file("cut.txt"), "--skip", "5"},
                                             {"import", "-", "--batch", "5", "--skip", "5"},
                                             {"import", "-", "--batch", "5", "--dry-run"},
                                             {"export", "", "-", "--format", "xml"}}) {
    EXPECT_EQ(run(arguments).status, 2) << arguments.back();
  }
  EXPECT_EQ(text(), before);
}

// Also several children of one name, and a node that is listed before its place.
TEST_F(TextCommandTest, ImportsInBatchesAndGoesOnWhereItStopped) {
  const std::string part =
      "TarnObject x\n  Children {\n    TarnObject a\n      Children {\n        TarnObject l\n"
      "          Children {\n            TarnSint32Value v\n              Value 1\n          }\n"
      "      }\n    TarnSint32Value b\n      Value 2\n    TarnSint32Value b\n      Value 3\n"
      "      Children {\n        TarnObject below\n      }\n    TarnObject c\n      Children {\n"
      "        TarnObject l\n          == a~l\n      }\n  }\n";
  ASSERT_EQ(run({"import", "-", "x", "--format", "text"}, part).status, 0);
  EXPECT_EQ(text("x"), part);
  const auto import = [&](const std::string& path, const std::string& batch,
                          const std::string& skip) {
    return run({"import", "-", path, "--format", "text", "--batch", batch, "--skip", skip}, part);
  };
  for (const char* batch : {"1", "2", "3", "100"}) {
    ASSERT_EQ(run({"rm", "x"}).status, 0);
    const program_result imported = import("x", batch, "0");
    EXPECT_EQ(imported.status, 0) << imported.err;
    EXPECT_EQ(text("x"), part) << batch;
  }
  // What an earlier run placed is left as it is, whatever it is by now.
  ASSERT_EQ(run({"set", "x~b", "7"}).status, 0);
  ASSERT_EQ(run({"rm", "x~c"}).status, 0);
  const program_result gone = import("x", "2", "7");
  EXPECT_EQ(gone.status, 1);
  EXPECT_THAT(gone.err, HasSubstr("\"x~c\" is there no more"));
  EXPECT_EQ(import("x", "2", "6").status, 0);
  EXPECT_EQ(run({"get", "x~b", "x~c~l~v"}).out, "7\n1\n");
  // Everything again is merged.
  EXPECT_EQ(import("x", "2", "0").status, 0);
  EXPECT_EQ(run({"get", "x~c~l~v"}).out, "1\n");
  // A value that is no number any more: nothing but what was committed is there.
  const program_result damaged =
      run({"import", "-", "y", "--format", "text", "--batch", "1"}, part + "more\n");
  EXPECT_EQ(damaged.status, 3);
  EXPECT_EQ(run({"ls", "y"}).status, 1) << "the text is read to its end first";
}

TEST_F(TextCommandTest, KeepsSeveralChildrenOfOneNameBelowTheRoot) {
  const std::string all =
      "TarnRoot \"\"\n  Children {\n    TarnSint32Value a\n      Value 1\n    TarnSint32Value a\n"
      "      Value 2\n  }\n";
  ASSERT_EQ(run({"rm", "m"}).status, 0);
  ASSERT_EQ(run({"import", "-", "--format", "text"}, all).status, 0);
  EXPECT_EQ(text(), all);
}

TEST_F(TextCommandTest, TakesOverWhatAnEditorLeaves) {
  const program_result changed = edit("sed -i s/40/41/", "m~press");
  EXPECT_EQ(changed.status, 0) << changed.err;
  EXPECT_EQ(changed.out, "- speed: Value 40\n+ speed: Value 41\n");
  EXPECT_EQ(run({"get", "m~press~speed"}).out, "41\n");
  EXPECT_EQ(edit("true", "m").out, "");
  EXPECT_EQ(edit("sed -i s/41/42/", "").status, 0);
  EXPECT_EQ(run({"get", "m~press~speed"}).out, "42\n");
  EXPECT_EQ(numTemporaryFiles(), 0);

  const std::string before = text();
  EXPECT_EQ(edit("false", "m").status, 3);
  EXPECT_EQ(edit("true", "none").status, 1);
  const program_result damaged = edit("sed -i s/42/x/", "m");
  EXPECT_EQ(damaged.status, 3);
  EXPECT_THAT(damaged.err, HasSubstr("this is no number that fits"));
  EXPECT_THAT(damaged.err, HasSubstr("The text is still in"));
  EXPECT_EQ(numTemporaryFiles(), 2) << "what was typed is kept";
  EXPECT_EQ(text(), before);
}

TEST_F(TextCommandTest, LetsOthersUseTheDatabaseWhileTheEditorRuns) {
  const auto editor = [&](const std::string& change) {
    std::ofstream script(file("editor"));
    script << PROGRAM_TARNS_COMMAND << " -d " << file("db") << ' ' << change
           << " && sed -i s/40/41/ \"$1\"\n";
    script.close();
    return "sh " + file("editor");
  };
  const program_result elsewhere = edit(editor("set other 5"), "m");
  EXPECT_EQ(elsewhere.status, 0) << elsewhere.err;
  EXPECT_EQ(elsewhere.out, "- press~speed: Value 40\n+ press~speed: Value 41\n");
  EXPECT_EQ(run({"get", "other", "m~press~speed"}).out, "5\n41\n");

  ASSERT_EQ(run({"set", "m~press~speed", "40"}).status, 0);
  for (const char* change : {"set m~press~new 7", "rm m"}) {
    const program_result refused = edit(editor(change), "m");
    EXPECT_EQ(refused.status, 3);
    EXPECT_EQ(refused.out, "");
    EXPECT_THAT(refused.err, HasSubstr("The text is still in"));
    EXPECT_THAT(refused.err,
                HasSubstr(*change == 's' ? "+ press~new: Value 7\n" : "- press~speed: Value 40\n"));
  }
  EXPECT_EQ(run({"get", "m"}).status, 1) << "what was removed does not come back";
  EXPECT_EQ(numTemporaryFiles(), 2);
}

TEST(BranchChangesTest, NamesLinesByTheirNodes) {
  const std::string old =
      "TarnObject a\n  Children {\n    Machine m\n      Speed 1\n      On True\n  }\n";
  const std::string fresh =
      "TarnObject a\n  Children {\n    Machine m\n      Speed 2\n      On True\n"
      "    TarnObject n\n  }\n";
  EXPECT_THAT(BranchChanges(old, fresh),
              ElementsAre("- m: Speed 1", "+ m: Speed 2", "+ TarnObject n"));
  const auto list = [](const std::string& values) {
    std::string text = "TarnObject a\n  Children {\n";
    for (const char value : values) {
      text += std::string("    TarnStringValue ") + value + "\n      Value " + value + "\n";
    }
    return text + "  }\n";
  };
  EXPECT_THAT(
      BranchChanges(list("abcd"), list("bxde")),
      ElementsAre("- TarnStringValue a", "- a: Value a", "- TarnStringValue c", "- c: Value c",
                  "+ TarnStringValue x", "+ x: Value x", "+ TarnStringValue e", "+ e: Value e"));
  EXPECT_THAT(BranchChanges(old, old), ElementsAre());
  EXPECT_EQ(BranchChanges("", old).size(), 4U);
}

}  // namespace
}  // namespace tarns
