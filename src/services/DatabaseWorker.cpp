#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/services/DatabaseWorker.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace tarns {

namespace {

constexpr std::size_t kStackSize = 0x40000;             // bytes
constexpr auto kLook = std::chrono::milliseconds(200);  // between looks after the store
constexpr auto kPriority = static_cast<goods::task::priority>(2);

}  // namespace

DatabaseWorker::DatabaseWorker() = default;

DatabaseWorker::~DatabaseWorker() { terminate(true); }

void DatabaseWorker::start(const char* configPath) { start(configPath, nullptr); }

void DatabaseWorker::start(const char* configPath,
                           std::function<void(TarnManager& manager)> connected) {
  if (thread_) throw TarnException("A worker is started only once.", ErrorID::BadUsage);
  connect(configPath, false, nullptr);
  hasSession_ = true;
  connected_ = std::move(connected);
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
  if (connected_) prepareSession();
  while (true) {
    const bool isRequest = waitForRequest();
    if (stopRequested_) break;
    if (connected_) lookAfterStore();
    if (!isRequest) continue;
    runPending();
    done_.signal();
  }
  detach();
  stopped_ = true;
  done_.signal();
}

void DatabaseWorker::runRequest() {
  if (isClosed_) {
    throw TarnException(
        "The database takes no commits until it is opened again, once all other sessions of this "
        "process on it are closed.",
        ErrorID::OutcomeUnknown);
  }
  attach();  // the request before may have left
  if (numberedRequest_ != nullptr) {
    numberedRequest_(*this, number_, argument_);
  } else {
    request_(*this, argument_);
  }
}

void DatabaseWorker::runPending() noexcept {
  try {
    runRequest();
  } catch (...) {
    failure_ = std::current_exception();
  }
  request_ = nullptr;
  numberedRequest_ = nullptr;
  // The request may have disconnected the session, or left it.
  const goods::cache_manager* const session = goods::cache_manager::current();
  if (session != nullptr && session->in_transaction()) detach();  // which rolls it back
}

// --- A store that has failed ---------------------------------------------------------------------

// False when there is none yet, and it is time to look after the store.
bool DatabaseWorker::waitForRequest() noexcept {
  if (connected_) return requests_.wait(kLook);
  requests_.wait();
  return true;
}

bool DatabaseWorker::useSession(const std::function<void(TarnManager& manager)>& use) {
  struct Used {
    DatabaseWorker& worker;
    ~Used() {
      const std::lock_guard guard(worker.sessionLock_);
      --worker.users_;
      worker.unused_.notify_all();
    }
  };
  {
    const std::lock_guard guard(sessionLock_);
    if (!hasSession_) return false;
    ++users_;
  }
  const Used used{*this};
  use(*this);
  return true;
}

// Between requests.
void DatabaseWorker::lookAfterStore() noexcept {
  try {
    if (!isClosed_ && hasFailed()) {
      failed_ = db().failed_storages();
      closeSession();
      Log(Log::Warning) << "The database \"" << getDBconfigFilePath()
                        << "\" takes no commits any more: a worker has closed its session, and "
                           "waits until all others of this process are closed.";
    }
    const auto isGone = [](const auto& storage) { return storage.expired(); };
    if (isClosed_ && std::ranges::all_of(failed_, isGone)) connectAnew();
  } catch (const std::exception& error) {
    complain(error.what());  // and does it again the next time
  }
}

bool DatabaseWorker::hasFailed() const noexcept {
  try {
    verifyIsInitialized();
    return db().has_failed();
  } catch (const TarnException&) {  // a request has disconnected it
    return false;
  }
}

void DatabaseWorker::closeSession() {
  {
    std::unique_lock guard(sessionLock_);
    hasSession_ = false;
    unused_.wait(guard, [this] { return users_ == 0; });
  }
  isClosed_ = true;
  freeDB();
}

void DatabaseWorker::connectAnew() {
  const std::string path = getDBconfigFilePath();
  try {
    connect(path.c_str(), std::chrono::milliseconds(0));
  } catch (...) {
    freeDB();
    throw;
  }
  isClosed_ = false;
  failed_.clear();
  {
    const std::lock_guard guard(sessionLock_);
    hasSession_ = true;
  }
  prepareSession();
}

void DatabaseWorker::prepareSession() noexcept {
  try {
    attach();
    connected_(*this);
    problem_.clear();
    return;
  } catch (const std::exception& error) {
    complain(error.what());
  } catch (...) {
    complain("something was thrown that is no exception.");
  }
  closeSession();
}

void DatabaseWorker::complain(const char* why) noexcept {
  try {
    if (std::exchange(problem_, why) == why) return;
    Log(Log::Error) << "A worker cannot open its database again and goes on trying: " << why;
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): there is nobody to tell
  }
}

}  // namespace tarns
