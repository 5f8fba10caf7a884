#include "storage/local/segment_store.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>

#include "storage/outcome_unknown.h"

namespace goods {
namespace {

constexpr const char* replace_row = "REPLACE INTO {}(id, body) VALUES(?, ?)";

std::string replace_in(const char* table) { return fmt::format(fmt::runtime(replace_row), table); }

}  // namespace

segment_store::segment_store(const connection_settings& settings)
    : store_(settings.store),
      connection_(connect(settings)),
      reader_(*connection_, store_),
      begin_(*connection_, "BEGIN IMMEDIATE"),
      commit_(*connection_, "COMMIT"),
      rollback_(*connection_, "ROLLBACK"),
      write_about_(*connection_, replace_in("about").c_str()),
      write_segment_(*connection_, replace_in("segments").c_str()),
      remove_segment_(*connection_, "DELETE FROM segments WHERE id=?"),
      write_piece_(*connection_, replace_in("pieces").c_str()),
      remove_pieces_(*connection_, "DELETE FROM pieces WHERE id BETWEEN ? AND ?"),
      write_presence_(*connection_, replace_in("presence").c_str()),
      write_layout_(*connection_, replace_in("layouts").c_str()),
      write_prepared_(*connection_, replace_in("prepared").c_str()),
      remove_prepared_(*connection_, "DELETE FROM prepared WHERE id=?"),
      write_decision_(*connection_, replace_in("decisions").c_str()),
      remove_decision_(*connection_, "DELETE FROM decisions WHERE id=?") {
  // A log that one large commit has made long is cut when it starts over.
  connection_->execute(
      "PRAGMA synchronous=FULL; PRAGMA cache_size=-16384; PRAGMA journal_size_limit=67108864");
  ::sqlite3_wal_hook(connection_->handle(), note_log_pages, this);
  state_ = reader_.state();
}

int segment_store::note_log_pages(void* self, sqlite3*, const char*, int pages) {
  static_cast<segment_store*>(self)->log_pages_ = pages;
  return SQLITE_OK;
}

void segment_store::write(sqlite_statement& statement, row_kind kind, std::uint64_t key,
                          commit_version version, std::span<const std::byte> content) {
  write_row(kind, key, version, content, row_);
  statement.bind(0, static_cast<std::int64_t>(key));
  statement.bind(1, row_);
  statement.run();
}

void segment_store::write_state() {
  state_.write(row_);
  write_about_.bind(0, state_key);
  write_about_.bind(1, row_);
  write_about_.run();
}

// SQLite has rolled back. What it wrote to the log may still be taken for a commit after a crash
// when the last page got there and only syncing it failed: then a commit in its place makes sure.
void segment_store::commit_failed(const store_state& before) {
  state_ = before;
  if (settle(before)) return;
  failed_ = true;
  throw_outcome_unknown(
      "Whether a commit to the storage \"{}\" has become durable is unknown: syncing its log "
      "failed. "
      "It must be opened again.",
      store_);
}

// Unless there is no transaction. Where this fails, for lack of memory, the next one tries again.
void segment_store::roll_back() noexcept {
  if (::sqlite3_get_autocommit(connection_->handle()) != 0) return;
  try {
    rollback_.run();
  } catch (...) {  // NOLINT(bugprone-empty-catch): see above
  }
}

bool segment_store::settle(const store_state& before) noexcept {
  try {
    begin_.run();
    ++state_.settlements;
    write_state();
    commit_.run();
    return true;
  } catch (...) {
    roll_back();
    state_ = before;
    return false;
  }
}

segment_store::transaction::transaction(segment_store& store, after_failure then)
    : store_(store), then_(then), before_(store.state_) {
  if (store.failed_)
    throw_outcome_unknown(
        "The storage \"{}\" takes no commits after one whose outcome is unknown: it must be opened "
        "again.",
        store.store_);
  store.roll_back();
  store.begin_.run();
  open_ = true;
}

segment_store::transaction::~transaction() {
  if (!open_) return;
  store_.state_ = before_;
  store_.roll_back();
}

void segment_store::transaction::commit() {
  store_.write_state();
  statement_scope scope(store_.commit_);
  try {
    while (store_.commit_.step()) continue;
  } catch (...) {
    const int failure = ::sqlite3_extended_errcode(store_.connection_->handle());
    store_.commit_.reset();
    store_.roll_back();
    open_ = false;
    store_.state_ = before_;
    if (then_ == after_failure::settle && error_code_of(failure) == error_code::input_output)
      store_.commit_failed(before_);
    throw;
  }
  open_ = false;
}

void segment_store::transaction::write_segment(const segment_view& content) {
  store_.write(store_.write_segment_, row_kind::segment, content.number(), content.version(),
               content.content());
}

void segment_store::transaction::remove_segment(segment_number number) {
  store_.remove_segment_.bind(0, static_cast<std::int64_t>(number));
  store_.remove_segment_.run();
}

void segment_store::transaction::write_apart(object_number object, std::span<const std::byte> body,
                                             commit_version version) {
  for (std::size_t piece = 0; piece * piece_size < body.size(); ++piece) {
    const auto part = body.subspan(piece * piece_size)
                          .first(std::min(piece_size, body.size() - piece * piece_size));
    store_.write(store_.write_piece_, row_kind::piece,
                 static_cast<std::uint64_t>(piece_key(object, piece)), version, part);
  }
}

void segment_store::transaction::remove_apart(object_number first, object_number last) {
  constexpr std::size_t last_piece = (std::size_t{1} << piece_bits) - 1;
  store_.remove_pieces_.bind(0, piece_key(first, 0));
  store_.remove_pieces_.bind(1, piece_key(last, last_piece));
  store_.remove_pieces_.run();
}

void segment_store::transaction::write_presence(std::uint32_t chunk,
                                                const presence_map::content& bits) {
  store_.write(store_.write_presence_, row_kind::presence, chunk, state().version,
               std::as_bytes(std::span(bits)));
}

void segment_store::transaction::write_layout(class_number number,
                                              std::span<const std::byte> layout) {
  store_.write(store_.write_layout_, row_kind::layout, number, state().version, layout);
}

void segment_store::transaction::write_prepared(std::int64_t key,
                                                std::span<const std::byte> content) {
  store_.write(store_.write_prepared_, row_kind::prepared, static_cast<std::uint64_t>(key),
               state().version, content);
  ++state().prepared_rows;
}

void segment_store::transaction::remove_prepared(std::int64_t key) {
  store_.remove_prepared_.bind(0, key);
  store_.remove_prepared_.run();
  --state().prepared_rows;
}

void segment_store::transaction::write_decision(std::int64_t key,
                                                std::span<const std::byte> content) {
  store_.write(store_.write_decision_, row_kind::decision, static_cast<std::uint64_t>(key),
               state().version, content);
  ++state().decisions;
}

void segment_store::transaction::remove_decision(std::int64_t key) {
  store_.remove_decision_.bind(0, key);
  store_.remove_decision_.run();
  --state().decisions;
}

}  // namespace goods
