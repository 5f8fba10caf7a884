// The little of SQLite that the embedded backend uses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <goods/errors.h>

struct sqlite3;
struct sqlite3_stmt;

namespace goods {

// The error for an SQLite result: storage_full, input_output, corrupt_data, database_in_use.
error_code error_code_of(int sqlite_result);

// An open database file.
// Threads: one at a time. Errors: throw_error() naming file and operation.
class sqlite_connection {
 public:
  enum class access : std::uint8_t { read_write, create };

  sqlite_connection(const std::string& file, access how);

  const std::string& file() const { return file_; }
  sqlite3* handle() const { return handle_.get(); }

  // Runs statements that yield nothing of interest.
  void execute(const char* sql);
  // As execute(), and gives back SQLite's extended result in place of throwing.
  int try_execute(const char* sql) noexcept;
  // The first column of the first row.
  std::int64_t integer(const char* sql);
  std::string text(const char* sql);

  [[noreturn]] void fail(int result, std::string_view operation) const;

 private:
  struct closer {
    void operator()(sqlite3* handle) const;
  };
  std::string file_;
  std::unique_ptr<sqlite3, closer> handle_;
};

// A statement that is compiled once and run many times. Parameters and columns count from 0.
class sqlite_statement {
 public:
  sqlite_statement(sqlite_connection& connection, const char* sql);

  void bind(int parameter, std::int64_t value);
  // `blob` must stay until the statement is reset.
  void bind(int parameter, std::span<const std::byte> blob);

  // Advances to the next row; false when there is none.
  bool step();
  std::int64_t integer(int column) const;
  // Valid until the next step() or reset().
  std::span<const std::byte> blob(int column) const;
  std::string_view text(int column) const;
  void reset() noexcept;

  // Runs to the end and resets.
  void run();

 private:
  struct finalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  sqlite_connection& connection_;
  std::unique_ptr<sqlite3_stmt, finalizer> statement_;
};

// Resets a statement at the end of a scope: a running one would hold its transaction open.
class statement_scope {
 public:
  explicit statement_scope(sqlite_statement& statement) : statement_(statement) {}
  ~statement_scope() { statement_.reset(); }
  statement_scope(const statement_scope&) = delete;
  statement_scope& operator=(const statement_scope&) = delete;

 private:
  sqlite_statement& statement_;
};

}  // namespace goods
