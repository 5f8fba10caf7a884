// The command as people run it.
#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "support/killed_process.h"
#include "support/run_on_terminal.h"
#include "support/run_program.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class CommandTest : public testing::Test {
 protected:
  CommandTest() { EXPECT_EQ(run({"init"}).status, 0); }

  program_result run(const std::vector<std::string>& arguments, const std::string& input = {}) {
    std::vector<std::string> all{PROGRAM_TARNS_COMMAND, "-d", database()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program(all, input);
  }
  std::string database() const { return directory_.file("db"); }
  const scratch_directory& directory() const { return directory_; }

 private:
  scratch_directory directory_;
};

TEST_F(CommandTest, AnswersAsInTheManual) {
  struct Case {
    std::vector<std::string> arguments;
    std::string input;
    int status;
    std::string out;
    std::string err;  // a part of it; empty: nothing may be there
  };
  // One after the other on one database.
  const Case cases[] = {
      {{"ls"}, "", 0, "", ""},
      {{"set", "m~press~speed", "40"}, "", 0, "", ""},
      {{"set", "m~press~on", "true"}, "", 0, "", ""},
      {{"set", "m~press~load", "-2.5e3"}, "", 0, "", ""},
      {{"set", "m~press~serial", "0042"}, "", 0, "", ""},
      {{"set", "m~saw"}, "", 0, "", ""},
      {{"set", "m~press~speed"}, "", 0, "", ""},
      {{"set", "m~press~load"}, "", 0, "", ""},
      {{"set", "m~press~on", "--file", ""}, "", 3, "", "\"\""},
      {{"get", "m~press~speed"}, "", 0, "40\n", ""},
      {{"get", "m~press~load", "m~press~on"}, "", 0, "-2500\ntrue\n", ""},
      {{"--format", "table", "get", "m~press~serial", "m~press~load"},
       "",
       0,
       "PATH            TYPE    VALUE\nm~press~serial  String  0042\n"
       "m~press~load    Double  -2500\n",
       ""},
      {{"get", "m~press"}, "", 1, "", "No value exists at the specified path \"m~press\"."},
      {{"get", "m~x"}, "", 1, "", "The specified path \"m~x\" does not exist."},
      {{"set", "m~press", "5"}, "", 3, "", "Cannot store value \"5\""},
      {{"ls", "m"}, "", 0, "press\nsaw\n", ""},
      {{"ls", "m~press", "--after", "on", "--limit", "1"}, "", 0, "serial\n", ""},
      {{"ls", "--format", "table", "m"},
       "",
       0,
       "NAME   TYPE  VALUE\npress  Node  (4 children)\nsaw    Node  (0 children)\n",
       ""},
      {{"ls", "--format", "json", "m~press", "--limit", "2"},
       "",
       0,
       "[\n  {\"name\": \"load\", \"type\": \"Double\", \"value\": -2500.0, \"children\": 0},\n"
       "  {\"name\": \"on\", \"type\": \"Boolean\", \"value\": true, \"children\": 0}\n]\n",
       ""},
      {{"ls", "nowhere"}, "", 1, "", "\"nowhere\" does not exist."},
      {{"tree", "m"},
       "",
       0,
       "m\n├── press\n│   ├── load = -2500\n│   ├── on = true\n│   ├── serial = 0042\n"
       "│   └── speed = 40\n└── saw\n",
       ""},
      {{"tree", "m", "--depth", "0"}, "", 0, "m (2 children)\n", ""},
      {{"--format", "raw", "tree", "m", "--depth", "0"}, "", 0, "", ""},
      {{"--cache", "1M", "tree", "m", "--depth", "1"},
       "",
       0,
       "m\n├── press (4 children)\n└── saw\n",
       ""},
      {{"--format", "raw", "tree", "m"},
       "",
       0,
       "press~load=-2500\npress~on=true\npress~serial=0042\npress~speed=40\n",
       ""},
      {{"find", "--name", "s*"}, "", 0, "m~press~serial\nm~press~speed\nm~saw\n", ""},
      {{"find", "m~press", "--value", "4?", "--type", "sint64"}, "", 0, "m~press~speed\n", ""},
      {{"find", "--format", "json", "--value", "0042"},
       "",
       0,
       "[\n  {\"path\": \"m~press~serial\", \"type\": \"String\", \"value\": \"0042\"}\n]\n",
       ""},
      {{"find", "--name", "none"}, "", 1, "", ""},
      {{"find", "m", "--where", "speed = 40 and serial starts 00"}, "", 0, "m~press\n", ""},
      {{"find", "m", "--where", "speed = 41 or \"serial\" contains \"04\"", "--explain"},
       "",
       0,
       "m~press\n",
       "looked at 2 children of \"m\", 1 found."},
      {{"find", "m", "--where", "speed = 41"}, "", 1, "", ""},
      {{"find", "m", "--where", "speed is 40"}, "", 2, "", "\"is\" is no operator"},
      {{"find", "m", "--where", "speed = 40 and"}, "", 2, "", "ends too early"},
      {{"find", "m", "--where", "speed = 40 xor a = b"}, "", 2, "", "\"xor\""},
      {{"find", "m", "--where", "speed = \"40"}, "", 2, "", "quotation mark"},
      {{"find", "--where", "a = b", "--name", "c"}, "", 2, "", "--where"},
      {{"query", "save", "q~fast", "speed >= 40 or serial = \"a \\\"b\\\"\""}, "", 0, "", ""},
      {{"--format", "raw", "query", "show", "q~fast"},
       "",
       0,
       "speed >= 40 or serial = \"a \\\"b\\\"\"\n",
       ""},
      {{"query", "run", "q~fast", "m"}, "", 0, "m~press\n", ""},
      {{"query", "run", "m~press", "m"}, "", 2, "", "is no query"},
      {{"query", "save", "m", "a = b"}, "", 2, "", "\"m\" is no query"},
      {{"query", "run", "q~fast", "m", "--after", "press"}, "", 1, "", ""},
      {{"query", "run", "q~none", "m"}, "", 1, "", "q~none"},
      {{"rm", "q"}, "", 0, "", ""},
      {{"set", "m~press~speed", "fast"}, "", 2, "", "\"fast\" is no Sint64."},
      {{"set", "m~press~speed", "fast", "--type", "String"}, "", 0, "", ""},
      {{"set", "m~press~speed", "300", "--type", "Uint8"}, "", 2, "", "\"300\" is no Uint8."},
      {{"set", "m~press~speed", "30", "--type", "uint8"}, "", 0, "", ""},
      {{"set", "m~press~speed", "1", "--type", "Wide"}, "", 2, "", "There is no type \"Wide\"."},
      {{"get", "--format", "json", "m~press~speed"}, "", 0, "{\"~Uint8\": 30}\n", ""},
      {{"set", "m~note", "--file", "-"}, "line 1\nline 2\n", 0, "", ""},
      {{"--format", "raw", "get", "m~note"}, "", 0, "line 1\nline 2\n", ""},
      {{"set", "n", "--", "-x"}, "", 0, "", ""},
      {{"get", "n"}, "", 0, "-x\n", ""},
      {{"cp", "m~press", "c~press"}, "", 0, "", ""},
      {{"mv", "c~press", "c~moved"}, "", 0, "", ""},
      {{"mv", "c", "c~below"}, "", 3, "", "lies within the branch itself"},
      {{"mv", "c~nothing", "d"}, "", 1, "", "\"c~nothing\" does not exist."},
      {{"set", "c~more~on", "false"}, "", 0, "", ""},
      {{"mv", "c~more", "c~moved", "--merge", "--keep"}, "", 0, "", ""},
      {{"get", "c~moved~on"}, "", 0, "true\n", ""},
      {{"mv", "a", "b", "--keep"}, "", 2, "", "--merge"},
      {{"set", "from~v", "6"}, "", 0, "", ""},
      {{"set", "from~new", "7"}, "", 0, "", ""},
      {{"set", "into~v", "text"}, "", 0, "", ""},
      {{"cp", "from", "into", "--merge", "--values", "--dry-run"},
       "",
       0,
       "kept\tinto\nadded\tinto~new\ntaken over\tinto~v\n",
       ""},
      {{"cp", "from", "into", "--dry-run"}, "", 2, "", "--merge"},
      {{"cp", "from", "into", "--merge", "--keep", "--values"}, "", 2, "", "exclude"},
      {{"cp", "from", "into", "--merge", "--values"}, "", 0, "", ""},
      {{"get", "into~v"}, "", 0, "6\n", ""},
      {{"get", "from~v"}, "", 0, "6\n", ""},
      {{"cp", "from", "all~of~it", "--in-batches"}, "", 0, "", ""},
      {{"get", "all~of~it~new"}, "", 0, "7\n", ""},
      {{"rm", "from", "into", "all"}, "", 0, "", ""},
      {{"rm", "c", "nothing"}, "", 1, "", "\"nothing\" does not exist."},
      {{"rm", "c", "n", "m~note"}, "", 0, "", ""},
      {{"rm", ""}, "", 2, "", "root"},
      {{"ls"}, "", 0, "m\n", ""},
      {{"export", "m~saw"}, "", 0, "{}\n", ""},
      {{"import", "-", "m~saw"}, "{\"a\": [1, {}, []]}", 0, "", ""},
      {{"export", "m~saw", "-"}, "", 0, "{\n  \"a\": [\n    1,\n    {},\n    []\n  ]\n}\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    const program_result result = run(c.arguments, c.input);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    if (c.err.empty()) {
      EXPECT_EQ(result.err, "");
    } else {
      EXPECT_THAT(result.err, HasSubstr(c.err));
    }
  }
}

TEST_F(CommandTest, MistakesInUseAndMissingDatabases) {
  struct Case {
    std::vector<std::string> arguments;
    int status;
    const char* err;
  };
  const std::string command = PROGRAM_TARNS_COMMAND;
  const std::string nowhere = directory().file("nowhere");
  std::ofstream(directory().file("bad.conf")) << "1\nnonsense\n";
  const Case cases[] = {
      {{command}, 2, "subcommand"},
      {{command, "fly"}, 2, "subcommand"},
      {{command, "-d", database(), "get"}, 2, "PATH"},
      {{command, "-d", database(), "--format", "xml", "ls"}, 2, "xml"},
      {{command, "-d", database(), "ls", "--limit", "many"}, 2, "many"},
      {{command, "-d", database(), "ls", "--limit", "-1"}, 2, "-1"},
      {{command, "-d", database(), "find", "--limit", "-1"}, 2, "-1"},
      {{command, "-d", database(), "tree", "--depth", "-1"}, 2, "-1"},
      {{command, "-d", database(), "import", "-", "--batch", "-1"}, 2, "-1"},
      {{command, "-d", database(), "--wait", "nan", "ls"}, 2, "not a number"},
      {{command, "-d", database(), "--wait", "-1", "ls"}, 2, "range"},
      {{command, "-d", database(), "--cache", "much", "ls"}, 2, "much"},
      {{command, "-d", database(), "--format", "json", "tree", "--depth", "1"}, 2, "--depth"},
      {{command, "-d", database(), "--format", "tree", "ls", "--limit", "1"}, 2, "--limit"},
      {{command, "-d", database(), "--format", "tree", "find"}, 2, "--format tree"},
      {{command, "-d", database(), "--format", "raw", "stat"}, 2, "formats"},
      {{command, "-d", database(), "--format", "tree", "gc"}, 2, "formats"},
      {{command, "-d", database(), "--format", "raw", "check"}, 2, "formats"},
      {{command, "-d", database(), "find", "--type", "Wrong"}, 1, "\"Wrong\""},
      {{command, "-d", database(), "export", "out.json"}, 1, "before the file"},
      {{command, "-d", database(), "export", "out"}, 1, "\"out\" does not exist.\n"},
      {{command, "-d", database(), "import", "-", "x~"}, 3, "empty branch name"},
      {{command, "-d", database(), "cp", "", ""}, 3, "the root"},
      {{command, "ls"}, 2, "TARNS_DB"},
      {{command, "-d", nowhere, "ls"}, 3, "There is no database"},
      {{command, "-d", directory().file("bad.conf"), "ls"}, 3, "nonsense"},
      {{command, "-d", database(), "init"}, 3, "already"},
      {{command, "-d", database(), "import", nowhere}, 3, "Cannot read"},
      {{command, "-d", database(), "export", "", "/nowhere/x"}, 3, "Cannot write"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    const program_result result = run_program(c.arguments);
    EXPECT_EQ(result.status, c.status);
    EXPECT_THAT(result.err, HasSubstr(c.err));
    EXPECT_EQ(result.out, "");
  }
  EXPECT_FALSE(std::filesystem::exists(nowhere));
}

TEST_F(CommandTest, EveryHelpEndsWithTwoExamples) {
  for (const char* name : {"init",   "get",     "set",    "ls",     "tree",   "rm",     "cp",
                           "mv",     "find",    "query",  "stat",   "gc",     "check",  "salvage",
                           "backup", "restore", "import", "export", "bundle", "balance"}) {
    SCOPED_TRACE(name);
    const program_result result = run_program({PROGRAM_TARNS_COMMAND, name, "--help"});
    EXPECT_EQ(result.status, 0);
    const std::size_t examples = result.out.find("Examples:\n");
    ASSERT_NE(examples, std::string::npos);
    const std::string rest = result.out.substr(examples);
    EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 3) << rest;
    EXPECT_THAT(rest, HasSubstr(std::string(" ") + name));
  }
}

TEST_F(CommandTest, CheckNamesWhatIsDamagedAndSalvageBringsTheRest) {
  std::minstd_rand random(7);
  std::string text(3000, 'x');
  for (char& character : text) character = static_cast<char>('a' + random() % 26);
  ASSERT_EQ(run({"set", "a~label", text}).status, 0);
  ASSERT_EQ(run({"set", "a~b", "1"}).status, 0);
  EXPECT_EQ(run({"check"}).out, "0 faults; the objects were not looked at (--full does)\n");
  const program_result good = run({"check", "--full"});
  EXPECT_EQ(good.status, 0);
  EXPECT_THAT(good.out, testing::StartsWith("0 faults in "));
  EXPECT_EQ(run({"--format", "json", "check", "--full"}).out, "[]\n");

  const std::string file = database() + "/data/store.db";
  std::ifstream in(file, std::ios::binary);
  std::string content(std::istreambuf_iterator<char>(in), {});
  const std::size_t at = content.find(text.substr(100, 20));
  ASSERT_NE(at, std::string::npos);
  content[at] = '?';
  std::ofstream(file, std::ios::binary) << content;
  const program_result bad = run({"check", "--full"});
  EXPECT_EQ(bad.status, 4);
  EXPECT_THAT(bad.out, HasSubstr("the checksum does not match"));
  EXPECT_THAT(bad.out, testing::ContainsRegex("\na~label.* \\(object 0:[0-9]+\\): cannot be read"));
  EXPECT_THAT(run({"--format", "json", "check", "--full"}).out, HasSubstr("\"path\": \"a~label"));

  std::ofstream(file, std::ios::binary) << content.substr(0, 5000);
  const program_result cut = run({"check"});
  EXPECT_EQ(cut.status, 4);
  EXPECT_THAT(cut.out, testing::StartsWith("storage 0: "));

  // All but the text with the changed byte can be read.
  std::ofstream(file, std::ios::binary) << content;
  const std::string rescued = directory().file("rescued");
  const program_result salvaged = run({"salvage", rescued});
  EXPECT_EQ(salvaged.status, 4) << salvaged.err;
  EXPECT_THAT(salvaged.out, HasSubstr("cannot be read"));
  const std::string command = PROGRAM_TARNS_COMMAND;
  EXPECT_EQ(run_program({command, "-d", rescued, "get", "a~b"}).out, "1\n");
  EXPECT_EQ(run_program({command, "-d", rescued, "check", "--full"}).status, 0);
  EXPECT_EQ(run({"salvage", rescued}).status, 3) << "something is there";
}

TEST_F(CommandTest, GcListsAndRemovesWhatNoPathLeadsTo) {
  const auto dryRun = [&] { return run({"gc", "--dry-run"}).out; };
  ASSERT_EQ(run({"set", "kept~a", "1"}).status, 0);
  ASSERT_EQ(run({"gc"}).status, 0);
  EXPECT_EQ(dryRun(), "");
  EXPECT_EQ(run({"--format", "json", "gc", "--dry-run"}).out, "[]\n");
  ASSERT_EQ(run({"set", "gone~b", "2"}).status, 0);
  ASSERT_EQ(run({"rm", "gone"}).status, 0);
  const std::string listed = dryRun();
  EXPECT_THAT(listed, testing::MatchesRegex("OBJECT +CLASS\n(0:[0-9]+ +.+\n)+"));
  EXPECT_THAT(run({"--format", "json", "gc", "--dry-run"}).out, HasSubstr("\"object\": \"0:"));
  EXPECT_EQ(dryRun(), listed) << "nothing has gone";
  const program_result collected = run({"gc"});
  EXPECT_EQ(collected.status, 0);
  const auto lines = std::count(listed.begin(), listed.end(), '\n');
  EXPECT_THAT(collected.out, testing::MatchesRegex("objects removed: " + std::to_string(lines - 1) +
                                                   ", stayed: [1-9][0-9]*; bytes freed: [0-9]+\n"));
  EXPECT_EQ(collected.err, "");
  EXPECT_THAT(run({"--format", "json", "gc"}).out,
              testing::MatchesRegex(R"(\{"removed": 0, "stayed": [0-9]+, "freed": 0\}
)"));
  EXPECT_EQ(dryRun(), "");
  EXPECT_EQ(run({"get", "kept~a"}).out, "1\n");
  // What was freed is told although it has only just been removed.
  std::string text = "text ";  // that cannot be packed
  std::minstd_rand random;
  while (text.size() < 100'000) text += static_cast<char>('A' + random() % 58);
  ASSERT_EQ(run({"set", "gone~text", text}).status, 0);
  ASSERT_EQ(run({"rm", "gone"}).status, 0);
  EXPECT_THAT(run({"gc"}).out, testing::ContainsRegex("bytes freed: [1-9][0-9]{4,}\n"));
}

TEST_F(CommandTest, ABackupIsADatabaseAndCanBeRestored) {
  const std::string backup = directory().file("backup"), again = directory().file("again");
  const std::string text(100'000, 'x');
  ASSERT_EQ(run({"set", "long", text}).status, 0);
  ASSERT_EQ(run({"set", "a~b", "1"}).status, 0);
  const program_result made = run({"backup", backup});
  EXPECT_EQ(made.status, 0);
  EXPECT_EQ(made.out + made.err, "");
  ASSERT_EQ(run({"set", "a~b", "2"}).status, 0);
  EXPECT_EQ(run_program({PROGRAM_TARNS_COMMAND, "-d", backup, "get", "a~b"}).out, "1\n");
  ASSERT_EQ(run_program({PROGRAM_TARNS_COMMAND, "restore", backup, again}).status, 0);
  EXPECT_EQ(run_program({PROGRAM_TARNS_COMMAND, "-d", again, "get", "a~b", "long"}).out,
            "1\n" + text + '\n');

  struct Case {
    std::vector<std::string> arguments;
    int status;
    std::string err;
  };
  const std::string empty = directory().file("empty");
  std::filesystem::create_directories(empty);
  std::ofstream(empty + "/tarns.conf") << "1\n0: file:./data\n";
  const Case cases[] = {
      {{"-d", database(), "backup", backup}, 3, "already"},
      {{"-d", database(), "backup", directory().file("no/where")}, 3, "No such file"},
      {{"-d", database(), "backup"}, 2, "DIR"},
      {{"-d", database(), "restore", backup}, 3, "already"},
      {{"restore", backup}, 2, "Name the directory"},
      {{"restore", directory().file("none"), directory().file("x")}, 3, "There is no database"},
      {{"restore", empty, directory().file("x")}, 3, "There is no storage"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    std::vector<std::string> all{PROGRAM_TARNS_COMMAND};
    all.insert(all.end(), c.arguments.begin(), c.arguments.end());
    const program_result result = run_program(all);
    EXPECT_EQ(result.status, c.status);
    EXPECT_THAT(result.err, HasSubstr(c.err));
  }
  EXPECT_FALSE(std::filesystem::exists(directory().file("x")));
  EXPECT_FALSE(std::filesystem::exists(empty + "/data"));
}

// Killed or interrupted while it makes or restores a backup: there is none, or a whole one.
TEST_F(CommandTest, ABackupThatIsKilledIsWholeOrNotThere) {
  const std::string backup = directory().file("backup"), again = directory().file("again");
  for (int i = 0; i < 30; ++i) {
    ASSERT_EQ(run({"set", "t~" + std::to_string(i), std::string(100'000, 'x')}).status, 0);
  }
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_EQ(run({"backup", backup}).status, 0);
  const auto time = std::chrono::steady_clock::now() - begin;
  const auto longest = std::chrono::duration_cast<std::chrono::microseconds>(time * 3 / 2).count();
  const std::string expected = run({"--format", "json", "tree"}).out;
  const auto seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  int none = 0;
  for (int cycle = 0; cycle < 60; ++cycle) {
    const bool restores = cycle % 2 == 0;
    {
      killed_process command(
          restores
              ? std::vector<std::string>{PROGRAM_TARNS_COMMAND, "restore", backup, again}
              : std::vector<std::string>{PROGRAM_TARNS_COMMAND, "-d", database(), "backup", again});
      command.kill_after(std::chrono::microseconds(random() % longest));
    }
    if (!std::filesystem::exists(again)) {
      ++none;
      continue;
    }
    ASSERT_EQ(run_program({PROGRAM_TARNS_COMMAND, "-d", again, "--format", "json", "tree"}).out,
              expected);
    std::filesystem::remove_all(again);
  }
  EXPECT_GT(none, 0);
  EXPECT_EQ(run({"backup", again}).status, 0);
  EXPECT_FALSE(std::filesystem::exists(again + ".unfinished"));
  std::filesystem::remove_all(again);
  // An interrupted one tidies up.
  const std::string script = "\"$0\" \"$@\" & until [ -e '" + again + ".unfinished' -o -e '" +
                             again + "' ]; do :; done; kill -INT $!; wait $!";
  const program_result interrupted = run_program(
      {"/bin/bash", "-mc", script, PROGRAM_TARNS_COMMAND, "-d", database(), "backup", again});
  EXPECT_THAT(interrupted.status, testing::AnyOf(0, 128 + SIGINT));
  EXPECT_FALSE(std::filesystem::exists(again + ".unfinished"));
  EXPECT_EQ(std::filesystem::exists(again), interrupted.status == 0);
}

TEST_F(CommandTest, ControlBytesAreShownAsEscapes) {
  const std::string name = "a\x1b[2J\n\xFF\xE2\x80\xAE";  // an escape sequence, RIGHT-TO-LEFT
  ASSERT_EQ(run({"set", name, "\x1b]0;x\x07"}).status, 0);
  const std::string shown = "a\\u{1b}[2J\\n\\xff\\u{202e}";
  EXPECT_EQ(run({"ls"}).out, shown + "\n");
  EXPECT_EQ(run({"ls", "--format", "raw"}).out, name + "\n");
  EXPECT_EQ(run({"tree"}).out, "(root)\n└── " + shown + " = \\u{1b}]0;x\\u{7}\n");
  EXPECT_EQ(run({"find"}).out, shown + "\n");
  EXPECT_THAT(run({"ls", "--format", "json"}).out, HasSubstr("\"~=a\\u001b[2J\\n\\\\xff"));
  ASSERT_EQ(run({"set", "x%7Ey", "1"}).status, 0);
  EXPECT_THAT(run({"ls", "--format", "json"}).out, HasSubstr("{\"name\": \"x%7Ey\""));
  ASSERT_EQ(run({"rm", "x%7Ey"}).status, 0);
  const program_result failure = run({"get", "\x1b[31m"});
  EXPECT_EQ(failure.err, "tarns: The specified path \"\\u{1b}[31m\" does not exist.\n");
  for (const char* command : {"export", "stat"}) {
    EXPECT_EQ(run({command}).out.find('\x1b'), std::string::npos) << command;
  }
}

TEST_F(CommandTest, OnATerminalResultsAreForPeople) {
  ASSERT_EQ(run({"set", "a",
                 "\x1b]0;x\x07"
                 "line 1\nline 2"})
                .status,
            0);
  ASSERT_EQ(run({"set", "b", std::string(100, 'x')}).status, 0);
  const auto shown = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {PROGRAM_TARNS_COMMAND, "-d", database()});
    return run_on_terminal(arguments, 30).out;
  };
  EXPECT_EQ(shown({"get", "a"}), "\\u{1b}]0;x\\u{7}line 1\nline 2\n");
  EXPECT_EQ(shown({"ls"}),
            "NAME  TYPE    VALUE\n"
            "a     String  \\u{1b}]0;x\\u{7}…\n"
            "b     String  " +
                std::string(15, 'x') + "…\n");
  EXPECT_EQ(shown({"tree"}),
            "(root)\n├── a = \\u{1b}]0;x\\u{7}line 1…\n└── b = " + std::string(21, 'x') + "…\n");
  EXPECT_EQ(run({"get", "a"}).out,
            "\x1b]0;x\x07"
            "line 1\nline 2\n")
      << "as it is, in a pipe";
}

TEST_F(CommandTest, ProgressIsShownOnATerminalWhenItTakesLong) {
  struct Case {
    const char* pause;
    bool isShown;
  };
  for (const Case& c : {Case{"0", false}, Case{"1.3", true}}) {
    SCOPED_TRACE(c.pause);
    const std::string script = "json() { echo '{\"a\": ['; seq -s, 1 400; echo ','; sleep " +
                               std::string(c.pause) +
                               "; seq -s, 1 400; echo ']}'; }; json | \"$0\" -d \"$1\" import -";
    const std::vector<std::string> arguments{"/bin/bash", "-c", script, PROGRAM_TARNS_COMMAND,
                                             database()};
    const program_result result = run_on_terminal(arguments, 80);
    EXPECT_EQ(result.status, 0);
    if (c.isShown) {
      EXPECT_THAT(result.out, HasSubstr("Importing: 512 values"));
      EXPECT_THAT(result.out, HasSubstr("Importing: storing"));
      EXPECT_TRUE(result.out.ends_with("\r\x1b[K")) << "wiped in the end";
    } else {
      EXPECT_THAT(result.out, testing::Not(HasSubstr("values")));
    }
  }
}

TEST_F(CommandTest, WaitsForADatabaseThatIsInUseAndThenGivesUp) {
  // Reads from a pipe that nobody writes to, with the database open.
  const std::string pipe = directory().file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  killed_process holder({PROGRAM_TARNS_COMMAND, "-d", database(), "import", pipe, "x"});
  std::ofstream writer(pipe);
  writer << "{\"a\": 1, " << std::string(70'000, ' ') << std::flush;
  program_result result{};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  do {
    result = run({"--wait", "0.2", "ls"});
  } while (result.status == 0 && std::chrono::steady_clock::now() < deadline);
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr(database()));
  holder.kill_after(std::chrono::microseconds(0));
  EXPECT_EQ(run({"ls"}).out, "");
}

TEST_F(CommandTest, AnInterruptedImportLeavesNothingOrItsBatches) {
  struct Case {
    std::vector<std::string> options;
    const char *err, *left;
  };
  const Case cases[] = {
      {{}, "Nothing was imported.", ""},
      {{"--batch", "2"}, "The first 2 values were imported.", "a\nb\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.err);
    const std::string pipe = directory().file("pipe");
    std::filesystem::remove(pipe);
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    std::string script = "\"$0\" \"$@\" < '" + pipe + "' & sleep 0.1; exec 3> '" + pipe +
                         "'; printf '{\"a\": 1, \"b\": 2, \"c\": 3, ' >&3; "
                         "head -c 70000 /dev/zero | tr '\\0' ' ' >&3; sleep 1; "
                         "kill -TERM $!; wait $!";
    std::vector<std::string> arguments{"/bin/bash", "-mc",      script,   PROGRAM_TARNS_COMMAND,
                                       "-d",        database(), "import", "-"};
    arguments.insert(arguments.end(), c.options.begin(), c.options.end());
    const program_result result = run_program(arguments);
    EXPECT_EQ(result.status, 128 + SIGTERM);
    EXPECT_THAT(result.err, HasSubstr(c.err));
    EXPECT_EQ(run({"ls"}).out, c.left);
  }
}

TEST_F(CommandTest, AClosedPipeEndsItWithoutAWord) {
  std::string json = "{";
  for (int i = 0; i < 20'000; ++i) json += "\"name " + std::to_string(i) + "\": 1, ";
  ASSERT_EQ(run({"import", "-"}, json + "\"x\": 1}").status, 0);
  const program_result result =
      run_program({"/bin/bash", "-c", "\"$0\" -d \"$1\" ls | head -n 1; echo ${PIPESTATUS[0]}",
                   PROGRAM_TARNS_COMMAND, database()});
  EXPECT_EQ(result.out, "name 0\n" + std::to_string(128 + SIGPIPE) + "\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(CommandTest, ASignalEndsAnyCommandAndLeavesTheDatabaseAsItWas) {
  std::string json = "{";
  for (int i = 0; i < 200'000; ++i) json += "\"name " + std::to_string(i) + "\": 1, ";
  ASSERT_EQ(run({"import", "-", "a"}, json + "\"x\": 1}").status, 0);
  struct Case {
    std::vector<std::string> arguments;
    const char* input;  // a shell command whose output the command reads
  };
  const Case cases[] = {
      {{"cp", "a", "b"}, "true"},
      {{"cp", "a", "b", "--in-batches"}, "true"},
      {{"mv", "--merge", "a", ""}, "true"},
      {{"import", "-", "c"}, "printf '{\"x\": '; sleep 100"},
      {{"set", "d", "--file", "-"}, "sleep 100"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    const std::string script = std::string("exec 3< <(") + c.input +
                               "); \"$0\" \"$@\" <&3 & sleep 0.1; kill -TERM $!; wait $!";
    std::vector<std::string> all{"/bin/bash",           "-mc", script,
                                 PROGRAM_TARNS_COMMAND, "-d",  database()};
    all.insert(all.end(), c.arguments.begin(), c.arguments.end());
    const program_result result = run_program(all);
    EXPECT_EQ(result.status, 128 + SIGTERM);
    EXPECT_EQ(run({"ls"}).out, "a\n");
    EXPECT_EQ(run({"get", "a~x"}).out, "1\n");
  }
}

TEST_F(CommandTest, AFileAppearsWhenItIsComplete) {
  const std::string file = directory().file("out.json");
  ASSERT_EQ(run({"set", "a", "1"}).status, 0);
  EXPECT_EQ(run({"export", "", file}).status, 0);
  std::ifstream in(file);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "{\n  \"a\": 1\n}\n");
  EXPECT_EQ(run({"export", "missing", file + "2"}).status, 1);
  EXPECT_FALSE(std::filesystem::exists(file + "2"));
}

TEST_F(CommandTest, ExportKeepsWhatItsFileIs) {
  ASSERT_EQ(run({"set", "a", "1"}).status, 0);
  const std::string expected = "{\n  \"a\": 1\n}\n";
  const auto content = [](const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  namespace fs = std::filesystem;
  const auto mode = [](const std::string& path) {
    return static_cast<unsigned>(fs::status(path).permissions());
  };
  // A new file is for its owner only, one that exists keeps its mode.
  const std::string file = directory().file("file");
  ASSERT_EQ(run({"export", "", file}).status, 0);
  EXPECT_EQ(mode(file), 0600U);
  fs::permissions(file, fs::perms(0640));
  ASSERT_EQ(run({"export", "", file}).status, 0);
  EXPECT_EQ(mode(file), 0640U);
  // Links stay links, also one that leads nowhere yet.
  for (const char* target : {"file", "sub/new"}) {
    const std::string link = directory().file("link");
    fs::remove(link);
    fs::create_directory(directory().file("sub"));
    fs::create_symlink(target, link);
    ASSERT_EQ(run({"export", "", link}).status, 0);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(content(directory().file(target)), expected);
  }
  // A pipe stays a pipe.
  const std::string pipe = directory().file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::string read;
  std::thread reader([&] { read = content(pipe); });
  EXPECT_EQ(run({"export", "", pipe}).status, 0);
  if (!fs::is_fifo(pipe)) std::ofstream(directory().file("pipe"));
  reader.join();
  EXPECT_TRUE(fs::is_fifo(pipe));
  EXPECT_EQ(read, expected);
  const program_result refused = run({"export", "", directory().file("sub")});
  EXPECT_EQ(refused.status, 3);
  EXPECT_THAT(refused.err, HasSubstr("Cannot write \"" + directory().file("sub") + "\""));
}

TEST_F(CommandTest, OnlyInitMakesADatabaseAndAllOfItOrNothing) {
  namespace fs = std::filesystem;
  const std::string command = PROGRAM_TARNS_COMMAND;
  const std::string place = directory().file("new/nested");
  // A file in the way of the store.
  fs::create_directories(place);
  std::ofstream(place + "/data") << "mine";
  EXPECT_EQ(run_program({command, "init", place}).status, 3);
  EXPECT_EQ(std::distance(fs::directory_iterator(place), fs::directory_iterator()), 1);
  fs::remove(place + "/data");
  EXPECT_EQ(run_program({command, "init", place}).status, 0);
  EXPECT_EQ(run_program({command, "-d", place, "set", "a", "1"}).status, 0);
  // A file in the way of the directory, below one that is not there yet.
  std::ofstream(directory().file("file")) << "mine";
  const program_result blocked = run_program({command, "init", directory().file("file/db")});
  EXPECT_EQ(blocked.status, 3);
  EXPECT_THAT(blocked.err, HasSubstr("Cannot make the directory"));
  // A configuration whose storage nobody has made.
  const std::string configuration = directory().file("other.conf");
  for (const char* storages : {"1\n0: file:./typo\n", "1\r\n0:  file:typo?durability=full \r\n"}) {
    std::ofstream(configuration) << storages;
    const program_result result = run_program({command, "-d", configuration, "ls"});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("There is no storage at"));
    EXPECT_FALSE(fs::exists(directory().file("typo")));
  }
  std::ofstream(configuration) << "1\n0: file:./new/nested/data?durability=full\nmore\n";
  EXPECT_EQ(run_program({command, "-d", configuration, "get", "a"}).out, "1\n");
}

}  // namespace
}  // namespace tarns
