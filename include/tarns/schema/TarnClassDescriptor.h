#pragma once

#include <goods/class_descriptor.h>
#include <goods/ref.h>
#include <tarns/schema/TarnFieldDescriptor.h>
#include <tarns/tarns_api.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

namespace tarns {

class TarnData;
class TarnFieldDescriptorMap;
class TarnObject;

// The descriptor of a node class: what goods keeps of a class, and access to members by name.
//
// A member that is an array has elements, named by the member's name, '_' and the decimal index
// from 0. The members of the library's own base classes (isTarnsBaseClass) are not reflected:
// iteration, counting and look-ups stop at the first such class. Ownership: none; descriptors live
// as long as the shared library that holds their class. Threads: any; what is filled at first use
// is filled once.
class TARNS_API TarnClassDescriptor : public goods::class_descriptor {
 public:
  // The flag that every TarnClassDescriptor has, for a fast test.
  static constexpr int kNodeClass = goods::class_descriptor::first_free;

  using FieldFunction = bool (*)(const TarnFieldDescriptor& field, const void* arg);
  using FieldMember = bool (TarnObject::*)(const TarnFieldDescriptor& field, const void* arg);

  // `fields`: null, or descriptors that are all TarnFieldDescriptors; taken over.
  TarnClassDescriptor(const char* name, unsigned size, goods::metaobject* scheme,
                      constructor_function construct, goods::field_descriptor* fields,
                      goods::class_descriptor* base, int flags, bool isTarnsBaseClass,
                      unsigned char pageN, bool mayBeGuest = false);
  ~TarnClassDescriptor() override;

  // The member of that name, or the array that has the element of that name; null when none. A name
  // that is no member's is split at its first '_', so that this finds no elements of an array whose
  // own name holds one; findMember() does.
  const TarnFieldDescriptor* findField(const char* name) const;
  const TarnFieldDescriptor* findField(std::string_view name) const;
  // The same, but when that finds nothing the name is split at its last '_'. What paths, copies and
  // lists of children go by.
  const TarnFieldDescriptor* findMember(const char* name) const;
  const TarnFieldDescriptor* findMember(std::string_view name) const;

  // Members counted by their elements, bases included.
  unsigned long getNumDataMembers() const;
  // The same as a fast test.
  bool hasDataMembers() const {
    const std::uint32_t count = numDataMembers_.load(std::memory_order_relaxed);
    return count == kNotCounted ? getNumDataMembers() != 0 : count != 0;
  }
  unsigned char getPageN() const { return pageN_; }
  bool isTarnsBaseClass() const { return isTarnsBaseClass_; }

  // Visits the class's own members and, if so asked, those of its bases, until the function returns
  // false. Returns how many were visited.
  unsigned long iterateFields(FieldFunction function, const void* arg, bool includeBases) const;
  unsigned long iterateFields(void* target, FieldMember function, const void* arg,
                              bool includeBases) const;

  // The value of a member or of an element; false when the class has none of that name, for paths
  // and for an array as a whole. Kinder to names than paths are: a member that is no array is also
  // read by every name that goes on with '_' behind its own (Speed_total reads Speed), and written
  // by those where an integer follows the last '_' (Speed_7).
  bool getChildValue(const TarnObject& node, const char* name, TarnData& value) const;
  bool setChildValue(TarnObject* node, const char* name, const TarnData& value) const;

  // Read and write through a reference member: the text of a goods::String, or the own value of a
  // node (for writing made first when the reference is null; throws 3 when there is no factory for
  // the class). Not from within a function that reads several objects, see
  // TarnFieldDescriptor::readValue().
  static void GetValue(const goods::ref<goods::object>* reference, TarnData& value,
                       goods::class_descriptor* referencedClass);
  static void SetValue(goods::ref<goods::object>* reference, const TarnData& value,
                       goods::class_descriptor* referencedClass);

  // The descriptor of a node class; null for other classes.
  static const TarnClassDescriptor* From(const goods::class_descriptor* cls) {
    return dynamic_cast<const TarnClassDescriptor*>(cls);
  }

 protected:
  const TarnFieldDescriptorMap& getFieldMap() const;

 private:
  static constexpr std::uint32_t kNotCounted = 0xFFFFFFFF;
  // The array whose name stands before `separator` and that has the element behind it, or null.
  const TarnFieldDescriptor* findElement(const char* name, const char* separator) const;
  template <class Visit>
  unsigned long visitFields(Visit&& visit, bool includeBases) const;

  bool isTarnsBaseClass_;
  unsigned char pageN_;
  mutable std::atomic<std::uint32_t> numDataMembers_{kNotCounted};
  mutable std::once_flag mapFilled_;
  mutable std::unique_ptr<TarnFieldDescriptorMap> fieldMap_;  // null until first needed
};

}  // namespace tarns
