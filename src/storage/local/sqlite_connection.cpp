#include "storage/local/sqlite_connection.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <cstring>
#include <new>

namespace goods {
namespace {

// Another program that looks into the file holds its locks for moments only.
constexpr int busy_wait_milliseconds = 10'000;

}  // namespace

error_code error_code_of(int sqlite_result) {
  if (sqlite_result == SQLITE_IOERR_CORRUPTFS) return error_code::corrupt_data;
  switch (sqlite_result & 0xff) {
    case SQLITE_FULL:
    case SQLITE_TOOBIG:
      return error_code::storage_full;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_MISMATCH:
    case SQLITE_ERROR:  // the statements are fixed: a schema or a page that does not fit them
      return error_code::corrupt_data;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return error_code::database_in_use;
    case SQLITE_READONLY:
      return error_code::read_only;
    default:
      return error_code::input_output;
  }
}

void sqlite_connection::closer::operator()(sqlite3* handle) const { ::sqlite3_close_v2(handle); }

sqlite_connection::sqlite_connection(const std::string& file, access how) : file_(file) {
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  if (how == access::create) flags |= SQLITE_OPEN_CREATE;
  sqlite3* handle = nullptr;
  const int result = ::sqlite3_open_v2(file.c_str(), &handle, flags, nullptr);
  handle_.reset(handle);
  if (result != SQLITE_OK) fail(result, "opening it");
  ::sqlite3_busy_timeout(handle, busy_wait_milliseconds);
  // The file may come from anywhere: nothing that its schema names is run.
  ::sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  ::sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  ::sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
}

void sqlite_connection::fail(int result, std::string_view operation) const {
  if ((result & 0xff) == SQLITE_NOMEM || result == SQLITE_IOERR_NOMEM) throw std::bad_alloc();
  const int system = handle_ ? ::sqlite3_system_errno(handle_.get()) : 0;
  std::string reason = handle_ ? ::sqlite3_errmsg(handle_.get()) : ::sqlite3_errstr(result);
  if (system != 0 && error_code_of(result) != error_code::corrupt_data)
    reason += fmt::format(" ({})", std::strerror(system));  // NOLINT(concurrency-mt-unsafe): glibc
  throw_error(error_code_of(result), fmt::format("The storage file \"{}\": {} failed: {} [{}].",
                                                 file_, operation, reason, result));
}

int sqlite_connection::try_execute(const char* sql) noexcept {
  return ::sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr);
}

void sqlite_connection::execute(const char* sql) {
  const int result = try_execute(sql);
  if (result != SQLITE_OK) fail(result, fmt::format("\"{}\"", sql));
}

std::int64_t sqlite_connection::integer(const char* sql) {
  sqlite_statement statement(*this, sql);
  return statement.step() ? statement.integer(0) : 0;
}

std::string sqlite_connection::text(const char* sql) {
  sqlite_statement statement(*this, sql);
  return statement.step() ? std::string(statement.text(0)) : std::string();
}

void sqlite_statement::finalizer::operator()(sqlite3_stmt* statement) const {
  ::sqlite3_finalize(statement);
}

sqlite_statement::sqlite_statement(sqlite_connection& connection, const char* sql)
    : connection_(connection) {
  sqlite3_stmt* statement = nullptr;
  const int result = ::sqlite3_prepare_v3(connection.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT,
                                          &statement, nullptr);
  statement_.reset(statement);
  if (result != SQLITE_OK) connection.fail(result, fmt::format("\"{}\"", sql));
}

void sqlite_statement::bind(int parameter, std::int64_t value) {
  ::sqlite3_bind_int64(statement_.get(), parameter + 1, value);
}

void sqlite_statement::bind(int parameter, std::span<const std::byte> blob) {
  const int result = ::sqlite3_bind_blob64(statement_.get(), parameter + 1, blob.data(),
                                           blob.size(), SQLITE_STATIC);
  if (result != SQLITE_OK) connection_.fail(result, "passing a value");
}

bool sqlite_statement::step() {
  const int result = ::sqlite3_step(statement_.get());
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  connection_.fail(result, fmt::format("\"{}\"", ::sqlite3_sql(statement_.get())));
}

std::int64_t sqlite_statement::integer(int column) const {
  return ::sqlite3_column_int64(statement_.get(), column);
}

std::span<const std::byte> sqlite_statement::blob(int column) const {
  const void* bytes = ::sqlite3_column_blob(statement_.get(), column);
  const int size = ::sqlite3_column_bytes(statement_.get(), column);
  // Null both for an empty value and for one that could not be read; rows are never empty, so that
  // the check of what is in them notices.
  if (bytes == nullptr) return {};
  return {static_cast<const std::byte*>(bytes), static_cast<std::size_t>(size)};
}

std::string_view sqlite_statement::text(int column) const {
  const auto* bytes = ::sqlite3_column_text(statement_.get(), column);
  if (bytes == nullptr) return {};
  return {reinterpret_cast<const char*>(bytes),
          static_cast<std::size_t>(::sqlite3_column_bytes(statement_.get(), column))};
}

void sqlite_statement::reset() noexcept { ::sqlite3_reset(statement_.get()); }

void sqlite_statement::run() {
  statement_scope scope(*this);
  while (step()) continue;
}

}  // namespace goods
