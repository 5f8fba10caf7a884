#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tarns {

// How results are written; automatic: for people on a terminal, plain otherwise.
enum class Format { kAutomatic, kTree, kTable, kJson, kRaw };

// What the command returns to the shell.
struct ExitStatus {
  static constexpr int kDone = 0;
  static constexpr int kNotFound = 1;
  static constexpr int kUsage = 2;
  static constexpr int kFailure = 3;
  static constexpr int kFindings = 4;  // of check and salvage
};

// Arguments that contradict each other or cannot be understood, found while a command runs.
struct UsageError {
  std::string message;
};

// One call of the command: what all sub-commands share, and which one it is.
struct Invocation {
  std::string database;                // a directory that init made, or a configuration file
  double wait = 2;                     // seconds to wait for a database that is in use
  bool loadLibraries = false;          // those in the database's folder of libraries
  std::optional<std::uint64_t> cache;  // bytes of memory for objects; the library's when not given
  Format format = Format::kAutomatic;
  std::function<int()> action;  // of the sub-command that was named; returns an ExitStatus
};

// Adds a sub-command with its help, which ends with two examples.
CLI::App& AddCommand(CLI::App& app, const char* name, const char* description,
                     const char* firstExample, const char* secondExample);

// The sub-commands; each adds itself, keeps its options and sets Invocation::action when it is
// named.
void AddInit(CLI::App& app, Invocation& invocation);
void AddGet(CLI::App& app, Invocation& invocation);
void AddSet(CLI::App& app, Invocation& invocation);
void AddLs(CLI::App& app, Invocation& invocation);
void AddTree(CLI::App& app, Invocation& invocation);
void AddRm(CLI::App& app, Invocation& invocation);
void AddCp(CLI::App& app, Invocation& invocation);
void AddMv(CLI::App& app, Invocation& invocation);
void AddFind(CLI::App& app, Invocation& invocation);
void AddQuery(CLI::App& app, Invocation& invocation);
void AddIndex(CLI::App& app, Invocation& invocation);
void AddStat(CLI::App& app, Invocation& invocation);
void AddGc(CLI::App& app, Invocation& invocation);
void AddCheck(CLI::App& app, Invocation& invocation);
void AddSalvage(CLI::App& app, Invocation& invocation);
void AddBackup(CLI::App& app, Invocation& invocation);
void AddRestore(CLI::App& app, Invocation& invocation);
void AddImport(CLI::App& app, Invocation& invocation);
void AddExport(CLI::App& app, Invocation& invocation);
void AddEdit(CLI::App& app, Invocation& invocation);
void AddBundle(CLI::App& app, Invocation& invocation);
void AddBalance(CLI::App& app, Invocation& invocation);
void AddTask(CLI::App& app, Invocation& invocation);
void AddWatch(CLI::App& app, Invocation& invocation);
void AddVfs(CLI::App& app, Invocation& invocation);

// Runs the whole command; what main() returns.
int RunCommand(int argc, char** argv);

}  // namespace tarns
