#pragma once

#include <tarns/core/TarnValue.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/tarns_api.h>

#include <cstdint>
#include <type_traits>

namespace tarns {

// What the value nodes of numbers have in common: the member "Value" of type T.
template <class T>
class TarnScalarValue : public TarnValue {
 public:
  TarnScalarValue(goods::object_handle* handle, goods::class_descriptor& cls)
      : TarnValue(handle, cls) {}

  bool write(const char* name, GOODSinOut& out) override {
    return TarnValue::write(name, out) && out.write("Value", value_);
  }

  bool writeConcreteMembers(PInOut& out) const override {
    return out.write("Value", value_) && TarnValue::writeConcreteMembers(out);
  }
  bool read(PInOut& in) override {
    do {
      TarnValue::read(in);
    } while (in.isCmd("Value") && in.read(value_) == PInOut::Continue);
    return true;
  }

 protected:
  explicit TarnScalarValue(goods::class_descriptor& cls) : TarnValue(cls) {}

  bool getValue(TarnData& out) const override {
    out.set(value_);
    return true;
  }
  bool setTarnValue(const TarnData& value) override {
    value_ = Converted(value);
    return true;
  }

 private:
  static T Converted(const TarnData& value) {
    if constexpr (std::is_same_v<T, bool>) return value.getBoolean();
    if constexpr (std::is_same_v<T, double>) return value.getDouble();
    if constexpr (std::is_same_v<T, float>) return value.getFloat();
    if constexpr (std::is_same_v<T, std::int8_t>) return value.getSint8();
    if constexpr (std::is_same_v<T, std::int16_t>) return value.getSint16();
    if constexpr (std::is_same_v<T, std::int32_t>) return value.getSint32();
    if constexpr (std::is_same_v<T, std::int64_t>) return value.getSint64();
    if constexpr (std::is_same_v<T, std::uint8_t>) return value.getUint8();
    if constexpr (std::is_same_v<T, std::uint16_t>) return value.getUint16();
    if constexpr (std::is_same_v<T, std::uint32_t>) return value.getUint32();
    if constexpr (std::is_same_v<T, std::uint64_t>) return value.getUint64();
  }

  T value_{};
};

}  // namespace tarns
