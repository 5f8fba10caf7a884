#include "storage/local/prepared_commits.h"

#include <algorithm>

#include "storage/local/stored_change.h"

namespace goods {
namespace {

constexpr std::size_t part_size = std::size_t{8} << 20;  // bytes of a prepared commit in one row

template <class Identity>
void write_pair(row_writer& writer, const Identity& identity) {
  writer.number(identity.high).number(identity.low);
}

template <class Identity>
Identity read_pair(row_reader& reader) {
  Identity identity;
  identity.high = reader.number<std::uint64_t>();
  identity.low = reader.number<std::uint64_t>();
  return identity;
}

std::vector<std::byte> serialize(const prepared_commit& about, const commit_request& request) {
  row_writer writer;
  write_pair(writer, about.coordinator);
  writer.varint(about.coordinator_name.size());
  writer.append(std::as_bytes(std::span(about.coordinator_name)));
  writer.varint(request.changes.size());
  for (const object_change& change : request.changes)
    store_change(writer.extend(stored_size(change)), change);
  return writer.release();
}

// A prepared commit whose rows are being read.
struct collected_rows {
  std::vector<std::byte> bytes;
  std::vector<std::int64_t> keys;
  std::uint64_t rows = 0;  // that there must be
};

}  // namespace

prepared_row read_prepared_row(std::span<const std::byte> content) {
  row_reader reader(content);
  prepared_row row{};
  row.id = read_pair<global_transaction>(reader);
  row.part = reader.varint();
  row.parts = reader.varint();
  row.bytes = reader.take(reader.left());
  return row;
}

std::unique_ptr<prepared_part> read_prepared(const global_transaction& id,
                                             std::vector<std::byte> bytes) {
  auto part = std::make_unique<prepared_part>();
  part->bytes = std::move(bytes);
  part->about.id = id;
  row_reader reader(part->bytes);
  part->about.coordinator = read_pair<storage_identity>(reader);
  const auto name = reader.take(reader.varint());
  part->about.coordinator_name.assign(reinterpret_cast<const char*>(name.data()), name.size());
  for (std::uint64_t count = reader.varint(); count != 0; --count)
    part->changes.push_back(read_change(reader));
  reader.expect_end();
  return part;
}

commit_decision read_decision(std::span<const std::byte> content) {
  row_reader reader(content);
  commit_decision decision;
  decision.id = read_pair<global_transaction>(reader);
  for (std::uint64_t count = reader.varint(); count != 0; --count)
    decision.participants.push_back(read_pair<storage_identity>(reader));
  reader.expect_end();
  return decision;
}

void prepared_commits::load(store_reader& reader, const store_state& state) {
  std::map<global_transaction, collected_rows> collected;
  const std::uint64_t rows = reader.for_each_row(
      "prepared", row_kind::prepared, [&](std::int64_t key, const byte_block& content) {
        next_key_ = std::max(next_key_, key + 1);
        const prepared_row row = read_prepared_row(content.view());
        collected_rows& into = collected[row.id];
        if (row.part != into.keys.size()) throw damaged_bytes("a part before it is missing");
        into.rows = row.parts;
        into.keys.push_back(key);
        into.bytes.insert(into.bytes.end(), row.bytes.begin(), row.bytes.end());
      });
  if (rows != state.prepared_rows)
    throw_damaged_row(store_, "prepared", 0, "rows of it are missing");
  for (auto& [id, rows_of_one] : collected) {
    const std::int64_t key = rows_of_one.keys.front();
    try {
      if (rows_of_one.rows != rows_of_one.keys.size())
        throw damaged_bytes("a part after it is missing");
      auto part = read_prepared(id, std::move(rows_of_one.bytes));
      const auto is_unknown = [&](const object_change& change) {
        return !change.removed && change.layout > state.layouts;
      };
      if (std::ranges::any_of(part->changes, is_unknown))
        throw damaged_bytes("an object in it has an unknown layout");
      part->keys = std::move(rows_of_one.keys);
      parts_[id] = {std::move(part), true};
    } catch (const damaged_bytes& damage) {
      throw_damaged_row(store_, "prepared", key, damage.what());
    }
  }
  const std::uint64_t decisions = reader.for_each_row(
      "decisions", row_kind::decision, [&](std::int64_t key, const byte_block& content) {
        next_key_ = std::max(next_key_, key + 1);
        const commit_decision decision = read_decision(content.view());
        decisions_[decision.id] = {decision, key, true};
      });
  if (decisions != state.decisions)
    throw_damaged_row(store_, "decisions", 0, "rows of it are missing");
}

prepared_commits::part_node prepared_commits::prepare(segment_store::transaction& into,
                                                      const prepared_commit& about,
                                                      const commit_request& request) {
  std::vector<std::byte> bytes = serialize(about, request);
  std::vector<std::int64_t> keys;
  const std::size_t rows = (bytes.size() + part_size - 1) / part_size;
  for (std::size_t i = 0; i < rows; ++i) {
    row_writer row;
    write_pair(row, about.id);
    const std::size_t size = std::min(part_size, bytes.size() - i * part_size);
    row.varint(i).varint(rows).append(std::span(bytes).subspan(i * part_size, size));
    keys.push_back(next_key_++);
    into.write_prepared(keys.back(), row.view());
  }
  auto part = read_prepared(about.id, std::move(bytes));
  part->keys = std::move(keys);
  part->origin = request.origin;
  part->attachment = request.attachment;
  part_map one;
  one.emplace(about.id, known_part{std::move(part), false});
  return one.extract(one.begin());
}

void prepared_commits::erase(segment_store::transaction& from, const prepared_part& part) {
  for (std::int64_t key : part.keys) from.remove_prepared(key);
}

prepared_commits::decision_node prepared_commits::decide(segment_store::transaction& into,
                                                         const commit_decision& decision) {
  row_writer row;
  write_pair(row, decision.id);
  row.varint(decision.participants.size());
  for (const storage_identity& participant : decision.participants) write_pair(row, participant);
  const std::int64_t key = next_key_++;
  into.write_decision(key, row.view());
  decision_map one;
  one.emplace(decision.id, known_decision{decision, key, false});
  return one.extract(one.begin());
}

void prepared_commits::erase_forgotten(segment_store::transaction& from) {
  for (std::int64_t key : forgotten_) from.remove_decision(key);
}

void prepared_commits::forget(const global_transaction& id) noexcept { parts_.erase(id); }

void prepared_commits::forget_decision(const global_transaction& id) {
  const auto found = decisions_.find(id);
  if (found == decisions_.end()) return;
  forgotten_.push_back(found->second.key);
  decisions_.erase(found);
}

prepared_part* prepared_commits::find(const global_transaction& id) {
  const auto found = parts_.find(id);
  return found == parts_.end() ? nullptr : found->second.part.get();
}

std::vector<prepared_commit> prepared_commits::found_prepared() const {
  std::vector<prepared_commit> result;
  for (const auto& [id, known] : parts_)
    if (known.found) result.push_back(known.part->about);
  return result;
}

std::vector<commit_decision> prepared_commits::found_decisions() const {
  std::vector<commit_decision> result;
  for (const auto& [id, known] : decisions_)
    if (known.found) result.push_back(known.decision);
  return result;
}

void prepared_commits::for_each_change(
    const std::function<void(const object_change&)>& visit) const {
  for (const auto& [id, known] : parts_)
    for (const object_change& change : known.part->changes) visit(change);
}

std::vector<object_number> prepared_commits::numbers() const {
  std::vector<object_number> all;
  for_each_change([&](const object_change& change) { all.push_back(change.number); });
  std::ranges::sort(all);
  return all;
}

std::uint64_t prepared_commits::next_object() const {
  const std::vector<object_number> all = numbers();
  return all.empty() ? 0 : std::uint64_t{all.back()} + 1;
}

}  // namespace goods
