#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/services/DatabaseWorker.h>

#include <utility>

namespace tarns {

namespace {

constexpr std::size_t kStackSize = 0x40000;  // bytes
constexpr auto kPriority = static_cast<goods::task::priority>(2);

}  // namespace

DatabaseWorker::DatabaseWorker() = default;

DatabaseWorker::~DatabaseWorker() { terminate(true); }

void DatabaseWorker::start(const char* configPath) {
  if (thread_) throw TarnException("A worker is started only once.", ErrorID::BadUsage);
  connect(configPath, false, nullptr);
  stopped_ = false;
  try {
    thread_.emplace(
        goods::task::create([](void* self) { static_cast<DatabaseWorker*>(self)->work(); }, this,
                            kPriority, kStackSize));
  } catch (...) {
    stopped_ = true;
    throw;
  }
}

std::unique_lock<std::mutex> DatabaseWorker::takeTurn() {
  std::unique_lock turn(turn_);
  if (stopRequested_ || stopped_) {
    throw TarnException("The worker takes no requests: it has been stopped, or was not started.",
                        ErrorID::BadUsage);
  }
  return turn;
}

void DatabaseWorker::execute(Request request, const void* argument) {
  if (isOwnThread()) return request(*this, argument);
  auto turn = takeTurn();
  request_ = request;
  argument_ = argument;
  handOver(turn);
}

void DatabaseWorker::execute(NumberedRequest request, std::uint32_t number, const void* argument) {
  if (isOwnThread()) return request(*this, number, argument);
  auto turn = takeTurn();
  numberedRequest_ = request;
  number_ = number;
  argument_ = argument;
  handOver(turn);
}

void DatabaseWorker::run(const std::function<void(TarnManager& manager)>& request) {
  execute(
      [](TarnManager& manager, const void* function) {
        (*static_cast<const std::function<void(TarnManager&)>*>(function))(manager);
      },
      &request);
}

void DatabaseWorker::handOver(std::unique_lock<std::mutex>& turn) {
  requests_.signal();
  done_.wait();
  const std::exception_ptr failure = std::exchange(failure_, nullptr);
  turn.unlock();
  if (failure) std::rethrow_exception(failure);
}

void DatabaseWorker::terminate(bool wait) {
  if (!thread_) return;
  if (isOwnThread()) {  // which has the turn
    if (wait) throw TarnException("A worker cannot wait for its own end.", ErrorID::BadUsage);
    stopRequested_ = true;
    requests_.signal();
    return;
  }
  // The request that is pending has been run then, and its caller has been told.
  const std::lock_guard turn(turn_);
  stopRequested_ = true;
  if (!stopped_) requests_.signal();
  if (!wait) return;
  while (!stopped_) done_.wait();
  thread_->join();
}

void DatabaseWorker::work() noexcept {
  threadID_ = std::this_thread::get_id();
  while (true) {
    requests_.wait();
    if (stopRequested_) break;
    runPending();
    done_.signal();
  }
  detach();
  stopped_ = true;
  done_.signal();
}

void DatabaseWorker::runPending() noexcept {
  try {
    attach();  // the request before may have left
    if (numberedRequest_ != nullptr) {
      numberedRequest_(*this, number_, argument_);
    } else {
      request_(*this, argument_);
    }
  } catch (...) {
    failure_ = std::current_exception();
  }
  request_ = nullptr;
  numberedRequest_ = nullptr;
  // The request may have disconnected the session, or left it.
  const goods::cache_manager* const session = goods::cache_manager::current();
  if (session != nullptr && session->in_transaction()) detach();  // which rolls it back
}

}  // namespace tarns
