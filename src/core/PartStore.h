// Stores a branch part by part while it is being made.
#pragma once

#include <goods/set_member.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>

#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {
class cache_manager;
}

namespace tarns {

class TarnFieldDescriptor;

// An error whose text names the line.
class LocatedException : public TarnException {
 public:
  LocatedException(std::uint64_t line, const TarnException& error);
};

// A branch that nothing leads to, in the storage of the place that it is for. Each part becomes
// durable with a transaction of its own, so that nodes need not stay in memory. What keeps the
// branch from being collected is the caller's reference to its top; once that has gone, or after a
// crash, the next collection removes all of it.
//
// A part is stored by a thread of its own while the caller makes the next one.
// Threads: the caller's is one, on which no transaction is open. Errors: those of storing,
// LocatedException where an addition is the cause; what was stored before stays. They are thrown by
// the call that comes next, or by wait(); after one it takes no more.
class PartStore {
 public:
  // Puts a new node at a node that has been stored.
  struct Addition {
    enum Kind { kChild, kListed, kHome, kMember };  // kHome: listed, which is to become its place
    Kind kind;
    TarnRef holder;
    TarnRef node;                      // null for a member only
    std::string name;                  // of the child, or of the member or its element
    const TarnFieldDescriptor* field;  // of a member
    std::uint64_t line;                // that errors name
    // Of a member: the node whose lines named it, and at which its place begins. That is not the
    // holder where a class has another object read lines.
    TarnRef reader;
  };
  // An entry that is to become its node's place in the tree.
  struct Home {
    TarnRef node;
    xcptref<TarnObjects> index;
    goods::ref<goods::set_member> entry;
  };
  struct Part {
    TarnRef top;  // of the branch: in the first part, and null in all others
    std::vector<Addition> additions;
  };

  PartStore(goods::cache_manager& session, goods::storage_number storage);
  PartStore(const PartStore&) = delete;
  PartStore& operator=(const PartStore&) = delete;
  ~PartStore();

  // Stores the additions in their order, with all new nodes that they lead to, once the part before
  // is stored. Until wait() has returned, nothing of them, and nothing that was stored before, may
  // be looked at; the caller's references to them may go.
  void store(Part part);
  // Returns when everything is stored; with the entries of the kind kHome that have come since.
  std::vector<Home> wait();
  // The same, whatever comes of it.
  void finish() noexcept;
  // Runs `work` in a transaction of its own, on this thread, when everything is stored.
  void change(const std::function<void()>& work);

 private:
  void storeNow();
  void waitForThread();
  void apply();
  void add(const Addition& addition);
  const xcptref<TarnObjects>& indexOf(const TarnRef& holder);

  goods::cache_manager& session_;
  const goods::storage_number storage_;
  // Of the thread that stores, and of the caller's once that has ended.
  Part part_;
  std::vector<Home> homes_;
  TarnRef lastHolder_;  // of an addition, and its index
  xcptref<TarnObjects> lastIndex_;

  std::future<void> onTheWay_;  // last: its end waits for the thread that uses all of the above
};

}  // namespace tarns
