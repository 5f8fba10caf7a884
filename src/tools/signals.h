// What the command does when it is interrupted.
#pragma once

namespace tarns {

// Thrown by throwIfInterrupted(); the transaction that is open is rolled back on the way out.
struct Interrupted {};

// Takes note of SIGINT and SIGTERM instead of ending the program; SIGPIPE shows as OutputClosed.
// Called once, before threads start.
void WatchSignals();
void ThrowIfInterrupted();

// Ends the program by the signal that was noted (or by SIGPIPE), so that whoever started it sees
// why.
[[noreturn]] void EndBySignal();

}  // namespace tarns
