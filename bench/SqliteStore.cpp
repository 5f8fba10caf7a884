#include "SqliteStore.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <deque>
#include <stdexcept>
#include <utility>

namespace tarns::bench {
namespace {

constexpr std::int64_t kRoot = 0;
enum RowType : int { kBranchRow = 0, kTextRow = 1, kIntegerRow = 2 };

struct CloseConnection {
  void operator()(sqlite3* connection) const { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

[[noreturn]] void Fail(sqlite3* connection, std::string_view what) {
  throw std::runtime_error(fmt::format("SQLite, {}: {}", what, sqlite3_errmsg(connection)));
}

void Execute(sqlite3* connection, const std::string& sql) {
  if (sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    Fail(connection, sql);
  }
}

Connection Connect(const BenchStore::Options& options) {
  sqlite3* raw = nullptr;
  const std::string file = options.directory / "nodes.db";
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  const int result = sqlite3_open_v2(file.c_str(), &raw, flags, nullptr);
  Connection connection(raw);
  if (result != SQLITE_OK) Fail(raw, file);
  sqlite3_busy_timeout(raw, 10'000);  // for the moments in which a connection opens or closes
  Execute(raw, "PRAGMA synchronous=FULL");
  Execute(raw, fmt::format("PRAGMA cache_size=-{}", options.cacheBytes / 1024));
  return connection;
}

// A prepared statement. reset() after each use, so that its locks go and its texts are not kept.
class Statement {
 public:
  Statement(sqlite3* connection, const char* sql) : connection_(connection) {
    if (sqlite3_prepare_v3(connection, sql, -1, SQLITE_PREPARE_PERSISTENT, &raw_, nullptr) !=
        SQLITE_OK) {
      Fail(connection, sql);
    }
  }
  Statement(Statement&& other) noexcept
      : connection_(other.connection_), raw_(std::exchange(other.raw_, nullptr)) {}
  ~Statement() { sqlite3_finalize(raw_); }

  Statement& bind(int at, std::int64_t number) {
    sqlite3_bind_int64(raw_, at, number);
    return *this;
  }
  Statement& bind(int at, std::string_view text) {
    sqlite3_bind_text(raw_, at, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    return *this;
  }
  Statement& bind(int at, const Value& value) {
    return value.isInteger ? bind(at, value.number) : bind(at, value.text);
  }
  bool step() {
    const int result = sqlite3_step(raw_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) Fail(connection_, sqlite3_sql(raw_));
    return false;
  }
  void reset() { sqlite3_reset(raw_); }
  void run() {
    step();
    reset();
  }

  std::int64_t number(int column) const { return sqlite3_column_int64(raw_, column); }
  std::string_view text(int column) const {
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(raw_, column));
    return {data, static_cast<std::size_t>(sqlite3_column_bytes(raw_, column))};
  }
  Value value(std::int64_t type, int column) const {
    return type == kIntegerRow ? Value::Integer(number(column)) : Value::Text(text(column));
  }

 private:
  sqlite3* connection_;
  sqlite3_stmt* raw_ = nullptr;
};

class SqliteSession : public StoreSession {
 public:
  SqliteSession(Connection connection, std::mutex& writing)
      : connection_(std::move(connection)), writing_(writing) {}

  void beginReads() override {
    begin_.run();
    findChild_.bind(1, kRoot).bind(2, std::string_view()).run();  // BEGIN alone takes no snapshot
  }
  void endReads() override { commit_.run(); }

  bool read(std::string_view path, std::uint64_t& digest) override {
    const std::int64_t parent = parentOf(path);
    if (parent < 0) return false;
    readValue_.bind(1, parent).bind(2, path);
    const bool found = readValue_.step();
    if (found) digest = DigestOf(readValue_.value(readValue_.number(0), 1));
    readValue_.reset();
    return found;
  }

  void list(std::string_view path, std::string_view after, std::size_t limit,
            const NameSink& sink) override {
    const std::int64_t node = find(path);
    if (node < 0) throw std::runtime_error(fmt::format("SQLite: no node \"{}\"", path));
    listNames_.bind(1, node).bind(2, after).bind(3, static_cast<std::int64_t>(limit));
    while (listNames_.step()) sink(listNames_.text(0));
    listNames_.reset();
  }

  // Without an index on values each child's row of that name is looked up, in the order in which
  // the children are listed; with one it is the way in.
  void findByValue(std::string_view path, std::string_view field, std::string_view text,
                   const NameSink& sink) override {
    Statement& query = indexed_ != nullptr ? *indexed_ : findByValue_;
    query.bind(1, find(path)).bind(2, field).bind(3, text);
    while (query.step()) sink(query.text(0));
    query.reset();
  }
  void addIndex(std::string_view /*path*/, std::string_view /*field*/) override {
    Execute(connection_.get(),
            "CREATE INDEX IF NOT EXISTS nodes_by_value ON nodes(name, value COLLATE NOCASE)");
    indexed_ = std::make_unique<Statement>(
        connection_.get(),
        "SELECT child.name FROM nodes AS field INDEXED BY nodes_by_value CROSS JOIN nodes AS child "
        "ON child.id=field.parent WHERE field.name=?2 AND field.value=?3 COLLATE NOCASE "
        "AND child.parent=?1 ORDER BY child.name");
  }

  void walk(WalkSum& sum) override { walkBelow(kRoot, 0, sum); }

  void begin() override {
    lock_ = std::unique_lock(writing_);
    beginImmediate_.run();
  }
  void commit() override {
    commit_.run();
    lock_.unlock();
  }

  void addNode(std::string_view parent, std::string_view name,
               std::span<const Field> values) override {
    addFields(addRow(findOrAdd(parent), name, kBranchRow, {}), values);
  }

  void addValues(std::string_view path, std::span<const Field> values) override {
    addFields(findOrAdd(path), values);
  }

  void update(std::string_view path, const Value& value) override {
    const std::int64_t parent = parentOf(path);
    if (parent >= 0) {
      update_.bind(1, parent).bind(2, path).bind(3, value.isInteger ? kIntegerRow : kTextRow);
      update_.bind(4, value).run();
    }
    if (parent < 0 || sqlite3_changes(connection_.get()) != 1) {
      throw std::runtime_error(fmt::format("SQLite: no value \"{}\"", path));
    }
  }

  bool erase(std::string_view path) override {
    const std::int64_t node = find(path);
    if (node < 0) return false;
    eraseBelow_.bind(1, node).run();
    knownPath_.clear();
    return true;
  }

 private:
  // The child's number, or -1.
  std::int64_t childOf(std::int64_t parent, std::string_view name) {
    findChild_.bind(1, parent).bind(2, name);
    const std::int64_t child = findChild_.step() ? findChild_.number(0) : -1;
    findChild_.reset();
    return child;
  }

  // Cuts `path` down to its last branch and returns the number of the node above it, or -1.
  std::int64_t parentOf(std::string_view& path) {
    std::int64_t node = kRoot;
    for (std::size_t end; node >= 0 && (end = path.find('~')) != std::string_view::npos;) {
      node = childOf(node, path.substr(0, end));
      path.remove_prefix(end + 1);
    }
    return node;
  }

  std::int64_t find(std::string_view path) {
    const std::int64_t parent = parentOf(path);
    return parent < 0 ? -1 : childOf(parent, path);
  }

  // For loading: the number of a node that may have to be made. An application that loads many
  // children of one node keeps that node's number, and so does this.
  std::int64_t findOrAdd(std::string_view path) {
    if (path == knownPath_) return knownNode_;
    std::int64_t node = kRoot;
    for (std::string_view rest = path; !rest.empty();) {
      const std::string_view name = rest.substr(0, rest.find('~'));
      rest.remove_prefix(std::min(rest.size(), name.size() + 1));
      const std::int64_t child = childOf(node, name);
      node = child < 0 ? addRow(node, name, kBranchRow, {}) : child;
    }
    knownPath_ = path;
    knownNode_ = node;
    return node;
  }

  std::int64_t addRow(std::int64_t parent, std::string_view name, RowType type,
                      const Value& value) {
    insert_.bind(1, parent).bind(2, name).bind(3, type).bind(4, value).run();
    return sqlite3_last_insert_rowid(connection_.get());
  }

  void addFields(std::int64_t node, std::span<const Field> values) {
    for (const auto& [name, value] : values) {
      addRow(node, name, value.isInteger ? kIntegerRow : kTextRow, value);
    }
  }

  // Recursion: as deep as the tree, which WalkSum limits.
  void walkBelow(std::int64_t node, std::size_t depth, WalkSum& sum) {
    if (walks_.size() == depth) walks_.emplace_back(connection_.get(), kListAll);
    walks_[depth].bind(1, node);
    while (walks_[depth].step()) {
      const Statement& row = walks_[depth];
      const std::int64_t type = row.number(2);
      if (type != kBranchRow) {
        sum.value(row.text(1), row.value(type, 3));
        continue;
      }
      sum.enter(row.text(1));
      walkBelow(row.number(0), depth + 1, sum);
      sum.leave();
    }
    walks_[depth].reset();
  }

  static constexpr const char* kListAll =
      "SELECT id, name, type, value FROM nodes WHERE parent=?1 ORDER BY name";

  Connection connection_;  // outlives the statements
  std::mutex& writing_;
  std::unique_lock<std::mutex> lock_;  // held from begin() to commit()
  std::string knownPath_ = "~";        // see findOrAdd(); no path is "~"
  std::int64_t knownNode_ = kRoot;

  Statement begin_{connection_.get(), "BEGIN"};
  Statement beginImmediate_{connection_.get(), "BEGIN IMMEDIATE"};
  Statement commit_{connection_.get(), "COMMIT"};
  // The inner steps of a path find all that they need in the index itself.
  Statement findChild_{connection_.get(), "SELECT id FROM nodes WHERE parent=?1 AND name=?2"};
  Statement readValue_{connection_.get(),
                       "SELECT type, value FROM nodes WHERE parent=?1 AND name=?2"};
  Statement listNames_{connection_.get(),
                       "SELECT name FROM nodes WHERE parent=?1 AND name>?2 ORDER BY name LIMIT ?3"};
  Statement findByValue_{
      connection_.get(),
      "SELECT child.name FROM nodes AS child CROSS JOIN nodes AS field ON field.parent=child.id "
      "WHERE child.parent=?1 AND field.name=?2 AND field.value=?3 COLLATE NOCASE "
      "ORDER BY child.name"};
  std::unique_ptr<Statement> indexed_;  // the same with the index on values, once there is one
  Statement insert_{connection_.get(),
                    "INSERT INTO nodes(parent, name, type, value) VALUES(?1, ?2, ?3, ?4)"};
  Statement update_{connection_.get(),
                    "UPDATE nodes SET type=?3, value=?4 WHERE parent=?1 AND name=?2"};
  Statement eraseBelow_{
      connection_.get(),
      "WITH RECURSIVE branch(id) AS (VALUES(?1) UNION ALL SELECT nodes.id FROM branch JOIN nodes "
      "ON nodes.parent=branch.id) DELETE FROM nodes WHERE id IN branch"};
  std::deque<Statement> walks_;  // one for each depth; stays in place while it runs
};

}  // namespace

SqliteStore::SqliteStore(const Options& options) : options_(options) {
  std::filesystem::create_directories(options.directory);
  Connection connection = Connect(options_);
  Execute(connection.get(),
          "PRAGMA journal_mode=WAL;"
          "CREATE TABLE IF NOT EXISTS nodes(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL,"
          " name TEXT NOT NULL, type INTEGER NOT NULL, value);"
          "CREATE UNIQUE INDEX IF NOT EXISTS nodes_by_name ON nodes(parent, name)");
  open_ = connection.release();
}

SqliteStore::~SqliteStore() { sqlite3_close(open_); }

std::unique_ptr<StoreSession> SqliteStore::session() {
  return std::make_unique<SqliteSession>(Connect(options_), writing_);
}

std::size_t SqliteStore::packagesPerCommit() const { return 4000; }

}  // namespace tarns::bench
