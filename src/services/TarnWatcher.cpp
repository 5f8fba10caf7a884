#include <goods/cache_manager.h>
#include <goods/database.h>
#include <tarns/services/TarnWatcher.h>
#include <tarns/util/XException.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <utility>

#include "services/WatchedEvents.h"

namespace tarns {

namespace {

constexpr std::size_t kCacheLimit = std::size_t{16} << 20;  // bytes; it only looks at nodes
constexpr std::uint64_t kIdentifierBits = 0xFFFF'FFFF'FFFF;

std::mutex lifeLock;  // of making and destroying
std::atomic<TarnWatcher*> theWatcher{nullptr};

// What a callback without a client of its own is called through.
// Ownership: the handle alone keeps it, so that what the function has captured goes with the handle
// and not on whatever thread called back; but for a call that drops the handle, at whose end it
// goes.
class FunctionClient : public XObject, public std::enable_shared_from_this<FunctionClient> {
 public:
  explicit FunctionClient(std::function<void()> function) : function_(std::move(function)) {}
  void call(const void*) {
    const std::shared_ptr<FunctionClient> self = shared_from_this();
    function_();
  }

 private:
  const std::function<void()> function_;
};

}  // namespace

// ---- The one watcher

TarnWatcher::TarnWatcher(const char* configPath)
    : worker_(std::make_unique<DatabaseWorker>()),
      events_(std::make_shared<WatchedEvents>(*worker_)) {
  worker_->start(configPath, [this](TarnManager& manager) {
    manager.setCacheLimit(kCacheLimit);
    // From now on it is known what has changed.
    manager.db().session().may_have_changed(goods::root_object_number, 0);
    events_->callAll();
  });
  try {
    worker_->run([](TarnManager&) {});  // it is so when this returns
  } catch (...) {
    worker_->terminate(true);
    throw;
  }
}

TarnWatcher::~TarnWatcher() {
  events_->close(true);
  worker_->terminate(true);
}

void TarnWatcher::Initialize(const char* configPath) {
  if (theWatcher != nullptr) return;  // also in a callback that Destroy() waits for, with the lock
  const std::lock_guard guard(lifeLock);
  if (theWatcher == nullptr) theWatcher = new TarnWatcher(configPath);
}

bool TarnWatcher::IsInitialized() { return theWatcher != nullptr; }

TarnWatcher* TarnWatcher::GetWatcher() { return theWatcher; }

void TarnWatcher::Destroy() {
  WatchedEvents::VerifyOutsideCallbacks();
  const std::lock_guard guard(lifeLock);
  TarnWatcher* const watcher = theWatcher;
  if (watcher == nullptr) return;
  watcher->terminate(true);
  theWatcher = nullptr;
  delete watcher;
}

void TarnWatcher::terminate(bool wait) {
  events_->close(wait);
  worker_->terminate(wait);
}

// ---- Watching

void TarnWatcher::watch(std::uint64_t id, CallBack::Function function, const void* argument) {
  watch(id, CallBack(function, argument), nullptr);
}

void TarnWatcher::watch(std::uint64_t id, CallBack::Function function, const void* argument,
                        std::uint64_t version) {
  watch(id, CallBack(function, argument), &version);
}

void TarnWatcher::watch(std::uint64_t id, XObject* client, CallBack::Method method,
                        const void* argument) {
  watch(id, CallBack(client, method, argument), nullptr);
}

void TarnWatcher::watch(std::uint64_t id, XObject* client, CallBack::Method method,
                        const void* argument, std::uint64_t version) {
  watch(id, CallBack(client, method, argument), &version);
}

void TarnWatcher::watch(std::uint64_t id, const CallBack& callBack, const std::uint64_t* version) {
  if (id == 0) throw XException("Cannot watch non-existent object with ID 0.");
  events_->watch(id & kIdentifierBits, callBack,
                 version != nullptr ? std::optional(*version) : std::nullopt);
}

TarnWatch TarnWatcher::watch(std::uint64_t id, std::function<void()> function) {
  return watchFor(id, std::move(function), nullptr);
}

TarnWatch TarnWatcher::watch(std::uint64_t id, std::function<void()> function,
                             std::uint64_t version) {
  return watchFor(id, std::move(function), &version);
}

TarnWatch TarnWatcher::watchFor(std::uint64_t id, std::function<void()> function,
                                const std::uint64_t* version) {
  const auto client = std::make_shared<FunctionClient>(std::move(function));
  TarnWatch handle(events_, client, id & kIdentifierBits);  // withdraws when watching fails
  watch(id, CallBack(client.get(), &FunctionClient::call, nullptr), version);
  return handle;
}

void TarnWatcher::SignalEvent(TarnManager& manager, const void* event) {
  // The worker's requests take constant arguments.
  auto* const when =
      static_cast<TarnWatcherEvent*>(const_cast<void*>(event));  // NOLINT(*-const-cast)
  const goods::ref<goods::object> object =
      goods::ref<goods::object>::trusted(manager.getObject(when->getObjectID()));
  object->signal_on_modification(when);
}

void TarnWatcher::SetModified(xcptref<TarnObject> node) { modify(node)->touch(); }

// ---- Withdrawing

void TarnWatcher::removeEvent(std::uint64_t id) { events_->removeEvent(id & kIdentifierBits); }

void TarnWatcher::removeAllEventsForClient(const void* client) { events_->removeClient(client); }

TarnWatcherTargetLock* TarnWatcher::lockTarget(const void* client) {
  return events_->lockTarget(client);
}

TarnWatch::TarnWatch() = default;

TarnWatch::TarnWatch(const std::shared_ptr<WatchedEvents>& events, std::shared_ptr<XObject> client,
                     std::uint64_t id)
    : events_(events), client_(std::move(client)), id_(id) {}

TarnWatch::TarnWatch(TarnWatch&& other) noexcept = default;

TarnWatch& TarnWatch::operator=(TarnWatch&& other) noexcept {
  if (this == &other) return *this;
  cancel();
  events_ = std::move(other.events_);
  client_ = std::move(other.client_);
  id_ = other.id_;
  return *this;
}

TarnWatch::~TarnWatch() { cancel(); }

void TarnWatch::cancel() {
  const std::shared_ptr<XObject> client = std::move(client_);
  if (client == nullptr) return;
  if (const auto events = events_.lock()) events->removeClient(client.get(), id_);
}

}  // namespace tarns
