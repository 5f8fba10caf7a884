#pragma once

#include <tarns/schema/TarnFieldDescriptor.h>
#include <tarns/tarns_api.h>
#include <tarns/util/XMap.h>
#include <tarns/util/XString.h>

#include <memory>

namespace tarns {

// One entry of a TarnFieldDescriptorMap. Keys are const char*, values const TarnFieldDescriptor*.
class TARNS_API TarnFieldDescriptorMapItem : public XMapItem {
 public:
  TarnFieldDescriptorMapItem() = default;
  TarnFieldDescriptorMapItem(const char* name, const TarnFieldDescriptor* field)
      : name_(name), field_(field) {}
  ~TarnFieldDescriptorMapItem() override;

  // Both items must be of this class.
  int compare(const XMapItem& other) const override;
  int compareKey(const void* key) const override;
  std::unique_ptr<XMapItem> create(const void* key, const void* value) const override;
  unsigned long getHashIndex(const void* key, unsigned long size) const override;
  const void* getKey() const override { return name_.getText(); }
  void setValue(const void* value) override;
  const TarnFieldDescriptor* getField() const { return field_; }

 private:
  XString name_;
  const TarnFieldDescriptor* field_ = nullptr;  // not owned
};

// Members of a class by name. Ownership: none. Threads: read only once filled.
class TARNS_API TarnFieldDescriptorMap : public XMap {
 public:
  TarnFieldDescriptorMap();

  // For TarnClassDescriptor::iterateFields(): always returns true.
  bool addFieldToMap(const TarnFieldDescriptor& field, const void* arg);
  void setAt(const TarnFieldDescriptor* field);
  const TarnFieldDescriptor* lookup(const char* name) const;

  const TarnFieldDescriptor* getAt(const XMapIter& place) const;
  const TarnFieldDescriptor* getNextAssoc(XMapIter& place) const;
  const TarnFieldDescriptor* getPrevAssoc(XMapIter& place) const;
};

}  // namespace tarns
