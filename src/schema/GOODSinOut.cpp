#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnEnumFieldDescriptor.h>

namespace tarns {

GOODSinOut::~GOODSinOut() { goods::field_descriptor::destroy_list(fields_); }

bool GOODSinOut::isDerivedFrom(const char* typeName) const {
  return ViewOf(typeName) == GetType() || PInOut::isDerivedFrom(typeName);
}

bool GOODSinOut::write(const char* name, TarnString* members, unsigned long count) {
  return addReference(name, members, count, [] { return ClassOf<goods::String>(); });
}

// As a member it is the reference to its index, which is no node and reads as the empty value.
bool GOODSinOut::write(const char* name, TarnStringList& member) {
  return addReference(name, &member.tree_, 1, [] { return ClassOf<goods::B_tree>(); });
}

bool GOODSinOut::writeText(const char* name, char* text, unsigned long count) {
  return addMember(name, goods::field_type::signed_integer, text, 1, count, Kind::kText);
}

bool GOODSinOut::addMember(const char* name, goods::field_type type, const void* member,
                           std::size_t size, unsigned long count, Kind kind) {
  auto* field = new TarnFieldDescriptor(name, static_cast<unsigned>(size),
                                        static_cast<unsigned>(count), offsetOf(member), nullptr,
                                        TarnFieldDescriptor::ClassFunction{}, kind == Kind::kText);
  field->set_type(type).set_boolean(kind == Kind::kBoolean);
  return add(field);
}

bool GOODSinOut::addReference(const char* name, const void* member, unsigned long count,
                              TarnFieldDescriptor::ClassFunction referencedClass,
                              goods::ref_kind kind) {
  auto* field = new TarnFieldDescriptor(name, sizeof(goods::ref_word), static_cast<unsigned>(count),
                                        offsetOf(member), nullptr, referencedClass, false);
  field->set_type(goods::field_type::reference).set_kind(kind);
  return add(field);
}

bool GOODSinOut::addEnumeration(const char* name, const void* member, std::size_t size) {
  auto* field = new TarnEnumFieldDescriptor(name, static_cast<unsigned>(size), 1, offsetOf(member),
                                            nullptr, TarnFieldDescriptor::ClassFunction{}, false);
  field->set_type(goods::field_type::unsigned_integer);
  return add(field);
}

bool GOODSinOut::addEnumValue(const char* member, unsigned long value, const char* valueName) {
  auto* field = dynamic_cast<TarnEnumFieldDescriptor*>(last(member));
  if (field != nullptr) field->addValue(value, valueName);
  return field != nullptr;
}

bool GOODSinOut::addFormerName(const char* member, const char* formerName) {
  TarnFieldDescriptor* field = last(member);
  if (field != nullptr) field->addFormerName(formerName);
  return field != nullptr;
}

goods::field_descriptor* GOODSinOut::takeFieldDescriptors() {
  return std::exchange(fields_, nullptr);
}

bool GOODSinOut::add(TarnFieldDescriptor* field) {
  field->append_to(fields_);
  return true;
}

unsigned GOODSinOut::offsetOf(const void* member) const {
  return static_cast<unsigned>(static_cast<const char*>(member) -
                               reinterpret_cast<const char*>(&node_));
}

TarnFieldDescriptor* GOODSinOut::last(const char* name) const {
  TarnFieldDescriptor* found = nullptr;
  goods::for_each_field(fields_, [&](goods::field_descriptor& field) {
    found = static_cast<TarnFieldDescriptor*>(&field);
  });
  return found != nullptr && found->hasName(name) ? found : nullptr;
}

}  // namespace tarns
