// Libraries with classes of applications. This program is linked with libtarns.so, as those that
// load libraries must be.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnCloner.h>
#include <tarns/session/TarnLibraries.h>
#include <tarns/session/TarnLibrary.h>
#include <tarns/session/TarnManagerPool.h>
#include <tarns/session/TarnMeister.h>
#include <tarns/tarns_version.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "support/captured_log.h"
#include "support/run_program.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LibrariesTest : public session_test {
 protected:
  LibrariesTest() {
    fs::create_directory(folder());
    fs::permissions(folder(), fs::perms::owner_all);
  }

  std::string folder() const { return directory().file("tarns.libraries"); }
  std::string file(const std::string& name) const { return folder() + "/lib" + name + ".so"; }
  void put(const std::string& name) { putAs(name, name); }
  void putAs(const std::string& name, const std::string& as) {
    fs::copy_file(fs::path(LIBRARIES) / ("lib" + name + ".so"), file(as));
  }
  std::size_t load(TarnLibraries& libraries, bool withDependencies = true) {
    return libraries.loadDataLibraries(configuration().c_str(), nullptr, withDependencies);
  }
  // "libx.so: problem", without the folder.
  static std::vector<std::string> Problems(const TarnLibraries& libraries) {
    std::vector<std::string> lines;
    for (const TarnLibraryState& state : libraries.getLibraries()) {
      if (state.isLoaded()) continue;
      lines.push_back(fs::path(state.path).filename().string() + ": " + state.problem);
    }
    return lines;
  }
};

TEST_F(LibrariesTest, TheFolderIsNamedForTheDatabase) {
  EXPECT_EQ(TarnLibraries::GetFolder("data/tarns.conf", nullptr), "data/tarns.libraries");
  EXPECT_EQ(TarnLibraries::GetFolder("plant.conf", nullptr), "plant.libraries");
  EXPECT_EQ(TarnLibraries::GetFolder("data/tarns.conf", ""), "data/tarns.libraries");
  EXPECT_EQ(TarnLibraries::GetFolder("/data/plant", "/usr/lib/x"), "/usr/lib/x/plant.libraries");
  EXPECT_THAT(std::string(GetLibraryVersion()),
              testing::StartsWith(std::string(TARNS_LIBRARY_ABI).substr(6) + "."));
  TarnLibraries libraries;
  EXPECT_EQ(libraries.loadDataLibraries("/nowhere/tarns.conf", nullptr), 0U);
  EXPECT_THAT(libraries.getLibraries(), IsEmpty());
}

// Classes stay for the rest of the process, so the steps are one test.
TEST_F(LibrariesTest, BringsClassesInTheOrderOfDependencies) {
  const captured_log log;
  EXPECT_TRUE(TarnObject::CreateOfType("Press").is_null());
  put("machines_tested");
  put("a_press");
  putAs("a_press", "z_press");
  TarnLibraries& libraries = TarnManager::MdataLibraries;
  close();
  for (int i = 0; i < 2; ++i) {  // the second time what they are linked with is there
    TarnManager session;
    session.connect(configuration().c_str(), true);
    const std::string problem =
        "_press.so: is linked with \"libmachines_tested.so\" of the same folder, and dependencies "
        "are not supported here";
    EXPECT_THAT(Problems(libraries), ElementsAre("liba" + problem, "libz" + problem));
    EXPECT_FALSE(TarnObject::CreateOfType("Machine").is_null());
    EXPECT_TRUE(TarnObject::CreateOfType("Press").is_null());
  }
  TarnManagerPool pool(configuration().c_str(),
                       {.largest = 1, .loadDataLibraries = true, .supportDependencies = true});
  TarnMeister session(pool);
  EXPECT_THAT(Problems(libraries), IsEmpty());
  const auto states = libraries.getLibraries();
  ASSERT_EQ(states.size(), 2U);
  EXPECT_THAT(states[0].classes, ElementsAre("Machine"));
  EXPECT_THAT(states[1].classes, ElementsAre("Press"));
  EXPECT_EQ(load(libraries), 0U) << "once is enough";
  session.set("hall~press", TarnObject::CreateOfType("Press"));
  session.set("hall~press~Force", 250);
  session.copyBranch("hall", "copy");
  EXPECT_EQ(session.getSint32("copy~press~Force"), 250);
  EXPECT_STREQ(session.getObject("copy~press")->getType(), "Press");

  // What another database has of the same is used with both, unless it is another version.
  const fs::path other = directory().file("other.libraries");
  fs::create_directory(other);
  fs::permissions(other, fs::perms::owner_all);
  const auto loadOther = [&] {
    return libraries.loadDataLibraries(directory().file("other.conf").c_str(), nullptr, true);
  };
  const std::string machines = "libmachines_tested.so", press = "liba_press.so";
  for (const std::string& name : {machines, press}) fs::copy(folder() + "/" + name, other / name);
  EXPECT_EQ(loadOther(), 0U);
  EXPECT_THAT(Problems(libraries), IsEmpty());
  for (const std::string& name : {machines, press}) std::ofstream(other / name, std::ios::app) << 1;
  EXPECT_EQ(loadOther(), 0U);
  EXPECT_THAT(
      Problems(libraries),
      ElementsAre(HasSubstr(machines + ": has the name \"" + machines +
                            "\" of another one, which is loaded from \"" + folder()),
                  HasSubstr(press + ": is linked with \"" + machines + "\", which was not")));
  for (const std::string& name : {machines, press}) fs::remove(other / name);
  EXPECT_EQ(loadOther(), 0U);
  EXPECT_THAT(Problems(libraries), IsEmpty()) << "they are gone";
  put("registers");
  EXPECT_EQ(load(libraries), 1U);
  EXPECT_THAT(libraries.getLibraries().back().classes, ElementsAre("Machine"));
  EXPECT_THAT(libraries.getLibraries().back().replaced, ElementsAre("Machine"));
}

TEST_F(LibrariesTest, ABrokenLibraryIsReportedAndStopsNothing) {
  const captured_log log;
  for (const char* name : {"no_abi", "other_abi", "unresolved", "circle_1", "circle_2", "throws",
                           "refused_base", "needs_refused"}) {
    put(name);
  }
  std::ofstream(folder() + "/libjunk.so") << "not a library at all, but long enough to be read\n";
  std::ofstream(folder() + "/libempty.so") << "";
  std::ofstream(folder() + "/readme.txt") << "ignored\n";
  TarnLibraries libraries;
  EXPECT_EQ(load(libraries), 0U);
  EXPECT_THAT(Problems(libraries),
              testing::UnorderedElementsAre(
                  HasSubstr("libno_abi.so: is no library of classes for tarns"),
                  HasSubstr("libother_abi.so: was built for \"tarns 99.0\""),
                  HasSubstr("libunresolved.so: cannot be loaded: "),
                  HasSubstr("libcircle_1.so: is linked with \"libcircle_2.so\", and that in turn"),
                  HasSubstr("libcircle_2.so: is linked with \"libcircle_1.so\", and that in turn"),
                  HasSubstr("libthrows.so: cannot register \"Thrower\": no such press"),
                  HasSubstr("librefused_base.so: was built for \"tarns 99.0\""),
                  HasSubstr("libneeds_refused.so: is linked with \"librefused_base.so.1\", which "
                            "was not loaded"),
                  HasSubstr("libjunk.so: is damaged"), HasSubstr("libempty.so: is damaged")));
  for (const char* name : {"Thrower", "Later"}) {
    EXPECT_TRUE(TarnObject::CreateOfType(name).is_null());
    EXPECT_EQ(goods::class_descriptor::find(name), nullptr);
  }
  EXPECT_EQ(load(libraries), 0U);
  EXPECT_EQ(libraries.getLibraries().size(), 10U) << "each is reported once";
  fs::remove_all(folder());
  EXPECT_EQ(load(libraries), 0U);
  EXPECT_THAT(Problems(libraries), ElementsAre(HasSubstr("libthrows.so"))) << "it is still there";
}

TEST_F(LibrariesTest, ALibraryThatEndsTheProcessIsNamed) {
  put("throws_at_once");
  close();  // the child has no threads
  TarnLibraries libraries;
  EXPECT_DEATH(load(libraries), "libthrows_at_once.so.*: too early");
}

TEST_F(LibrariesTest, LoadsNothingThatOthersMayChange) {
  const captured_log log;
  struct Case {
    const char* what;
    std::function<void()> spoil;
    const char* problem;
  };
  const std::string file = this->file("no_abi");
  const auto recreate = [&] {
    fs::remove_all(folder());
    fs::create_directory(folder());
    fs::permissions(folder(), fs::perms::owner_all);
    put("no_abi");
    fs::permissions(file, fs::perms::owner_all);
  };
  const Case cases[] = {
      {"nothing is wrong", [] {}, "is no library of classes"},
      {"the file is writable for all", [&] { ::chmod(file.c_str(), 0666); }, "is writable for all"},
      {"the folder is", [&] { ::chmod(folder().c_str(), 0777); }, "is writable for all"},
      {"what it lies in is", [&] { ::chmod(fs::path(folder()).parent_path().c_str(), 0777); },
       "which is writable for all"},
      {"a link",
       [&] {
         fs::rename(file, file + ".1");
         fs::create_symlink(file + ".1", file);
       },
       "is a symbolic link"},
      {"a directory",
       [&] {
         fs::remove(file);
         fs::create_directory(file);
       },
       "is no regular file"},
      {"a pipe",
       [&] {
         fs::remove(file);
         ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
       },
       "is no regular file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    recreate();
    c.spoil();
    TarnLibraries libraries;
    EXPECT_EQ(load(libraries), 0U);
    EXPECT_THAT(Problems(libraries), ElementsAre(HasSubstr(c.problem)));
    ::chmod(fs::path(folder()).parent_path().c_str(), 0700);
  }
  if (::geteuid() != 0) return;
  recreate();
  ASSERT_EQ(::chown(file.c_str(), 12345, 12345), 0);
  TarnLibraries libraries;
  load(libraries);
  EXPECT_THAT(Problems(libraries), ElementsAre(HasSubstr("belongs to another user")));
}

// Of what is read from files nothing is believed. None of these can become a good library.
TEST_F(LibrariesTest, AnyBytesAreRefused) {
  const captured_log log;
  put("other_abi");
  const std::string file = folder() + "/libother_abi.so";
  std::ifstream in(file, std::ios::binary);
  const std::string good{std::istreambuf_iterator<char>(in), {}};
  const auto isRefused = [&](const std::string& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
    TarnLibraries libraries;
    return load(libraries) == 0 && Problems(libraries).size() == 1;
  };
  for (std::size_t size = 0; size < good.size(); size += 1 + size / 16) {
    EXPECT_TRUE(isRefused(good.substr(0, size))) << size << " bytes";
  }
  std::mt19937_64 random(7);
  constexpr std::size_t kHeader = 64, kTables = 4096;
  for (int round = 0; round < 400; ++round) {
    std::string bytes = good;
    const std::size_t from = round % 3 == 1 ? bytes.size() - kTables : 0;
    const std::size_t count = round % 3 == 0 ? kHeader : round % 3 == 1 ? kTables : bytes.size();
    for (int flips = 0; flips < 1 + round % 8; ++flips) {
      bytes[from + random() % count] ^= static_cast<char>(1U << (random() % 8));
    }
    EXPECT_TRUE(isRefused(bytes)) << "round " << round;
  }
}

#ifdef PROGRAM_TARNS_COMMAND
TEST_F(LibrariesTest, TheCommandReadsClassesOfLibraries) {
  put("machines_tested");
  close();
  const std::string program = PROGRAM_TARNS_COMMAND;
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {program, "-d", configuration()});
    return run_program(arguments);
  };
  const std::string text = directory().file("machine.txt");
  std::ofstream(text) << "Machine press\n  Speed 40\n";
  EXPECT_EQ(run({"--libraries", "import", text, "hall~press", "--format", "text"}).err, "");
  EXPECT_EQ(run({"--libraries", "get", "hall~press~Speed"}).out, "40\n");
  // Without them the nodes are there, of a class that is not known, and can be copied.
  EXPECT_EQ(run({"cp", "hall", "copy", "--in-batches"}).err, "");
  EXPECT_EQ(run({"cp", "hall", "again"}).err, "");
  for (const char* path : {"copy~press~Speed", "again~press~Speed"}) {
    EXPECT_EQ(run({"--libraries", "get", path}).out, "40\n");
  }
}
#endif

}  // namespace
}  // namespace tarns
