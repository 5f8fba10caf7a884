#include "storage/local/page_file.h"

#include <algorithm>
#include <cerrno>

#include "storage/local/byte_order.h"
#include "storage/local/store_schema.h"

namespace goods {
namespace {

constexpr std::size_t wal_header = 32, wal_frame_header = 24;
constexpr std::byte inner_page{0x05}, leaf_page{0x0d};  // of a table
// make_store() makes the tables first, one after the other, and there they begin for ever.
constexpr std::uint32_t last_first_page = 1 + store_tables;
constexpr std::size_t longest_payload = longest_row + 256;  // a row with its frame and header

std::uint32_t big32(const std::byte* at) {
  return std::to_integer<std::uint32_t>(at[0]) << 24 | std::to_integer<std::uint32_t>(at[1]) << 16 |
         std::to_integer<std::uint32_t>(at[2]) << 8 | std::to_integer<std::uint32_t>(at[3]);
}

std::uint16_t big16(const std::byte* at) {
  return static_cast<std::uint16_t>(std::to_integer<unsigned>(at[0]) << 8 |
                                    std::to_integer<unsigned>(at[1]));
}

// Of a cell in its page. SQLite does not look at bits that no such place has.
std::size_t place_of(const std::byte* at) { return big16(at) % page_file::page_size; }

// SQLite's own: high bits first, nine bytes at most. False when the bytes end before it.
bool take_varint(std::span<const std::byte>& from, std::uint64_t& value) {
  value = 0;
  for (unsigned i = 0; i < 9; ++i) {
    if (from.empty()) return false;
    const auto byte = std::to_integer<std::uint64_t>(from.front());
    from = from.subspan(1);
    if (i == 8) {
      value = value << 8 | byte;
      return true;
    }
    value = value << 7 | (byte & 0x7f);
    if (byte < 0x80) return true;
  }
  return true;
}

// How many bytes of a record a value takes whose type that is.
std::uint64_t size_of_type(std::uint64_t type) {
  constexpr std::array<std::uint8_t, 12> fixed = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0, 0, 0};
  return type < fixed.size() ? fixed[type] : (type - fixed.size()) / 2;
}

// The blob, or text, that is the second value of a record (id, body): SQLite takes the id from the
// cell, whatever stands for it here, and gives the bytes of a text when it is asked for a blob.
// False when the record is none of ours.
bool take_body(std::span<const std::byte> record, std::span<const std::byte>& body) {
  std::span<const std::byte> types = record;
  std::uint64_t header_length = 0, id_type = 0, body_type = 0;
  if (!take_varint(types, header_length) || !take_varint(types, id_type) ||
      !take_varint(types, body_type) || header_length > record.size() || body_type < 12)
    return false;
  const std::uint64_t left = record.size() - header_length, id_size = size_of_type(id_type);
  const std::uint64_t size = size_of_type(body_type);
  if (id_size > left || size > left - id_size) return false;
  body = record.subspan(header_length + id_size, size);
  return true;
}

// The checksum that runs through a write-ahead log.
struct log_checksum {
  std::uint32_t first = 0, second = 0;
  bool big_endian = false;

  void add(std::span<const std::byte> bytes) {
    for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8) {
      first += word(bytes.data() + i) + second;
      second += word(bytes.data() + i + 4) + first;
    }
  }
  std::uint32_t word(const std::byte* at) const {
    return big_endian ? big32(at) : load_number<std::uint32_t>(at);
  }
  bool matches(const std::byte* at) const { return big32(at) == first && big32(at + 4) == second; }
};

}  // namespace

page_file::page_file(const std::string& path) : file_(storage_disk::instance().open(path)) {
  if (!file_) throw_system_error("opening it", path, ENOENT);
  pages_ = static_cast<std::uint32_t>(
      std::min<std::uint64_t>((file_->size() + page_size - 1) / page_size, 0xfffffffe));
  read_log(path + "-wal");
  read_free_list();
  if (!free_.empty()) keep_pages_of_tables();
}

// What a cut file lacks at its end reads as zeros.
bool page_file::read_page(std::uint32_t number, page& into) try {
  if (number == 0 || number > pages_) return false;
  const auto newer = newer_.find(number);
  storage_file& from = newer == newer_.end() ? *file_ : *log_;
  const std::uint64_t at =
      newer == newer_.end() ? std::uint64_t{number - 1} * page_size : newer->second;
  const std::uint64_t size = from.size();
  if (at >= size) return false;
  into.fill(std::byte{0});
  from.read(at, std::span(into).first(std::min<std::uint64_t>(page_size, size - at)));
  return true;
} catch (const error_info&) {  // a sector that cannot be read
  return false;
}

// Frames count up to the last one that ends a transaction, and as far as the checksums go.
void page_file::read_log(const std::string& path) try {
  log_ = storage_disk::instance().open(path);
  if (!log_ || log_->size() < wal_header) return;
  std::array<std::byte, wal_header> header;
  log_->read(0, header);
  const std::uint32_t magic = big32(header.data());
  if ((magic & ~1U) != 0x377f0682 || big32(&header[8]) != page_size) return;
  log_checksum sum;
  sum.big_endian = (magic & 1) != 0;
  sum.add(std::span(header).first(24));
  if (!sum.matches(&header[24])) return;
  std::unordered_map<std::uint32_t, std::uint64_t> open;
  std::array<std::byte, wal_frame_header + page_size> frame;
  const std::uint64_t size = log_->size();
  for (std::uint64_t at = wal_header; at + frame.size() <= size; at += frame.size()) {
    log_->read(at, frame);
    if (!std::equal(&frame[8], &frame[16], &header[16])) return;  // of an earlier use
    sum.add(std::span(frame).first(8));
    sum.add(std::span(frame).subspan(wal_frame_header));
    if (!sum.matches(&frame[16])) return;
    open[big32(frame.data())] = at + wal_frame_header;
    const std::uint32_t pages = big32(&frame[4]);
    if (pages == 0) continue;
    for (const auto& [number, content] : open) newer_[number] = content;
    open.clear();
    pages_ = pages;
  }
} catch (const error_info&) {  // NOLINT(bugprone-empty-catch): what was read so far stays
}

// Rows on free pages are those of long ago.
void page_file::read_free_list() {
  page in;
  if (!read_page(1, in)) return;
  std::uint32_t trunk = big32(&in[32]);
  while (trunk != 0 && !free_.contains(trunk) && read_page(trunk, in)) {
    const std::uint32_t leaves = big32(&in[4]);
    if (leaves > page_size / 4 - 2) return;  // no trunk
    free_.insert(trunk);
    for (std::uint32_t i = 0; i < leaves; ++i) free_.insert(big32(&in[8 + 4 * i]));
    trunk = big32(in.data());
  }
}

// SQLite asks the list for room only: whatever a damaged one says, it reads the pages that a table
// consists of.
void page_file::keep_pages_of_tables() {
  for (std::uint32_t number = 1; number <= last_first_page; ++number) free_.erase(number);
  page in;
  for (std::uint32_t number = 2; number <= pages_; ++number) {
    if (free_.contains(number) || !read_page(number, in) || in[0] != inner_page) continue;
    free_.erase(big32(&in[8]));
    const unsigned cells = std::min<unsigned>(big16(&in[3]), (page_size - 12) / 2);
    for (unsigned cell = 0; cell < cells; ++cell) {
      const std::size_t at = place_of(&in[12 + 2 * std::size_t{cell}]);
      if (at + 4 <= page_size) free_.erase(big32(&in[at]));
    }
  }
}

// Of a leaf of a table; 0 for any other page.
unsigned page_file::cells_of(std::uint32_t number, const page& in) const {
  const std::size_t header = number == 1 ? database_header_size : 0;
  if (in[header] != leaf_page || free_.contains(number)) return 0;
  return std::min<unsigned>(big16(&in[header + 3]),
                            static_cast<unsigned>((page_size - header - 8) / 2));
}

bool page_file::read_cell(std::uint32_t number, const page& in, unsigned cell, std::int64_t& key,
                          std::vector<std::byte>& body) {
  const std::size_t header = number == 1 ? database_header_size : 0;
  const std::size_t at = place_of(&in[header + 8 + 2 * std::size_t{cell}]);
  std::span<const std::byte> rest = std::span(in).subspan(at);
  std::uint64_t length = 0, id = 0;
  if (!take_varint(rest, length) || !take_varint(rest, id) || length > longest_payload)
    return false;
  key = static_cast<std::int64_t>(id);
  // How much of it is here, and how much on pages of its own.
  constexpr std::size_t most = page_size - 35, least = (page_size - 12) * 32 / 255 - 23;
  std::size_t local = length;
  if (length > most) {
    local = least + (length - least) % (page_size - 4);
    if (local > most) local = least;
  }
  if (local > rest.size()) return false;
  std::vector<std::byte> payload(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(local));
  if (local < length) {
    if (rest.size() < local + 4) return false;
    std::uint32_t next = big32(&rest[local]);
    page more;
    while (payload.size() < length) {
      if (!read_page(next, more)) return false;
      const std::size_t part = std::min<std::size_t>(page_size - 4, length - payload.size());
      payload.insert(payload.end(), more.begin() + 4,
                     more.begin() + 4 + static_cast<std::ptrdiff_t>(part));
      next = big32(more.data());
    }
  }
  std::span<const std::byte> found;
  if (!take_body(payload, found)) return false;
  body.assign(found.begin(), found.end());
  return true;
}

void page_file::for_each_row(const row_visitor& visit) {
  page in;
  std::vector<std::byte> body;
  for (std::uint32_t number = 1; number <= pages_; ++number) {
    if (!read_page(number, in)) continue;
    const unsigned cells = cells_of(number, in);
    for (unsigned cell = 0; cell < cells; ++cell) {
      std::int64_t key = 0;
      if (read_cell(number, in, cell, key, body))
        visit(key, {number, static_cast<std::uint16_t>(cell)}, body);
    }
  }
}

std::vector<std::byte> page_file::read_row(const place& at) {
  page in;
  std::vector<std::byte> body;
  std::int64_t key = 0;
  if (!read_page(at.page, in) || at.cell >= cells_of(at.page, in) ||
      !read_cell(at.page, in, at.cell, key, body))
    body.clear();
  return body;
}

}  // namespace goods
