// What the parts of BranchShadow share.
#pragma once

#include <tarns/core/TarnException.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "services/branch_shadow.h"

namespace tarns {

// An entry of an index, with the node that it stands for. The uppermost stands for the root.
struct BranchShadow::Entry {
  Entry() = default;
  // A branch may be deep.
  ~Entry() {
    Entries left = std::move(children);
    while (!left.empty()) {
      const std::unique_ptr<Entry> one = std::move(left.back());
      left.pop_back();
      for (auto& child : one->children) left.push_back(std::move(child));
      one->children.clear();
    }
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  Entry* parent = nullptr;
  goods::object_id member = 0;
  goods::object_id node = 0;
  goods::object_id link = 0;   // the entry that is the node's way to its parent
  goods::object_id index = 0;  // of the children; 0 for none
  std::size_t value = 0;       // a hash of it
  std::vector<goods::object_id> texts;
  std::string name;
  Entries children;
  bool isHome = false;       // the node's children are here
  bool isRewritten = false;  // the node or its index: its children have to be looked at
};

// What an entry's node is now.
struct BranchShadow::Picture {
  struct Child {
    std::string name;
    goods::object_id member;
    goods::object_id node;
  };
  bool exists = false;
  bool isPlain = false;  // of the class that has no members
  bool hasValue = false;
  goods::object_id link = 0, index = 0;
  std::size_t value = 0;
  std::vector<goods::object_id> texts;
  std::vector<Child> children;
};

// What some commits have made different, before it is told.
struct BranchShadow::Update {
  struct Gone {
    std::unique_ptr<Entry> entry;
    std::string path;
  };
  struct Come {
    Entry* entry;
    std::string from;  // empty for what is new
  };
  struct Renamed {
    Entry* entry;
    std::string name;
  };
  std::unordered_set<Entry*> structure;  // nodes that were written, or their indexes
  struct Written {
    Entry* entry;
    bool withIndex;  // which may be why the node was written
    std::uint64_t version;
  };
  std::vector<Written> written;  // nodes and texts, for each commit
  // Written nodes whose value is what it was; and nodes with another name, parent or index.
  std::unordered_set<const Entry*> same, relinked;
  std::unordered_map<goods::object_id, Gone> gone;  // by node
  std::vector<Gone> further;  // not where their nodes' children are, or of such a node as well
  std::unordered_set<const Entry*> fresh;  // to be read
  std::vector<Come> come;                  // new ones, parents first
  std::vector<Come> moved;
  std::vector<Come> formerHomes;  // whose nodes have gone, or are listed elsewhere with children
  std::vector<Renamed> names;     // not given to the entries before all paths have been taken

  // Whether all paths are what they were.
  bool isOfValuesOnly() const {
    return gone.empty() && further.empty() && come.empty() && moved.empty() && formerHomes.empty();
  }
};

[[noreturn]] inline void ThrowBranchTooLarge() {
  throw TarnException("The branch has too many nodes to be watched.", ErrorID::BadUsage);
}

}  // namespace tarns
