#include "storage/local/object_loader.h"

#include <fmt/format.h>

#include <thread>

#include "storage/storage_process.h"

namespace goods {
namespace {

// Disturbed loads, until commits have to wait.
constexpr int undisturbed_after = 8;

void deliver(const segment& from, object_number number, state_sink& into) {
  const unsigned slot = slot_of(number);
  if (from.has(slot))
    into.found(from.state(slot));
  else
    into.missing(number);
}

// False, and nothing done, when it is apart.
bool deliver_from(const segment_cache::found_segment& cached, object_number number,
                  state_sink& into) {
  const unsigned slot = slot_of(number);
  if (cached.whole) {
    if (cached.whole->has(slot) && cached.whole->is_apart(slot)) return false;
    deliver(*cached.whole, number, into);
    return true;
  }
  const segment_view* const in = cached.layered->holder_of(slot);
  if (in == nullptr)
    into.missing(number);
  else if (in->is_apart(slot))
    return false;
  else
    into.found({number, in->layout(slot), in->body(slot), cached.layered.get()});
  return true;
}

newest_states::reading reading_of(const state_sink& into) {
  using enum segment_cache::reading;
  return into.is_passing() ? in_passing : usual;
}

// Commits over several storages become visible everywhere before anything is read anywhere.
void wait_for_publication() {
  while ((storage_process::instance().publications() & 1) != 0) std::this_thread::yield();
}

}  // namespace

commit_version object_loader::load(std::span<const object_number> numbers, commit_version at_least,
                                   state_sink& into) {
  wait_for_publication();
  commit_version as_of = 0;
  if (load_from_cache(numbers, at_least, into, as_of)) return as_of;
  const newest_states::reading how = reading_of(into);
  located_list all;
  bool done = false;
  for (int i = 0; i < undisturbed_after && !done; ++i)
    done = locate(numbers, at_least, how, all, as_of);
  if (!done) locate_undisturbed(numbers, at_least, how, all, as_of);
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const located& object = all[i];
    if (!object.in)
      into.missing(numbers[i]);
    else if (object.body)
      into.found({numbers[i], object.in->layout(slot_of(numbers[i])), object.body->view()});
    else
      deliver(*object.in, numbers[i], into);
  }
  return as_of;
}

// Whether the cache has all of them as of the newest version; only then is anything handed over.
bool object_loader::load_from_cache(std::span<const object_number> numbers, commit_version at_least,
                                    state_sink& into, commit_version& as_of) {
  as_of = versions_.visible.load(std::memory_order_acquire);
  if (as_of < at_least) return false;
  const auto find = [&](object_number number) {
    auto cached = from_.cache.find(segment_of(number), reading_of(into));
    const unsigned slot = slot_of(number);
    if (cached && (cached->version() > as_of || (cached->has(slot) && cached->is_apart(slot))))
      cached.reset();
    return cached;
  };
  if (numbers.size() == 1) {
    const auto cached = from_.cache.look(segment_of(numbers[0]), reading_of(into));
    if (!cached.whole && !cached.layered) return false;
    const commit_version version =
        cached.whole ? cached.whole->version() : cached.layered->version();
    return version <= as_of && deliver_from(cached, numbers[0], into);
  }
  std::vector<std::shared_ptr<const segment>> all(numbers.size());
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const bool same =
        i != 0 && segment_of(numbers[i]) == segment_of(numbers[i - 1]) &&
        !(all[i - 1]->has(slot_of(numbers[i])) && all[i - 1]->is_apart(slot_of(numbers[i])));
    all[i] = same ? all[i - 1] : find(numbers[i]);
    if (!all[i]) return false;
    if (!same) all[i]->prefetch();
  }
  for (std::size_t i = 0; i < numbers.size(); ++i) deliver(*all[i], numbers[i], into);
  return true;
}

// False when commits came in between.
bool object_loader::locate(std::span<const object_number> numbers, commit_version at_least,
                           newest_states::reading how, located_list& all, commit_version& as_of) {
  const std::uint64_t before = versions_.publications.load(std::memory_order_acquire);
  as_of = versions_.visible.load(std::memory_order_acquire);
  if (as_of < at_least) return false;
  // Only who knew of a hidden commit from the beginning has looked past none of what it replaced.
  const bool hidden = versions_.has_hidden.load(std::memory_order_acquire);
  newest_states newest(from_, how);
  const auto is_disturbed = [&] {
    return before % 2 != 0 || versions_.publications.load(std::memory_order_acquire) != before ||
           // A commit that is in the database already is about to be published or hidden.
           (newest.file_is_ahead(as_of) && !hidden);
  };
  try {
    if (!find_all(numbers, newest, all, as_of)) return false;
  } catch (const error_info& error) {
    if (error.code() != error_code::corrupt_data || !is_disturbed()) throw;
    return false;
  }
  // What is there says how new it is; what is not there does not.
  for (const located& object : all)
    if (!object.in) return !is_disturbed();
  return true;
}

void object_loader::locate_undisturbed(std::span<const object_number> numbers,
                                       commit_version at_least, newest_states::reading how,
                                       located_list& all, commit_version& as_of) {
  for (;;) {
    {
      guarded_scope scope(versions_.publishing);
      if (versions_.visible.load(std::memory_order_acquire) < at_least)
        throw_error(error_code::usage, fmt::format("The storage \"{}\" has no version {} yet.",
                                                   from_.store, at_least));
      if (locate(numbers, at_least, how, all, as_of)) return;
    }
    std::this_thread::yield();
  }
}

bool object_loader::find_all(std::span<const object_number> numbers, newest_states& newest,
                             located_list& all, commit_version as_of) const {
  all.assign(numbers.size(), {});
  std::shared_ptr<const segment> last;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const segment_number number = segment_of(numbers[i]);
    if (!last || last->number() != number) last = newest.find(number, as_of);
    if (!last) continue;
    if (last->version() > as_of) return false;
    all[i].in = last;
    const unsigned slot = slot_of(numbers[i]);
    if (last->has(slot) && last->is_apart(slot)) all[i].body = newest.find_apart(*last, slot);
  }
  return true;
}

}  // namespace goods
