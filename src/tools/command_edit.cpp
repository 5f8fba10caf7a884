#include <sys/wait.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnTransaction.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/PInOut.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "tools/BranchChanges.h"
#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/branch_text.h"
#include "tools/shown_text.h"

namespace tarns {

namespace {

// Runs the user's editor, a command line of the shell, on the file; throws unless it ends well.
void RunEditor(const std::string& file) {
  const pid_t editor = ::fork();
  if (editor < 0) {
    throw std::system_error(errno, std::generic_category(), "Cannot start the editor");
  }
  if (editor == 0) {
    constexpr const char* kLine = "exec ${VISUAL:-${EDITOR:-vi}} \"$1\"";
    ::execl("/bin/sh", "sh", "-c", kLine, "sh", file.c_str(), nullptr);
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(editor, &status, 0) < 0) {
    if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "Cannot wait for the editor");
    }
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("The editor did not end well; nothing has changed.");
  }
}

// The text that is edited. It stays when something goes wrong with it, so that nothing that was
// typed is lost.
class EditedText {
 public:
  explicit EditedText(const TarnRef& branch) : file_(branch->exportToTempFile()) {}
  EditedText(const EditedText&) = delete;
  EditedText& operator=(const EditedText&) = delete;
  ~EditedText() {
    if (isDone_) {
      ::unlink(file_);
    } else {
      std::fprintf(stderr, "tarns: The text is still in \"%s\".\n", Shown(file_.view()).c_str());
    }
  }
  const char* getFile() const { return file_; }
  // All that is in the file now.
  std::string read() const { return FileFP::ReadBytes(file_); }
  void done() { isDone_ = true; }

 private:
  XString file_;
  bool isDone_ = false;
};

// Others may have used the database while the editor ran.
void VerifyUnchanged(const TarnManager& manager, const std::string& path,
                     const std::string& before) {
  const std::string now = TextAt(manager, path);
  if (now == before) return;
  std::fputs("tarns: Others have changed the branch meanwhile:\n", stderr);
  for (const std::string& line : BranchChanges(before, now)) {
    std::fprintf(stderr, "%s\n", Shown(line).c_str());
  }
  throw std::runtime_error("The branch is not what was edited any more; nothing has changed.");
}

int Edit(const Invocation& invocation, const std::string& path) {
  EditedText text(OpenDatabase(invocation).node(path));
  const std::string before = text.read();
  RunEditor(text.getFile());
  if (text.read() == before) {
    text.done();
    return ExitStatus::kDone;
  }
  OpenDatabase database(invocation);
  VerifyUnchanged(*database, path, before);
  PInOut in;
  if (!in.openForRead(text.getFile())) {
    throw std::system_error(errno, std::generic_category(), "Cannot read the text");
  }
  const TarnRef node = ImportKnown(*database, in);
  TarnTransaction transaction(*database);
  PlaceBranch(*database, path, node, true);
  PrintChanges(*database, path, before);
  transaction.commit();
  text.done();
  return ExitStatus::kDone;
}

}  // namespace

void AddEdit(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "edit",
      "Open a branch as text in $VISUAL, $EDITOR or vi, put the result in its place in one "
      "transaction, and print what has changed. Others may use the database meanwhile; when they "
      "change the branch, the result is refused",
      "tarns -d data edit machines~press", "EDITOR='code --wait' tarns -d data edit machines");
  auto path = std::make_shared<std::string>();
  command.add_option("PATH", *path, "The branch; without it everything");
  command.callback([&invocation, path] {
    invocation.action = [&invocation, path] { return Edit(invocation, *path); };
  });
}

}  // namespace tarns
