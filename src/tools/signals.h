// What the command does when it is interrupted.
//
// Mostly nothing: transactions are atomic, so the signal may end the program wherever it is. Only
// what has something to tell or to tidy up on its way out takes note of signals instead.
#pragma once

namespace tarns {

// Thrown by ThrowIfInterrupted(); what is open is rolled back on the way out.
struct Interrupted {};

// While one lives, SIGHUP, SIGINT and SIGTERM are noted, and the work looks for them by
// ThrowIfInterrupted(). The second signal ends the program at once. Those that the program was
// started to ignore (nohup) are ignored throughout. One inside another does nothing.
// Errors: std::system_error. Threads: made and destroyed by the same one.
class SignalWatch {
 public:
  SignalWatch();
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  // Ends the watch early; throws Interrupted for what was noted until then.
  void end();

 private:
  bool isOwner_;
};

void ThrowIfInterrupted();
// Returns when reading need not wait. Throws Interrupted when a signal is noted, also while it
// waits. Errors: std::system_error.
void WaitUntilReadable(int file);

// From here on a reader that has gone away shows as OutputClosed and not as SIGPIPE. Before threads
// start.
void IgnoreBrokenPipes();

// Ends the program by the signal that was noted (or by SIGPIPE), so that whoever started it sees
// why.
[[noreturn]] void EndBySignal();

}  // namespace tarns
