#include "storage/local/store_check.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>

#include "storage/local/prepared_commits.h"
#include "storage/local/store_directory.h"

namespace goods {
namespace {

constexpr std::uint64_t segment_limit = (std::uint64_t{1} << 32) / segment_slots;
constexpr unsigned rows_per_look = 64;
constexpr int instructions_per_look = 100'000;  // of SQLite: some milliseconds

constexpr std::size_t pieces_of(std::size_t length) {
  return (length + piece_size - 1) / piece_size;
}

}  // namespace

std::string text_of_failure() try { throw; } catch (const error_info& error) {
  return message_of(error);
} catch (const damaged_bytes& damage) {
  return damage.what();
}

store_check::store_check(snapshot& merged, const std::string& store,
                         const commit_overlay::table& unmerged, std::uint64_t next_object,
                         check_sink& into)
    : merged_(merged), store_(store), unmerged_(unmerged), next_object_(next_object), into_(into) {
  unmerged.segments.for_each([this](segment_number number, const patch_table::patch&) {
    unmerged_order_.push_back(number);
  });
  std::ranges::sort(unmerged_order_);
}

void store_check::report(object_number first, object_number last, std::string text) {
  if (!into_.fault({first, last, std::move(text)})) throw stopped();
}

void store_check::report_row(std::string_view table, std::int64_t key, std::string_view what) {
  report(0, 0, fmt::format("row {} of its table \"{}\": {}", key, table, what));
}

void store_check::report_segment(segment_number number, std::string_view what) {
  const object_number first = number * segment_slots;
  report(first, first + (segment_slots - 1), std::string(what));
}

void store_check::go_on() {
  if (++calls_ % rows_per_look == 0 && !into_.goes_on()) throw stopped();
}

bool store_check::check_quickly() try {
  check_tables();
  return true;
} catch (const stopped&) {
  return false;
}

bool store_check::check_everything() try {
  check_tables();
  check_structure();
  check_segments();
  check_pieces();
  return true;
} catch (const stopped&) {
  return false;
}

// ---- the small tables

void store_check::check_tables() {
  try {
    check_schema(merged_.connection());
  } catch (const error_info&) {
    report(0, 0, text_of_failure());
  }
  check_state();
  check_presence();
  check_layouts();
  check_prepared();
}

void store_check::check_state() {
  try {
    merged_.reader().identity();
  } catch (const error_info&) {
    report(0, 0, text_of_failure());
  }
}

template <class Visit>
std::uint64_t store_check::check_rows(const char* table, row_kind kind, Visit&& visit) {
  std::uint64_t count = 0;
  try {
    sqlite_statement all(merged_.connection(),
                         fmt::format("SELECT id, body FROM {} ORDER BY id", table).c_str());
    statement_scope scope(all);
    for (; all.step(); ++count) {
      const std::int64_t id = all.integer(0);
      byte_block content;
      try {
        const framed_row row =
            read_row(kind, static_cast<std::uint64_t>(id), longest_row, all.blob(1));
        if (row.version > merged_.state().version)
          throw damaged_bytes("it is newer than the store");
        content = row.unpack();
      } catch (const damaged_bytes& damage) {
        report_row(table, id, damage.what());
      }
      visit(id, content);
      go_on();
    }
  } catch (const error_info&) {
    report(0, 0, text_of_failure());
  }
  return count;
}

void store_check::check_presence() {
  std::uint64_t segments = 0;
  check_rows("presence", row_kind::presence, [&](std::int64_t key, const byte_block& content) {
    if (key < 0 || key >= presence_map::chunks)
      return report_row("presence", key, "the number is out of range");
    const auto chunk = static_cast<std::uint32_t>(key);
    if (content.size != sizeof(bits)) {
      if (content.bytes) report_row("presence", key, "it does not describe segments");
      lost_chunks_.insert(chunk);
      return;
    }
    std::memcpy(chunks_[chunk].data(), content.bytes.get(), sizeof(bits));
    for (const std::uint64_t word : chunks_[chunk])
      segments += static_cast<std::uint64_t>(std::popcount(word));
  });
  const std::uint64_t expected = merged_.state().segments;
  if (!lost_chunks_.empty() || segments == expected) return;
  report(0, 0,
         fmt::format("its table \"presence\" names {} segments instead of {}", segments, expected));
  // Rows of it may be missing: anything may be there.
  const auto last = static_cast<std::uint32_t>(
      std::min(next_object_ / segment_slots, segment_limit - 1) / presence_map::segments_per_chunk);
  for (std::uint32_t chunk = 0; chunk <= last; ++chunk)
    if (!chunks_.contains(chunk)) lost_chunks_.insert(chunk);
}

void store_check::check_layouts() {
  std::int64_t before = 0;
  check_rows("layouts", row_kind::layout, [&](std::int64_t key, const byte_block&) {
    if (key != before + 1) report_row("layouts", key, "the layout before it is missing");
    before = key;
  });
  layouts_ = merged_.state().layouts;
  if (static_cast<std::uint64_t>(before) < layouts_)
    report(0, 0, fmt::format("its table \"layouts\" ends with {} instead of {}", before, layouts_));
  layouts_ = std::max(layouts_, static_cast<std::uint64_t>(before));
}

void store_check::check_prepared() {
  const auto ignore = [](std::int64_t, const byte_block&) {};
  check_rows("prepared", row_kind::prepared, ignore);
  check_rows("decisions", row_kind::decision, ignore);
  try {
    prepared_commits parts(store_);
    parts.load(merged_.reader(), merged_.state());
    parts.for_each_change([this](const object_change& change) {
      if (change.removed || change.layout <= layouts_) return;
      report(change.number, change.number,
             fmt::format("a prepared commit has it with the layout {}, which there is not",
                         change.layout));
    });
  } catch (const error_info&) {
    report(0, 0, text_of_failure());
  }
}

// ---- segments

// What SQLite itself knows about its pages.
void store_check::check_structure() {
  sqlite3* const handle = merged_.connection().handle();
  // Nothing is thrown through SQLite.
  struct looking {
    check_sink& into;
    std::exception_ptr thrown;
  } state{into_, nullptr};
  const auto look = [](void* self) {
    auto& now = *static_cast<looking*>(self);
    try {
      return now.into.goes_on() ? 0 : 1;
    } catch (...) {
      now.thrown = std::current_exception();
      return 1;
    }
  };
  ::sqlite3_progress_handler(handle, instructions_per_look, look, &state);
  std::vector<std::string> problems;
  bool was_stopped = false;
  try {
    sqlite_statement check(merged_.connection(), "PRAGMA integrity_check(100)");
    while (check.step()) problems.emplace_back(check.text(0));
  } catch (const error_info&) {
    was_stopped = (::sqlite3_errcode(handle) & 0xff) == SQLITE_INTERRUPT;
    if (!was_stopped) problems.push_back(text_of_failure());
  }
  ::sqlite3_progress_handler(handle, 0, nullptr, nullptr);
  if (state.thrown) std::rethrow_exception(state.thrown);
  if (was_stopped) throw stopped();
  for (std::string& problem : problems)
    if (problem != "ok") report(0, 0, "SQLite: " + problem);
}

bool store_check::is_expected(segment_number number) const {
  const auto chunk = chunks_.find(presence_map::chunk_of(number));
  if (chunk == chunks_.end()) return false;
  const std::uint32_t bit = number % presence_map::segments_per_chunk;
  return (chunk->second[bit / 64] >> bit % 64 & 1) != 0;
}

std::uint64_t store_check::next_expected(std::uint64_t from) const {
  constexpr std::uint64_t per_chunk = presence_map::segments_per_chunk;
  while (from < segment_limit) {
    const auto number = static_cast<std::uint32_t>(from / per_chunk);
    if (lost_chunks_.contains(number)) return from;
    const auto chunk = chunks_.lower_bound(number);
    if (chunk == chunks_.end() || chunk->first != number) {
      const auto lost = lost_chunks_.lower_bound(number);
      std::uint64_t next = chunk == chunks_.end() ? presence_map::chunks : chunk->first;
      if (lost != lost_chunks_.end()) next = std::min<std::uint64_t>(next, *lost);
      from = next * per_chunk;
      continue;
    }
    const std::uint64_t bit = from % per_chunk;
    const std::uint64_t word = chunk->second[bit / 64] >> bit % 64;
    if (word != 0) return from + static_cast<std::uint64_t>(std::countr_zero(word));
    from += 64 - bit % 64;
  }
  return segment_limit;
}

void store_check::check_segments() {
  std::uint64_t next = 0;
  try {
    scan_segments(next);
    pass_missing(next, segment_limit);
  } catch (const error_info&) {
    report(0, 0, text_of_failure());
    seek_segments(next);
  }
  show_unmerged(segment_limit);
}

void store_check::scan_segments(std::uint64_t& next) {
  sqlite_statement all(merged_.connection(), "SELECT id, body FROM segments ORDER BY id");
  statement_scope scope(all);
  while (all.step()) {
    const std::int64_t id = all.integer(0);
    if (id < static_cast<std::int64_t>(next) || id >= static_cast<std::int64_t>(segment_limit)) {
      report_row("segments", id, "the number is out of order or out of range");
      continue;
    }
    const auto number = static_cast<segment_number>(id);
    pass_missing(next, number);
    next = std::uint64_t{number} + 1;
    take_segment(number, all.blob(1));
    go_on();
  }
}

// From where SQLite could not go on: one row after the other.
void store_check::seek_segments(std::uint64_t next) {
  sqlite_statement one(merged_.connection(), "SELECT body FROM segments WHERE id=?");
  const std::uint64_t end = std::min(segment_limit, next_object_ / segment_slots + 1);
  while ((next = next_expected(next)) < end) {
    const auto number = static_cast<segment_number>(next++);
    try {
      statement_scope scope(one);
      one.bind(0, std::int64_t{number});
      if (one.step()) {
        take_segment(number, one.blob(0));
      } else if (is_expected(number)) {
        report_segment(number, "they are missing");
      }
    } catch (const error_info&) {
      report_segment(number, text_of_failure());
    }
    go_on();
  }
}

// Those from `from` to `to` were not found.
void store_check::pass_missing(std::uint64_t from, std::uint64_t to) {
  for (std::uint64_t n = next_expected(from); n < to; n = next_expected(n + 1)) {
    if (is_expected(static_cast<segment_number>(n)))
      report_segment(static_cast<segment_number>(n), "they are missing");
    go_on();
  }
}

std::shared_ptr<const segment> store_check::parse_segment(segment_number number,
                                                          std::span<const std::byte> row) {
  const framed_row framed = read_row(row_kind::segment, number, longest_segment, row);
  if (framed.version > merged_.state().version)
    throw damaged_bytes("they are newer than the store");
  auto parsed = segment::parse(number, framed.version, framed.unpack());
  if (parsed->present() == 0) throw damaged_bytes("their segment is empty");
  return parsed;
}

void store_check::take_segment(segment_number number, std::span<const std::byte> row) {
  show_unmerged(number);
  std::shared_ptr<const segment> found;
  try {
    found = parse_segment(number, row);
    if (!is_expected(number) && !lost_chunks_.contains(presence_map::chunk_of(number)))
      report_segment(number, "the table \"presence\" does not name them");
  } catch (const damaged_bytes& damage) {
    report_segment(number, damage.what());
  }
  if (const auto patch = unmerged_.find(number); found && patch) {
    ++unmerged_shown_;
    found = patched(*patch, found.get());
  }
  if (found) show(*found);
}

// Those of which the database has nothing, or nothing that is good.
void store_check::show_unmerged(std::uint64_t before) {
  for (; unmerged_shown_ < unmerged_order_.size() && unmerged_order_[unmerged_shown_] < before;
       ++unmerged_shown_)
    show(unmerged_.find(unmerged_order_[unmerged_shown_])->objects());
}

void store_check::show(const segment_view& in) {
  for (std::uint64_t rest = in.present(); rest != 0; rest &= rest - 1) {
    const auto slot = static_cast<unsigned>(std::countr_zero(rest));
    object_state state{in.object(slot), in.layout(slot), {}};
    if (state.number < first_object_number || state.number >= next_object_)
      report(state.number, state.number, "its number is out of range");
    if (state.layout > layouts_)
      report(state.number, state.number,
             fmt::format("it has the layout {}, which there is not", state.layout));
    if (in.is_apart(slot)) {
      if (!show_apart(in, slot, state)) throw stopped();
      continue;
    }
    state.body = in.body(slot);
    if (!into_.found(state)) throw stopped();
  }
}

bool store_check::show_apart(const segment_view& in, unsigned slot, object_state& state) {
  const auto newer = unmerged_.apart.find(state.number);
  byte_block read;
  try {
    if (newer == unmerged_.apart.end()) {
      read = merged_.reader().read_apart(state.number, in.length(slot), in.version());
      state.body = read.view();
    } else if (newer->second.body && newer->second.body->size == in.length(slot)) {
      state.body = newer->second.body->view();
    } else {
      throw damaged_bytes("its body does not belong to its segment");
    }
  } catch (const error_info&) {
    report(state.number, state.number, text_of_failure());
    return true;
  } catch (const damaged_bytes& damage) {
    report(state.number, state.number, damage.what());
    return true;
  }
  return into_.found(state);
}

// ---- pieces

bool store_check::is_owned(std::int64_t piece) {
  const auto object = static_cast<std::uint64_t>(piece) >> piece_bits;
  if (object >= std::uint64_t{1} << 32) return false;
  const auto number = static_cast<object_number>(object);
  if (owner_number_ != segment_of(number)) {
    owner_number_ = segment_of(number);
    owner_ = merged_.reader().read_segment(*owner_number_);
  }
  const unsigned slot = slot_of(number);
  const std::size_t index = static_cast<std::uint64_t>(piece) & ((1U << piece_bits) - 1);
  return owner_ && owner_->has(slot) && owner_->is_apart(slot) &&
         index < pieces_of(owner_->length(slot));
}

// That each object apart has its pieces shows when it is read.
void store_check::check_pieces() {
  try {
    sqlite_statement all(merged_.connection(), "SELECT id FROM pieces ORDER BY id");
    statement_scope scope(all);
    while (all.step()) {
      const std::int64_t key = all.integer(0);
      bool is_stray = false;
      try {
        is_stray = key < 0 || !is_owned(key);
      } catch (const error_info&) {  // its segment is damaged, which has been reported
        owner_number_.reset();
      }
      if (is_stray) report_row("pieces", key, "it belongs to no object");
      go_on();
    }
  } catch (const error_info&) {
    report(0, 0, text_of_failure());
  }
}

// ---- a file by itself

bool check_store_file(const std::string& file, const std::string& store, check_sink& into) {
  const connection_settings settings{file, store, false};
  const commit_overlay::table nothing;
  try {
    snapshot merged(settings);
    merged.refresh();
    store_check check(merged, store, nothing, merged.state().next_object, into);
    return check.check_everything();
  } catch (const error_info&) {
    return into.fault({0, 0, text_of_failure()});
  }
}

}  // namespace goods
