#include "storage/local/log_record.h"

#include <xxhash.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "storage/local/stored_change.h"

namespace goods {
namespace {

enum : std::size_t {
  checksum_at = 0,
  content_checksum_at = 8,
  length_at = 16,
  mask_at = 20,
  commits_at = 24,
  magic_at = 28,
  mark_at = 32,
  first_at = 40,
  durable_at = 48,
  synced_at = 56
};

constexpr std::uint32_t magic = 0x676f6c63;  // "clog"

constexpr std::size_t aligned(std::size_t size) {
  return (size + log_alignment - 1) / log_alignment * log_alignment;
}

std::size_t content_size(std::span<const commit_request* const> group) {
  std::size_t size = 0;
  for (const commit_request* commit : group) {
    size += varint_size(commit->changes.size());
    for (const object_change& change : commit->changes) size += stored_size(change);
  }
  return size;
}

std::uint64_t header_checksum(const std::byte* header, const storage_identity& store) {
  return ::XXH3_64bits_withSeed(header + content_checksum_at, log_header_size - content_checksum_at,
                                store.low);
}

// Calls with each word of the content where a header that began there would have its magic number.
template <class Visit>
void for_each_magic_place(std::span<std::byte> content, Visit&& visit) {
  for (std::size_t at = magic_at; at + sizeof magic <= content.size(); at += log_alignment)
    visit(content.data() + at);
}

void apply_mask(std::span<std::byte> content, std::uint32_t mask) {
  if (mask == 0) return;
  for_each_magic_place(
      content, [mask](std::byte* at) { store_number(at, load_number<std::uint32_t>(at) ^ mask); });
}

// The least with which none of those words becomes the magic number. Nearly always 0.
std::uint32_t find_mask(std::span<std::byte> content) {
  bool is_needed = false;
  for_each_magic_place(
      content, [&](std::byte* at) { is_needed |= load_number<std::uint32_t>(at) == magic; });
  if (!is_needed) return 0;
  std::vector<std::uint32_t> bad;
  for_each_magic_place(
      content, [&](std::byte* at) { bad.push_back(load_number<std::uint32_t>(at) ^ magic); });
  std::ranges::sort(bad);
  std::uint32_t mask = 0;
  for (std::uint32_t next : bad) mask += next == mask ? 1 : 0;
  return mask;
}

}  // namespace

std::size_t log_record_size(std::span<const commit_request* const> group) {
  return aligned(log_header_size + content_size(group));
}

std::size_t log_record_size(const log_record& record) {
  return aligned(log_header_size + record.content.size());
}

void write_log_record(const log_record& about, std::span<const commit_request* const> group,
                      const storage_identity& store, std::vector<std::byte>& out) {
  const std::size_t length = content_size(group);
  if (length > std::numeric_limits<std::uint32_t>::max())
    throw_error(error_code::storage_full, "A group of commits is too long for the log.");
  out.resize(aligned(log_header_size + length));
  std::byte* const header = out.data();
  std::byte* at = header + log_header_size;
  for (const commit_request* commit : group) {
    at = store_varint(at, commit->changes.size());
    for (const object_change& change : commit->changes) at = store_change(at, change);
  }
  std::memset(at, 0, out.size() - log_header_size - length);
  const auto content = std::span(out).subspan(log_header_size, length);
  const std::uint32_t mask = find_mask(content);
  apply_mask(content, mask);
  store_number<std::uint64_t>(header + content_checksum_at, ::XXH3_64bits(content.data(), length));
  store_number(header + length_at, static_cast<std::uint32_t>(length));
  store_number(header + mask_at, mask);
  store_number(header + commits_at, static_cast<std::uint32_t>(group.size()));
  store_number(header + magic_at, magic);
  store_number(header + mark_at, about.mark);
  store_number(header + first_at, about.first);
  store_number(header + durable_at, about.durable);
  store_number(header + synced_at, about.synced);
  store_number(header + checksum_at, header_checksum(header, store));
}

std::optional<log_header> read_log_header(std::span<const std::byte> bytes,
                                          const storage_identity& store) {
  const std::byte* const header = bytes.data();
  if (bytes.size() < log_header_size || load_number<std::uint32_t>(header + magic_at) != magic ||
      load_number<std::uint64_t>(header + checksum_at) != header_checksum(header, store))
    return std::nullopt;
  log_header result{};
  result.content_checksum = load_number<std::uint64_t>(header + content_checksum_at);
  result.length = load_number<std::uint32_t>(header + length_at);
  result.record.mask = load_number<std::uint32_t>(header + mask_at);
  result.record.mark = load_number<std::uint64_t>(header + mark_at);
  result.record.first = load_number<std::uint64_t>(header + first_at);
  result.record.commits = load_number<std::uint32_t>(header + commits_at);
  result.record.durable = load_number<std::uint64_t>(header + durable_at);
  result.record.synced = load_number<std::uint64_t>(header + synced_at);
  const log_record& record = result.record;
  if (record.commits == 0 || record.first == 0 || record.durable >= record.first ||
      record.last() < record.first)
    return std::nullopt;
  return result;
}

std::optional<log_record> read_log_record(std::span<std::byte> bytes,
                                          const storage_identity& store) {
  auto header = read_log_header(bytes, store);
  if (!header || header->length > bytes.size() - log_header_size) return std::nullopt;
  header->record.content = bytes.subspan(log_header_size, header->length);
  if (::XXH3_64bits(header->record.content.data(), header->length) != header->content_checksum)
    return std::nullopt;
  return header->record;
}

void read_changes(log_record& record, std::vector<object_change>& into) {
  apply_mask(record.content, std::exchange(record.mask, 0));
  row_reader reader(record.content);
  for (std::uint32_t commit = 0; commit < record.commits; ++commit)
    for (std::uint64_t count = reader.varint(); count != 0; --count)
      into.push_back(read_change(reader));
  reader.expect_end();
}

}  // namespace goods
