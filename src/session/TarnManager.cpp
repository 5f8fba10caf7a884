#include <tarns/session/TarnManager.h>

#include <goods/errors.h>
#include <goods/obj_storage.h>
#include <goods/task.h>
#include <tarns/core/TarnException.h>

#include <algorithm>
#include <string>
#include <thread>

namespace tarns {

namespace {

constexpr std::size_t kMainStackSize = 0x100000;  // bytes
constexpr unsigned kRetryPause = 5;               // seconds
constexpr std::chrono::milliseconds kShortPause{20}, kNoTime{0};
// More could not be counted.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365);

goods::storage_number StorageNumber(unsigned long id) {
  return static_cast<goods::storage_number>(id & 0xFFFF);
}

}  // namespace

std::atomic<unsigned long> TarnManager::MnumConnectAttempts{1};
std::atomic<bool> TarnManager::Minitialized{false};
TarnLibraries TarnManager::MdataLibraries;

TarnManager::TarnManager() = default;

TarnManager::~TarnManager() { freeDB(); }

TarnDatabase& TarnManager::db() const { return *database_; }

void TarnManager::verifyIsInitialized() const {
  if (database_ == nullptr) TarnException::ThrowDBuninitialized();
}

const char* TarnManager::getDBconfigFilePath() const { return configPath_.getText(); }

TarnCacheManager& TarnManager::getCacheManager() const {
  verifyIsInitialized();
  return db().getCacheManager();
}

// Throws 4 also after a connect() that failed.
TarnDatabase& TarnManager::openDatabase() const {
  getCacheManager();
  return db();
}

void TarnManager::Initialize() {
  if (!Minitialized) goods::task::initialize(kMainStackSize);
  Minitialized = true;
}

void TarnManager::SetNumConnectAttempts(unsigned long attempts) { MnumConnectAttempts = attempts; }

void TarnManager::connect(const char* configPath, bool loadDataLibraries, const char* libraryPath) {
  verifyMayConnect();
  if (configPath == nullptr) configPath = "";
  freeDB();
  database_ = std::make_unique<TarnDatabase>(*this);
  bool isOpen = false;
  while (!isOpen && MnumConnectAttempts != 0) {
    isOpen = database_->open(configPath);
    if (!isOpen) goods::task::sleep(kRetryPause);
  }
  if (!isOpen) {
    throw TarnException("Unable to connect to database server.", ErrorID::CannotConnect);
  }
  afterConnecting(configPath, loadDataLibraries, libraryPath);
}

void TarnManager::connect(const char* configPath, std::chrono::milliseconds limit,
                          bool loadDataLibraries, const char* libraryPath) {
  verifyMayConnect();
  const auto deadline = std::chrono::steady_clock::now() + std::clamp(limit, kNoTime, kLongestWait);
  if (configPath == nullptr) configPath = "";
  freeDB();
  database_ = std::make_unique<TarnDatabase>(*this);
  while (!database_->open(configPath)) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= left.zero()) {
      const std::string problem = database_->get_open_problem();
      freeDB();
      throw TarnException(problem.c_str(), ErrorID::DatabaseInUse);
    }
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, kShortPause));
  }
  afterConnecting(configPath, loadDataLibraries, libraryPath);
}

void TarnManager::afterConnecting(const char* configPath, bool loadDataLibraries,
                                  const char* libraryPath) {
  if (loadDataLibraries) {
    MdataLibraries.supportDependencies(supportsDependencies_);
    try {
      MdataLibraries.loadDataLibraries(configPath, libraryPath, supportsDependencies_);
    } catch (...) {
      freeDB();
      throw;
    }
  }
  configPath_.set(configPath);
}

void TarnManager::freeDB() {
  if (database_ != nullptr) database_->close();
  database_.reset();
}

void TarnManager::attach() { openDatabase().attach(); }

void TarnManager::detach() { goods::cache_manager::detach(); }

void TarnManager::setCacheLimit(std::size_t bytes) { getCacheManager().setCacheLimit(bytes); }

void TarnManager::setTransactionLimit(std::size_t bytes) {
  getCacheManager().set_transaction_limit(bytes);
}

void TarnManager::setLockTimeout(std::chrono::milliseconds limit) {
  getCacheManager().set_lock_timeout(limit);
}

xcptref<TarnRoot> TarnManager::getRoot() const {
  xcptref<TarnRoot> root = getCacheManager().getRoot();
  const goods::library_call here;
  root->initialize();
  return root;
}

unsigned long TarnManager::getNumStorages() const {
  return openDatabase().get_number_of_storages();
}

unsigned long TarnManager::getLeastUsedStorage() {
  return openDatabase().get_storage_with_minimal_size();
}

void TarnManager::attachToStorage(xcptref<TarnObject> obj, unsigned long storageId) {
  modify(obj)->attach_to_storage(&openDatabase(), static_cast<std::uint32_t>(storageId));
}

void TarnManager::attachToLeastUsedStorage(xcptref<TarnObject> obj) {
  attachToStorage(std::move(obj), getLeastUsedStorage());
}

std::uint64_t TarnManager::getStorageUsage(unsigned long storageId) {
  return openDatabase().storage(StorageNumber(storageId)).get_used_size();
}

std::uint64_t TarnManager::getNumBytesFromDatabase() {
  return openDatabase().get_num_bytes_from_db();
}

std::uint64_t TarnManager::getNumBytesToDatabase() { return openDatabase().get_num_bytes_to_db(); }

std::uint64_t TarnManager::getNumBytesFromStorage(unsigned long id) {
  return openDatabase().get_num_bytes_from_db(StorageNumber(id));
}

std::uint64_t TarnManager::getNumBytesToStorage(unsigned long id) {
  return openDatabase().get_num_bytes_to_db(StorageNumber(id));
}

void TarnManager::clearNumBytesFromDatabase() { openDatabase().clear_num_bytes_in_out(); }

void TarnManager::clearNumBytesFromStorage(unsigned long id) {
  openDatabase().clear_num_bytes_in_out(StorageNumber(id));
}

bool TarnManager::startGarbageCollection() { return openDatabase().start_gc() != 0; }

bool TarnManager::startGarbageCollection(const goods::gc_options& options) {
  return openDatabase().start_gc(options) != 0;
}

goods::check_result TarnManager::check(const goods::check_options& options) {
  return openDatabase().check(options);
}

bool TarnManager::backup(const char* directory, const goods::copy_options& options) const {
  return openDatabase().copy_to(directory == nullptr ? "" : directory, options);
}

bool TarnManager::Restore(const char* configPath, const char* directory,
                          const goods::copy_options& options, std::chrono::milliseconds limit) {
  goods::database::expect_storages(configPath == nullptr ? "" : configPath);
  TarnManager manager;
  manager.connect(configPath, limit);
  return manager.backup(directory, options);
}

}  // namespace tarns
