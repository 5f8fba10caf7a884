#include "storage/local/log_reader.h"

#include <xxhash.h>

#include <algorithm>
#include <new>
#include <utility>

namespace goods {
namespace {

constexpr std::size_t window_size = std::size_t{1} << 20;

// XXH3 over what comes in pieces.
class running_checksum {
 public:
  running_checksum() : state_(::XXH3_createState(), ::XXH3_freeState) {
    if (state_ == nullptr) throw std::bad_alloc();
    ::XXH3_64bits_reset(state_.get());
  }
  void add(std::span<const std::byte> bytes) {
    ::XXH3_64bits_update(state_.get(), bytes.data(), bytes.size());
  }
  std::uint64_t value() const { return ::XXH3_64bits_digest(state_.get()); }

 private:
  std::unique_ptr<XXH3_state_t, decltype(&::XXH3_freeState)> state_;
};

}  // namespace

log_reader::log_reader(std::string path, const storage_identity& store)
    : path_(std::move(path)), store_(store), file_(storage_disk::instance().open(path_)) {
  if (file_) size_ = file_->size();
}

// At least so many bytes, which the file must have there.
std::span<const std::byte> log_reader::window_at(std::uint64_t at, std::size_t least) {
  const bool is_in = at >= window_begins_ && at + least <= window_begins_ + window_.size();
  if (!is_in) {
    window_.clear();  // nothing is taken for read when reading fails
    std::vector<std::byte> next(
        static_cast<std::size_t>(std::min<std::uint64_t>(window_size, size_ - at)));
    file_->read(at, next);
    window_.swap(next);
    window_begins_ = at;
  }
  return std::span<const std::byte>(window_).subspan(static_cast<std::size_t>(at - window_begins_));
}

std::optional<log_header> log_reader::header_at(std::uint64_t at) {
  if (at > size_ || size_ - at < log_header_size) return std::nullopt;
  return read_log_header(window_at(at, log_header_size), store_);
}

bool log_reader::is_whole(std::uint64_t at, const log_header& header) {
  const std::uint64_t begin = at + log_header_size;
  if (begin > size_ || header.length > size_ - begin) return false;
  running_checksum sum;
  for (std::uint64_t done = 0; done < header.length;) {
    const auto window = window_at(begin + done, 1);
    const auto part = window.first(
        static_cast<std::size_t>(std::min<std::uint64_t>(window.size(), header.length - done)));
    sum.add(part);
    done += part.size();
  }
  return sum.value() == header.content_checksum;
}

log_record log_reader::read(std::uint64_t at, const log_header& header,
                            std::vector<std::byte>& content) {
  content.resize(header.length);
  file_->read(at + log_header_size, content);
  log_record record = header.record;
  record.content = content;
  return record;
}

std::uint64_t log_record_size(const log_header& header) {
  const std::uint64_t size = log_header_size + std::uint64_t{header.length};
  return (size + log_alignment - 1) / log_alignment * log_alignment;
}

}  // namespace goods
