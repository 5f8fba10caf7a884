#include <goods/cache_manager.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassRegistration.h>

namespace tarns {

TARN_REGISTER_WITH(TarnBooleanValue, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnDoubleValue, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnFloatValue, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnSint8Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnSint16Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnSint32Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnSint64Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnUint8Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnUint16Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnUint32Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnUint64Value, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);
TARN_REGISTER_WITH(TarnStringValue, TarnValue, .isTarnsBaseClass = true, .mayBeGuest = true);

TarnStringValue::~TarnStringValue() = default;

bool TarnStringValue::write(const char* name, GOODSinOut& out) {
  return TarnValue::write(name, out) && out.write("Value", value_);
}

bool TarnStringValue::writeConcreteMembers(PInOut& out) const {
  const bool isWritten = value_.isNull() ? out.write("Value") : out.write("Value", value_.str());
  return isWritten && TarnValue::writeConcreteMembers(out);
}

bool TarnStringValue::read(PInOut& in) {
  do {
    TarnValue::read(in);
    if (!in.isCmd("Value")) return true;
    if (in.hasValue()) {
      value_.set(in.getValue());
    } else {
      value_.clear();
    }
  } while (in.readLine() == PInOut::Continue);
  return true;
}

bool TarnStringValue::readValue(goods::reader& reader, TarnData& out) const {
  out.set(value_.look(reader));
  return true;
}

bool TarnStringValue::getValue(TarnData& out) const {
  value_.copyTo(out);
  return true;
}

bool TarnStringValue::setTarnValue(const TarnData& value) {
  value_.set(value.getText());
  // Mostly only the text has changed, which is an object of its own.
  goods::cache_manager* const session = goods::cache_manager::current();
  if (session != nullptr) session->touched(*handle());
  return true;
}

}  // namespace tarns
