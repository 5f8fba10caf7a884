#include "LmdbStore.h"

#include <fmt/format.h>
#include <lmdb.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tarns::bench {
namespace {

enum ValueType : char { kText = 't', kInteger = 'i' };

void Check(int result, std::string_view what) {
  if (result != MDB_SUCCESS) {
    throw std::runtime_error(fmt::format("LMDB, {}: {}", what, mdb_strerror(result)));
  }
}

MDB_val Key(std::string_view text) { return {text.size(), const_cast<char*>(text.data())}; }

std::string_view TextOf(const MDB_val& bytes) {
  return {static_cast<const char*>(bytes.mv_data), bytes.mv_size};
}

Value ValueOf(const MDB_val& data) {
  const std::string_view bytes = TextOf(data);
  if (bytes.empty() || (bytes[0] == kInteger && bytes.size() != 9)) {
    throw std::runtime_error("LMDB: not a value");
  }
  if (bytes[0] == kText) return Value::Text(bytes.substr(1));
  std::int64_t number;
  std::memcpy(&number, bytes.data() + 1, sizeof number);
  return Value::Integer(number);
}

class Cursor {
 public:
  Cursor(MDB_txn* transaction, MDB_dbi table) {
    Check(mdb_cursor_open(transaction, table, &raw_), "cursor");
  }
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
  ~Cursor() { mdb_cursor_close(raw_); }

  // To the first key that is not less.
  bool seek(std::string_view key) {
    key_ = Key(key);
    return step(MDB_SET_RANGE);
  }
  bool first() { return step(MDB_FIRST); }
  bool next() { return step(MDB_NEXT); }
  void erase() { Check(mdb_cursor_del(raw_, 0), "delete"); }

  std::string_view key() const { return TextOf(key_); }
  Value value() const { return ValueOf(data_); }

 private:
  bool step(MDB_cursor_op how) {
    const int result = mdb_cursor_get(raw_, &key_, &data_, how);
    if (result == MDB_NOTFOUND) return false;
    Check(result, "cursor");
    return true;
  }

  MDB_cursor* raw_ = nullptr;
  MDB_val key_ = {};
  MDB_val data_ = {};
};

class LmdbSession : public StoreSession {
 public:
  LmdbSession(MDB_env* environment, MDB_dbi table) : environment_(environment), table_(table) {}
  ~LmdbSession() override {
    if (transaction_ != nullptr) mdb_txn_abort(transaction_);
  }

  void beginReads() override { start(MDB_RDONLY); }
  void endReads() override {
    mdb_txn_abort(transaction_);
    transaction_ = nullptr;
  }
  void begin() override { start(0); }
  void commit() override {
    MDB_txn* done = transaction_;
    transaction_ = nullptr;
    Check(mdb_txn_commit(done), "commit");
  }

  bool read(std::string_view path, std::uint64_t& digest) override {
    MDB_val key = Key(path);
    MDB_val data;
    const int result = mdb_get(transaction_, table_, &key, &data);
    if (result == MDB_NOTFOUND) return false;
    Check(result, "get");
    digest = DigestOf(ValueOf(data));
    return true;
  }

  void list(std::string_view path, std::string_view after, std::size_t limit,
            const NameSink& sink) override {
    const std::string prefix = std::string(path) + "~";
    Cursor cursor(transaction_, table_);
    bool more = after.empty() ? cursor.seek(prefix) : SeekBehind(cursor, prefix, after);
    for (; more && limit > 0 && cursor.key().starts_with(prefix); --limit) {
      std::string_view name = cursor.key().substr(prefix.size());
      const bool isValue = name.find('~') == std::string_view::npos;
      name = name.substr(0, name.find('~'));
      sink(name);
      more = isValue ? cursor.next() : SeekBehind(cursor, prefix, name);
    }
  }

  void walk(WalkSum& sum) override {
    Cursor cursor(transaction_, table_);
    std::string parent;
    for (bool more = cursor.first(); more; more = cursor.next()) {
      const std::string_view key = cursor.key();
      const std::size_t cut = key.rfind('~');
      const std::string_view above = key.substr(0, cut == std::string_view::npos ? 0 : cut + 1);
      if (above != parent) Move(parent, above, sum);
      sum.value(key.substr(above.size()), cursor.value());
    }
    Move(parent, "", sum);
  }

  void addNode(std::string_view parent, std::string_view name,
               std::span<const Field> values) override {
    path_.assign(parent).append("~").append(name);
    const std::string node = path_;
    addValues(node, values);
  }

  void addValues(std::string_view path, std::span<const Field> values) override {
    for (const auto& [name, value] : values) {
      path_.assign(path).append("~").append(name);
      put(path_, value);
    }
  }

  void update(std::string_view path, const Value& value) override { put(path, value); }

  bool erase(std::string_view path) override {
    MDB_val key = Key(path);
    bool found = mdb_del(transaction_, table_, &key, nullptr) == MDB_SUCCESS;
    const std::string prefix = std::string(path) + "~";
    Cursor cursor(transaction_, table_);
    for (bool more = cursor.seek(prefix); more && cursor.key().starts_with(prefix);) {
      cursor.erase();
      found = true;
      more = cursor.seek(prefix);
    }
    return found;
  }

 private:
  void start(unsigned int flags) {
    Check(mdb_txn_begin(environment_, nullptr, flags, &transaction_), "begin");
  }

  // To what comes behind the value or the node called `name`, in the order of keys: "a-b~x" comes
  // before "a~x".
  static bool SeekBehind(Cursor& cursor, const std::string& prefix, std::string_view name) {
    const std::string key = prefix + std::string(name);
    if (!cursor.seek(key)) return false;
    if (cursor.key() == key) return cursor.next();
    return cursor.seek(key + static_cast<char>('~' + 1));
  }

  void put(std::string_view path, const Value& value) {
    data_.assign(1, value.isInteger ? kInteger : kText);
    if (value.isInteger) {
      data_.append(reinterpret_cast<const char*>(&value.number), sizeof value.number);
    } else {
      data_.append(value.text);
    }
    MDB_val key = Key(path);
    MDB_val data = Key(data_);
    Check(mdb_put(transaction_, table_, &key, &data, 0), "put");
  }

  // Leaves and enters nodes until `from` (names, each followed by '~') has become `to`.
  static void Move(std::string& from, std::string_view to, WalkSum& sum) {
    std::size_t common = 0;
    for (std::size_t i = 0; i < std::min(from.size(), to.size()) && from[i] == to[i]; ++i) {
      if (to[i] == '~') common = i + 1;
    }
    for (auto left =
             std::count(from.begin() + static_cast<std::ptrdiff_t>(common), from.end(), '~');
         left > 0; --left) {
      sum.leave();
    }
    for (std::string_view rest = to.substr(common); !rest.empty();) {
      const std::size_t end = rest.find('~');
      sum.enter(rest.substr(0, end));
      rest.remove_prefix(end + 1);
    }
    from = to;
  }

  MDB_env* environment_;
  const MDB_dbi table_;
  MDB_txn* transaction_ = nullptr;
  std::string path_;
  std::string data_;
};

}  // namespace

LmdbStore::LmdbStore(const Options& options) {
  std::filesystem::create_directories(options.directory);
  Check(mdb_env_create(&environment_), "create");
  Check(mdb_env_set_mapsize(environment_, std::size_t{8} << 30), "map size");
  Check(mdb_env_open(environment_, options.directory.c_str(), 0, 0600), "open");
  MDB_txn* transaction = nullptr;
  Check(mdb_txn_begin(environment_, nullptr, 0, &transaction), "begin");
  Check(mdb_dbi_open(transaction, nullptr, 0, &table_), "table");
  Check(mdb_txn_commit(transaction), "commit");
}

LmdbStore::~LmdbStore() { mdb_env_close(environment_); }

std::unique_ptr<StoreSession> LmdbStore::session() {
  return std::make_unique<LmdbSession>(environment_, table_);
}

std::size_t LmdbStore::packagesPerCommit() const { return std::size_t{1} << 30; }

}  // namespace tarns::bench
