#pragma once

#include <goods/semaphore.h>
#include <goods/task.h>
#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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
  // The same, and keeps nobody from opening a store again that takes no commits any more (error
  // 106, see goods::database::has_failed): the worker closes its session then, between requests,
  // and connects anew once no session of the process has that store open. Until then requests throw
  // 106. `connected` is called on the thread, which is attached, after each connecting, the first
  // one included; when it throws, that is logged, and done again with another session.
  void start(const char* configPath, std::function<void(TarnManager& manager)> connected);

  // Runs `use` on the calling thread, while the session is kept from being closed for that reason.
  // False, and nothing is run, when it is closed or about to be.
  bool useSession(const std::function<void(TarnManager& manager)>& use);

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
  void runRequest();
  bool waitForRequest() noexcept;
  void lookAfterStore() noexcept;
  void prepareSession() noexcept;
  bool hasFailed() const noexcept;
  void closeSession();
  void connectAnew();
  void complain(const char* why) noexcept;

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

  // Of the thread, once it runs:
  std::function<void(TarnManager&)> connected_;                  // null: the session stays
  bool isClosed_ = false;                                        // by itself
  std::vector<std::weak_ptr<const goods::dbs_storage>> failed_;  // for which it was closed
  std::string problem_;                                          // that was complained of

  std::mutex sessionLock_;
  std::condition_variable unused_;
  bool hasSession_ = false;  // under sessionLock_
  std::size_t users_ = 0;    // under sessionLock_: calls of useSession()
};

}  // namespace tarns
