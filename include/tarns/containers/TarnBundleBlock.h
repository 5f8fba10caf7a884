#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

#include <array>
#include <cstdint>
#include <string_view>

namespace tarns {

class BundleExportFilter;
class TarnBundleSlots;

// A thousand objects of one class, made at once, and which of them are free: what a TarnBundle
// hands out of.
//
// Slots are numbered from 0. A slot keeps its object for good, free or not: handing one out and
// taking it back changes a bit of the free map. The map is a member of the block (FreeMap, 32
// words; slot i is the bit 0x80000000 >> i % 32 of word i / 32, set while the slot is free; the
// last 24 bits of all are never set). The references to the objects are kept in an object of their
// own, so that what changes with every slot is stored without them; by path they are BundleBlock_0
// to BundleBlock_999 below the block, and so the text form has them.
//
// Threads and transactions: as every node. In a bundle blocks are changed by the bundle only.
class TARNS_API TarnBundleBlock : public TarnObject {
  TARN_CLASS(TarnBundleBlock, TarnObject)

 public:
  static constexpr unsigned short kCapacity = 1000;  // slots
  static constexpr unsigned short kMapWords = 32;

  ~TarnBundleBlock() override;

  // Fills all slots with new objects of that class. Throws 3, and has changed nothing, when there
  // is no such class.
  void initialize(const char* className);
  using TarnObject::initialize;

  // Takes the first free slot and returns its number. There must be one; otherwise 1024 is returned
  // and nothing changed.
  unsigned short allocateNextUnused();
  // The same, which tells whether the slot is known never to have been handed out: its object is
  // still as it was made.
  bool allocate(unsigned short& index);
  // The object of the slot taken by allocateNextUnused(), as it is. Throws as getAt() when none is
  // free.
  xcptref<TarnObject> newChild();

  // Frees the slot that holds exactly this object, whether it was free or not; false when none
  // does.
  bool markAsFree(xcptref<TarnObject> child);

  bool isFree(unsigned short index) const;  // false from 1000 on
  // The first used slot from `from` on; 1000 when there is none, `from` itself from 1000 on.
  unsigned short getNextUsed(unsigned short from) const;
  unsigned short getNumUnused() const;
  bool hasUnused() const;  // whether there is any
  // The number of bits set in the first `wordCount` words.
  static unsigned short GetNumUnused(const std::uint32_t* words, unsigned short wordCount);

  // The slot's object, free or not. Throws 0 from 1000 on. Null in a block that has not been
  // initialized, and for an object that was lost with a damaged database.
  xcptref<TarnObject> getAt(unsigned short index) const;
  // Puts an object into a slot.
  void setAt(unsigned short index, const xcptref<TarnObject>& child);
  // The slot that holds exactly this object; 1000 when none does.
  unsigned short getIndexOf(const xcptref<TarnObject>& child) const;
  // The least and the greatest identifier of the objects; false when some have none. Makes nothing
  // for the objects.
  bool getIdentifiers(std::uint64_t& first, std::uint64_t& last) const;
  // Frees a slot; false, and nothing changed, from 1000 on.
  bool release(unsigned short index) { return markAsFree(static_cast<unsigned long>(index)); }

  // What a bundle calls a block with so many free slots: the number with four digits.
  XString getBaseName() const;
  static XString GetBaseNameFor(unsigned short numUnused);

  // Loads all objects that the session does not have in memory with one call to the storage.
  void preload() const;

  // Writes the block to a new file, which is the caller's to delete, under its name; slots whose
  // objects the filter does not take are marked as free there. Null takes all. What the text form
  // is: docs/text-format.md. Throws 16 when writing fails. The filter may not change the block.
  XString exportToTempFile(BundleExportFilter* filter) const;
  using TarnObject::exportToTempFile;

  bool write(const char* name, GOODSinOut& out) override;
  bool writeConcreteMembers(PInOut& out) const override;
  bool read(PInOut& in) override;
  const TarnObject* findChild(goods::reader& reader, std::string_view name) const override;
  // What takes the place of an object that the path of a slot leads to goes into the slot.
  bool setChildNode(const char* name, xcptref<TarnObject>& node) override;
  // The copy has slots of its own, with the same objects.
  xcptref<TarnObject> clone() const override;
  void copyFrom(xcptref<TarnObject> other) override;

 protected:
  // Frees a slot; false, and nothing changed, from 1000 on.
  bool markAsFree(unsigned long index);

 private:
  using FreeMap = std::array<std::uint32_t, kMapWords>;
  static constexpr unsigned short kWordBits = 32;
  static constexpr std::uint32_t MaskOf(unsigned long index) {
    return std::uint32_t{0x80000000} >> (index % kWordBits);
  }
  static constexpr FreeMap NewFreeMap() {
    FreeMap map{};
    for (unsigned long index = 0; index < kCapacity; ++index)
      map[index / kWordBits] |= MaskOf(index);
    return map;
  }
  const xcptref<TarnBundleSlots>& makeSlots();

  xcptref<TarnBundleSlots> slots_;  // stored as "Slots"; null until there are objects
  FreeMap freeMap_ = NewFreeMap();  // stored as "FreeMap"
  // Slots from this one on have never been handed out. Not stored: known to the version of a block
  // that was filled, that is, in the transaction that has made it.
  std::uint16_t firstFresh_ = kCapacity;
};

}  // namespace tarns
