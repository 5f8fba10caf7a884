// GOODSinOut: members as lines of a text.
#include <goods/String.h>
#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnEnumFieldDescriptor.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/util/Stringer.h>

#include <string>
#include <utility>

#include "core/NodeReader.h"
#include "core/text_words.h"

namespace tarns {

namespace {

constexpr unsigned kListPageNumber = 2;

[[noreturn]] void ThrowNoText(const TarnObject& node, const char* member,
                              const goods::object_ref& target) {
  TarnException error;
  error << "The member \"" << member << "\" of a \"" << node.getType()
        << "\" cannot be written as text: it refers to an object of the class \""
        << goods::class_of(target).name() << "\".";
  throw error;
}

bool IsReference(const goods::field_descriptor& field) {
  return field.type() == goods::field_type::reference;
}

// The reference that the member or element `name` is. Null when the class has no such element.
const goods::object_ref* ReferenceIn(const TarnObject& node, const TarnFieldDescriptor& field,
                                     const char* name) {
  const std::int32_t at = field.getValueOffset(name);
  if (at < 0) return nullptr;
  return reinterpret_cast<const goods::object_ref*>(reinterpret_cast<const char*>(&node) + at);
}

bool IsText(const TarnFieldDescriptor& field, const goods::object_ref& target) {
  if (field.isForText()) return true;
  return !target.is_null() && &goods::class_of(target) == &goods::String::self_class;
}

bool IsListOfTexts(const TarnFieldDescriptor& field, const goods::object_ref& target) {
  if (field.isForClass(&goods::B_tree::self_class)) return true;
  return !target.is_null() && &goods::class_of(target) == &goods::B_tree::self_class;
}

std::string TextOf(const goods::object_ref& text) {
  const auto original = goods::ref<goods::String>::trusted(text);
  return goods::read_here(
      [&](goods::reader& reader) { return std::string(reader.get(original)->text()); });
}

bool WriteText(const char* name, const goods::object_ref& text, PInOut& out) {
  return text.is_null() ? out.write(name) : out.write(name, TextOf(text));
}

bool WriteListOfTexts(const char* name, const goods::object_ref& list, PInOut& out) {
  if (list.is_null()) return out.write(name, TextWord::kNull);
  bool isWritten = out.write(name, TextWord::kOpen);
  out.indentIn();
  goods::B_tree::iterate(
      goods::ref<goods::B_tree>::trusted(list), [&](const goods::held_entry& entry) {
        // An empty name is no command.
        isWritten = isWritten && WriteText(("." + entry.name).c_str(), entry.target, out);
        return isWritten;
      });
  out.indentOut();
  return isWritten && out.write(TextWord::kClose);
}

bool WriteReference(const TarnObject& node, const TarnFieldDescriptor& field, const char* name,
                    PInOut& out) {
  if (field.kind() != goods::ref_kind::counted) return true;  // a way back, made anew when read
  const goods::object_ref* reference = ReferenceIn(node, field, name);
  if (reference == nullptr) return true;
  const goods::object_ref target(*reference);
  if (IsText(field, target)) return WriteText(name, target, out);
  if (IsListOfTexts(field, target)) return WriteListOfTexts(name, target, out);
  if (target.is_null()) return out.write(name, TextWord::kNull);
  if (!TarnObject::IsTarnObject(target)) ThrowNoText(node, name, target);
  TarnRef child;
  field.copyFrom(&node, child, name);
  const bool isWritten = out.write(name);
  out.indentIn();
  TarnObject::Write(name, child, &out);
  out.indentOut();
  return isWritten;
}

struct WriteStep {
  const TarnObject& node;
  PInOut& out;
  bool isWritten = true;
};

bool WriteField(const TarnFieldDescriptor& field, const void* arg) {
  auto& step = *static_cast<WriteStep*>(const_cast<void*>(arg));
  step.isWritten = GOODSinOut::WriteMember(step.node, field, step.out);
  return step.isWritten;
}

// --- Reading ------------------------------------------------------------------------------------

// The member that a line is about: the one of that name, or the array before its last '_'.
const TarnFieldDescriptor* FieldFor(const TarnObject& node, const std::string& name) {
  const TarnClassDescriptor& cls = node.getClass();
  if (const TarnFieldDescriptor* field = cls.findMember(name.c_str())) return field;
  const std::size_t separator = name.rfind('_');
  if (separator == std::string::npos || !TarnMember::ParseIndex(name.c_str() + separator + 1)) {
    return nullptr;
  }
  return cls.findField(std::string_view(name).substr(0, separator));
}

void ReadText(goods::object_ref& text, PInOut& in) {
  TarnString member;
  if (in.hasValue()) member = TarnString(std::string_view(in.getValue()));
  text = member.getReference();
  in.readLine();
}

void ReadListOfTexts(TarnObject& node, goods::object_ref& list, PInOut& in) {
  const std::string value = in.getValue();
  if (value == TextWord::kNull) {
    list = goods::object_ref();
    in.readLine();
    return;
  }
  if (value != TextWord::kOpen) in.fail("a list of texts begins with { or is NULL");
  const auto tree = goods::B_tree::create(node.getSelf(), kListPageNumber);
  list = tree;
  in.indentIn();
  in.readLine();
  while (*in.getCommand() != '\0') {
    const std::string name = in.getCommand();
    if (!name.starts_with('.')) in.fail("the name of a text in a list begins with a point");
    goods::object_ref text;
    ReadText(text, in);
    modify(tree)->insert(goods::set_member::create(text, name.substr(1)));
  }
  in.indentOut();
  if (!in.isCmd(TextWord::kClose)) in.fail("the } that ends a list of texts is missing");
  in.readLine();
}

// A bare line before a block, or NULL.
PInOut::Status ReadReference(TarnObject& node, const TarnFieldDescriptor& field,
                             const std::string& name, PInOut& in) {
  if (!in.hasValue()) return NodeReader::ReadMember(node, field, name, in);
  if (in.getValue() != TextWord::kNull) in.fail("a reference is NULL or has a block of its own");
  TarnRef nothing;
  field.copyTo(nothing, &node, name.c_str());
  in.readLine();
  return PInOut::Continue;
}

template <class T>
TarnData NumberFrom(const PInOut& in) {
  T number{};
  if (!PInOut::ParseNumber(in.getValue(), number)) in.fail("this is no number that fits");
  return TarnData(number);
}

// The value of the line as what a member of type `type` takes.
TarnData ValueFrom(const PInOut& in, TarnData::Type type) {
  switch (type) {
    case TarnData::Boolean: {
      TarnData value(false);
      if (!value.convertFromStringToBooleanValue(in.getValue().c_str()) || !in.hasValue()) {
        in.fail("this is neither True nor False");
      }
      return value;
    }
    case TarnData::Double:
      return NumberFrom<double>(in);
    case TarnData::Float:
      return NumberFrom<float>(in);
    case TarnData::Sint8:
      return NumberFrom<std::int8_t>(in);
    case TarnData::Sint16:
      return NumberFrom<std::int16_t>(in);
    case TarnData::Sint32:
      return NumberFrom<std::int32_t>(in);
    case TarnData::Sint64:
      return NumberFrom<std::int64_t>(in);
    case TarnData::Uint8:
      return NumberFrom<std::uint8_t>(in);
    case TarnData::Uint16:
      return NumberFrom<std::uint16_t>(in);
    case TarnData::Uint32:
      return NumberFrom<std::uint32_t>(in);
    case TarnData::Uint64:
      return NumberFrom<std::uint64_t>(in);
    default:
      return TarnData(std::string_view(in.getValue()));
  }
}

// "3 (Blue)" or "3".
TarnData EnumerationFrom(const PInOut& in, TarnData::Type type) {
  const std::string text = in.getValue();
  std::uint64_t number = 0;
  const bool isNumber =
      PInOut::ParseNumber(std::string_view(text).substr(0, text.find(' ')), number);
  const bool fits = (type == TarnData::Uint8 && number <= 0xFF) ||
                    (type == TarnData::Uint16 && number <= 0xFFFF) ||
                    (type == TarnData::Uint32 && number <= 0xFFFFFFFF);
  if (!isNumber || !fits) in.fail("this is no number of an enumeration");
  return TarnData(std::string_view(text));
}

}  // namespace

bool GOODSinOut::WriteMembers(const TarnObject& node, PInOut& out) {
  WriteStep step{node, out};
  node.getClass().iterateFields(WriteField, &step, true);
  return step.isWritten;
}

bool GOODSinOut::WriteMember(const TarnObject& node, const TarnFieldDescriptor& field,
                             PInOut& out) {
  for (unsigned long item = 0; item < field.getNumNames(); ++item) {
    if (!WriteMemberWithName(node, field, field.getNameOfItem(item), out)) return false;
  }
  return true;
}

bool GOODSinOut::WriteMemberWithName(const TarnObject& node, const TarnFieldDescriptor& field,
                                     const char* name, PInOut& out) {
  if (IsReference(field)) return WriteReference(node, field, name, out);
  TarnData value;
  const bool isEnumeration = dynamic_cast<const TarnEnumFieldDescriptor*>(&field) != nullptr;
  try {
    field.getValue(node, name, value);
  } catch (const TarnException&) {
    if (!isEnumeration) throw;
    value = TarnData(TarnData::Uint64);  // a number without a name
    field.getValue(node, name, value);
  }
  return WriteValue(out, name, value);
}

PInOut::Status GOODSinOut::ReadMember(TarnObject& node, PInOut& in) {
  const std::string name = in.getCommand();
  const TarnFieldDescriptor* field = name.empty() ? nullptr : FieldFor(node, name);
  if (field == nullptr) return End;
  if (field->getValueOffset(name.c_str()) < 0) {
    in.skip(in.getLevel() + 1);  // an element that the array does not have any more
    in.readLine();
    in.skip(in.getLevel() + 1);
    return Continue;
  }
  if (IsReference(*field)) {
    auto* const reference = const_cast<goods::object_ref*>(ReferenceIn(node, *field, name.c_str()));
    if (field->isForNodes()) return ReadReference(node, *field, name, in);
    if (IsText(*field, *reference)) {
      ReadText(*reference, in);
    } else if (IsListOfTexts(*field, *reference)) {
      ReadListOfTexts(node, *reference, in);
    } else if (in.getValue() != TextWord::kNull) {
      in.fail("the member \"" + name + "\" cannot be read from text");
    } else {
      in.readLine();
    }
    return Continue;
  }
  TarnData present(TarnData::Uint64);
  field->getValue(node, name.c_str(), present);
  const bool isEnumeration = dynamic_cast<const TarnEnumFieldDescriptor*>(field) != nullptr;
  const TarnData value =
      isEnumeration ? EnumerationFrom(in, present.getType()) : ValueFrom(in, present.getType());
  node.setValue(name.c_str(), value);
  in.readLine();
  return Continue;
}

}  // namespace tarns
