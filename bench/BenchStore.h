#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Value.h"

namespace tarns::bench {

// What items measure that are for no other peer.
constexpr const char* kPeer = "tarns";

// One thread's way into a store. A session is made, used and destroyed by one thread.
//
// Paths are names joined by '~', counted from the root; each is followed by a NUL, so that its data
// is a C string as well. Errors: exceptions derived from std::exception.
class StoreSession {
 public:
  using NameSink = std::function<void(std::string_view name)>;

  virtual ~StoreSession() = default;

  // Around many reads: what a peer needs to read fast (a read transaction).
  virtual void beginReads() {}
  virtual void endReads() {}

  // Hands the value at `path` to DigestOf() as the peer yields it. False when there is none.
  virtual bool read(std::string_view path, std::uint64_t& digest) = 0;
  // The names of the children of a node in their order, those behind `after` only unless it is
  // empty, at most `limit`. `after` is followed by a NUL as well.
  virtual void list(std::string_view path, std::string_view after, std::size_t limit,
                    const NameSink& sink) = 0;
  // The names of those children of a node, in their order, whose value `field` is this text but for
  // the case of the letters a to z. Not every peer has queries, or indexes for them: see queries().
  virtual void findByValue(std::string_view path, std::string_view field, std::string_view text,
                           const NameSink& sink);
  // Keeps an index for such queries from now on; durable.
  virtual void addIndex(std::string_view path, std::string_view field);
  // Everything below the root, with its values.
  virtual void walk(WalkSum& sum) = 0;

  // A transaction around the changes below, durable when commit() returns.
  virtual void begin() = 0;
  virtual void commit() = 0;
  // A new node below `parent`, which is made when missing, with its values.
  virtual void addNode(std::string_view parent, std::string_view name,
                       std::span<const Field> values) = 0;
  // New values below a node that is made when missing.
  virtual void addValues(std::string_view path, std::span<const Field> values) = 0;
  // Changes a value that exists.
  virtual void update(std::string_view path, const Value& value) = 0;
  // Removes what is at `path` with everything below it; whether there was something.
  virtual bool erase(std::string_view path) = 0;

  // One change as a transaction of its own.
  virtual void updateDurably(std::string_view path, const Value& value) {
    begin();
    update(path, value);
    commit();
  }
  virtual void eraseDurably(std::string_view path) {
    begin();
    erase(path);
    commit();
  }
};

// An open store of one of the peers. Destroying it closes it cleanly: what a peer keeps beside its
// main file is merged, as when an application ends.
// Threads: session() may be called by any thread.
class BenchStore {
 public:
  struct Options {
    std::filesystem::path directory = {};  // made when missing; holds all of the store's files
    std::size_t cacheBytes = std::size_t{256} << 20;  // for what the peer keeps in memory by itself
  };

  virtual ~BenchStore() = default;

  virtual std::unique_ptr<StoreSession> session() = 0;
  // How many packages a commit holds when all are loaded: what is fastest for the peer.
  virtual std::size_t packagesPerCommit() const = 0;

  // "tarns", "sqlite" or "lmdb"; throws std::invalid_argument for anything else.
  static std::unique_ptr<BenchStore> Open(std::string_view peer, const Options& options);
  static const std::vector<std::string>& Peers();
};

}  // namespace tarns::bench
