#include "tools/signals.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "tools/unique_file.h"

namespace tarns {

namespace {

constexpr std::array<int, 3> kSignals{SIGHUP, SIGINT, SIGTERM};

// Shared with the handler. The pipe wakes who waits: a signal may come just before the wait.
volatile std::sig_atomic_t noted = 0;
volatile std::sig_atomic_t isWatched[kSignals.size()];
int wakingPipe[2] = {-1, -1};  // made once, and open for as long as a handler may run
bool isWatching = false;

void RestoreDefaults() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    if (isWatched[i] != 0) std::signal(kSignals[i], SIG_DFL);
  }
}

void Note(int signal) {
  const int error = errno;
  noted = signal;
  RestoreDefaults();
  [[maybe_unused]] const ssize_t written = ::write(wakingPipe[1], "", 1);
  errno = error;
}

}  // namespace

SignalWatch::SignalWatch() : isOwner_(!isWatching) {
  if (!isOwner_) return;
  if (wakingPipe[0] < 0 && ::pipe2(wakingPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    ThrowSystemError("Cannot make a pipe");
  }
  isWatching = true;
  struct sigaction action {};
  action.sa_handler = Note;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;  // what must not wait looks at the pipe
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction before {};
    sigaction(kSignals[i], nullptr, &before);
    isWatched[i] = before.sa_handler == SIG_DFL ? 1 : 0;
    if (isWatched[i] != 0) sigaction(kSignals[i], &action, nullptr);
  }
}

SignalWatch::~SignalWatch() {
  if (!isOwner_) return;
  RestoreDefaults();
  isWatching = false;
}

void SignalWatch::end() {
  if (isOwner_) RestoreDefaults();
  ThrowIfInterrupted();
}

void ThrowIfInterrupted() {
  if (noted != 0) throw Interrupted();
}

void WaitUntilReadable(int file) {
  ThrowIfInterrupted();
  std::array<pollfd, 2> files{{{file, POLLIN, 0}, {wakingPipe[0], POLLIN, 0}}};
  while (::poll(files.data(), files.size(), -1) < 0) {
    if (errno != EINTR) ThrowSystemError("Cannot wait");
    ThrowIfInterrupted();
  }
  ThrowIfInterrupted();
}

void IgnoreBrokenPipes() { std::signal(SIGPIPE, SIG_IGN); }

void EndBySignal() {
  const int signal = noted != 0 ? noted : SIGPIPE;
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  std::_Exit(128 + signal);  // where the signal is blocked
}

}  // namespace tarns
