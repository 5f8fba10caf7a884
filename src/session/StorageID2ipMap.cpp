#include <tarns/session/StorageID2ipMap.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/Stringer.h>
#include <tarns/util/XException.h>
#include <tarns/util/XStringList.h>

namespace tarns {

namespace {

std::uint32_t IdOf(const void* key) { return *static_cast<const std::uint32_t*>(key); }
const XString& AddressOf(const void* value) { return *static_cast<const XString*>(value); }

[[noreturn]] void ThrowMismatch(const char* path) {
  XException error;
  error << "Error detected in database configuration file \"" << path
        << "\": the first line of the file doesn't match the number of listed storages.";
  throw error;
}

[[noreturn]] void ThrowInvalidEntry(const char* line) {
  XException error;
  error << "Invalid storage entry \"" << line << "\".";
  throw error;
}

// Sets the outputs from an item of the map; false when there is none.
bool Describe(const XMapItem* item, unsigned long& id, XString& address) {
  if (item == nullptr) return false;
  id = IdOf(item->getKey());
  static_cast<const StorageID2ipMapItem*>(item)->getValue(address);
  return true;
}

}  // namespace

int StorageID2ipMapItem::compareKey(const void* key) const {
  const std::uint32_t other = IdOf(key);
  if (other == id_) return 0;
  return other < id_ ? 1 : -1;
}

int StorageID2ipMapItem::compare(const XMapItem& other) const { return compareKey(other.getKey()); }

std::unique_ptr<XMapItem> StorageID2ipMapItem::create(const void* key, const void* value) const {
  return std::make_unique<StorageID2ipMapItem>(IdOf(key), AddressOf(value));
}

unsigned long StorageID2ipMapItem::getHashIndex(const void* key, unsigned long size) const {
  return HashOf(std::uint64_t{IdOf(key)}, size);
}

void StorageID2ipMapItem::setValue(const void* value) { address_ = AddressOf(value); }

StorageID2ipMap::StorageID2ipMap(unsigned long hashSize)
    : XMap(std::make_unique<StorageID2ipMapItem>(0, XString()), hashSize) {}

StorageID2ipMap::StorageID2ipMap(const char* path, unsigned long hashSize)
    : StorageID2ipMap(hashSize) {
  XString text;
  FileFP::ReadFromFile(path, text, 1);
  XStringList lines;
  lines.split(text.view(), '\n');
  if (lines.isEmpty()) return;
  const auto count = static_cast<std::size_t>(Stringer::Atol(lines[0]));
  for (std::size_t read = 0; read != count; ++read) {
    if (read + 1 >= lines.getCount()) ThrowMismatch(path);
    addStorage(lines[read + 1]);
  }
}

void StorageID2ipMap::addStorage(const char* line) {
  if (Stringer::Count(line, ":") != 2) ThrowInvalidEntry(line);
  XString address(line);
  address.trimTo(":", 1);
  address.trim();
  setAt(static_cast<unsigned long>(Stringer::Atol(line)), address);
}

const char* StorageID2ipMap::lookup(unsigned long id) const {
  const auto key = static_cast<std::uint32_t>(id);
  const XMapItem* item = XMap::lookup(&key);
  return item != nullptr ? static_cast<const StorageID2ipMapItem*>(item)->getAddress().getText()
                         : nullptr;
}

void StorageID2ipMap::setAt(unsigned long id, const char* address) {
  const auto key = static_cast<std::uint32_t>(id);
  const XString value(address);
  XMap::setAt(&key, &value);
}

bool StorageID2ipMap::getAt(const XMapIter& place, unsigned long& id, XString& address) const {
  return Describe(XMap::getAt(place), id, address);
}

bool StorageID2ipMap::getNextAssoc(XMapIter& place, unsigned long& id, XString& address) const {
  return Describe(getNext(place), id, address);
}

bool StorageID2ipMap::getPrevAssoc(XMapIter& place, unsigned long& id, XString& address) const {
  return Describe(getPrev(place), id, address);
}

}  // namespace tarns
