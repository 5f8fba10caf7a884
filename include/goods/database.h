// A session's database: one or several storages that a configuration file names.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <goods/goods_api.h>
#include <goods/object_ref.h>

namespace goods {

class cache_manager;
class check_rules;
class dbs_storage;
class obj_storage;

// How far a collection is.
struct gc_progress {
  std::uint64_t stored = 0;   // objects there were at the beginning
  std::uint64_t marked = 0;   // found to be in use so far, newer ones included
  std::uint64_t removed = 0;  // so far; in a dry run: that would be
  bool is_removing = false;   // nothing more is marked
};

// What a collection is to do. The functions are called by the thread that collects, which holds
// nothing meanwhile; what they throw ends the collection and reaches its caller.
struct gc_options {
  bool dry_run = false;  // finds out what would be removed, and leaves it
  // Called often, and once at the end; false ends the collection. What has been removed by then was
  // garbage, the rest is found by the next one.
  std::function<bool(const gc_progress&)> progress;
  // Shown each object, in the order of numbers, before it is removed.
  std::function<void(object_id id, std::string_view class_name)> removes;
};

// How far a check is.
struct check_progress {
  std::uint64_t read = 0;     // objects whose storage has been verified
  std::uint64_t checked = 0;  // objects that have been followed and compared with others
  std::uint64_t faults = 0;
};

// Something that is wrong with a database.
struct check_finding {
  object_id id = 0;        // the object that it is about; 0: none in particular
  object_id last = 0;      // the objects from `id` to this one, as far as they exist; or `id`
  std::string path;        // names from the root, joined by '~'; empty when none leads there
  std::string class_name;  // empty when it is not known
  std::string text;        // as "refers to object 0:65600, which is not there"
  storage_number storage = 0;
};

// What a check is to do. The functions are called by the thread that checks, which holds nothing
// meanwhile; what they throw ends the check and reaches its caller.
struct check_options {
  bool full = false;  // reads and compares everything; otherwise each storage's own tables
  // Called often; false ends the check.
  std::function<bool(const check_progress&)> progress;
  std::function<void(const check_finding&)> found;
  // Shown each object that nothing leads to from a root. This is no fault: deleting leaves such
  // objects, and a collection removes them.
  std::function<void(object_id id, std::string_view class_name)> unreachable;
};

struct check_result {
  bool has_ended = true;  // options.progress did not end it
  std::uint64_t objects = 0;
  std::uint64_t faults = 0;
  std::uint64_t unreachable = 0;
};

// How far a copy is.
struct copy_progress {
  std::uint64_t bytes = 0;     // that it will have, about
  std::uint64_t written = 0;   // of these
  std::uint64_t verified = 0;  // of these, read back and found to be right
  // For how long commits were kept waiting, at the beginning.
  std::chrono::microseconds commits_held{0};
};

struct copy_options {
  // Called often, by the thread that copies, and once at the end; false ends the copying, and so
  // does what it throws, which reaches the caller.
  std::function<bool(const copy_progress&)> progress;
};

// Opens the storages, finds root objects and objects by identifier, and keeps the byte counters.
//
// The configuration file: the number of storages in the first line, then one line for each,
// "number: address", numbers from 0 upwards without gaps. An embedded storage's address is "file:"
// and a directory, relative to the configuration file; see open_storage() for its options.
//
// Ownership: the application's. Closing the database ends its session; references that are still
// held refer to nothing from then on.
// Threads: open() and close() need the database for themselves; everything else is safe from any
// attached thread.
class GOODS_API database {
 public:
  database();
  virtual ~database();  // closes
  database(const database&) = delete;
  database& operator=(const database&) = delete;

  // Opens all storages, creating embedded ones that are missing, and finishes or drops what a crash
  // left of commits over several storages. Returns false when a storage is held by another process
  // or does not answer: trying again later may succeed. Everything else throws: usage for a
  // configuration file that is missing or cannot be understood (file and line are named),
  // input_output, corrupt_data, newer_version.
  virtual bool open(const char* configuration_path);
  // Throws usage when one of the storages that the file describes is not there, which open() would
  // make; otherwise as open(). Opens nothing.
  static void expect_storages(const char* configuration_path);
  // Why the last open() returned false.
  const std::string& get_open_problem() const { return open_problem_; }
  virtual void close();
  bool is_open() const { return session_ != nullptr; }
  // Whether one of its storages takes no commits any more, see outcome_unknown, until all databases
  // of the process that share it have been closed. Safe from any thread.
  bool has_failed() const;
  // Those storages. Each is counted once for every database of the process that has it open, and
  // has expired when the last one was closed: then opening it begins anew.
  std::vector<std::weak_ptr<const dbs_storage>> failed_storages() const;

  // The session's cache; the database must be open.
  cache_manager& session() const;
  // Attaches the calling thread to it, leaving another session; and detaches the thread.
  virtual void attach();
  virtual void detach();

  std::uint32_t get_number_of_storages() const;
  // Throws usage for a storage that the database does not have.
  obj_storage& storage(storage_number number) const;
  storage_number get_storage_with_minimal_size() const;

  // The root object of a storage; null until set_root() has been committed. The class is not
  // checked.
  void get_root(object_ref& root, storage_number storage = 0) const;
  // Makes a transient object the root of a storage that has none yet, in the transaction that is
  // open or one of its own. Returns false, and leaves `root` alone, when there is a root already.
  bool set_root(const object_ref& root, storage_number storage = 0);

  // A reference by identifier; whether there is such an object shows when it is used.
  void get_object(object_ref& object, object_number number, storage_number storage) const;

  // Removes stored objects that neither a root object nor any session's references lead to, while
  // all sessions go on working; returns when that is done, however many commits keep arriving.
  // Commits are held for moments at its end. A read that goes on for long delays it.
  // What threads hold, or take out of what they read meanwhile, stays; an identifier that was kept
  // in another form than a reference holds nothing, and may be another object's some time later:
  // numbers are used again. Storing a reference to what is being removed throws object_deleted.
  // A storage must not belong to several databases:
  // what only another one's storages refer to would go.
  // Returns 0, and does nothing, when a collection of one of the storages is running already,
  // whichever session it was started from. Interrupted at any point it has removed garbage only.
  // Throws corrupt_data when it meets a damaged object; then nothing has been removed. Throws usage
  // when it is called from within a read.
  unsigned start_gc() { return start_gc(gc_options()); }
  // Returns 0 also when options.progress ended it.
  unsigned start_gc(const gc_options& options);
  // What the last collection removed, or in a dry run would have.
  std::uint64_t get_num_collected_objects() const { return collected_; }

  // Verifies what is stored, as of one moment, while all sessions go on working; commits are held
  // for moments at its beginning, and with `full` while the commit log is read. Trusts nothing that
  // is stored, runs no code of the objects' classes, and goes on after each fault. Classes that
  // this process does not know are no faults: the storage says how their objects are stored.
  // Memory: a byte for each object number, the way from a root to the object that is being looked
  // at, and a few MiB. Throws usage when it is called from within a read; faults are found, not
  // thrown.
  check_result check(const check_options& options);

  // Makes a copy of the database in a new directory, while all sessions go on working: everything
  // that was committed before one moment, over all storages, and nothing that was committed later.
  // Commits are held for moments at the beginning. Uncommitted changes, also the caller's, are not
  // in it. All of the copy is read back and checked; damage that is found may well be the
  // database's.
  //
  // The copy is a database: a configuration file "tarns.conf" with the options of this one, and the
  // storages in "data" (of several: "data0", "data1", ...). Its storages have identities of their
  // own, so that it may be opened beside this one. Copying it back, by this function or as files
  // while it is closed, restores it. Mode 0700, files 0600.
  //
  // `directory` must not be there, its parent must. The copy is put together as
  // "DIRECTORY.unfinished" and gets its name when it is complete and durable, so that there is none
  // or a whole one after any crash; what a crash leaves under the other name is removed by the next
  // copy to `directory`. Room is needed for all of the copy; while it is made, the write-ahead
  // files of this database do not shrink.
  //
  // Returns false, and leaves nothing, when options.progress ended it. Throws usage when there is
  // something at `directory`, or at "DIRECTORY.unfinished" and not left by a copy, and when it is
  // called from within a read; database_in_use when a copy to it is being made; corrupt_data,
  // input_output and storage_full. Nothing is left then either, as far as the disk allows; an
  // error of the very last step, syncing the name, leaves the copy.
  // Threads: any, attached or not.
  bool copy_to(const std::string& directory, const copy_options& options = {}) const;

  // Bytes of packed objects loaded from and committed to the storages, since opening or clearing.
  std::uint64_t get_num_bytes_from_db() const;
  std::uint64_t get_num_bytes_to_db() const;
  std::uint64_t get_num_bytes_from_db(storage_number storage) const;
  std::uint64_t get_num_bytes_to_db(storage_number storage) const;
  void clear_num_bytes_in_out();
  void clear_num_bytes_in_out(storage_number storage);

 protected:
  // Lets a derived class supply its own cache manager.
  virtual std::unique_ptr<cache_manager> create_session();
  // Lets a derived class add to what check() looks for; null for nothing.
  virtual std::unique_ptr<check_rules> create_check_rules();

 private:
  friend class cache_manager;

  // Suggests to the storages how much memory they may keep, all together.
  void divide_cache(std::size_t bytes);

  std::vector<std::unique_ptr<obj_storage>> storages_;
  std::vector<std::string> addresses_;  // of the storages, as in the configuration file
  std::unique_ptr<cache_manager> session_;
  std::string open_problem_;
  std::atomic<std::uint64_t> collected_{0};
};

}  // namespace goods
