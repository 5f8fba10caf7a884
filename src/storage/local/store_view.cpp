#include "storage/local/store_view.h"

#include <fmt/format.h>

#include "storage/local/log_recovery.h"
#include "storage/local/store_check.h"

namespace goods {

// A merge may come in between; what it puts into the database is in `unmerged_` as well,
// and laid over it once more.
store_view::store_view(open_store& of, std::uint64_t next_object)
    : store_(of),
      settings_{of.settings.file, of.settings.store, false},
      version_(of.versions.visible),
      next_object_(next_object),
      unmerged_(of.overlay.copy()),
      merged_(settings_) {
  merged_.refresh();
}

std::shared_ptr<const segment> store_view::find(segment_number number) {
  std::shared_ptr<const segment>& cached = cache_[number % cached_segments];
  if (cached && cached->number() == number) return cached;
  const auto patch = unmerged_.find(number);
  auto read = patch && patch->is_whole() ? nullptr : merged_.reader().read_segment(number);
  if (patch) {
    if (!read && !patch->is_whole())
      throw_damaged_segment(settings_.store, number, "their row is missing");
    read = patched(*patch, read.get());
  }
  if (!read) return nullptr;
  cached = std::move(read);
  return cached;
}

void store_view::load(object_number number, state_sink& into) {
  const std::shared_ptr<const segment> in = find(segment_of(number));
  const unsigned slot = slot_of(number);
  if (!in || !in->has(slot)) return into.missing(number);
  if (!in->is_apart(slot)) return into.found(in->state(slot));
  const auto newer = unmerged_.apart.find(number);
  if (newer != unmerged_.apart.end()) {
    if (!newer->second.body || newer->second.body->size != in->length(slot))
      throw_damaged_object(settings_.store, number, "its body does not belong to its segment");
    return into.found({number, in->layout(slot), newer->second.body->view()});
  }
  const byte_block body = merged_.reader().read_apart(number, in->length(slot), in->version());
  into.found({number, in->layout(slot), body.view()});
}

void store_view::load(std::span<const object_number> numbers, state_sink& into) {
  for (const object_number number : numbers) load(number, into);
}

bool store_view::check(bool full, check_sink& into) {
  try {
    store_.files.check_header();
  } catch (const error_info&) {
    if (!into.fault({0, 0, text_of_failure()})) return false;
  }
  store_check check(merged_, settings_.store, unmerged_, next_object_, into);
  if (!full) return check.check_quickly();
  return check_log(into) && check.check_everything();
}

// What opening the store would take from its log if the process ended now. Commits are held for as
// long as the log is read.
bool store_view::check_log(check_sink& into) {
  const writer_turn::hold turn(store_.turn);
  const writer_turn::hold database(store_.database_turn);
  if (store_.relaxed || store_.log.has_failed() || store_.store.has_failed() ||
      store_.versions.has_hidden)
    return true;
  try {
    const log_recovery found(store_.files.directory(), settings_.store, store_.identity,
                             store_.versions.merged);
    const commit_version visible = store_.versions.visible;
    if (found.newest() == visible) return true;
    return into.fault(
        {0, 0, fmt::format("its log ends with commit {} instead of {}", found.newest(), visible)});
  } catch (const error_info&) {
    return into.fault({0, 0, text_of_failure()});
  }
}

}  // namespace goods
