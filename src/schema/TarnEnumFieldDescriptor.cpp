#include <tarns/core/TarnData.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnEnumFieldDescriptor.h>
#include <tarns/util/Stringer.h>
#include <tarns/util/XStringList.h>

namespace tarns {

TarnEnumFieldDescriptor::~TarnEnumFieldDescriptor() = default;

void TarnEnumFieldDescriptor::addValue(unsigned long value, const char* name) {
  // The member holds no more than its own bits of a negative enumerator.
  const std::uint32_t mask = 0xFFFFFFFF >> (32 - 8 * size());
  names_[static_cast<std::uint32_t>(value) & mask] = name != nullptr ? name : "";
}

bool TarnEnumFieldDescriptor::getValue(const TarnObject& node, const char* name,
                                       TarnData& value) const {
  const bool wantsText = value.getType() == TarnData::None || value.isString();
  if (!TarnFieldDescriptor::getValue(node, name, value)) return false;
  if (!wantsText) return true;
  const std::uint32_t number = value.getUint32();
  const auto found = names_.find(number);
  if (found == names_.end()) {
    TarnException error;
    error << "Invalid TarnEnumeration value " << number << " encountered.";
    throw error;
  }
  value.set(std::to_string(number) + " (" + found->second + ")");
  return true;
}

bool TarnEnumFieldDescriptor::setValue(TarnObject* node, const char* name,
                                       const TarnData& value) const {
  XStringList words;
  words.split(value.getText(), ' ');
  const char* first = words.isEmpty() ? "" : words[0].getText();
  return TarnFieldDescriptor::setValue(node, name, TarnData(Stringer::ToUint64(first, 2)));
}

}  // namespace tarns
