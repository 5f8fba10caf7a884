#include <tarns/util/Buffer.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

namespace tarns {

namespace {

// Room for any 64-bit integer with its sign and separators: -9,223,372,036,854,775,808.
constexpr std::size_t kIntegerRoom = 32;
// Room for the shortest text of any double, which std::to_chars keeps below 25 characters.
constexpr std::size_t kRealRoom = 32;

// Bytes that a buffer keeps beyond what it needs: texts that take turns in it are of many lengths.
constexpr std::size_t kKeptAnyway = 512;

// Inserts a comma before every group of three digits counted from the end; returns the new length.
std::size_t GroupDigits(char* text, std::size_t length) {
  const std::size_t first = text[0] == '-' ? 1 : 0;
  for (std::size_t at = length; at > first + 3;) {
    at -= 3;
    std::memmove(text + at + 1, text + at, length - at);
    text[at] = ',';
    ++length;
  }
  return length;
}

template <typename T>
Buffer& AppendInteger(Buffer& buffer, T number) {
  char digits[kIntegerRoom] = {};  // GCC sees GroupDigits() move bytes and cannot tell how many
  std::size_t length = std::to_chars(digits, digits + sizeof digits, number).ptr - digits;
  if (buffer.isFancy()) length = GroupDigits(digits, length);
  return buffer << std::string_view(digits, length);
}

template <typename T>
Buffer& AppendReal(Buffer& buffer, T number) {
  char digits[kRealRoom];
  const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  return buffer << std::string_view(digits, end - digits);
}

}  // namespace

Buffer::Buffer(const Buffer& other) {
  if (other.capacity_ != 0) set(other.view());
}

Buffer::Buffer(Buffer&& other) noexcept { exchange(other); }

Buffer& Buffer::operator=(const Buffer& other) {
  if (other.capacity_ == 0) {
    setCapacity(0);
  } else {
    set(other.view());
  }
  return *this;
}

Buffer& Buffer::operator=(Buffer&& other) noexcept {
  if (this != &other) {
    exchange(other);
    other.setCapacity(0);
  }
  return *this;
}

void Buffer::setCapacity(std::size_t capacity) {
  if (capacity == capacity_) return;
  if (capacity == 0) {
    bytes_.reset();
    capacity_ = length_ = 0;
    return;
  }
  reallocate(capacity, std::min(length_, capacity - 1));
}

void Buffer::set(std::string_view content) {
  const std::size_t needed = content.size() + 1;
  // Only memory at least half of which is used again is kept, so that a buffer that once held
  // something large does not hold its memory for good.
  if (needed <= capacity_ && capacity_ / 2 <= needed + kKeptAnyway / 2) {
    if (!content.empty()) std::memmove(bytes_.get(), content.data(), content.size());
    length_ = content.size();
    bytes_[length_] = '\0';
    return;
  }
  std::unique_ptr<char[]> fresh(new char[needed]);
  if (!content.empty()) std::memcpy(fresh.get(), content.data(), content.size());
  fresh[content.size()] = '\0';
  bytes_ = std::move(fresh);
  capacity_ = needed;
  length_ = content.size();
}

void Buffer::append(std::string_view piece) {
  if (piece.empty()) return;
  const std::size_t length = length_ + piece.size();
  // Deleted at the end only: the piece may lie in it.
  std::unique_ptr<char[]> old;
  if (length >= capacity_) {
    const std::size_t capacity = std::max(length + 1, capacity_ * 2);
    std::unique_ptr<char[]> fresh(new char[capacity]);
    if (length_ != 0) std::memcpy(fresh.get(), bytes_.get(), length_);
    old = std::exchange(bytes_, std::move(fresh));
    capacity_ = capacity;
  }
  std::memmove(bytes_.get() + length_, piece.data(), piece.size());
  length_ = length;
  bytes_[length_] = '\0';
}

void Buffer::truncate(std::size_t length) noexcept {
  if (length >= length_) return;
  length_ = length;
  bytes_[length_] = '\0';
}

void Buffer::take(std::unique_ptr<char[]> text, std::size_t size) {
  if (text == nullptr || size == 0) {
    setCapacity(0);
    return;
  }
  const std::size_t length = strnlen(text.get(), size);
  if (length == size) {  // a broken promise; reading on would leave the array
    set({text.get(), size});
    return;
  }
  bytes_ = std::move(text);
  capacity_ = size;
  length_ = length;
}

void Buffer::exchange(Buffer& other) noexcept {
  bytes_.swap(other.bytes_);
  std::swap(capacity_, other.capacity_);
  std::swap(length_, other.length_);
}

void Buffer::copyToBase64(Buffer& out) const {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  Buffer encoded;
  encoded.setCapacity((length_ + 2) / 3 * 4 + 1);
  for (std::size_t at = 0; at < length_; at += 3) {
    const std::size_t count = std::min<std::size_t>(3, length_ - at);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      bits = bits << 8 | (i < count ? static_cast<unsigned char>(bytes_[at + i]) : 0U);
    }
    const char digits[4] = {kDigits[bits >> 18], kDigits[bits >> 12 & 63],
                            count > 1 ? kDigits[bits >> 6 & 63] : '=',
                            count > 2 ? kDigits[bits & 63] : '='};
    encoded.append({digits, sizeof digits});
  }
  out.exchange(encoded);
}

Buffer& Buffer::operator<<(const char* text) {
  if (text != nullptr) append(text);
  return *this;
}

Buffer& Buffer::operator<<(float number) { return AppendReal(*this, number); }
Buffer& Buffer::operator<<(double number) { return AppendReal(*this, number); }
Buffer& Buffer::appendSigned(std::int64_t number) { return AppendInteger(*this, number); }
Buffer& Buffer::appendUnsigned(std::uint64_t number) { return AppendInteger(*this, number); }

void Buffer::reallocate(std::size_t capacity, std::size_t kept) {
  std::unique_ptr<char[]> fresh(new char[capacity]);
  if (kept != 0) std::memcpy(fresh.get(), bytes_.get(), kept);
  fresh[kept] = '\0';
  bytes_ = std::move(fresh);
  capacity_ = capacity;
  length_ = kept;
}

}  // namespace tarns
