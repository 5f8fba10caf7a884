#include "storage/local/local_storage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "storage/storage_process.h"

namespace goods {

// Everything that takes threads, files or locks. A forked child must not touch any of it.
struct local_storage::open_parts {
  open_parts(const storage_address& address, const std::string& name, local_storage& self);
  ~open_parts();

  void make_when_missing();
  void load_tables();

  const store_files files;
  const directory_hold hold;
  const connection_settings settings;
  const bool checked;  // the file is there and its header makes sense
  segment_store store;
  const storage_identity identity;
  presence_map presence;
  layout_registry layouts;
  prepared_commits prepared;
  segment_cache cache;
  snapshot_pool readers;
  notice_board notices;
  object_lock_table locks;
  writer_turn turn;
  commit_queue queue;
  checkpointer log;

 private:
  bool prepare_files();
};

// A commit over several storages between its SQLite commit and publish().
struct local_storage::hidden_commit {
  global_transaction id;
  commit_version version;
  commit_request request;  // its bodies may be gone: only numbers, origin and attachment are used
  segment_changes changes;
  replaced_states replaced;
};

local_storage::open_parts::open_parts(const storage_address& address, const std::string& name,
                                      local_storage& self)
    : files(address.directory),
      hold(address.directory),
      settings{files.database(), name, address.options.mapped},
      checked(prepare_files()),
      store(settings, address.options.relaxed),
      identity(store.reader().identity()),
      layouts(name),
      prepared(name),
      cache(address.options.cache_bytes),
      readers(settings),
      notices(store.state().version),
      locks(self),
      queue(turn, [&self](commit_queue::commit_group group) { self.write_group(group); }),
      log(settings, turn, readers) {
  load_tables();
}

bool local_storage::open_parts::prepare_files() {
  files.remove_unfinished();
  if (!files.exist()) {
    files.create_unfinished();
    make_store(files.unfinished());
    files.finish();
  }
  files.check_header();
  sqlite_connection connection(files.database(), sqlite_connection::access::read_write);
  check_schema(connection);
  if (connection.text("PRAGMA journal_mode=WAL") != "wal")
    throw_error(
        error_code::input_output,
        fmt::format("The storage file \"{}\" cannot have a write-ahead log.", files.database()));
  return true;
}

void local_storage::open_parts::load_tables() {
  std::uint64_t segments = 0;
  store.reader().for_each_row(
      "presence", row_kind::presence, [&](std::int64_t key, const byte_block& content) {
        presence_map::content bits;
        if (key < 0 || key >= presence_map::chunks || content.size != sizeof bits)
          throw damaged_bytes("it does not describe segments");
        std::memcpy(bits.data(), content.bytes.get(), sizeof bits);
        segments += presence.load(static_cast<std::uint32_t>(key), bits);
      });
  if (segments != store.state().segments)
    throw_damaged_row(settings.store, "presence", 0, "rows of it are missing");
  layouts.load(store.reader(), store.state());
  prepared.load(store.reader(), store.state());
}

local_storage::open_parts::~open_parts() {
  readers.end_idle();
  writer_turn::hold scope(turn);
  if (!prepared.has_forgotten() || store.has_failed()) return;
  try {
    segment_store::transaction transaction(store);
    prepared.erase_forgotten(transaction);
    transaction.commit();
  } catch (...) {  // NOLINT(bugprone-empty-catch): recovery forgets what is left
  }
}

local_storage::local_storage(const storage_address& address)
    : name_(address.directory),
      generation_(storage_process::instance().generation()),
      parts_(std::make_unique<open_parts>(address, name_, *this)) {
  visible_ = parts_->store.state().version;
  next_object_ = std::max(parts_->store.state().next_object, parts_->prepared.next_object());
}

local_storage::~local_storage() {
  if (generation_ == storage_process::instance().generation()) return;
  // In a forked child the threads are gone and files and locks are the parent's: leave all as it
  // is.
  (void)parts_.release();
}

void local_storage::check_process() const {
  if (generation_ == storage_process::instance().generation()) return;
  throw_error(error_code::usage,
              fmt::format("The storage \"{}\" was opened by the parent of this process; a child "
                          "made by fork() cannot use it.",
                          name_));
}

// ---- loading

namespace {

void deliver(const segment& from, object_number number, state_sink& into) {
  const unsigned slot = slot_of(number);
  if (from.has(slot))
    into.found({number, from.layout(slot), from.body(slot)});
  else
    into.missing(number);
}

// Commits over several storages become visible everywhere before anything is read anywhere.
void wait_for_publication() {
  while ((storage_process::instance().publications() & 1) != 0) std::this_thread::yield();
}

}  // namespace

// A load that needs the file: everything as of the one version that its snapshot has.
class local_storage::load_in_snapshot {
 public:
  load_in_snapshot(local_storage& storage, commit_version at_least, state_sink& into)
      : storage_(storage),
        parts_(*storage.parts_),
        into_(into),
        from_(parts_.readers.take(std::max(at_least, storage.newest_version()))),
        hidden_(storage.hidden()) {
    as_of_ = from_->state().version;
    if (as_of_ < at_least)
      throw_error(error_code::usage, fmt::format("The storage \"{}\" has no version {} yet.",
                                                 storage.name_, at_least));
    if (hidden_ && hidden_->version <= as_of_)
      as_of_ = hidden_->version - 1;
    else
      hidden_.reset();
    cache_serves_ = storage.newest_version() >= as_of_;
  }

  commit_version run(std::span<const object_number> numbers) {
    std::vector<object_number> doubtful;
    for (object_number number : numbers) {
      const segment* content = find(segment_of(number));
      if (content == nullptr) {
        if (parts_.presence.has(segment_of(number)))
          doubtful.push_back(number);
        else
          into_.missing(number);
      } else if (content->has(slot_of(number)) && content->is_apart(slot_of(number))) {
        deliver_apart(*content, number);
      } else {
        deliver(*content, number, into_);
      }
    }
    // Last, because it gives up the snapshot.
    for (object_number number : doubtful) {
      storage_.confirm_missing(*from_.operator->(), segment_of(number));
      into_.missing(number);
    }
    return as_of_;
  }

 private:
  const segment* find(segment_number number) {
    if (current_ && current_->number() == number) return current_.get();
    current_ = look_up(number);
    return current_.get();
  }

  std::shared_ptr<const segment> look_up(segment_number number) {
    if (hidden_) {
      const auto replaced = hidden_->replaced.segments.find(number);
      if (replaced != hidden_->replaced.segments.end()) return replaced->second;
    }
    if (cache_serves_) {
      auto cached = parts_.cache.find(number);
      if (cached && cached->version() <= as_of_) return cached;
    }
    auto stored = from_->reader().read_segment(number);
    if (stored) parts_.cache.offer(stored, from_->state().version);
    return stored;
  }

  void deliver_apart(const segment& content, object_number number) {
    const unsigned slot = slot_of(number);
    if (hidden_) {
      const auto replaced = hidden_->replaced.apart.find(number);
      if (replaced != hidden_->replaced.apart.end()) {
        into_.found({number, content.layout(slot), replaced->second.view()});
        return;
      }
    }
    const byte_block body = from_->reader().read_apart(number, content.length(slot));
    into_.found({number, content.layout(slot), body.view()});
  }

  local_storage& storage_;
  open_parts& parts_;
  state_sink& into_;
  snapshot_pool::lease from_;
  std::shared_ptr<const hidden_commit> hidden_;  // null unless the snapshot has it
  std::shared_ptr<const segment> current_;       // looked up last
  commit_version as_of_;
  bool cache_serves_;
};

commit_version local_storage::load(std::span<const object_number> numbers, commit_version at_least,
                                   state_sink& into) {
  check_process();
  wait_for_publication();
  commit_version as_of = 0;
  if (load_from_cache(numbers, at_least, into, as_of)) return as_of;
  return load_in_snapshot(*this, at_least, into).run(numbers);
}

// Whether the cache has all of them as of the newest version; only then is anything handed over.
bool local_storage::load_from_cache(std::span<const object_number> numbers, commit_version at_least,
                                    state_sink& into, commit_version& as_of) {
  as_of = newest_version();
  if (as_of < at_least) return false;
  const auto find = [&](object_number number) {
    auto cached = parts_->cache.find(segment_of(number));
    const unsigned slot = slot_of(number);
    if (cached && (cached->version() > as_of || (cached->has(slot) && cached->is_apart(slot))))
      cached.reset();
    return cached;
  };
  if (numbers.size() == 1) {
    const auto cached = find(numbers[0]);
    if (cached) deliver(*cached, numbers[0], into);
    return cached != nullptr;
  }
  std::vector<std::shared_ptr<const segment>> all(numbers.size());
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const bool same =
        i != 0 && segment_of(numbers[i]) == segment_of(numbers[i - 1]) &&
        !(all[i - 1]->has(slot_of(numbers[i])) && all[i - 1]->is_apart(slot_of(numbers[i])));
    all[i] = same ? all[i - 1] : find(numbers[i]);
    if (!all[i]) return false;
  }
  for (std::size_t i = 0; i < numbers.size(); ++i) deliver(*all[i], numbers[i], into);
  return true;
}

std::shared_ptr<const local_storage::hidden_commit> local_storage::hidden() const {
  if (!has_hidden_.load(std::memory_order_acquire)) return nullptr;
  guarded_scope scope(hidden_lock_);
  return hidden_;
}

// A segment that should be there had no row in a snapshot. It may have been made since then, and
// may be on its way out now; when neither can be, its row is lost.
void local_storage::confirm_missing(snapshot& from, segment_number number) {
  for (;;) {
    if (!parts_->presence.has(number)) return;
    from.refresh();
    if (from.reader().read_segment(number)) return;
    const commit_version visible = newest_version();
    if (parts_->presence.has(number) && visible == newest_version() &&
        visible == from.state().version)
      throw_damaged_segment(name_, number, "their row is missing");
    std::this_thread::yield();
  }
}

// ---- committing

void local_storage::check_request(const commit_request& request) const {
  const std::uint64_t known_layouts = parts_->layouts.count();
  for (const object_change& change : request.changes) {
    if (change.number < first_object_number)
      throw_error(error_code::usage, fmt::format("{} is no object number: a commit to the storage "
                                                 "\"{}\" names it.",
                                                 change.number, name_));
    if (change.removed) continue;
    if (change.layout == 0 || change.layout > known_layouts)
      throw_error(error_code::usage, fmt::format("Object {} has the layout {}, which the storage "
                                                 "\"{}\" does not know.",
                                                 change.number, change.layout, name_));
    if (change.body.size() > max_state_size)
      throw_error(error_code::storage_full,
                  fmt::format("Object {} has {} bytes; the storage \"{}\" takes {} at most.",
                              change.number, change.body.size(), name_, max_state_size));
  }
}

commit_version local_storage::commit(const commit_request& request) {
  check_process();
  check_request(request);
  return parts_->queue.commit(request);
}

void local_storage::write_group(commit_queue::commit_group group) {
  try {
    write_together(group);
    return;
  } catch (...) {
    if (group.size() == 1 || parts_->store.has_failed()) {
      for (queued_commit* member : group) member->failure = std::current_exception();
      return;
    }
  }
  // One of them is too large for the disk, or hits damage: the others need not suffer.
  for (queued_commit* member : group) {
    try {
      write_together({&member, 1});
    } catch (...) {
      member->failure = std::current_exception();
    }
  }
}

void local_storage::write_together(commit_queue::commit_group group) {
  segment_store::transaction transaction(parts_->store);
  std::vector<const object_change*> changes;
  std::vector<committed> commits;
  for (queued_commit* member : group) {
    for (const object_change& change : member->request->changes) changes.push_back(&change);
    commits.push_back({++transaction.state().version, member->request});
  }
  change_merger merger(parts_->store, transaction, parts_->cache, parts_->presence, nullptr);
  const segment_changes changed = merger.merge(std::move(changes), transaction.state().version);
  parts_->prepared.erase_forgotten(transaction);
  transaction.commit();

  parts_->prepared.forgotten_erased();
  for (std::size_t i = 0; i < group.size(); ++i) group[i]->version = commits[i].version;
  show(changed, commits);
}

void local_storage::show(const segment_changes& changes,
                         std::span<const committed> commits) noexcept {
  const commit_version version = commits.back().version;
  for (segment_number number : changes.added) parts_->presence.set(number, true);
  for (segment_number number : changes.removed) parts_->presence.set(number, false);
  for (const auto& change : changes.changed)
    parts_->cache.publish(change.number, change.now, version);
  parts_->notices.publish(commits);
  visible_.store(version, std::memory_order_release);

  // Commits may use numbers that nobody was given: the root's.
  std::uint64_t next = next_object_.load();
  while (next < parts_->store.state().next_object &&
         !next_object_.compare_exchange_weak(next, parts_->store.state().next_object))
    continue;
  commits_ += commits.size();
  ++groups_;
  parts_->log.log_has(parts_->store.log_pages());
}

object_number local_storage::allocate(std::uint32_t count) {
  check_process();
  std::uint64_t first = next_object_.load();
  do {
    if (first + count > std::uint64_t{1} << 32)
      throw_error(error_code::storage_full,
                  fmt::format("The storage \"{}\" has no object numbers left.", name_));
  } while (!next_object_.compare_exchange_weak(first, first + count));
  return static_cast<object_number>(first);
}

class_number local_storage::intern_layout(std::span<const std::byte> layout) {
  check_process();
  if (const class_number known = parts_->layouts.find(layout)) return known;
  if (layout.size() > longest_row)
    throw_error(error_code::storage_full,
                fmt::format("A class layout has {} bytes; the storage \"{}\" takes {} at most.",
                            layout.size(), name_, longest_row));
  writer_turn::hold turn(parts_->turn);
  if (const class_number known = parts_->layouts.find(layout)) return known;
  const class_number number = parts_->layouts.next_number();
  segment_store::transaction transaction(parts_->store);
  transaction.write_layout(number, layout);
  ++transaction.state().layouts;
  transaction.commit();
  parts_->layouts.add(layout);
  return number;
}

std::vector<layout_record> local_storage::layouts() {
  check_process();
  return parts_->layouts.all();
}

std::unique_ptr<notice_subscription> local_storage::subscribe(const void* origin) {
  check_process();
  return parts_->notices.subscribe(origin);
}

lock_table& local_storage::locks() {
  check_process();
  return parts_->locks;
}

// ---- commits over several storages

storage_identity local_storage::identity() const { return parts_->identity; }

void local_storage::prepare(const global_transaction& id, const storage_identity& coordinator,
                            const std::string& coordinator_name, const commit_request& request) {
  check_process();
  check_request(request);
  writer_turn::hold turn(parts_->turn);
  segment_store::transaction transaction(parts_->store, segment_store::sync::always);
  auto part = parts_->prepared.prepare(transaction, {id, coordinator, coordinator_name}, request);
  transaction.commit();
  parts_->prepared.remember(std::move(part));
}

// Takes the turn and, when all goes well, leaves it to publish() or abandon().
template <class Extra>
commit_version local_storage::commit_hidden(const global_transaction& id,
                                            const commit_request& request, Extra&& extra) {
  auto commit = std::make_shared<hidden_commit>();
  segment_store::transaction transaction(parts_->store, segment_store::sync::always);
  commit->id = id;
  commit->request = request;
  commit->version = ++transaction.state().version;
  std::vector<const object_change*> changes;
  for (const object_change& change : request.changes) changes.push_back(&change);
  change_merger merger(parts_->store, transaction, parts_->cache, parts_->presence,
                       &commit->replaced);
  commit->changes = merger.merge(std::move(changes), commit->version);
  extra(transaction);
  // Readers may see it in the file as soon as it is committed there.
  {
    guarded_scope scope(hidden_lock_);
    hidden_ = commit;
    has_hidden_.store(true, std::memory_order_release);
  }
  try {
    transaction.commit();
  } catch (...) {
    guarded_scope scope(hidden_lock_);
    hidden_.reset();
    has_hidden_.store(false, std::memory_order_release);
    throw;
  }
  return commit->version;
}

commit_version local_storage::commit_and_decide(const commit_decision& decision,
                                                const commit_request& request) {
  check_process();
  check_request(request);
  writer_turn::hold turn(parts_->turn);
  std::int64_t key = 0;
  const commit_version version =
      commit_hidden(decision.id, request, [&](segment_store::transaction& transaction) {
        key = parts_->prepared.decide(transaction, decision);
      });
  parts_->prepared.remember(decision, key);
  turn.hand_on();
  return version;
}

commit_version local_storage::commit_prepared(const global_transaction& id) {
  check_process();
  writer_turn::hold turn(parts_->turn);
  const prepared_part* part = parts_->prepared.find(id);
  if (part == nullptr)
    throw_error(error_code::usage,
                fmt::format("The storage \"{}\" has not prepared this commit.", name_));
  const commit_version version = commit_hidden(
      id, part->request(),
      [&](segment_store::transaction& transaction) { parts_->prepared.erase(transaction, *part); });
  turn.hand_on();
  return version;
}

void local_storage::publish(const global_transaction& id) noexcept {
  std::shared_ptr<const hidden_commit> commit;
  {
    guarded_scope scope(hidden_lock_);
    commit = std::exchange(hidden_, nullptr);
    has_hidden_.store(false, std::memory_order_release);
  }
  const committed told{commit->version, &commit->request};
  show(commit->changes, {&told, 1});
  parts_->prepared.forget(id);
  parts_->turn.leave();
}

void local_storage::abandon(const global_transaction& id) noexcept {
  const auto commit = hidden();
  if (!commit || commit->id != id) parts_->turn.take();
  parts_->store.set_failed();
  parts_->turn.leave();
}

void local_storage::discard_prepared(const global_transaction& id) {
  check_process();
  writer_turn::hold turn(parts_->turn);
  const prepared_part* part = parts_->prepared.find(id);
  if (part == nullptr) return;
  segment_store::transaction transaction(parts_->store, segment_store::sync::always);
  parts_->prepared.erase(transaction, *part);
  transaction.commit();
  parts_->prepared.forget(id);
}

void local_storage::forget_decision(const global_transaction& id) {
  check_process();
  writer_turn::hold turn(parts_->turn);
  parts_->prepared.forget_decision(id);
}

std::vector<prepared_commit> local_storage::prepared() {
  check_process();
  writer_turn::hold turn(parts_->turn);
  return parts_->prepared.found_prepared();
}

std::vector<commit_decision> local_storage::decisions() {
  check_process();
  writer_turn::hold turn(parts_->turn);
  return parts_->prepared.found_decisions();
}

// ---- all objects, figures

void local_storage::for_each(const std::function<bool(const object_state&)>& visit) {
  check_process();
  std::optional<snapshot> all;
  {
    // Between commits, so that a hidden one is not in it.
    writer_turn::hold turn(parts_->turn);
    if (hidden())
      throw_error(
          error_code::outcome_unknown,
          fmt::format("The storage \"{}\" must be opened again before all its objects can be "
                      "visited: a commit over several storages is unfinished.",
                      name_));
    all.emplace(parts_->settings);
    all->refresh();
  }
  bool stopped = false;
  const auto visit_object = [&](const segment& in, unsigned slot) {
    object_state state{in.object(slot), in.layout(slot), {}};
    byte_block apart;
    if (in.is_apart(slot)) {
      apart = all->reader().read_apart(state.number, in.length(slot));
      state.body = apart.view();
    } else {
      state.body = in.body(slot);
    }
    stopped = !visit(state);
  };
  const std::uint64_t count =
      all->reader().for_each_segment([&](const std::shared_ptr<const segment>& next) {
        for (unsigned slot = 0; slot < segment_slots && !stopped; ++slot)
          if (next->has(slot)) visit_object(*next, slot);
        return !stopped;
      });
  if (!stopped && count != all->state().segments)
    throw_damaged_row(name_, "segments", 0,
                      fmt::format("there are {} rows instead of {}", count, all->state().segments));
}

storage_statistics local_storage::statistics() {
  check_process();
  storage_statistics result;
  result.file_bytes = parts_->files.size();
  {
    const snapshot_pool::lease from = parts_->readers.take(newest_version());
    sqlite_connection& connection = from->connection();
    const std::int64_t pages =
        connection.integer("PRAGMA page_count") - connection.integer("PRAGMA freelist_count");
    result.used_bytes = static_cast<std::uint64_t>(pages * connection.integer("PRAGMA page_size"));
  }
  result.commits = commits_.load();
  result.commit_groups = groups_.load();
  return result;
}

std::shared_ptr<dbs_storage> open_local_storage(const storage_address& address) {
  const directory_identity identity = prepare_directory(address.directory);
  const std::string options =
      fmt::format("durability={}&mmap={}&cache={}", address.options.relaxed ? "relaxed" : "full",
                  address.options.mapped ? "on" : "off", address.options.cache_bytes);
  return storage_process::instance().find_or_open(
      identity, options, [&] { return std::make_unique<local_storage>(address); });
}

}  // namespace goods
