#include "tools/compression.h"

#include <zstd.h>

#include <new>
#include <utility>

namespace tarns {

namespace {

constexpr int kLevel = 3;        // of compression
constexpr int kMostWindow = 27;  // bits: what a file may make us allocate, 128 MiB
constexpr std::string_view kEnding = ".zst";

}  // namespace

bool IsCompressed(std::string_view file) { return file.ends_with(kEnding); }

std::string_view WithoutCompression(std::string_view file) {
  if (IsCompressed(file)) file.remove_suffix(kEnding.size());
  return file;
}

Compressor::Compressor() : context_(ZSTD_createCCtx(), ZSTD_freeCCtx) {
  if (context_ == nullptr) throw std::bad_alloc();
  ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, kLevel);
  ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1);
}

void Compressor::write(std::string_view bytes, bool isEnd, std::string& out) {
  ZSTD_inBuffer in{bytes.data(), bytes.size(), 0};
  std::size_t left = 1;
  while (isEnd ? left != 0 : in.pos < in.size) {
    const std::size_t before = out.size();
    out.resize(before + ZSTD_CStreamOutSize());
    ZSTD_outBuffer into{out.data() + before, out.size() - before, 0};
    left = ZSTD_compressStream2(context_.get(), &into, &in, isEnd ? ZSTD_e_end : ZSTD_e_continue);
    if (ZSTD_isError(left) != 0) throw CompressionError(ZSTD_getErrorName(left));
    out.resize(before + into.pos);
  }
}

Decompressor::Decompressor(Source source)
    : source_(std::move(source)),
      context_(ZSTD_createDCtx(), ZSTD_freeDCtx),
      block_(ZSTD_DStreamInSize()) {
  if (context_ == nullptr) throw std::bad_alloc();
  ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, kMostWindow);
}

std::size_t Decompressor::read(char* into, std::size_t size) {
  ZSTD_outBuffer out{into, size, 0};
  while (out.pos == 0) {
    if (at_ == filled_) {
      at_ = 0;
      filled_ = source_(block_.data(), block_.size());
      if (filled_ == 0) {
        if (left_ != 0) throw CompressionError("the file was cut");
        return 0;
      }
    }
    ZSTD_inBuffer in{block_.data(), filled_, at_};
    left_ = ZSTD_decompressStream(context_.get(), &out, &in);
    if (ZSTD_isError(left_) != 0) throw CompressionError(ZSTD_getErrorName(left_));
    at_ = in.pos;
  }
  return out.pos;
}

}  // namespace tarns
