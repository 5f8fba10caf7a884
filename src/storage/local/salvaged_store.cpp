#include "storage/local/salvaged_store.h"

#include <algorithm>
#include <cstring>

#include "storage/local/commit_log.h"
#include "storage/local/log_reader.h"
#include "storage/local/store_reader.h"

namespace goods {
namespace {

constexpr std::uint64_t segment_limit = (std::uint64_t{1} << 32) / segment_slots;
constexpr std::uint64_t longest_log = std::uint64_t{2} << 30;  // bytes
// How often all bytes of a log may be looked at: its records do not overlap, nor do those of one
// earlier use of its room; only headers that somebody has made up claim more.
constexpr std::uint64_t most_readings = 8;

}  // namespace

salvaged_store::salvaged_store(const std::string& directory) : pages_(directory + "/store.db") {
  pages_.for_each_row(
      [this](std::int64_t key, const page_file::place& at, std::span<const std::byte> row) {
        if (row.size() < row_header_size) return;
        try {
          take_row(key, at, row);
        } catch (const damaged_bytes&) {  // NOLINT(bugprone-empty-catch)
          // No row of ours, or a damaged one: what is lost with it shows in the end.
        }
      });
  drop_removed();
  if (identity_)
    for (const std::string& path : commit_log::paths(directory)) read_log(path);
  find_lost();
}

template <class Key>
void salvaged_store::keep_newest(std::unordered_map<Key, found_row>& rows, Key key,
                                 const found_row& row) {
  const auto [known, is_new] = rows.try_emplace(key, row);
  if (!is_new && known->second.version < row.version) known->second = row;
}

void salvaged_store::take_row(std::int64_t key, const page_file::place& at,
                              std::span<const std::byte> row) {
  const auto kind = static_cast<row_kind>(row[row_kind_at]);
  const auto framed = [&] {
    return goods::read_row(kind, static_cast<std::uint64_t>(key),
                           kind == row_kind::segment ? longest_segment : longest_row, row);
  };
  switch (kind) {
    case row_kind::identity:
      identity_ = read_identity(row);
      break;
    case row_kind::state: {
      const store_state read = store_state::read(row);
      if (!state_ || state_->version < read.version) state_ = read;
      break;
    }
    case row_kind::segment: {
      const framed_row found = framed();
      if (key < 0 || key >= static_cast<std::int64_t>(segment_limit)) break;
      const auto number = static_cast<segment_number>(key);
      segment::parse(number, found.version, found.unpack());
      keep_newest(segments_, number, {at, found.version});
      break;
    }
    case row_kind::piece:
      keep_newest(pieces_, key, {at, framed().version});
      break;
    case row_kind::presence: {
      const framed_row found = framed();
      const byte_block content = found.unpack();
      auto& known = presence_[static_cast<std::uint32_t>(key)];
      if (content.size != sizeof known.second || known.first > found.version) break;
      known.first = found.version;
      std::memcpy(known.second.data(), content.bytes.get(), content.size);
      break;
    }
    case row_kind::layout: {
      const byte_block content = framed().unpack();
      if (key < 1 || key > 65535) break;
      layouts_[static_cast<class_number>(key)].assign(content.view().begin(), content.view().end());
      break;
    }
    case row_kind::prepared: {
      const framed_row found = framed();
      found.unpack();
      prepared_.insert_or_assign({found.version, key}, at);
      break;
    }
    case row_kind::decision:
      // Also one that was forgotten since, which it is only when all have finished.
      decided_.insert(read_decision(framed().unpack().view()).id);
      break;
    default:
      break;
  }
}

bool salvaged_store::is_removed(segment_number number) const {
  const auto chunk = presence_.find(presence_map::chunk_of(number));
  if (chunk == presence_.end()) return false;
  const std::uint32_t bit = number % presence_map::segments_per_chunk;
  return (chunk->second.second[bit / 64] >> bit % 64 & 1) == 0;
}

void salvaged_store::drop_removed() {
  std::erase_if(segments_, [this](const auto& row) { return is_removed(row.first); });
}

// Whole records, wherever they begin: those that a damaged one stands before count, too.
void salvaged_store::read_log(const std::string& path) try {
  log_reader file(path, *identity_);
  if (!file.is_there() || file.size() > longest_log) return;
  std::vector<std::byte> content;
  std::vector<object_change> changes;
  std::uint64_t left = most_readings * file.size();
  for (std::uint64_t at = 0; at < file.size(); at += log_alignment) {
    const auto header = file.header_at(at);
    // What the database has was merged, and is newer there or the same.
    if (!header || (state_ && header->record.last() <= state_->version)) continue;
    if (header->length > std::min(left, file.size() - at)) continue;
    left -= header->length;
    if (!file.is_whole(at, *header)) continue;
    changes.clear();
    log_record record = file.read(at, *header, content);
    try {
      read_changes(record, changes);
    } catch (const damaged_bytes&) {
      continue;
    }
    for (const object_change& change : changes) take_change(change, record.last());
    at += log_record_size(*header) - log_alignment;
  }
} catch (const error_info&) {  // NOLINT(bugprone-empty-catch): it cannot be read
}

void salvaged_store::take_change(const object_change& change, std::uint64_t version) {
  logged_state& known = logged_[change.number];
  if (known.version > version) return;
  known = {version, change.removed, change.layout, {change.body.begin(), change.body.end()}};
}

// Rows of commits that have ended may still be found: those that were written last are the ones
// that the state counts.
std::vector<std::unique_ptr<prepared_part>> salvaged_store::prepared() {
  std::uint64_t rows =
      state_ ? std::min<std::uint64_t>(state_->prepared_rows, prepared_.size()) : 0;
  std::map<global_transaction, std::vector<std::byte>> collected;
  std::map<global_transaction, std::uint64_t> left;  // parts
  for (auto row = std::prev(prepared_.end(), static_cast<std::ptrdiff_t>(rows));
       row != prepared_.end(); ++row) {
    try {
      const std::vector<std::byte> bytes = pages_.read_row(row->second);
      const byte_block content =
          goods::read_row(row_kind::prepared, static_cast<std::uint64_t>(row->first.second),
                          longest_row, bytes)
              .unpack();
      const prepared_row part = read_prepared_row(content.view());
      auto& into = collected[part.id];
      into.insert(into.end(), part.bytes.begin(), part.bytes.end());
      left.try_emplace(part.id, part.parts).first->second -= 1;
    } catch (const damaged_bytes&) {  // NOLINT(bugprone-empty-catch): then its commit is not whole
    }
  }
  std::vector<std::unique_ptr<prepared_part>> whole;
  for (auto& [id, bytes] : collected) {
    try {
      if (left.at(id) == 0) whole.push_back(read_prepared(id, std::move(bytes)));
    } catch (const damaged_bytes&) {  // NOLINT(bugprone-empty-catch): a part of it is missing
    }
  }
  return whole;
}

void salvaged_store::finish(const prepared_part& part) {
  constexpr std::uint64_t newest = ~std::uint64_t{0};
  for (const object_change& change : part.changes) take_change(change, newest);
}

void salvaged_store::find_lost() {
  for (const auto& [chunk, named] : presence_) {
    for (std::uint32_t bit = 0; bit < presence_map::segments_per_chunk; ++bit) {
      if ((named.second[bit / 64] >> bit % 64 & 1) == 0) continue;
      const segment_number number = chunk * presence_map::segments_per_chunk + bit;
      if (segments_.contains(number)) continue;
      const object_number first = number * segment_slots;
      lost_.emplace_back(first, first + (segment_slots - 1));
    }
  }
}

std::shared_ptr<const segment> salvaged_store::find(segment_number number) try {
  auto& cached = cache_[number % cache_.size()];
  if (cached && cached->number() == number) return cached;
  const auto known = segments_.find(number);
  if (known == segments_.end()) return nullptr;
  const std::vector<std::byte> row = pages_.read_row(known->second.at);
  const framed_row framed = goods::read_row(row_kind::segment, number, longest_segment, row);
  cached = segment::parse(number, framed.version, framed.unpack());
  return cached;
} catch (const damaged_bytes&) {  // changed since it was found
  return nullptr;
}

bool salvaged_store::read_apart(const segment& in, unsigned slot,
                                std::vector<std::byte>& body) try {
  const std::size_t length = in.length(slot);
  body.clear();
  for (std::size_t piece = 0; body.size() < length; ++piece) {
    const std::int64_t key = piece_key(in.object(slot), piece);
    const auto known = pieces_.find(key);
    if (known == pieces_.end()) return false;
    const std::vector<std::byte> row = pages_.read_row(known->second.at);
    const std::size_t expected = std::min(piece_size, length - body.size());
    const framed_row framed =
        goods::read_row(row_kind::piece, static_cast<std::uint64_t>(key), expected, row);
    if (framed.version > in.version() || framed.length != expected) return false;
    const byte_block part = framed.unpack();
    body.insert(body.end(), part.view().begin(), part.view().end());
  }
  return true;
} catch (const damaged_bytes&) {
  return false;
}

bool salvaged_store::show(object_number number, const segment* in,
                          const std::function<void(const object_state&)>& visit) {
  const auto newer = logged_.find(number);
  if (newer != logged_.end() && (in == nullptr || newer->second.version > in->version())) {
    if (newer->second.removed) return false;
    visit({number, newer->second.layout, newer->second.body});
    return true;
  }
  const unsigned slot = slot_of(number);
  if (in == nullptr || !in->has(slot)) return false;
  if (!in->is_apart(slot)) {
    visit({number, in->layout(slot), in->body(slot)});
    return true;
  }
  std::vector<std::byte> body;
  if (!read_apart(*in, slot, body)) {
    return false;
  }
  visit({number, in->layout(slot), body});
  return true;
}

bool salvaged_store::load(object_number number,
                          const std::function<void(const object_state&)>& visit) {
  if (number < first_object_number) return false;
  const std::shared_ptr<const segment> in = find(segment_of(number));
  return show(number, in.get(), visit);
}

void salvaged_store::for_each(const std::function<void(const object_state&)>& visit) {
  std::vector<segment_number> numbers;
  numbers.reserve(segments_.size());
  for (const auto& [number, row] : segments_) numbers.push_back(number);
  for (const auto& [number, state] : logged_) {
    if (numbers.empty() || numbers.back() != segment_of(number))
      numbers.push_back(segment_of(number));
  }
  std::ranges::sort(numbers);
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  for (const segment_number number : numbers) {
    const std::shared_ptr<const segment> in = find(number);
    for (unsigned slot = 0; slot < segment_slots; ++slot) {
      const object_number object = number * segment_slots + slot;
      if (object >= first_object_number) show(object, in.get(), visit);
    }
  }
}

}  // namespace goods
