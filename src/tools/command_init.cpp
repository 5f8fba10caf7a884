#include <sys/stat.h>
#include <tarns/core/TarnException.h>
#include <tarns/util/FileFP.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"

namespace tarns {

namespace {

constexpr const char* kConfiguration = "1\n0: file:./data\n";

namespace fs = std::filesystem;

// What init has made so far, taken away again unless it is kept. What was there before stays.
class Undo {
 public:
  Undo() = default;
  ~Undo() {
    std::error_code ignored;  // there is an error on its way that matters more
    for (; !made_.empty(); made_.pop_back()) fs::remove_all(made_.back(), ignored);
  }
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;

  // To be called before it is made.
  void note(const fs::path& path) {
    if (!fs::exists(fs::symlink_status(path))) made_.push_back(path);
  }
  void keep() { made_.clear(); }

 private:
  std::vector<fs::path> made_;
};

[[noreturn]] void ThrowAlready(const std::string& database) {
  TarnException error;
  error << "There is a database at \"" << database << "\" already.";
  throw error;
}

void MakeDirectory(const fs::path& place, Undo& undo) {
  fs::path made;
  for (const fs::path& part : place) {
    made /= part;
    if (fs::is_directory(made)) continue;
    undo.note(made);
    if (::mkdir(made.c_str(), 0700) == 0) continue;
    const int reason = errno;
    TarnException error;
    error << "Cannot make the directory \"" << made.string()
          << "\": " << std::generic_category().message(reason) << ".";
    throw error;
  }
}

// The configuration comes last: with it the database is there.
int Init(Invocation& invocation, const std::string& directory) {
  if (!directory.empty()) invocation.database = directory;
  if (invocation.database.empty()) throw UsageError{"Name the directory to make the database in."};
  const fs::path place(invocation.database);
  const fs::path configuration = place / OpenDatabase::kConfigurationName;
  if (fs::exists(fs::symlink_status(configuration))) ThrowAlready(invocation.database);
  Undo undo;
  MakeDirectory(place, undo);
  undo.note(place / "data");
  const fs::path unfinished = configuration.string() + ".new";
  undo.note(unfinished);
  FileFP::WriteToFile(unfinished.c_str(), kConfiguration);
  OpenDatabase::Make(unfinished.string(), invocation);
  fs::rename(unfinished, configuration);
  undo.keep();
  return ExitStatus::kDone;
}

}  // namespace

void AddInit(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(app, "init", "Make a new database in a directory",
                                 "tarns init data", "TARNS_DB=data tarns init");
  auto directory = std::make_shared<std::string>();
  command.add_option("DIR", *directory, "The directory, made when missing; otherwise that of -d");
  command.callback([&invocation, directory] {
    invocation.action = [&invocation, directory] { return Init(invocation, *directory); };
  });
}

}  // namespace tarns
