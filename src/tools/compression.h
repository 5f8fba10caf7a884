// Files that are compressed with zstd.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

namespace tarns {

// Whether a file of that name is compressed: it ends with .zst.
bool IsCompressed(std::string_view file);
// The name without that ending.
std::string_view WithoutCompression(std::string_view file);

// What is wrong with compressed bytes, in words.
struct CompressionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Compresses a stream, with a checksum. Threads: one.
class Compressor {
 public:
  Compressor();

  // Adds to `out` what compresses to so far; at the end all of it.
  void write(std::string_view bytes, bool isEnd, std::string& out);

 private:
  std::unique_ptr<ZSTD_CCtx_s, std::size_t (*)(ZSTD_CCtx_s*)> context_;
};

// Decompresses a stream; memory is bounded whatever the stream says. Errors: CompressionError, also
// for a stream that was cut, and what the source throws. Threads: one.
class Decompressor {
 public:
  // Fills up to `size` bytes, returns how many; 0 at the end.
  using Source = std::function<std::size_t(char* into, std::size_t size)>;

  explicit Decompressor(Source source);

  // As the source does.
  std::size_t read(char* into, std::size_t size);

 private:
  Source source_;
  std::unique_ptr<ZSTD_DCtx_s, std::size_t (*)(ZSTD_DCtx_s*)> context_;
  std::vector<char> block_;
  std::size_t at_ = 0, filled_ = 0;  // in block_
  std::size_t left_ = 1;             // 0 where a frame has ended
};

}  // namespace tarns
