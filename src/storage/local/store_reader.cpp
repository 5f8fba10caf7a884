#include "storage/local/store_reader.h"

#include <fmt/format.h>

namespace goods {

void throw_damaged_object(const std::string& store, object_number object, std::string_view what) {
  throw_error(error_code::corrupt_data,
              fmt::format("The storage \"{}\" is damaged at object {}: {}.", store, object, what));
}

void throw_damaged_segment(const std::string& store, segment_number segment,
                           std::string_view what) {
  const object_number first = segment * segment_slots;
  throw_error(error_code::corrupt_data,
              fmt::format("The storage \"{}\" is damaged at objects {} to {}: {}.", store, first,
                          first + (segment_slots - 1), what));
}

void throw_damaged_row(const std::string& store, std::string_view table, std::int64_t key,
                       std::string_view what) {
  throw_error(error_code::corrupt_data,
              fmt::format("The storage \"{}\" is damaged in its table \"{}\" at {}: {}.", store,
                          table, key, what));
}

store_reader::store_reader(sqlite_connection& connection, const std::string& store)
    : connection_(connection),
      store_(store),
      about_(connection, "SELECT body FROM about WHERE id=?"),
      segment_(connection, "SELECT body FROM segments WHERE id=?"),
      piece_(connection, "SELECT body FROM pieces WHERE id=?") {}

storage_identity store_reader::identity() try {
  statement_scope scope(about_);
  about_.bind(0, identity_key);
  return read_identity(about_.step() ? about_.blob(0) : std::span<const std::byte>());
} catch (const damaged_bytes& damage) {
  throw_damaged_row(store_, "about", identity_key, damage.what());
}

store_state store_reader::state() try {
  statement_scope scope(about_);
  about_.bind(0, state_key);
  return store_state::read(about_.step() ? about_.blob(0) : std::span<const std::byte>());
} catch (const damaged_bytes& damage) {
  throw_damaged_row(store_, "about", state_key, damage.what());
}

std::shared_ptr<const segment> store_reader::parse_segment(segment_number number,
                                                           std::span<const std::byte> row) try {
  const framed_row framed = read_row(row_kind::segment, number, longest_segment, row);
  return segment::parse(number, framed.version, framed.unpack());
} catch (const damaged_bytes& damage) {
  throw_damaged_segment(store_, number, damage.what());
}

std::shared_ptr<const segment> store_reader::read_segment(segment_number number) {
  statement_scope scope(segment_);
  segment_.bind(0, static_cast<std::int64_t>(number));
  if (!segment_.step()) return nullptr;
  return parse_segment(number, segment_.blob(0));
}

byte_block store_reader::read_apart(object_number object, std::size_t length,
                                    commit_version newest) try {
  byte_block body = byte_block::of_size(length);
  for (std::size_t piece = 0, done = 0; done < length; ++piece) {
    statement_scope scope(piece_);
    const std::int64_t key = piece_key(object, piece);
    piece_.bind(0, key);
    if (!piece_.step()) throw damaged_bytes("a piece of it is missing");
    const std::size_t expected = std::min(piece_size, length - done);
    const framed_row framed =
        read_row(row_kind::piece, static_cast<std::uint64_t>(key), expected, piece_.blob(0));
    if (framed.version > newest) throw damaged_bytes("a piece of it is newer than it");
    if (framed.length != expected) throw damaged_bytes("a piece of it has another length");
    framed.unpack(body.bytes.get() + done);
    done += expected;
  }
  return body;
} catch (const damaged_bytes& damage) {
  throw_damaged_object(store_, object, damage.what());
}

std::uint64_t store_reader::for_each_segment(
    const std::function<bool(std::shared_ptr<const segment>)>& visit) {
  sqlite_statement all(connection_, "SELECT id, body FROM segments ORDER BY id");
  statement_scope scope(all);
  std::uint64_t count = 0;
  constexpr std::int64_t last_segment = ~object_number{0} / segment_slots;
  std::int64_t before = -1;
  while (all.step()) {
    const std::int64_t id = all.integer(0);
    if (id <= before || id > last_segment)
      throw_damaged_row(store_, "segments", id, "the number is out of order or out of range");
    before = id;
    ++count;
    if (!visit(parse_segment(static_cast<segment_number>(id), all.blob(1)))) break;
  }
  return count;
}

std::uint64_t store_reader::for_each_row(const char* table, row_kind kind,
                                         const row_visitor& visit) {
  sqlite_statement all(connection_,
                       fmt::format("SELECT id, body FROM {} ORDER BY id", table).c_str());
  statement_scope scope(all);
  std::uint64_t count = 0;
  for (; all.step(); ++count) {
    const std::int64_t id = all.integer(0);
    try {
      visit(id, read_row(kind, static_cast<std::uint64_t>(id), longest_row, all.blob(1)).unpack());
    } catch (const damaged_bytes& damage) {
      throw_damaged_row(store_, table, id, damage.what());
    }
  }
  return count;
}

}  // namespace goods
