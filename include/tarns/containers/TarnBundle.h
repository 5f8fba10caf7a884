#pragma once

#include <tarns/containers/TarnBundleBlock.h>
#include <tarns/containers/TarnBundleIter.h>
#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnString.h>
#include <tarns/tarns_api.h>

#include <functional>

namespace tarns {

// A node with very many children of one class, which are made a thousand at a time and used again
// when they have been deleted.
//
//   const auto bundle = TarnBundle::Create("Machine");  // of the class Machine
//   manager.set("machines", bundle);
//   const xcptref<Machine> press(modify(bundle)->newChild("press"));
//   manager.set("machines~BundledChildren~press~Speed", 40);
//
// The objects live in blocks (TarnBundleBlock), which the child Blocks lists under the number of
// their free slots, so that the first block with room is the fullest; the child BundledChildren
// lists the objects in use under their names, and is their parent. Both are made when they are
// first needed. A deleted object stays in its slot, with its members and children as they are,
// until the slot is handed out again; blocks are never removed.
//
// Names are as for TarnObject::addChild(): two objects may bear one name, so callers that need one
// object for each name check first.
//
// Threads and transactions: as every node. Creating and deleting need write access to the bundle,
// so two transactions that do so in one bundle come one after the other, from the first such call
// to their ends; each of them changes BundledChildren, whose number of children says so. None waits
// for the other while it holds something of the bundle, unless it has read in the bundle before:
// begin with the change. Readers outside transactions never wait. Bundles have nothing in common.
class TARNS_API TarnBundle : public TarnObject {
  TARN_CLASS(TarnBundle, TarnObject)

 public:
  static constexpr const char* kBundledChildren = "BundledChildren";
  static constexpr const char* kBlocks = "Blocks";

  // Of objects of that class; whether there is such a class shows at the first newChild().
  explicit TarnBundle(const char* className);
  TarnBundle(const char* className, goods::class_descriptor& cls);  // for derived classes
  static xcptref<TarnBundle> Create(const char* className) { return {new TarnBundle(className)}; }
  ~TarnBundle() override;

  // Sets the class of the objects unless there is one.
  void initClassName(const char* className);
  XString getClassName() const;

  // Frees the object of that name, the first one where there are several; false when there is none.
  virtual bool deleteBundledChild(const char* name);
  // Hands out an object under `name`: as one that has just been made and initialized, whatever was
  // in its slot before. Throws 0 for names that addChild() refuses, and 3 when a block is to be
  // made and there is no such class; what throws has changed nothing.
  virtual xcptref<TarnObject> newChild(const char* name);

  // Calls `work`, which creates and deletes very many objects: a block's name in Blocks is made
  // right when the next block's turn comes, and at the end, instead of with each object. Until then
  // the name of the block that was used last may be one of before. For a write access of which
  // `work` makes use; what `work` throws is thrown on.
  //
  //   const auto body = modify(bundle);
  //   body->together([&] { for (const auto& name : names) body->newChild(name.c_str()); });
  void together(const std::function<void()>& work);

  // False when there is no object of the old name. The new one follows the rules of setName().
  bool renameBundledChild(const char* oldName, const char* newName);

  // The object of that name, or null.
  xcptref<TarnObject> getBundledChildWithName(const char* name) const;
  xcptref<TarnObject> getBundledChildWithNameNoFail(const char* name) const;
  // In their order; adds them to the list. Of millions of names one pages through them with
  // getChildNames(after, limit) of the child BundledChildren.
  void getBundledChildNames(XStringList& names) const;
  unsigned long getNumBundledChildren() const;
  unsigned long getNumBlocks() const;

  // At the first object, see TarnBundleIter.
  TarnBundleIter first() const;

  bool write(const char* name, GOODSinOut& out) override;

 protected:
  // The bundle node's own children, of which it needs those that it makes itself.
  void addChild(const char* name, xcptref<TarnObject> child) override;
  XString addUniqueChild(const char* name, xcptref<TarnObject> child) override;
  bool deleteChild(const char* name) override;

  // The block with the fewest free slots that has one, made when there is none; `blockName`, when
  // not null, becomes its name in Blocks.
  xcptref<TarnObject> getFullestBlockWithSpace(XString* blockName);
  // Gives the block that is in Blocks as `oldName` the name of the number of its free slots.
  void updateBlockName(xcptref<TarnObject> block, const char* oldName);

 private:
  xcptref<TarnObject> bundledChildren() const;  // null while there are none
  xcptref<TarnObject> blocks() const;
  xcptref<TarnBundleBlock> addBlock(const xcptref<TarnObject>& blocks, XString& name);
  xcptref<TarnObject> refill(const xcptref<TarnBundleBlock>& block, unsigned short slot) const;

  // Where the next object goes.
  struct Space {
    xcptref<TarnObjects> children;        // the index of BundledChildren
    xcptref<TarnObject> blocks;           // Blocks
    xcptref<TarnObjects> list;            // its index
    goods::ref<goods::set_member> entry;  // the block's
    xcptref<TarnBundleBlock> block;
    bool isNext = false;  // to be filled; otherwise objects of it were deleted
  };
  bool findSpace(Space& space) const;
  void makeSpace();
  void findOrMakeSpace(Space& space);
  xcptref<TarnObject> takeObject(Space& space, bool& isFresh);
  void rename(const Space& space);
  void settle();
  void markAsFree(const xcptref<TarnObject>& child, const xcptref<TarnObject>& blocks);

  // What together() has put off, within it; without block: nothing.
  Space* putOff_ = nullptr;
  TarnString className_;  // stored as "ClassName"
};

}  // namespace tarns
