// Threads with a stack of a chosen size.
#pragma once

#include <cstddef>
#include <memory>

#include <goods/goods_api.h>

namespace goods {

// A thread of the process. Tasks are preemptive and run in parallel.
//
// Ownership: the object stands for the thread; destroying it joins, unless detach() was called.
// Errors: creating one throws usage when the operating system refuses; an exception that leaves the
// function ends the process (there is nobody to tell).
class GOODS_API task {
 public:
  using function = void (*)(void* argument);
  enum class priority { low, normal, high };  // a hint; ignored where the system has no such thing

  static constexpr std::size_t min_stack = 64 * 1024;      // bytes
  static constexpr std::size_t normal_stack = 256 * 1024;  // bytes

  // Once per process, before tasks are made; further calls have no effect. `main_stack_size`, in
  // bytes, is what the main thread is expected to need; its stack grows by itself here.
  static void initialize(std::size_t main_stack_size);

  // Sleeps for `seconds` seconds, signals or not.
  static void sleep(unsigned seconds);

  // Runs `run(argument)` on a new thread. `stack_size` in bytes is raised to min_stack.
  static task create(function run, void* argument, priority urgency = priority::normal,
                     std::size_t stack_size = normal_stack);

  task(task&& other) noexcept;
  task& operator=(task&& other) noexcept;
  ~task();

  void join();    // no effect when joined or detached
  void detach();  // lets the thread run on alone
  bool is_joinable() const { return thread_ != nullptr; }

 private:
  struct thread;
  explicit task(std::unique_ptr<thread> running);
  std::unique_ptr<thread> thread_;
};

}  // namespace goods
