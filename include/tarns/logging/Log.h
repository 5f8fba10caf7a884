#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/Buffer.h>

#include <cstddef>
#include <functional>
#include <string_view>
#include <vector>

namespace tarns {

// One line of the log, streamed together and written when this object goes:
//
//   Log(Log::Warning) << "object \"" << path << "\" has no physical path";
//
// Lines go to standard error, each with date, time and level, until Redirect() sends them to the
// application. Bytes that would end the line or steer a terminal (below 32 except the tab, and 127)
// are written as \xNN, whatever a stored name holds; only Log::Break begins a further line.
// Threads: any; a line is handed on whole. One Log object is used by one thread.
// Errors: streaming may throw std::bad_alloc. Writing lets nothing escape: a line that cannot be
// written is lost.
class TARNS_API Log {
 public:
  enum Level { Debug, Info, Warning, Error };

  // Receives finished lines without a line feed at the end; the text is valid during the call only.
  // Called on the thread that logs, by several threads at once, and with none of the library's log
  // locks held. What it throws is dropped.
  using Sink = std::function<void(Level level, std::string_view line)>;

  explicit Log(Level level = Info) : level_(level) {}
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log();

  // Appends what a Buffer can append.
  template <BufferAppendable T>
  Log& operator<<(const T& piece) {
    line_ << piece;
    return *this;
  }

  // Streamed, it goes on in a new line of the same message.
  enum LineBreak { Break };
  Log& operator<<(LineBreak);

  // Sends the lines of all threads to `sink` from now on, and back to standard error for an empty
  // one; returns the sink before. A line being handed on meanwhile may still reach that one.
  static Sink Redirect(Sink sink);

  // Drops lines below `level`; Info at the start of the process.
  static void SetLevel(Level level) noexcept;

 private:
  const Level level_;
  Buffer line_;
  std::vector<std::size_t> breaks_;  // places of line feeds in it, ascending
};

}  // namespace tarns
