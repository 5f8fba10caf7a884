#include <goods/cache_manager.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <cstdint>

#include "core/further_children.h"
#include "core/node_access.h"

namespace tarns {

TARN_REGISTER_WITH(TarnCollection, TarnUint32Value, .pageN = 146);

namespace {

const TarnObject* OldOf(goods::reader& reader, const TarnObject& node) {
  if (!TarnCollection::SelfClass().is_superclass_for(node.cls())) return nullptr;
  return static_cast<const TarnCollection&>(node).lookAtOld(reader);
}

[[maybe_unused]] const bool isDefined = DefineFurtherHolder(OldOf);

}  // namespace

TarnCollection::TarnCollection(xcptref<TarnObject> old) : TarnCollection() {
  old_ = std::move(old);
}

TarnCollection::~TarnCollection() = default;

bool TarnCollection::write(const char* name, GOODSinOut& out) {
  TarnUint32Value::write(name, out);
  return out.write(kOld, &old_, 1);
}

const TarnObject* TarnCollection::findChild(goods::reader& reader, std::string_view name) const {
  if (const TarnObject* own = TarnUint32Value::findChild(reader, name)) return own;
  const TarnObject* old = reader.get(old_);
  return old != nullptr ? old->findChild(reader, name) : nullptr;
}

bool TarnCollection::deleteChild(const char* name) {
  return TarnUint32Value::deleteChild(name) || (!old_.is_null() && modify(old_)->deleteChild(name));
}

void TarnCollection::setNode(const char* path, xcptref<TarnObject> node) {
  const bool isChild = IsChildName(ViewOf(path)) && ViewOf(path) != kOld;
  const bool isInOld = isChild && !old_.is_null() && getIterTo(path).isNull();
  TarnUint32Value::setNode(path, std::move(node));
  if (isInOld) modify(old_)->deleteChild(path);
}

xcptref<TarnObject> TarnCollection::clone() const {
  const xcptref<TarnCollection> copy(TarnUint32Value::clone());
  if (copy->isBalancing()) modify(copy)->discardOld();
  return copy;
}

void TarnCollection::copyFrom(xcptref<TarnObject> other) {
  const TarnRef old = old_;
  TarnUint32Value::copyFrom(std::move(other));
  old_ = old;
}

unsigned long TarnCollection::getNumChildren() const {
  return goods::read_here([&](goods::reader& reader) {
    const auto& self = static_cast<const TarnCollection&>(Current(reader, *this));
    const TarnObject* old = reader.get(self.old_);
    return self.getNumAbstractChildren() + (old != nullptr ? old->getNumChildren() : 0);
  });
}

std::vector<std::string> TarnCollection::getAllChildNames(std::string_view after,
                                                          std::size_t limit) const {
  return goods::read_here([&](goods::reader& reader) {
    return static_cast<const TarnCollection&>(Current(reader, *this)).getChildNames(after, limit);
  });
}

unsigned long TarnCollection::getHeight() const {
  const xcptref<TarnObjects> index = getChildren();
  return index.is_null() ? 0 : index->height();
}

unsigned long TarnCollection::getOptimalHeight() const {
  return GetOptimalHeightFor(getNumChildren());
}

unsigned long TarnCollection::GetOptimalHeightFor(unsigned long numChildren) {
  if (numChildren == 0) return 0;
  if (numChildren <= kFanOut) return 1;
  unsigned long height = 1;
  std::uint32_t limit = 0;
  do {
    ++height;
    limit = kFanOut;
    for (unsigned long i = 0; i < height; ++i) limit *= limit;  // wraps
  } while (numChildren > limit && limit != 0);
  return height;
}

const TarnObject* TarnCollection::lookAtOld(goods::reader& reader) const {
  return reader.get(old_);
}

void TarnCollection::discardOld() {
  old_ = nullptr;
  note_relinked();
}

}  // namespace tarns
