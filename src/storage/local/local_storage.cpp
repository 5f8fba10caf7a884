#include "storage/local/local_storage.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "storage/local/open_store.h"
#include "storage/local/store_copier.h"
#include "storage/local/store_view.h"
#include "storage/local/store_walk.h"
#include "storage/storage_process.h"

namespace goods {

local_storage::local_storage(const storage_address& address)
    : name_(address.directory),
      generation_(storage_process::instance().generation()),
      parts_(std::make_unique<open_store>(
          address, name_, *this, [this](commit_queue::commit_group group) { write_group(group); })),
      loader_(parts_->newest, parts_->versions) {
  next_object_ = std::max(parts_->store.state().next_object, parts_->prepared.next_object());
  find_free_numbers();
}

// Before anybody can know an object of this store, or have numbers of it.
void local_storage::find_free_numbers() {
  const std::vector<object_number> prepared = parts_->prepared.numbers();  // ascending
  const auto is_taken = [&](segment_number number) {
    const auto found = std::ranges::lower_bound(prepared, number * segment_slots);
    return found != prepared.end() && segment_of(*found) == number;
  };
  // The root's segment is nobody's.
  const segment_number first = segment_of(root_object_number) + 1;
  const auto end = static_cast<segment_number>(next_object_ / segment_slots);
  if (first < end) free_.load(parts_->presence, first, end, is_taken);
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

commit_version local_storage::load(std::span<const object_number> numbers, commit_version at_least,
                                   state_sink& into) {
  check_process();
  return loader_.load(numbers, at_least, into);
}

void local_storage::expect(std::span<const object_number> numbers) noexcept {
  if (generation_ == storage_process::instance().generation()) parts_->ahead.expect(numbers);
}

commit_version local_storage::newest_version() const {
  return parts_->versions.visible.load(std::memory_order_acquire);
}

// ---- numbers

object_number local_storage::allocate(std::uint32_t count) {
  check_process();
  std::uint64_t first = next_object_.load();
  do {
    if (first + count > std::uint64_t{1} << 32)
      throw_error(error_code::storage_full,
                  fmt::format("The storage \"{}\" has no object numbers left.", name_));
    free_.reserve(static_cast<segment_number>((first + count) / segment_slots) + 1);
  } while (!next_object_.compare_exchange_weak(first, first + count));
  return static_cast<object_number>(first);
}

number_range local_storage::reuse(std::uint32_t most) {
  check_process();
  const free_numbers::run found = free_.take(most / segment_slots);
  return {found.first * segment_slots, found.count * segment_slots};
}

void local_storage::give_back(number_range unused) noexcept {
  const std::uint64_t end = std::uint64_t{unused.first} + unused.count;
  // Begun groups were never used, and may go back to where they came from, the end of all numbers.
  // A group of which something has been used does not go back: what is used there may be removed,
  // and the group with it be handed out again.
  const bool is_begun = unused.first % segment_slots != 0 || end % segment_slots != 0;
  const std::uint64_t first =
      (std::uint64_t{unused.first} + segment_slots - 1) / segment_slots * segment_slots;
  std::uint64_t next = end;
  if (is_begun && first < end && next_object_.compare_exchange_strong(next, first)) return;
  free_.give_back(unused.first, end);
}

void local_storage::reclaim(const std::function<bool(object_number first)>& is_unused) {
  check_process();
  free_.reclaim([&](segment_number number) {
    // allocate() still hands out the numbers of a group that has been reached only in part. Asked
    // for first: who has been given numbers since is known to is_unused().
    const std::uint64_t end = (std::uint64_t{number} + 1) * segment_slots;
    return end <= next_object_.load() && is_unused(number * segment_slots);
  });
}

void local_storage::make_durable() {
  check_process();
  if (!parts_->relaxed) return;
  const writer_turn::hold turn(parts_->turn);
  parts_->merger.merge_all();
}

void local_storage::give_back_room() {
  check_process();
  parts_->merger.merge_most();
  const writer_turn::hold turn(parts_->turn);
  parts_->merger.merge_all();
}

std::unique_ptr<commit_pause> local_storage::pause_commits() {
  class turn_pause : public commit_pause {
   public:
    explicit turn_pause(writer_turn& turn) : turn_(turn) {}

   private:
    const writer_turn::hold turn_;
  };
  check_process();
  return std::make_unique<turn_pause>(parts_->turn);
}

struct local_storage::condemned_objects : condemnation {
  explicit condemned_objects(local_storage& in) : storage(in) {}
  ~condemned_objects() override {
    const writer_turn::hold turn(storage.parts_->turn);
    storage.is_condemned_ = nullptr;
  }
  local_storage& storage;
};

std::unique_ptr<condemnation> local_storage::condemn(
    std::function<bool(object_number number)> is_condemned, const commit_pause&) {
  check_process();
  auto condemned = std::make_unique<condemned_objects>(*this);
  is_condemned_ = std::move(is_condemned);
  return condemned;
}

class_number local_storage::intern_layout(std::span<const std::byte> layout) {
  check_process();
  if (const class_number known = parts_->layouts.find(layout)) return known;
  if (layout.size() > longest_row)
    throw_error(error_code::storage_full,
                fmt::format("A class layout has {} bytes; the storage \"{}\" takes {} at most.",
                            layout.size(), name_, longest_row));
  writer_turn::hold turn(parts_->database_turn);
  if (const class_number known = parts_->layouts.find(layout)) return known;
  auto entry = parts_->layouts.prepare(layout);
  const class_number number = entry.mapped();
  segment_store::transaction transaction(parts_->store);
  transaction.write_layout(number, layout);
  ++transaction.state().layouts;
  transaction.commit();
  parts_->layouts.add(std::move(entry));
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

// ---- all objects, figures

void local_storage::check_nothing_hidden() const {
  if (!parts_->versions.has_hidden) return;
  throw_error(error_code::outcome_unknown,
              fmt::format("The storage \"{}\" must be opened again before all its objects can be "
                          "visited: a commit over several storages is unfinished.",
                          name_));
}

void local_storage::for_each(const std::function<bool(const object_state&)>& visit) {
  check_process();
  // Between commits, so that it begins with one version, and a hidden one is not in it.
  std::optional<store_walk> walk;
  {
    writer_turn::hold turn(parts_->turn);
    check_nothing_hidden();
    walk.emplace(parts_->settings, parts_->overlay.copy());
  }
  walk->visit(visit);
}

std::unique_ptr<storage_view> local_storage::view(const commit_pause&) {
  check_process();
  check_nothing_hidden();
  return std::make_unique<store_view>(*parts_, next_object_);
}

std::unique_ptr<storage_copier> local_storage::copier() {
  check_process();
  return std::make_unique<store_copier>(*parts_);
}

void local_storage::suggest_cache(const void* user, std::size_t bytes) {
  parts_->cache_size.suggest(user, bytes);
}

storage_statistics local_storage::statistics() {
  check_process();
  storage_statistics result;
  result.file_bytes = parts_->files.size() + parts_->log.file_bytes();
  {
    const snapshot_pool::lease from = parts_->readers.take(parts_->versions.merged);
    sqlite_connection& connection = from->connection();
    const std::int64_t pages =
        connection.integer("PRAGMA page_count") - connection.integer("PRAGMA freelist_count");
    result.used_bytes = static_cast<std::uint64_t>(pages * connection.integer("PRAGMA page_size"));
  }
  result.used_bytes += parts_->log.used_bytes();
  result.commits = commits_.load();
  result.commit_groups = groups_.load();
  return result;
}

std::shared_ptr<dbs_storage> open_local_storage(const storage_address& address) {
  const directory_identity identity = prepare_directory(address.directory);
  const auto& cache_bytes = address.options.cache_bytes;
  const std::string cache = cache_bytes ? std::to_string(*cache_bytes) : "suggested";
  const std::string options = fmt::format(
      "durability={}&mmap={}&cache={}&log={}", address.options.relaxed ? "relaxed" : "full",
      address.options.mapped ? "on" : "off", cache, address.options.log_bytes);
  return storage_process::instance().find_or_open(
      identity, options, [&] { return std::make_unique<local_storage>(address); });
}

}  // namespace goods
