#include "tools/TextFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "tools/signals.h"

namespace tarns {

namespace {

constexpr int kLevel = 3;        // of compression
constexpr int kMostWindow = 27;  // bits: what a file may make us allocate, 128 MiB
constexpr std::string_view kCompressed = ".zst";

[[noreturn]] void ThrowCannotRead(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "Cannot read \"" + path + "\"");
}

}  // namespace

bool IsCompressed(std::string_view file) { return file.ends_with(kCompressed); }

BranchForm FormFor(const std::string& format, const std::string& file) {
  if (!format.empty()) return format == "text" ? BranchForm::kText : BranchForm::kJson;
  std::string_view name = file;
  if (IsCompressed(name)) name.remove_suffix(kCompressed.size());
  return name.ends_with(".txt") || name.ends_with(".tarns") ? BranchForm::kText : BranchForm::kJson;
}

class TextOutput::Compressor {
 public:
  explicit Compressor(Output& out) : out_(out), context_(ZSTD_createCCtx(), ZSTD_freeCCtx) {
    if (context_ == nullptr) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, kLevel);
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1);
  }

  void write(std::string_view bytes, ZSTD_EndDirective end) {
    ZSTD_inBuffer in{bytes.data(), bytes.size(), 0};
    std::size_t left = 1;
    while (left != 0 && (end == ZSTD_e_end || in.pos < in.size)) {
      ZSTD_outBuffer out{block_.data(), block_.size(), 0};
      left = ZSTD_compressStream2(context_.get(), &out, &in, end);
      if (ZSTD_isError(left) != 0) throw std::runtime_error(ZSTD_getErrorName(left));
      out_ << std::string_view(block_.data(), out.pos);
      if (end == ZSTD_e_continue) left = 1;
    }
  }

 private:
  Output& out_;
  std::unique_ptr<ZSTD_CCtx, std::size_t (*)(ZSTD_CCtx*)> context_;
  std::vector<char> block_ = std::vector<char>(ZSTD_CStreamOutSize());
};

TextOutput::TextOutput(const std::string& file) : out_(file) {
  if (IsCompressed(file)) compressor_ = std::make_unique<Compressor>(out_);
}

TextOutput::~TextOutput() = default;

PInOut::Sink TextOutput::sink() {
  return [this](std::string_view bytes) {
    ThrowIfInterrupted();
    if (compressor_ != nullptr) {
      compressor_->write(bytes, ZSTD_e_continue);
    } else {
      out_ << bytes;
    }
    return true;
  };
}

void TextOutput::finish() {
  if (compressor_ != nullptr) compressor_->write({}, ZSTD_e_end);
  out_.finish();
}

class TextInput::Decompressor {
 public:
  explicit Decompressor(TextInput& in) : input_(in), context_(ZSTD_createDCtx(), ZSTD_freeDCtx) {
    if (context_ == nullptr) throw std::bad_alloc();
    ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, kMostWindow);
  }

  std::size_t read(char* into, std::size_t size) {
    ZSTD_outBuffer out{into, size, 0};
    while (out.pos == 0) {
      if (in_.pos == in_.size) {
        in_ = {block_.data(), input_.read(block_.data(), block_.size()), 0};
        if (in_.size == 0) {
          if (left_ != 0) fail("the file was cut");
          return 0;
        }
      }
      left_ = ZSTD_decompressStream(context_.get(), &out, &in_);
      if (ZSTD_isError(left_) != 0) fail(ZSTD_getErrorName(left_));
    }
    return out.pos;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error("Cannot decompress \"" + input_.path_ + "\": " + what + ".");
  }

  TextInput& input_;
  std::unique_ptr<ZSTD_DCtx, std::size_t (*)(ZSTD_DCtx*)> context_;
  std::vector<char> block_ = std::vector<char>(ZSTD_DStreamInSize());
  ZSTD_inBuffer in_{nullptr, 0, 0};
  std::size_t left_ = 1;  // 0 where a frame has ended
};

TextInput::TextInput(const std::string& file) : path_(file) {
  file_ = file == "-" ? ::fcntl(0, F_DUPFD_CLOEXEC, 0) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (file_ < 0) ThrowCannotRead(path_);
  struct stat info {};
  if (::fstat(file_, &info) == 0 && S_ISREG(info.st_mode)) {
    size_ = static_cast<std::uint64_t>(info.st_size);
  }
  if (IsCompressed(file)) decompressor_ = std::make_unique<Decompressor>(*this);
}

TextInput::~TextInput() { ::close(file_); }

PInOut::Source TextInput::source() {
  return [this](char* into, std::size_t size) {
    return decompressor_ != nullptr ? decompressor_->read(into, size) : read(into, size);
  };
}

std::size_t TextInput::read(char* into, std::size_t size) {
  ssize_t got = 0;
  do {
    WaitUntilReadable(file_);
    got = ::read(file_, into, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) ThrowCannotRead(path_);
  position_ += static_cast<std::uint64_t>(got);
  return static_cast<std::size_t>(got);
}

}  // namespace tarns
