// Class layouts, and states read by them: the first byte of the input is the length of the layout.
#include <goods/class_layout.h>
#include <goods/errors.h>

#include <algorithm>
#include <span>

#include "fuzz/fuzzer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace goods;
  if (size == 0) return 0;
  const auto bytes = std::as_bytes(std::span(data + 1, size - 1));
  const auto length = std::min<std::size_t>(data[0], bytes.size());
  constexpr object_id self = make_object_id(0, 0x10000);
  try {
    const class_layout layout = class_layout::parse(bytes.first(length), self);
    // Numbers may be stored longer than need be; what they mean is kept.
    const auto again = class_layout::make(layout.name, layout.bases, layout.fields).bytes;
    fuzz::require(class_layout::parse(again, self).bytes == again);
    const auto state = bytes.subspan(length);
    const std::byte* last = state.data();
    for_each_reference(layout, state, self, [&](const stored_reference& found) {
      fuzz::require(found.target != 0 && number_of(found.target) >= first_object_number);
      fuzz::require(found.begin >= last && found.begin < found.end &&
                    found.end <= state.data() + state.size());
      last = found.end;
    });
  } catch (const error_info& error) {
    fuzz::require(error.code() == error_code::corrupt_data);
  }
  return 0;
}
