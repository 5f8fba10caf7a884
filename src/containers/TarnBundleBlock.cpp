#include <goods/cache_manager.h>
#include <tarns/containers/BundleExportFilter.h>
#include <tarns/containers/TarnBundleBlock.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnFactory.h>
#include <tarns/schema/TarnMember.h>

#include <algorithm>
#include <bit>
#include <string>
#include <vector>

#include "containers/TarnBundleSlots.h"

namespace tarns {

TARN_REGISTER(TarnBundleBlock, TarnObject);

namespace {

constexpr const char* kSlots = "Slots";
constexpr const char* kFreeMap = "FreeMap";

[[noreturn]] void ThrowBadIndex(unsigned short index) {
  TarnException error;
  error << "Invalid bundle block index " << index << "; must be in the range [0 .. "
        << TarnBundleBlock::kCapacity << "].";
  throw error;
}

// The slot that a name stands for; kCapacity when it is no slot's.
unsigned short SlotCalled(std::string_view name) {
  constexpr std::string_view kPrefix = TarnBundleSlots::kElementPrefix;
  if (!name.starts_with(kPrefix)) return TarnBundleBlock::kCapacity;
  const auto index = TarnMember::ParseIndex(std::string(name.substr(kPrefix.size())).c_str());
  if (!index || *index < 0 || *index >= TarnBundleBlock::kCapacity) {
    return TarnBundleBlock::kCapacity;
  }
  return static_cast<unsigned short>(*index);
}

// Writes the lines of a member unless it is the reference to the slots.
struct MemberLines {
  const TarnObject& node;
  PInOut& out;
  bool isWritten = true;
};

bool WriteMemberLines(const TarnFieldDescriptor& field, const void* arg) {
  auto& lines = *static_cast<MemberLines*>(const_cast<void*>(arg));
  if (!field.hasName(kSlots)) {
    lines.isWritten = GOODSinOut::WriteMember(lines.node, field, lines.out);
  }
  return lines.isWritten;
}

}  // namespace

TarnBundleBlock::~TarnBundleBlock() = default;

bool TarnBundleBlock::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  out.write(kSlots, &slots_, 1);
  return out.write(kFreeMap, freeMap_.data(), kMapWords);
}

const xcptref<TarnBundleSlots>& TarnBundleBlock::makeSlots() {
  if (slots_.is_null()) slots_ = TarnBundleSlots::Create();
  return slots_;
}

void TarnBundleBlock::initialize(const char* className) {
  if (className == nullptr) className = "";
  const TarnRef first = CreateOfType(className);
  if (first.is_null()) TarnException::ThrowMissingDescriptor(className);
  auto slots = modify(makeSlots());
  slots->setAt(0, first);
  for (std::size_t index = 1; index < kCapacity; ++index) {
    slots->setAt(index, CreateOfType(className));
  }
  firstFresh_ = 0;
}

// --- The free map -------------------------------------------------------------------------------

bool TarnBundleBlock::allocate(unsigned short& index) {
  unsigned short word = 0;
  while (word < kMapWords && freeMap_[word] == 0) ++word;
  index = kMapWords * kWordBits;
  if (word == kMapWords) return false;
  index = static_cast<unsigned short>(word * kWordBits + std::countl_zero(freeMap_[word]));
  freeMap_[word] &= ~MaskOf(index);
  const bool isFresh = index >= firstFresh_;
  if (isFresh) firstFresh_ = static_cast<std::uint16_t>(index + 1);
  return isFresh;
}

unsigned short TarnBundleBlock::allocateNextUnused() {
  unsigned short index = 0;
  allocate(index);
  return index;
}

xcptref<TarnObject> TarnBundleBlock::newChild() { return getAt(allocateNextUnused()); }

bool TarnBundleBlock::markAsFree(unsigned long index) {
  if (index >= kCapacity) return false;
  freeMap_[index / kWordBits] |= MaskOf(index);
  return true;
}

bool TarnBundleBlock::markAsFree(xcptref<TarnObject> child) {
  return markAsFree(static_cast<unsigned long>(getIndexOf(child)));
}

bool TarnBundleBlock::isFree(unsigned short index) const {
  return index < kCapacity && (freeMap_[index / kWordBits] & MaskOf(index)) != 0;
}

unsigned short TarnBundleBlock::getNextUsed(unsigned short from) const {
  for (unsigned long index = from; index < kCapacity;) {
    const std::uint32_t bit = MaskOf(index);
    // The used ones of the word, from this one on.
    const std::uint32_t used = ~freeMap_[index / kWordBits] & (bit | (bit - 1));
    index -= index % kWordBits;
    if (used != 0) {
      const unsigned long found = index + static_cast<unsigned long>(std::countl_zero(used));
      return static_cast<unsigned short>(std::min<unsigned long>(found, kCapacity));
    }
    index += kWordBits;
  }
  return std::max(from, kCapacity);
}

unsigned short TarnBundleBlock::GetNumUnused(const std::uint32_t* words, unsigned short wordCount) {
  unsigned number = 0;
  for (unsigned short word = 0; word < wordCount; ++word) {
    if (words[word] == ~std::uint32_t{0}) {  // as most are in a block
      number += kWordBits;
    } else if (words[word] != 0) {
      number += static_cast<unsigned>(std::popcount(words[word]));
    }
  }
  return static_cast<unsigned short>(number);
}

unsigned short TarnBundleBlock::getNumUnused() const {
  return GetNumUnused(freeMap_.data(), kMapWords);
}

bool TarnBundleBlock::hasUnused() const {
  return std::any_of(freeMap_.begin(), freeMap_.end(),
                     [](std::uint32_t word) { return word != 0; });
}

XString TarnBundleBlock::GetBaseNameFor(unsigned short numUnused) {
  constexpr std::size_t kLeastDigits = 4, kMostDigits = 5;
  char text[kMostDigits] = {'0', '0', '0', '0', '0'};
  std::size_t begin = kMostDigits;
  for (unsigned rest = numUnused; rest != 0; rest /= 10) {
    text[--begin] = static_cast<char>('0' + rest % 10);
  }
  begin = std::min(begin, kMostDigits - kLeastDigits);
  return XString(std::string_view(text + begin, kMostDigits - begin));
}

XString TarnBundleBlock::getBaseName() const { return GetBaseNameFor(getNumUnused()); }

// --- The objects --------------------------------------------------------------------------------

xcptref<TarnObject> TarnBundleBlock::getAt(unsigned short index) const {
  if (index >= kCapacity) ThrowBadIndex(index);
  return goods::read_here([&](goods::reader& reader) {
    const TarnBundleSlots* slots = reader.get(slots_);
    return slots != nullptr ? slots->at(index) : nullptr;
  });
}

void TarnBundleBlock::setAt(unsigned short index, const xcptref<TarnObject>& child) {
  if (index >= kCapacity) ThrowBadIndex(index);
  modify(makeSlots())->setAt(index, child);
  firstFresh_ = kCapacity;
}

// References are compared as words: stored bodies hold identifiers, others the object's handle.
unsigned short TarnBundleBlock::getIndexOf(const xcptref<TarnObject>& child) const {
  if (slots_.is_null() || child.is_null()) return kCapacity;
  const goods::object_ref counted(child);
  const goods::ref_word handle = counted.word();
  const goods::object_id id = counted.id();
  const goods::ref_word identifier = id != 0 ? goods::ref_word::of(id) : handle;
  return goods::read_here([&](goods::reader& reader) {
    const TarnBundleSlots* slots = reader.get(slots_);
    const auto holds = [&](std::size_t index) {
      const goods::ref_word word = slots->at(index).word();
      return word == handle || word == identifier;
    };
    // Objects that were made together have numbers in the order of their slots.
    const goods::object_id distance = id - slots->at(0).id();
    if (distance < kCapacity && holds(distance)) return static_cast<unsigned short>(distance);
    unsigned short index = 0;
    while (index < kCapacity && !holds(index)) ++index;
    return index;
  });
}

bool TarnBundleBlock::getIdentifiers(std::uint64_t& first, std::uint64_t& last) const {
  if (slots_.is_null()) return false;
  first = ~goods::object_id{0};
  last = 0;
  const auto slots = *slots_;
  for (std::size_t index = 0; index < kCapacity; ++index) {
    const goods::object_id id = slots->at(index).id();
    if (id == 0) return false;
    first = std::min(first, id);
    last = std::max(last, id);
  }
  return true;
}

void TarnBundleBlock::preload() const {
  goods::cache_manager* const session = goods::cache_manager::current();
  if (session == nullptr || slots_.is_null()) return;
  const auto slots = *slots_;
  std::vector<goods::object_ref> objects;
  objects.reserve(kCapacity);
  for (std::size_t index = 0; index < kCapacity; ++index) {
    if (slots->at(index).id() != 0) objects.emplace_back(slots->at(index));
  }
  session->load(objects);
}

const TarnObject* TarnBundleBlock::findChild(goods::reader& reader, std::string_view name) const {
  if (const unsigned short index = SlotCalled(name); index < kCapacity) {
    const TarnBundleSlots* slots = reader.get(slots_);
    return slots != nullptr ? reader.get(slots->at(index)) : nullptr;
  }
  return TarnObject::findChild(reader, name);
}

bool TarnBundleBlock::setChildNode(const char* name, xcptref<TarnObject>& node) {
  const unsigned short index = SlotCalled(ViewOf(name));
  if (index == kCapacity) return TarnObject::setChildNode(name, node);
  setAt(index, node);
  return true;
}

// --- Copies and text ----------------------------------------------------------------------------

xcptref<TarnObject> TarnBundleBlock::clone() const {
  const xcptref<TarnBundleBlock> copy(TarnObject::clone());
  auto body = modify(copy);
  if (!slots_.is_null()) body->slots_ = xcptref<TarnBundleSlots>(slots_->clone());
  body->firstFresh_ = kCapacity;
  return copy;
}

void TarnBundleBlock::copyFrom(xcptref<TarnObject> other) {
  const xcptref<TarnBundleSlots> own = slots_;
  TarnObject::copyFrom(std::move(other));
  if (!slots_.is_null() && slots_ != own) slots_ = xcptref<TarnBundleSlots>(slots_->clone());
  firstFresh_ = kCapacity;
}

bool TarnBundleBlock::writeConcreteMembers(PInOut& out) const {
  if (!slots_.is_null() && !slots_->writeConcreteMembers(out)) return false;
  MemberLines lines{*this, out};
  getClass().iterateFields(WriteMemberLines, &lines, true);
  return lines.isWritten;
}

bool TarnBundleBlock::read(PInOut& in) {
  firstFresh_ = kCapacity;
  do {
    TarnObject::read(in);
    if (SlotCalled(in.getCommand()) == kCapacity) return true;
  } while (GOODSinOut::ReadMember(*modify(makeSlots()), in) == PInOut::Continue);
  return true;
}

XString TarnBundleBlock::exportToTempFile(BundleExportFilter* filter) const {
  const xcptref<TarnBundleBlock> copy(clone());
  for (unsigned short index = getNextUsed(0); filter != nullptr && index < kCapacity;
       index = getNextUsed(index + 1)) {
    if (!filter->shouldExport(getAt(index)))
      modify(copy)->markAsFree(static_cast<unsigned long>(index));
  }
  // Gives the copy its name; both go when the file has been written.
  const TarnRef parent = TarnObject::Create();
  const XString name = getName();
  if (name.isEmpty()) return copy->exportToTempFile();
  modify(parent)->addChild(name, copy);
  return copy->exportToTempFile();
}

}  // namespace tarns
