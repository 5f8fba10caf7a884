#include "core/text_words.h"

#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>

namespace tarns {

bool HasMemberCalledName(const TarnObject& node) {
  return node.getClass().hasDataMembers() && node.getClass().findField(TextWord::kName) != nullptr;
}

TarnClassDescriptor& TarnValueClassOf(TarnData::Type type) {
  switch (type) {
    case TarnData::None:
      break;
    case TarnData::Boolean:
      return TarnBooleanValue::self_class;
    case TarnData::Double:
      return TarnDoubleValue::self_class;
    case TarnData::Float:
      return TarnFloatValue::self_class;
    case TarnData::Sint8:
      return TarnSint8Value::self_class;
    case TarnData::Sint16:
      return TarnSint16Value::self_class;
    case TarnData::Sint32:
      return TarnSint32Value::self_class;
    case TarnData::Sint64:
      return TarnSint64Value::self_class;
    case TarnData::String:
      return TarnStringValue::self_class;
    case TarnData::Uint8:
      return TarnUint8Value::self_class;
    case TarnData::Uint16:
      return TarnUint16Value::self_class;
    case TarnData::Uint32:
      return TarnUint32Value::self_class;
    case TarnData::Uint64:
      return TarnUint64Value::self_class;
  }
  return TarnValue::self_class;
}

bool WriteValue(PInOut& out, const char* command, const TarnData& value) {
  switch (value.getType()) {
    case TarnData::None:
      return out.write(command);
    case TarnData::Boolean:
      return out.write(command, value.getBoolean());
    case TarnData::Double:
      return out.write(command, value.getDouble());
    case TarnData::Float:
      return out.write(command, value.getFloat());
    case TarnData::String:
      return out.write(command, value.getText());
    default:
      break;
  }
  return value.isSignedInteger() ? out.write(command, value.getSint64())
                                 : out.write(command, value.getUint64());
}

}  // namespace tarns
