#include <tarns/schema/TarnFieldDescriptorMap.h>
#include <tarns/util/Stringer.h>

namespace tarns {

namespace {

constexpr unsigned long kBuckets = 127;

const TarnFieldDescriptor* FieldOf(const XMapItem* item) {
  return item != nullptr ? static_cast<const TarnFieldDescriptorMapItem*>(item)->getField()
                         : nullptr;
}

}  // namespace

TarnFieldDescriptorMapItem::~TarnFieldDescriptorMapItem() = default;

int TarnFieldDescriptorMapItem::compare(const XMapItem& other) const {
  return field_->compareName(*static_cast<const TarnFieldDescriptorMapItem&>(other).field_);
}

int TarnFieldDescriptorMapItem::compareKey(const void* key) const {
  return name_.compare(static_cast<const char*>(key));
}

std::unique_ptr<XMapItem> TarnFieldDescriptorMapItem::create(const void* key,
                                                             const void* value) const {
  return std::make_unique<TarnFieldDescriptorMapItem>(
      static_cast<const char*>(key), static_cast<const TarnFieldDescriptor*>(value));
}

unsigned long TarnFieldDescriptorMapItem::getHashIndex(const void* key, unsigned long size) const {
  return HashOf(std::string_view(static_cast<const char*>(key)), size);
}

void TarnFieldDescriptorMapItem::setValue(const void* value) {
  field_ = static_cast<const TarnFieldDescriptor*>(value);
}

TarnFieldDescriptorMap::TarnFieldDescriptorMap()
    : XMap(std::make_unique<TarnFieldDescriptorMapItem>(), kBuckets) {}

bool TarnFieldDescriptorMap::addFieldToMap(const TarnFieldDescriptor& field, const void*) {
  if (lookup(field.name()) == nullptr) setAt(&field);  // a class's own member hides a base's
  return true;
}

void TarnFieldDescriptorMap::setAt(const TarnFieldDescriptor* field) {
  XMap::setAt(field->name(), field);
}

const TarnFieldDescriptor* TarnFieldDescriptorMap::lookup(const char* name) const {
  return FieldOf(XMap::lookup(name));
}

const TarnFieldDescriptor* TarnFieldDescriptorMap::getAt(const XMapIter& place) const {
  return FieldOf(XMap::getAt(place));
}

const TarnFieldDescriptor* TarnFieldDescriptorMap::getNextAssoc(XMapIter& place) const {
  return FieldOf(XMap::getNext(place));
}

const TarnFieldDescriptor* TarnFieldDescriptorMap::getPrevAssoc(XMapIter& place) const {
  return FieldOf(XMap::getPrev(place));
}

}  // namespace tarns
