#pragma once

#include <chrono>
#include <string>
#include <vector>

// A program that writes a line for everything it has made durable, and is killed while it works.
//
// Errors: std::system_error when it cannot be started.
class killed_process {
 public:
  // Starts it with these arguments, the first of which is its path.
  explicit killed_process(const std::vector<std::string>& arguments);
  // Kills it when it still runs.
  ~killed_process();
  killed_process(const killed_process&) = delete;
  killed_process& operator=(const killed_process&) = delete;

  // Waits for its next whole line, without the line break; empty when it has ended or `limit`
  // passes.
  std::string next_line(std::chrono::milliseconds limit);

  // Lets it work for as long, then kills it (SIGKILL). Returns all whole lines that it wrote since
  // the last one taken.
  std::vector<std::string> kill_after(std::chrono::microseconds time);

  // Lets it end. Returns its exit status, or 128 and its signal.
  int wait();

 private:
  // Reads what there is, waiting for `limit` at most; false at the end of the output.
  bool read_more(std::chrono::milliseconds limit);

  int process_ = -1;
  int output_ = -1;
  std::string pending_;  // read, not yet taken
};
