#include "storage/local/store_schema.h"

#include <fmt/format.h>

#include <cstring>
#include <random>

#include "storage/local/byte_order.h"

namespace goods {
namespace {

struct table {
  const char* name;
  const char* sql;
};

// The text is compared with what SQLite has stored: leave it as it is, blanks included.
constexpr table tables[store_tables] = {
    {"about", "CREATE TABLE about(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"},
    {"segments", "CREATE TABLE segments(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"},
    {"pieces", "CREATE TABLE pieces(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"},
    {"presence", "CREATE TABLE presence(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"},
    {"layouts", "CREATE TABLE layouts(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"},
    {"prepared", "CREATE TABLE prepared(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"},
    {"decisions", "CREATE TABLE decisions(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"},
};

constexpr std::size_t longest_about = 1024;

std::uint32_t big_endian(const unsigned char* at) {
  return std::uint32_t{at[0]} << 24 | std::uint32_t{at[1]} << 16 | std::uint32_t{at[2]} << 8 |
         at[3];
}

[[noreturn]] void throw_not_a_store(const std::string& file, std::string_view why) {
  throw_error(error_code::corrupt_data,
              fmt::format("The file \"{}\" is no store, or it is damaged: {}.", file, why));
}

storage_identity new_identity() {
  std::random_device source;
  const auto number = [&] { return std::uint64_t{source()} << 32 | source(); };
  const std::uint64_t high = number();
  return {high, number()};
}

void write_about(sqlite_connection& connection, const storage_identity& identity,
                 const store_state& state) {
  std::vector<std::byte> row;
  sqlite_statement replace(connection, "REPLACE INTO about(id, body) VALUES(?, ?)");
  write_identity(identity, row);
  replace.bind(0, identity_key);
  replace.bind(1, row);
  replace.run();
  state.write(row);
  replace.bind(0, state_key);
  replace.bind(1, row);
  replace.run();
}

}  // namespace

void store_state::write(std::vector<std::byte>& row) const {
  row_writer content;
  content.varint(next_object).varint(segments).varint(layouts).varint(prepared_rows);
  content.varint(decisions).varint(settlements);
  write_row(row_kind::state, state_key, version, content.view(), row);
}

store_state store_state::read(std::span<const std::byte> row) {
  const framed_row framed = read_row(row_kind::state, state_key, longest_about, row);
  const byte_block content = framed.unpack();
  row_reader reader(content.view());
  store_state state;
  state.version = framed.version;
  state.next_object = reader.varint();
  state.segments = reader.varint();
  state.layouts = reader.varint();
  state.prepared_rows = reader.varint();
  state.decisions = reader.varint();
  state.settlements = reader.varint();
  reader.expect_end();
  if (state.next_object <= first_object_number || state.next_object > std::uint64_t{1} << 32)
    throw damaged_bytes("the next object number is out of range");
  return state;
}

void write_identity(const storage_identity& identity, std::vector<std::byte>& row) {
  row_writer content;
  content.number(identity.high).number(identity.low);
  write_row(row_kind::identity, identity_key, 0, content.view(), row);
}

storage_identity read_identity(std::span<const std::byte> row) {
  const byte_block content =
      read_row(row_kind::identity, identity_key, longest_about, row).unpack();
  row_reader reader(content.view());
  storage_identity identity;
  identity.high = reader.number<std::uint64_t>();
  identity.low = reader.number<std::uint64_t>();
  reader.expect_end();
  return identity;
}

void make_store(const std::string& file) {
  sqlite_connection connection(file, sqlite_connection::access::read_write);
  connection.execute("PRAGMA page_size=4096; PRAGMA journal_mode=WAL; BEGIN IMMEDIATE");
  for (const table& t : tables) connection.execute(t.sql);
  connection.execute(fmt::format("PRAGMA application_id={}; PRAGMA user_version={}",
                                 store_application, store_format)
                         .c_str());
  write_about(connection, new_identity(), {});
  connection.execute("COMMIT; PRAGMA wal_checkpoint(TRUNCATE)");
}

storage_identity renew_store(const std::string& file, store_state state) {
  const storage_identity identity = new_identity();
  state.prepared_rows = state.decisions = 0;
  sqlite_connection connection(file, sqlite_connection::access::read_write);
  connection.execute("BEGIN IMMEDIATE; DELETE FROM prepared; DELETE FROM decisions");
  write_about(connection, identity, state);
  connection.execute("COMMIT; PRAGMA wal_checkpoint(TRUNCATE)");
  return identity;
}

void check_database_header(const std::string& file, std::span<const unsigned char> header,
                           std::uint64_t file_size) {
  constexpr char magic[] = "SQLite format 3";  // and its NUL
  enum : std::size_t { page_size_at = 16, pages_at = 28, format_at = 60, application_at = 68 };
  if (header.size() < database_header_size) throw_not_a_store(file, "it is too short");
  if (std::memcmp(header.data(), magic, sizeof magic) != 0)
    throw_not_a_store(file, "it is no database");
  if (big_endian(&header[application_at]) != store_application)
    throw_not_a_store(file, "it belongs to another application");
  const std::uint32_t format = big_endian(&header[format_at]);
  if (format > store_format)
    throw_error(error_code::newer_version,
                fmt::format("The storage file \"{}\" has format {}, which is newer than {}, the "
                            "newest that this version knows.",
                            file, format, store_format));
  if (format != 0 && format < store_format)
    throw_not_a_store(file, fmt::format("it has format {}, of a time before the first release, "
                                        "instead of {}",
                                        format, store_format));
  std::uint64_t page_size = std::uint64_t{header[page_size_at]} << 8 | header[page_size_at + 1];
  if (page_size == 1) page_size = 65536;
  if (format == 0 || page_size < 512 || (page_size & (page_size - 1)) != 0)
    throw_not_a_store(file, "its header is damaged");
  const std::uint64_t expected = page_size * big_endian(&header[pages_at]);
  if (file_size != 0 && file_size < expected)
    throw_not_a_store(file, fmt::format("it has {} bytes instead of {}", file_size, expected));
}

void check_schema(sqlite_connection& connection) {
  sqlite_statement entries(connection, "SELECT type, name, sql FROM sqlite_schema ORDER BY rowid");
  statement_scope scope(entries);
  for (const table& t : tables) {
    if (!entries.step() || entries.text(0) != "table" || entries.text(1) != t.name ||
        entries.text(2) != t.sql)
      throw_not_a_store(connection.file(), fmt::format("the table \"{}\" is not there", t.name));
  }
  if (entries.step())
    throw_not_a_store(connection.file(),
                      fmt::format("\"{}\" does not belong into it", entries.text(1)));
}

}  // namespace goods
