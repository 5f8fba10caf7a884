#pragma once

#include <goods/B_tree.h>
#include <goods/set_member.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>
#include <tarns/util/PInOut.h>

#include <string_view>
#include <utility>

namespace tarns {

class TarnObject;

// The abstract children of a node, in the order of their names (by bytes as unsigned numbers),
// those of equal names in the order in which they were added.
//
// Made by the node when its first child is added; also serves as a list of nodes that are children
// of others (link()). Its set_owner knows no owner, as that would be one more reference in each
// index: the node that it belongs to is getParent(). Whoever changes children goes through the
// node. Threads: as every persistent object, see xcptref.
class TARNS_API TarnObjects : public goods::B_tree {
 public:
  static goods::class_descriptor self_class;

  // A new index of `parent` (null: a mere list). `pageN`: see TarnObject::getPageN().
  static xcptref<TarnObjects> Create(const xcptref<TarnObject>& parent, unsigned char pageN);
  TarnObjects(goods::object_handle* handle, goods::class_descriptor& cls);
  ~TarnObjects() override;

  // The node whose children these are, or null.
  xcptref<TarnObject> getParent() const;
  goods::ref_word getParentWord() const { return parent_.word(); }
  void setParent(const xcptref<TarnObject>& parent);

  // Adds a child under a name that has been checked. The child takes the entry as the link to its
  // parent, unless it is that parent or above it.
  void insert(std::string_view name, const xcptref<TarnObject>& child);
  // Adds an entry that the child knows nothing of.
  goods::ref<goods::set_member> link(std::string_view name, const xcptref<TarnObject>& child);
  // Lets the child of an entry of this index take it as the link to its parent, unless it is that
  // parent or above it.
  void becomeHome(const goods::ref<goods::set_member>& entry);
  // Puts `child` in the place of the entry's child, which loses the parent that it has through it.
  void replaceChild(const goods::ref<goods::set_member>& entry, const xcptref<TarnObject>& child);
  // Removes an entry; its child loses the parent that it has through it. False when the entry is
  // not in this index.
  bool removeEntry(const goods::ref<goods::set_member>& entry);
  // Gives the entry another name.
  void rename(const goods::ref<goods::set_member>& entry, std::string_view name);
  // Removes all entries in the same way.
  void deleteChildren();

  // The value indexes of these children by their paths, see TarnValueIndex; null for none. Whoever
  // sets them sees to it that they agree with the children.
  goods::ref<goods::B_tree> getValueIndexes() const { return valueIndexes_; }
  goods::ref_word getValueIndexesWord() const { return valueIndexes_.word(); }
  void setValueIndexes(goods::ref<goods::B_tree> indexes) { valueIndexes_ = std::move(indexes); }

  // Null, or 0, when there is none. Types are compared exactly.
  xcptref<TarnObject> getWithName(const char* name) const;
  xcptref<TarnObject> getOfType(const char* type) const;
  unsigned long getNumOfType(const char* type) const;
  unsigned long getNumWithName(const char* name) const;

  goods::field_descriptor* describe_components() override;

  // As text: the lines "Children {" to "}", nothing for null; false when writing fails. For a
  // GOODSinOut it declares the member instead.
  static bool Write(const xcptref<TarnObjects>& children, const char* name, PInOut& out);
  // Reads what Write() wrote, from the line "Children {" on, into new children of `parent`, whose
  // index is made with `pageN` when there is none. Children of unknown classes are left out.
  static PInOut::Status Read(TarnObject* parent, PInOut& in, unsigned char pageN);

 private:
  TarnObjects(const xcptref<TarnObject>& parent, unsigned char pageN);
  bool isAtOrAboveParent(const xcptref<TarnObject>& child) const;
  void adopt(const goods::ref<goods::set_member>& entry, const xcptref<TarnObject>& child);

  void noteAdded(const goods::ref<goods::set_member>& entry) const;
  void noteRemoved(const goods::ref<goods::set_member>& entry) const;

  goods::back_ref<TarnObject> parent_;      // stored as "mParent"
  goods::ref<goods::B_tree> valueIndexes_;  // stored as "ValueIndexes"
};

}  // namespace tarns
