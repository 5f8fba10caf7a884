// Records of the commit log, whose checksums are made to fit: the first bytes of the input are
// those of the header that mean something, the rest is the content.
#include <array>
#include <span>
#include <vector>

#include "fuzz/fuzzer.h"
#include "storage/local/byte_order.h"
#include "storage/local/log_record.h"

namespace {

using namespace goods;

constexpr storage_identity store{1, 2};

// A good record around one change, to get a header from.
std::vector<std::byte> good_record(const log_record& about) {
  const std::array<std::byte, 3> body{};
  const object_change change{0x10001, 1, body};
  const commit_request request{{&change, 1}, nullptr, {}};
  const commit_request* const group[] = {&request};
  std::vector<std::byte> record;
  write_log_record(about, group, store, record);
  return record;
}

void read_damaged(std::span<const std::byte> bytes) {
  std::vector<std::byte> record = good_record({.first = 5, .durable = 4});
  for (std::size_t i = 0; i < bytes.size(); ++i) record[i % record.size()] ^= bytes[i];
  if (auto read = read_log_record(record, store)) {
    std::vector<object_change> changes;
    read_changes(*read, changes);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  if (size < 8) return 0;
  std::vector<std::byte> content(bytes.begin() + 8, bytes.end());
  log_record record{.first = 1,
                    .commits = load_number<std::uint32_t>(bytes.data()),
                    .mask = load_number<std::uint32_t>(bytes.data() + 4),
                    .content = content};
  try {
    std::vector<object_change> changes;
    read_changes(record, changes);
    std::size_t total = 0;
    for (const object_change& change : changes) {
      for (const std::byte byte : change.body) fuzz::use(byte);
      total += change.body.size();
    }
    fuzz::require(total <= content.size() && changes.size() <= content.size());
  } catch (const damaged_bytes&) {
    fuzz::refused();
  }
  try {
    read_damaged(bytes.first(8));
  } catch (const damaged_bytes&) {
    fuzz::refused();
  }
  return 0;
}
