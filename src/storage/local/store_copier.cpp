#include "storage/local/store_copier.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <optional>

#include "storage/local/open_store.h"
#include "storage/local/storage_file.h"
#include "storage/local/store_check.h"
#include "storage/local/store_directory.h"

namespace goods {
namespace {

constexpr int pages_at_once = 16;

struct backup_closer {
  void operator()(sqlite3_backup* backup) const { ::sqlite3_backup_finish(backup); }
};

// The first fault ends the check.
class verifying_sink : public check_sink {
 public:
  // `told`: how far it is, from 0 to 1.
  verifying_sink(const std::string& store, std::uint64_t next_object,
                 std::function<bool(double)> told)
      : store_(store), next_object_(next_object), told_(std::move(told)) {}

  bool found(const object_state& state) override {
    newest_ = state.number;
    return ++count_ % objects_between_calls != 0 || goes_on();
  }
  bool fault(const storage_fault& fault) override {
    fault_ = fault;
    return false;
  }
  void throw_fault() const {
    if (!fault_) return;
    const std::string place =
        fault_->first == 0 ? std::string()
                           : fmt::format(" at objects {} to {}", fault_->first, fault_->last);
    throw_error(error_code::corrupt_data,
                fmt::format("The storage \"{}\" is damaged{}: {}.", store_, place, fault_->text));
  }
  bool goes_on() override {
    return told_(static_cast<double>(newest_ - first_object_number) /
                 static_cast<double>(next_object_ - first_object_number));
  }

 private:
  static constexpr unsigned objects_between_calls = 64;

  const std::string& store_;
  const std::uint64_t next_object_;
  const std::function<bool(double)> told_;
  std::optional<storage_fault> fault_;
  object_number newest_ = first_object_number;
  std::uint64_t count_ = 0;
};

}  // namespace

store_copier::store_copier(open_store& from) : from_(from), source_(from.settings) {}

void store_copier::prepare() { from_.merger.merge_most(); }

void store_copier::fix() {
  if (from_.versions.has_hidden)
    throw_error(
        error_code::outcome_unknown,
        fmt::format("The storage \"{}\" must be opened again before it can be copied: a commit "
                    "over several storages is unfinished.",
                    from_.settings.store));
  from_.merger.merge_all();
  source_.refresh();
  sqlite_connection& connection = source_.connection();
  bytes_ = static_cast<std::uint64_t>(connection.integer("PRAGMA page_count") *
                                      connection.integer("PRAGMA page_size"));
}

bool store_copier::write(const std::string& directory, const progress& told) {
  storage_disk::instance().make_directory(directory);
  const store_files files(directory);
  files.create_unfinished();
  if (!copy_pages(files.unfinished(), told)) return false;
  const store_state state = source_.state();
  source_.end();
  const storage_identity identity = renew_store(files.unfinished(), state);
  files.finish();
  return verify(files, identity, state, told);
}

// What is wrong with the copy was wrong with the store, which the messages name.
bool store_copier::verify(const store_files& files, const storage_identity& identity,
                          const store_state& state, const progress& told) const {
  files.check_header();
  verifying_sink sink(from_.settings.store, state.next_object, [&](double part) {
    return told(bytes_, static_cast<std::uint64_t>(static_cast<double>(bytes_) * part));
  });
  const bool is_done = check_store_file(files.database(), from_.settings.store, sink);
  sink.throw_fault();
  if (!is_done) return false;
  sqlite_connection connection(files.database(), sqlite_connection::access::read_write);
  store_reader copy(connection, from_.settings.store);
  if (copy.identity() != identity || copy.state().version != state.version)
    throw_damaged_row(from_.settings.store, "about", identity_key, "its copy has another one");
  return true;
}

bool store_copier::copy_pages(const std::string& file, const progress& told) {
  sqlite_connection into(file, sqlite_connection::access::read_write);
  // Until it is synced as a whole, nobody takes it for a store.
  into.execute("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF");
  std::unique_ptr<sqlite3_backup, backup_closer> backup(
      ::sqlite3_backup_init(into.handle(), "main", source_.connection().handle(), "main"));
  if (!backup) into.fail(::sqlite3_extended_errcode(into.handle()), "copying into it");
  const std::uint64_t page_size =
      static_cast<std::uint64_t>(source_.connection().integer("PRAGMA page_size"));
  for (int result = SQLITE_OK; result == SQLITE_OK;) {
    result = ::sqlite3_backup_step(backup.get(), pages_at_once);
    if (result != SQLITE_OK && result != SQLITE_DONE) {
      backup.reset();  // tells the connection why
      into.fail(result, fmt::format("copying \"{}\" into it", from_.settings.file));
    }
    const auto left = static_cast<std::uint64_t>(::sqlite3_backup_remaining(backup.get()));
    if (!told(bytes_ - left * page_size, 0)) return false;
  }
  return true;
}

}  // namespace goods
