#pragma once

#include <goods/B_tree.h>
#include <goods/ref.h>
#include <tarns/schema/TarnString.h>
#include <tarns/tarns_api.h>

#include <functional>
#include <string_view>

namespace tarns {

// A member that is a set of named texts, in the order of their names; equal names are allowed and
// stay in the order of insertion.
//
//   TarnStringList notes_{this};   // as a member: what is stored of it then stands beside its node
//
// As a member it reads as the empty value by path and is copied with its node. Changing the list in
// a node needs write access to the node. Threads: as for references.
class TARNS_API TarnStringList {
 public:
  // `owner`: the object that the list is a member of; null for a list that is none's, or whose
  // place in the storage does not matter.
  explicit TarnStringList(const goods::object* owner = nullptr) : owner_(owner) {}
  TarnStringList(const TarnStringList&) = delete;
  TarnStringList& operator=(const TarnStringList&) = delete;
  virtual ~TarnStringList();

  // Adds the very string, not a copy. Throws for a name of more than 65,535 bytes.
  void insert(const char* name, const TarnString& string);
  unsigned long getCount() const;
  // Once for each string; the callback may do anything.
  void iterateChildren(void (*callback)(TarnString string, const void* arg), const void* arg) const;
  void iterateChildren(
      const std::function<void(std::string_view name, TarnString string)>& callback) const;

  const goods::ref<goods::B_tree>& getReference() const { return tree_; }

 private:
  friend class GOODSinOut;  // takes the place of tree_ for the schema

  goods::ref<goods::B_tree> tree_;  // null until the first insertion
  const goods::object* owner_;
};

}  // namespace tarns
