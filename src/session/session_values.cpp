// Values by path: the part of TarnManager that programs call most.
#include <goods/errors.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnString.h>
#include <tarns/session/TarnManager.h>
#include <tarns/util/Stringer.h>

#include <limits>
#include <string>

#include "core/node_access.h"

namespace tarns {

namespace {

// What comes back as an enumeration's number or text depends on the type asked for; a text is not
// worth copying for that.
TarnData::Type TypeToAskFor(const TarnData& out) {
  return out.isString() ? TarnData::None : out.getType();
}

bool ToBoolean(const char* text) {
  switch (Stringer::ToUpper(*text)) {
    case 'T':
      return true;
    case 'F':
      return false;
    default: {
      TarnException error;
      error << "The specified value \"" << text
            << "\" is not a boolean: it must begin with \"t\" or \"f\".";
      error.setErrorID(ErrorID::BadDataType);
      throw error;
    }
  }
}

double ToReal(const char* text) {
  TarnString::VerifyFloat(text);
  return Stringer::Atof(text);
}

TarnData ToValue(const char* text, TarnData::Type type) {
  switch (type) {
    case TarnData::None:
      return {};
    case TarnData::Boolean:
      return ToBoolean(text);
    case TarnData::Double:
      return ToReal(text);
    case TarnData::Float:
      return static_cast<float>(ToReal(text));
    case TarnData::Sint8:
      return static_cast<std::int8_t>(Stringer::Atol(text));
    case TarnData::Sint16:
      return static_cast<std::int16_t>(Stringer::Atol(text));
    case TarnData::Sint32:
      return static_cast<std::int32_t>(Stringer::Atol(text));
    case TarnData::Sint64:
      return Stringer::ToSint64(text);
    case TarnData::String:
      return text;
    case TarnData::Uint8:
      return static_cast<std::uint8_t>(Stringer::Atol(text));
    case TarnData::Uint16:
      return static_cast<std::uint16_t>(Stringer::Atol(text));
    case TarnData::Uint32:
      return static_cast<std::uint32_t>(Stringer::Atol(text));
    case TarnData::Uint64:
      return Stringer::ToUint64(text);
  }
  TarnException::ThrowBadDataType(type);
}

}  // namespace

bool TarnManager::readValue(std::string_view path, TarnData& out) const {
  return getCacheManager().readValue(path, out);
}

bool TarnManager::get(TarnPathText path, TarnData& out) const {
  TarnData found(TypeToAskFor(out));
  if (!readValue(path.view(), found)) return false;
  out = std::move(found);
  return true;
}

bool TarnManager::get(TarnPathText path, TarnData& out, const TarnData& dflt) const {
  if (get(path, out)) return true;
  out = dflt;
  return false;
}

std::optional<TarnData> TarnManager::valueAt(TarnPathText path) const {
  TarnData found;
  if (!readValue(path.view(), found)) return std::nullopt;
  return found;
}

template <class T>
T TarnManager::read(TarnPathText path, T (TarnData::*as)() const noexcept) const {
  // Of the type asked for: an enumeration then gives its number.
  TarnData found(T{});
  if (!readValue(path.view(), found)) TarnException::ThrowNonExistentValue(path.str().c_str());
  return (found.*as)();
}

template <class T>
T TarnManager::read(TarnPathText path, T (TarnData::*as)() const noexcept, T dflt) const {
  TarnData found(T{});
  return readValue(path.view(), found) ? (found.*as)() : dflt;
}

bool TarnManager::getBoolean(TarnPathText path) const { return read(path, &TarnData::getBoolean); }
bool TarnManager::getBoolean(TarnPathText path, bool dflt) const {
  return read(path, &TarnData::getBoolean, dflt);
}
double TarnManager::getDouble(TarnPathText path) const { return read(path, &TarnData::getDouble); }
double TarnManager::getDouble(TarnPathText path, double dflt) const {
  return read(path, &TarnData::getDouble, dflt);
}
float TarnManager::getFloat(TarnPathText path) const { return read(path, &TarnData::getFloat); }
float TarnManager::getFloat(TarnPathText path, float dflt) const {
  return read(path, &TarnData::getFloat, dflt);
}
std::int8_t TarnManager::getSint8(TarnPathText path) const {
  return read(path, &TarnData::getSint8);
}
std::int8_t TarnManager::getSint8(TarnPathText path, std::int8_t dflt) const {
  return read(path, &TarnData::getSint8, dflt);
}
std::int16_t TarnManager::getSint16(TarnPathText path) const {
  return read(path, &TarnData::getSint16);
}
std::int16_t TarnManager::getSint16(TarnPathText path, std::int16_t dflt) const {
  return read(path, &TarnData::getSint16, dflt);
}
std::int32_t TarnManager::getSint32(TarnPathText path) const {
  return read(path, &TarnData::getSint32);
}
std::int32_t TarnManager::getSint32(TarnPathText path, std::int32_t dflt) const {
  return read(path, &TarnData::getSint32, dflt);
}
std::int64_t TarnManager::getSint64(TarnPathText path) const {
  return read(path, &TarnData::getSint64);
}
std::int64_t TarnManager::getSint64(TarnPathText path, std::int64_t dflt) const {
  return read(path, &TarnData::getSint64, dflt);
}
std::uint8_t TarnManager::getUint8(TarnPathText path) const {
  return read(path, &TarnData::getUint8);
}
std::uint8_t TarnManager::getUint8(TarnPathText path, std::uint8_t dflt) const {
  return read(path, &TarnData::getUint8, dflt);
}
std::uint16_t TarnManager::getUint16(TarnPathText path) const {
  return read(path, &TarnData::getUint16);
}
std::uint16_t TarnManager::getUint16(TarnPathText path, std::uint16_t dflt) const {
  return read(path, &TarnData::getUint16, dflt);
}
std::uint32_t TarnManager::getUint32(TarnPathText path) const {
  return read(path, &TarnData::getUint32);
}
std::uint32_t TarnManager::getUint32(TarnPathText path, std::uint32_t dflt) const {
  return read(path, &TarnData::getUint32, dflt);
}
std::uint64_t TarnManager::getUint64(TarnPathText path) const {
  return read(path, &TarnData::getUint64);
}
std::uint64_t TarnManager::getUint64(TarnPathText path, std::uint64_t dflt) const {
  return read(path, &TarnData::getUint64, dflt);
}

XString TarnManager::getXString(TarnPathText path) const {
  TarnData found;
  if (!readValue(path.view(), found)) TarnException::ThrowNonExistentValue(path.str().c_str());
  return found.getString();
}

XString TarnManager::getXString(TarnPathText path, const char* dflt) const {
  TarnData found;
  return readValue(path.view(), found) ? found.getString() : dflt;
}

void TarnManager::copyAsStringTo(TarnPathText path, XString& text) const {
  TarnData found;
  if (!readValue(path.view(), found)) TarnException::ThrowNonExistentPath(path.str().c_str());
  text = found.getString();
}

void TarnManager::set(TarnPathText path, const TarnData& value) {
  StoreValue(getCacheManager().getRoot(), path.view(), value);  // not looked at: see readValue()
}

void TarnManager::set(TarnPathText path, xcptref<TarnObject> node) {
  PlaceNode(getRoot(), path.view(), node);
}

void TarnManager::set(TarnPathText path) { set(path, TarnData()); }

void TarnManager::set(TarnPathText path, const char* text, TarnData::Type type) {
  set(path, ToValue(text != nullptr ? text : "", type));
}

}  // namespace tarns
