// The value nodes, one class for each type of TarnData. Stored member: "Value".
#pragma once

#include <tarns/core/TarnScalarValue.h>
#include <tarns/schema/TarnString.h>
#include <tarns/tarns_api.h>

#include <cstdint>

namespace tarns {

class TARNS_API TarnBooleanValue : public TarnScalarValue<bool> {
  TARN_CLASS(TarnBooleanValue, TarnScalarValue<bool>)
};

class TARNS_API TarnDoubleValue : public TarnScalarValue<double> {
  TARN_CLASS(TarnDoubleValue, TarnScalarValue<double>)
};

class TARNS_API TarnFloatValue : public TarnScalarValue<float> {
  TARN_CLASS(TarnFloatValue, TarnScalarValue<float>)
};

class TARNS_API TarnSint8Value : public TarnScalarValue<std::int8_t> {
  TARN_CLASS(TarnSint8Value, TarnScalarValue<std::int8_t>)
};

class TARNS_API TarnSint16Value : public TarnScalarValue<std::int16_t> {
  TARN_CLASS(TarnSint16Value, TarnScalarValue<std::int16_t>)
};

class TARNS_API TarnSint32Value : public TarnScalarValue<std::int32_t> {
  TARN_CLASS(TarnSint32Value, TarnScalarValue<std::int32_t>)
};

class TARNS_API TarnSint64Value : public TarnScalarValue<std::int64_t> {
  TARN_CLASS(TarnSint64Value, TarnScalarValue<std::int64_t>)
};

class TARNS_API TarnUint8Value : public TarnScalarValue<std::uint8_t> {
  TARN_CLASS(TarnUint8Value, TarnScalarValue<std::uint8_t>)
};

class TARNS_API TarnUint16Value : public TarnScalarValue<std::uint16_t> {
  TARN_CLASS(TarnUint16Value, TarnScalarValue<std::uint16_t>)
};

class TARNS_API TarnUint32Value : public TarnScalarValue<std::uint32_t> {
  TARN_CLASS(TarnUint32Value, TarnScalarValue<std::uint32_t>)
};

class TARNS_API TarnUint64Value : public TarnScalarValue<std::uint64_t> {
  TARN_CLASS(TarnUint64Value, TarnScalarValue<std::uint64_t>)
};

// A text of any length without NUL bytes, kept in a String of its own.
class TARNS_API TarnStringValue : public TarnValue {
  TARN_CLASS(TarnStringValue, TarnValue)

 public:
  ~TarnStringValue() override;
  bool write(const char* name, GOODSinOut& out) override;
  bool readValue(goods::reader& reader, TarnData& out) const override;

  bool writeConcreteMembers(PInOut& out) const override;
  bool read(PInOut& in) override;

  // The text as it is stored.
  const TarnString& getTarnString() const { return value_; }

 protected:
  bool getValue(TarnData& out) const override;
  bool setTarnValue(const TarnData& value) override;

 private:
  TarnString value_;
};

}  // namespace tarns
