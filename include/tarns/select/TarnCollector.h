#pragma once

#include <goods/ref.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

#include <string>

namespace tarns {

// A selection of a node's children, which are listed below the collector under their names.
//
//   const auto found = TarnCollector::CollectChildrenWithBaseName(node, "Items");
//   for (const auto& [name, child] : found->children()) ...
//   found->deleteFrom(node);
//
// A collector compares each child with what it was made with; what holds is added. The comparison
// is kept in memory only and is gone once the collector is stored: one that comes from the database
// has its children and throws where it would have to compare, as a default-constructed one does.
//
// A node that has a parent keeps it: a collector makes entries of its own and changes nothing about
// what it lists. Only a node without parent becomes the collector's child in full.
//
// Threads and errors: as every node. What the comparison throws leaves the call; what was added
// before stays.
class TARNS_API TarnCollector : public TarnObject {
  TARN_CLASS(TarnCollector, TarnObject)

 public:
  // Negative, 0 or positive when the node is less than, equal to or greater than what `arg` says.
  using Compare = int (*)(TarnRef node, const void* arg);
  using MemberCompare = int (TarnObject::*)(TarnRef node, const void* arg);

  // `arg`, and the node `target` (a TarnObject*), are kept and outlive the collector's use.
  TarnCollector(Compare function, const void* arg);
  TarnCollector(void* target, MemberCompare function, const void* arg);
  static xcptref<TarnCollector> Create(Compare function, const void* arg) {
    return {new TarnCollector(function, arg)};
  }
  ~TarnCollector() override;

  // --- Adding. What counts is the argument that the collector was made with, not `arg`.

  void addIfEqual(const char* name, TarnRef node, const void* arg);
  void addIfNotEqual(const char* name, TarnRef node, const void* arg);
  void addIfGreater(const char* name, TarnRef node, const void* arg);
  void addIfGreaterOrEqual(const char* name, TarnRef node, const void* arg);
  void addIfLess(const char* name, TarnRef node, const void* arg);
  void addIfLessOrEqual(const char* name, TarnRef node, const void* arg);

  // The same for each child of `parent`, in the order of their names. Throws 0 for this collector.
  void collectChildrenIfEqual(TarnRef parent);
  void collectChildrenIfNotEqual(TarnRef parent);
  void collectChildrenIfGreater(TarnRef parent);
  void collectChildrenIfGreaterOrEqual(TarnRef parent);
  void collectChildrenIfLess(TarnRef parent);
  void collectChildrenIfLessOrEqual(TarnRef parent);

  // --- New collectors, not stored.

  // By name, as TarnMember::CompareElementNames() orders them: Item_2 before Item_10. Throws where
  // that does, for names like "lib_dev" beside a `name` that holds a '_', too.
  static goods::ref<TarnCollector> CollectChildrenIfEqual(TarnRef parent, const char* name);
  static goods::ref<TarnCollector> CollectChildrenIfNotEqual(TarnRef parent, const char* name);
  static goods::ref<TarnCollector> CollectChildrenIfGreater(TarnRef parent, const char* name);
  static goods::ref<TarnCollector> CollectChildrenIfGreaterOrEqual(TarnRef parent,
                                                                   const char* name);
  static goods::ref<TarnCollector> CollectChildrenIfLess(TarnRef parent, const char* name);
  static goods::ref<TarnCollector> CollectChildrenIfLessOrEqual(TarnRef parent, const char* name);

  // The elements baseName_0, baseName_1, ... up to baseName_4294967295. Other names are no elements
  // of that name and nothing to throw for.
  static goods::ref<TarnCollector> CollectChildrenWithBaseName(TarnRef parent,
                                                               const char* baseName);

  // The children whose value at the path `name` below them compares equal, as TarnData::compare()
  // says; see TarnObject::deleteChildrenWithValue(). Nothing equals a null `value`; a null text is
  // the empty one.
  static goods::ref<TarnCollector> CollectChildrenWithValue(TarnRef parent, const char* name,
                                                            TarnData* value);
  static goods::ref<TarnCollector> CollectChildrenWithValue(TarnRef parent, const char* name,
                                                            const char* value);

  // Compares the name of `node` with the text `name` points at.
  static int CompareNames(TarnRef node, const void* name);

  // --- Deletes from `parent`, of each name that is listed here, the first child that bears it.
  // What `parent` does not have is passed over; the collector keeps its entries. The second form is
  // one transaction, or part of the one that is open.
  void deleteFrom(TarnObject& parent) const;
  void deleteFrom(TarnRef parent) const;

  // Lists `child`; one without parent becomes this node's.
  void addChild(const char* name, TarnRef child) override;
  bool write(const char* name, GOODSinOut& out) override;

 protected:
  int compare(TarnRef node, const void* arg);
  void add(const char* name, TarnRef node);
  // `parent`: a TarnObject*; a TarnRef*.
  static void DeleteChildFrom(const char* name, TarnRef child, const void* parent);
  static void DeleteChildFromRef(const char* name, TarnRef child, const void* parent);

 private:
  using AddIf = void (TarnCollector::*)(const char* name, TarnRef node, const void* arg);
  void collect(const TarnRef& parent, AddIf addIf);
  static goods::ref<TarnCollector> CollectByName(const TarnRef& parent, const char* name,
                                                 AddIf addIf);

  // Not stored.
  Compare compare_ = nullptr;
  MemberCompare memberCompare_ = nullptr;
  TarnObject* target_ = nullptr;
  const void* arg_ = nullptr;
  std::string name_;  // what arg_ points at in a collector that compares names
};

}  // namespace tarns
