#include "storage/storage_process.h"

#include <fmt/format.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>

namespace goods {

storage_process& storage_process::instance() {
  static storage_process* process = new storage_process;  // never destroyed, see the header
  return *process;
}

storage_process::storage_process() {
  ::pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

// An open storage, until its last user lets go.
struct storage_process::held_storage {
  held_storage(storage_process& in, const directory_identity& of) : process(in), identity(of) {}
  ~held_storage() {
    if (!storage) return;
    storage.reset();
    if (opened_by == process.generation()) process.forget(identity);
  }
  held_storage(const held_storage&) = delete;
  held_storage& operator=(const held_storage&) = delete;

  storage_process& process;
  const directory_identity identity;
  const std::uint64_t opened_by = process.generation();
  std::unique_ptr<dbs_storage> storage;
};

std::shared_ptr<dbs_storage> storage_process::find_or_open(const directory_identity& identity,
                                                           const std::string& options,
                                                           const opener& open) {
  {
    guarded_scope scope(lock_);
    if (inherited_.count(identity) != 0)
      throw_error(error_code::usage,
                  "A storage that was open when a process forked cannot be opened in the child.");
    for (auto found = storages_.find(identity); found != storages_.end();
         found = storages_.find(identity)) {
      if (auto storage = found->second.storage.lock()) {
        if (found->second.options == options) return storage;
        throw_error(error_code::usage,
                    fmt::format("The storage \"{}\" is already open in this process, with \"{}\" "
                                "instead of \"{}\".",
                                storage->name(), found->second.options, options));
      }
      changed_.wait(lock_);
    }
    storages_.emplace(identity, open_storage_entry{{}, options});
  }
  std::shared_ptr<dbs_storage> storage;
  try {
    const auto held = std::make_shared<held_storage>(*this, identity);
    held->storage = open();
    storage = {held, held->storage.get()};
  } catch (...) {
    forget(identity);
    throw;
  }
  guarded_scope scope(lock_);
  storages_.find(identity)->second.storage = storage;
  changed_.notify_all();
  return storage;
}

void storage_process::forget(const directory_identity& identity) {
  guarded_scope scope(lock_);
  storages_.erase(identity);
  changed_.notify_all();
}

void storage_process::add_lock_descriptor(int descriptor) {
  guarded_scope scope(lock_);
  lock_descriptors_.push_back(descriptor);
}

void storage_process::remove_lock_descriptor(int descriptor) {
  guarded_scope scope(lock_);
  std::erase(lock_descriptors_, descriptor);
}

void storage_process::begin_publishing() STORAGE_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
  publishing_.lock();
  publications_.fetch_add(1);
}

void storage_process::end_publishing() STORAGE_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
  publications_.fetch_add(1);
  publishing_.unlock();
}

void storage_process::before_fork() STORAGE_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
  instance().lock_.lock();
}

void storage_process::after_fork_in_parent() STORAGE_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
  instance().lock_.unlock();
}

// The storages in the table stay the parent's. The child cannot open their directories again: the
// state that SQLite keeps of their files and locks is the parent's as well.
void storage_process::after_fork_in_child() STORAGE_THREAD_ATTRIBUTE(no_thread_safety_analysis) {
  storage_process& process = instance();
  process.generation_.fetch_add(1, std::memory_order_relaxed);
  for (int descriptor : process.lock_descriptors_) ::close(descriptor);
  process.lock_descriptors_.clear();
  for (const auto& [identity, entry] : process.storages_) process.inherited_.insert(identity);
  process.storages_.clear();
  process.lock_.unlock();
}

}  // namespace goods
