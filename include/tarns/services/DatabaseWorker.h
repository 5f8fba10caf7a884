#pragma once

#include <goods/semaphore.h>
#include <goods/task.h>
#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace tarns {

// A session with a thread of its own, which runs requests one at a time.
//
//   DatabaseWorker worker;
//   worker.start("data/tarns.conf");
//   worker.run([](TarnManager& manager) { manager.set("jobs~last", 7); });
//
// The thread has a stack of 256 KiB and is attached to the session. What a request throws reaches
// its caller; a transaction that it leaves open is rolled back.
// Threads: execute(), run() and terminate() from any thread; requests come one after the other. A
// request that makes another one of the same worker runs it at once. Ending: terminate(), or the
// destructor, which waits; neither is possible within a request.
class TARNS_API DatabaseWorker : public TarnManager {
 public:
  using Request = void (*)(TarnManager& manager, const void* argument);
  using NumberedRequest = void (*)(TarnManager& manager, std::uint32_t number,
                                   const void* argument);

  DatabaseWorker();
  ~DatabaseWorker() override;

  // Connects, as connect(configPath, false, nullptr) does, and starts the thread. Once. What it
  // throws leaves a worker without a thread.
  void start(const char* configPath);

  // Each runs the request on the thread and returns when it is done. Throw what it throws, and 111
  // when the thread has not been started or was told to stop.
  void execute(Request request, const void* argument);
  void execute(NumberedRequest request, std::uint32_t number, const void* argument);
  void run(const std::function<void(TarnManager& manager)>& request);

  // Lets the request that is running come to its end and the thread end then; further requests are
  // refused. `wait`: returns when it has ended.
  void terminate(bool wait);
  bool hasStopped() const { return stopped_; }

 private:
  void handOver(std::unique_lock<std::mutex>& turn);
  std::unique_lock<std::mutex> takeTurn();
  bool isOwnThread() const { return std::this_thread::get_id() == threadID_.load(); }
  void work() noexcept;
  void runPending() noexcept;

  std::mutex turn_;  // of whom has a request
  // Of the turn: the pending request.
  const void* argument_ = nullptr;
  Request request_ = nullptr;
  NumberedRequest numberedRequest_ = nullptr;
  std::uint32_t number_ = 0;
  std::exception_ptr failure_;

  std::atomic<bool> stopRequested_{false};
  std::atomic<bool> stopped_{true};  // no thread
  goods::semaphore requests_;        // released once for each request, and to stop
  goods::semaphore done_;            // released once for each finished request, and at the end
  std::atomic<std::thread::id> threadID_{};
  std::optional<goods::task> thread_;
};

}  // namespace tarns
