// Changes to the files of a store that is closed: as they are, or with checksums that fit.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "storage/local/segment.h"
#include "storage/local/store_reader.h"
#include "storage/local/store_schema.h"

namespace goods {

inline std::string read_file(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const std::string& file, std::string_view content) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

inline void execute(const std::string& file, const char* sql) {
  sqlite3* handle = nullptr;
  ASSERT_EQ(::sqlite3_open(file.c_str(), &handle), SQLITE_OK);
  char* message = nullptr;
  EXPECT_EQ(::sqlite3_exec(handle, sql, nullptr, nullptr, &message), SQLITE_OK) << message;
  ::sqlite3_close(handle);
}

// A row of any table: the version in its frame, and its content.
struct stored_row {
  std::uint64_t version = 0;
  std::vector<std::byte> content;
};

inline stored_row row_of(const std::string& file, const std::string& table, row_kind kind,
                         std::int64_t key) {
  sqlite_connection connection(file, sqlite_connection::access::read_write);
  sqlite_statement row(connection, ("SELECT body FROM " + table + " WHERE id=?").c_str());
  row.bind(0, key);
  EXPECT_TRUE(row.step());
  const framed_row framed =
      read_row(kind, static_cast<std::uint64_t>(key), longest_row, row.blob(0));
  const byte_block content = framed.unpack();
  return {framed.version, {content.view().begin(), content.view().end()}};
}

// Puts a row there, with its checksum, in place of one that is there.
inline void put_row(const std::string& file, const std::string& table, row_kind kind,
                    std::int64_t key, const stored_row& row) {
  std::vector<std::byte> framed;
  write_row(kind, static_cast<std::uint64_t>(key), row.version, row.content, framed);
  sqlite_connection connection(file, sqlite_connection::access::read_write);
  sqlite_statement insert(connection,
                          ("INSERT OR REPLACE INTO " + table + "(id, body) VALUES(?, ?)").c_str());
  insert.bind(0, key);
  insert.bind(1, framed);
  insert.run();
}

inline void rewrite_row(const std::string& file, const std::string& table, row_kind kind,
                        std::int64_t key,
                        const std::function<void(std::vector<std::byte>&)>& change) {
  stored_row row = row_of(file, table, kind, key);
  change(row.content);
  put_row(file, table, kind, key, row);
}

// Rewrites the segment of an object.
inline void rewrite_segment(const std::string& file, object_number number,
                            const std::function<void(segment_builder&, const segment&)>& change) {
  const segment_number in = segment_of(number);
  const stored_row row = row_of(file, "segments", row_kind::segment, in);
  byte_block content = byte_block::of_size(row.content.size());
  std::copy(row.content.begin(), row.content.end(), content.bytes.get());
  const auto old = segment::parse(in, row.version, std::move(content));
  segment_builder builder(in, old.get());
  change(builder, *old);
  const auto changed = builder.build(row.version);
  put_row(file, "segments", row_kind::segment, in,
          {row.version, {changed->content().begin(), changed->content().end()}});
}

// Gives an object another body; one that is not apart.
inline void rewrite_object(const std::string& file, object_number number,
                           const std::function<void(std::vector<std::byte>&)>& change) {
  rewrite_segment(file, number, [&](segment_builder& builder, const segment& old) {
    const unsigned slot = slot_of(number);
    ASSERT_TRUE(old.has(slot) && !old.is_apart(slot));
    static thread_local std::vector<std::byte> body;  // stays until the segment is built
    body.assign(old.body(slot).begin(), old.body(slot).end());
    change(body);
    builder.put(slot, old.layout(slot), body);
  });
}

}  // namespace goods
