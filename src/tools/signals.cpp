#include "tools/signals.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

namespace tarns {

namespace {

volatile std::sig_atomic_t noted = 0;

void Note(int signal) {
  // A second one ends the program at once.
  if (noted != 0) std::signal(signal, SIG_DFL);
  noted = signal;
}

}  // namespace

void WatchSignals() {
  struct sigaction action {};
  action.sa_handler = Note;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

void ThrowIfInterrupted() {
  if (noted != 0) throw Interrupted();
}

void EndBySignal() {
  const int signal = noted != 0 ? noted : SIGPIPE;
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  std::_Exit(128 + signal);  // where the signal is blocked
}

}  // namespace tarns
