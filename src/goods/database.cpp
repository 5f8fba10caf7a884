#include <goods/database.h>

#include <algorithm>

#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <goods/obj_storage.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/check_rules.h"
#include "goods/collection_claim.h"
#include "goods/collector.h"
#include "goods/configuration.h"
#include "goods/database_check.h"
#include "goods/database_copier.h"
#include "goods/epoch.h"
#include "goods/object_cache.h"
#include "goods/outlived_bodies.h"
#include "goods/thread_attachment.h"
#include "goods/transaction.h"
#include "storage/multi_commit.h"

namespace goods {

namespace {

// Only tells whether there is an object.
class presence_sink : public state_sink {
 public:
  void found(const object_state&) override { present = true; }
  void missing(object_number) override {}
  bool present = false;
};

// Root objects are never removed: one that was loaded is there.
bool has_loaded(cache_manager& session, object_id root) {
  const reader_section section;
  const object_handle* const handle = session.cache().find(root);
  return handle != nullptr && handle->body() != nullptr;
}

// Once it is true the session has taken in the commit that made the object.
bool is_root_stored(cache_manager& session, storage_number storage) {
  const object_number number = root_object_number;
  if (has_loaded(session, make_object_id(storage, number))) return true;
  presence_sink sink;
  dbs_storage& dbs = session.db().storage(storage).dbs();
  const commit_version as_of = dbs.load({&number, 1}, dbs.newest_version(), sink);
  session.cache().apply_notices(storage, as_of);
  return sink.present;
}

}  // namespace

database::database() = default;

database::~database() { close(); }

bool database::open(const char* configuration_path) {
  close();
  configuration config = read_configuration(configuration_path);
  std::vector<std::unique_ptr<obj_storage>> opened;
  std::vector<dbs_storage*> contracts;
  try {
    for (const std::string& address : config.addresses) {
      auto storage = open_storage(address, config.directory);
      contracts.push_back(storage.get());
      const auto number = static_cast<storage_number>(opened.size());
      opened.push_back(std::make_unique<obj_storage>(std::move(storage), number));
    }
    recover_several(contracts);
  } catch (const error_info& error) {
    if (error.code() != error_code::database_in_use) throw;
    open_problem_ = "A storage of \"" + std::string(configuration_path) + "\" is in use elsewhere.";
    if (const auto* described = dynamic_cast<const std::exception*>(&error)) {
      open_problem_ = described->what();
    }
    return false;
  }
  storages_ = std::move(opened);
  addresses_ = std::move(config.addresses);
  session_ = create_session();
  divide_cache(session_->cache_limit() / 2);
  return true;
}

void database::divide_cache(std::size_t bytes) {
  for (const auto& storage : storages_) storage->suggest_cache(bytes / storages_.size());
}

void database::expect_storages(const char* configuration_path) {
  const configuration config = read_configuration(configuration_path);
  for (const std::string& address : config.addresses) {
    if (has_storage(address, config.directory)) continue;
    throw_error(error_code::usage, "There is no storage at \"" + address +
                                       "\", which the configuration file \"" + configuration_path +
                                       "\" names.");
  }
}

void database::close() {
  if (session_ != nullptr && cache_manager::current() == session_.get()) cache_manager::detach();
  session_.reset();
  storages_.clear();
  // The classes of what the session leaves behind may go next, with their shared library.
  collect_retired();
  outlived_bodies::get().tidy();
}

std::unique_ptr<cache_manager> database::create_session() {
  return std::make_unique<cache_manager>(*this);
}

bool database::has_failed() const {
  return std::ranges::any_of(storages_,
                             [](const auto& storage) { return storage->dbs().has_failed(); });
}

std::vector<std::weak_ptr<const dbs_storage>> database::failed_storages() const {
  std::vector<std::weak_ptr<const dbs_storage>> failed;
  for (const auto& storage : storages_) {
    if (storage->dbs().has_failed()) failed.push_back(storage->shared());
  }
  return failed;
}

cache_manager& database::session() const {
  if (session_ == nullptr) throw_error(error_code::usage, "The database is not open.");
  return *session_;
}

void database::attach() { session().attach(); }

void database::detach() { cache_manager::detach(); }

std::uint32_t database::get_number_of_storages() const {
  return static_cast<std::uint32_t>(storages_.size());
}

obj_storage& database::storage(storage_number number) const {
  if (number >= storages_.size()) {
    throw_error(error_code::usage, "The database has no storage " + std::to_string(number) +
                                       "; it has " + std::to_string(storages_.size()) +
                                       ", numbered from 0.");
  }
  return *storages_[number];
}

storage_number database::get_storage_with_minimal_size() const {
  std::vector<std::uint64_t> sizes;
  for (const auto& storage : storages_) sizes.push_back(storage->get_used_size());
  return static_cast<storage_number>(std::min_element(sizes.begin(), sizes.end()) - sizes.begin());
}

void database::get_root(object_ref& root, storage_number number) const {
  // Not before it is there: another thread's set_root() brings a handle of its own.
  object_ref found;
  if (is_root_stored(session(), number)) {
    found = session().find(make_object_id(number, root_object_number));
  }
  root.swap(found);
}

bool database::set_root(const object_ref& root, storage_number number) {
  if (root.is_null() || !root.handle()->is_transient()) {
    throw_error(error_code::usage, "Only a new object can become a root object.");
  }
  return session().atomically([&] {
    transaction& running = transaction::running();
    running.lock_number(number, root_object_number);
    if (is_root_stored(session(), number)) return false;
    running.add_root(root, number);
    return true;
  });
}

void database::get_object(object_ref& object, object_number number, storage_number storage) const {
  object = session().find(make_object_id(storage, number));
}

std::unique_ptr<check_rules> database::create_check_rules() { return nullptr; }

check_result database::check(const check_options& options) {
  if (reader_section::is_inside()) {
    throw_error(error_code::usage, "A check cannot be started from within a read.");
  }
  const auto rules = create_check_rules();
  return database_check(*this, options, rules.get()).run();
}

unsigned database::start_gc(const gc_options& options) {
  if (reader_section::is_inside()) {
    throw_error(error_code::usage, "A collection cannot be started from within a read.");
  }
  std::vector<const dbs_storage*> contracts;
  for (const auto& storage : storages_) contracts.push_back(&storage->dbs());
  const auto claim = collection_claim::take(std::move(contracts));
  if (claim == nullptr) return 0;
  collector work(*this, options);
  const bool has_ended = work.run();
  collected_ = work.removed();
  return has_ended ? 1 : 0;
}

bool database::copy_to(const std::string& directory, const copy_options& options) const {
  session();  // it must be open
  if (reader_section::is_inside()) {
    throw_error(error_code::usage, "A database cannot be copied from within a read.");
  }
  std::vector<dbs_storage*> contracts;
  for (const auto& storage : storages_) contracts.push_back(&storage->dbs());
  return database_copier(std::move(contracts), addresses_, options).run(directory);
}

std::uint64_t database::get_num_bytes_from_db() const {
  std::uint64_t sum = 0;
  for (const auto& storage : storages_) sum += storage->bytes_read();
  return sum;
}

std::uint64_t database::get_num_bytes_to_db() const {
  std::uint64_t sum = 0;
  for (const auto& storage : storages_) sum += storage->bytes_written();
  return sum;
}

std::uint64_t database::get_num_bytes_from_db(storage_number number) const {
  return storage(number).bytes_read();
}

std::uint64_t database::get_num_bytes_to_db(storage_number number) const {
  return storage(number).bytes_written();
}

void database::clear_num_bytes_in_out() {
  for (const auto& storage : storages_) storage->clear_counters();
}

void database::clear_num_bytes_in_out(storage_number number) { storage(number).clear_counters(); }

}  // namespace goods
