#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XMap.h>
#include <tarns/util/XString.h>

#include <cstdint>
#include <memory>

namespace tarns {

// One storage of a StorageID2ipMap: its identifier (the key) and its address.
class TARNS_API StorageID2ipMapItem : public XMapItem {
 public:
  StorageID2ipMapItem(std::uint32_t id, const XString& address) : address_(address), id_(id) {}

  // 1 when the key is smaller than this item's, -1 when it is greater: the reverse of the usual
  // sign, which callers rely on.
  int compareKey(const void* key) const override;  // key: const std::uint32_t*
  int compare(const XMapItem& other) const override;
  // `key` as above; `value`: const XString*, of which the item gets a copy.
  std::unique_ptr<XMapItem> create(const void* key, const void* value) const override;
  unsigned long getHashIndex(const void* key, unsigned long size) const override;
  const void* getKey() const override { return &id_; }
  void setValue(const void* value) override;
  void getValue(XString& address) const { address = address_; }
  const XString& getAddress() const { return address_; }

 private:
  XString address_;
  std::uint32_t id_;
};

// The storage addresses that a database configuration file lists, by storage identifier.
//
// The file's first line is the number of entries; each entry is a line "id: address" that holds
// exactly two colons, as in "0: host:port" and "0: file:./data". Lines after the last entry are
// ignored. A repeated identifier replaces the earlier address. Of an identifier the low 32 bits
// count.
// Errors: XException, which names the file or the line; entries read before it stay.
// Threads: any number of readers or one writer.
class TARNS_API StorageID2ipMap : public XMap {
 public:
  explicit StorageID2ipMap(unsigned long hashSize);
  StorageID2ipMap(const char* path, unsigned long hashSize);

  // The address, valid until it is set anew; null when there is no such storage.
  const char* lookup(unsigned long id) const;
  void setAt(unsigned long id, const char* address);

  // At the place; after having moved on (back). False, and nothing set, when that is at none.
  bool getAt(const XMapIter& place, unsigned long& id, XString& address) const;
  bool getNextAssoc(XMapIter& place, unsigned long& id, XString& address) const;
  bool getPrevAssoc(XMapIter& place, unsigned long& id, XString& address) const;

 protected:
  void addStorage(const char* line);
};

}  // namespace tarns
