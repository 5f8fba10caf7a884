#include <tarns/core/TarnException.h>
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSReader.h>
#include <tarns/vfs/TarnVFSStreams.h>

#include <array>
#include <limits>
#include <streambuf>
#include <string_view>
#include <utility>

namespace tarns {

namespace {

using Offset = std::streambuf::off_type;
using Position = std::streambuf::pos_type;

// Where a seek goes; below 0 for nowhere.
Offset SeekTarget(Offset offset, std::ios_base::seekdir from, std::uint64_t at,
                  std::uint64_t size) {
  const std::uint64_t base = from == std::ios_base::beg   ? 0
                             : from == std::ios_base::cur ? at
                                                          : size;
  Offset target = -1;
  if (base > static_cast<std::uint64_t>(std::numeric_limits<Offset>::max()) ||
      __builtin_add_overflow(static_cast<Offset>(base), offset, &target)) {
    return -1;
  }
  return target;
}

}  // namespace

// --- Reading ------------------------------------------------------------------------------------

// Hands out the reader's pieces where they are.
class TarnVFSInput::Bytes : public std::streambuf {
 public:
  explicit Bytes(TarnVFSReader reader) : reader_(std::move(reader)) {}

 protected:
  int_type underflow() override {
    const std::string_view piece = reader_.nextPiece();
    char* const start = const_cast<char*>(piece.data());  // only read through
    setg(start, start, start + piece.size());
    return piece.empty() ? traits_type::eof() : traits_type::to_int_type(*start);
  }
  Position seekoff(Offset offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
    const std::uint64_t at = reader_.tell() - static_cast<std::uint64_t>(egptr() - gptr());
    const Offset target = SeekTarget(offset, from, at, reader_.getSize());
    if (target < 0 || static_cast<std::uint64_t>(target) > reader_.getSize()) return Offset{-1};
    if (static_cast<std::uint64_t>(target) == at) return target;  // asks where it is
    reader_.seek(static_cast<std::uint64_t>(target));
    setg(nullptr, nullptr, nullptr);
    return target;
  }
  Position seekpos(Position position, std::ios_base::openmode which) override {
    return seekoff(Offset(position), std::ios_base::beg, which);
  }

 private:
  TarnVFSReader reader_;
};

TarnVFSInput::TarnVFSInput(TarnVFS& files, TarnPathText path)
    : std::istream(nullptr), bytes_(std::make_unique<Bytes>(TarnVFSReader(files, path))) {
  rdbuf(bytes_.get());
}

TarnVFSInput::TarnVFSInput(const xcptref<TarnVFSItem>& item)
    : std::istream(nullptr), bytes_(std::make_unique<Bytes>(TarnVFSReader(item))) {
  rdbuf(bytes_.get());
}

TarnVFSInput::~TarnVFSInput() = default;

// --- Writing ------------------------------------------------------------------------------------

class TarnVFSOutput::Bytes : public std::streambuf {
 public:
  Bytes(TarnVFS& files, TarnPathText path, TarnVFSWriter::Mode mode) : writer_(files, path, mode) {
    setp(buffer_.data(), buffer_.data() + buffer_.size());
  }

  TarnVFSWriter& writer() { return writer_; }
  void pass() {
    writer_.write(std::string_view(pbase(), static_cast<std::size_t>(pptr() - pbase())));
    setp(buffer_.data(), buffer_.data() + buffer_.size());
  }

 protected:
  int_type overflow(int_type next) override {
    pass();
    return traits_type::eq_int_type(next, traits_type::eof())
               ? traits_type::not_eof(next)
               : sputc(traits_type::to_char_type(next));
  }
  std::streamsize xsputn(const char* bytes, std::streamsize size) override {
    if (size <= epptr() - pptr()) return std::streambuf::xsputn(bytes, size);
    pass();
    writer_.write(std::string_view(bytes, static_cast<std::size_t>(size)));
    return size;
  }
  int sync() override {
    pass();
    return 0;
  }
  Position seekoff(Offset offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
    pass();
    const Offset target = SeekTarget(offset, from, writer_.tell(), writer_.getSize());
    if (target < 0) return Offset{-1};
    writer_.seek(static_cast<std::uint64_t>(target));
    return target;
  }
  Position seekpos(Position position, std::ios_base::openmode which) override {
    return seekoff(Offset(position), std::ios_base::beg, which);
  }

 private:
  TarnVFSWriter writer_;
  std::array<char, 4096> buffer_;
};

TarnVFSOutput::TarnVFSOutput(TarnVFS& files, TarnPathText path, TarnVFSWriter::Mode mode)
    : std::ostream(nullptr), bytes_(std::make_unique<Bytes>(files, path, mode)) {
  rdbuf(bytes_.get());
}

TarnVFSOutput::~TarnVFSOutput() = default;

TarnVFSWriter& TarnVFSOutput::getWriter() { return bytes_->writer(); }

void TarnVFSOutput::finish() {
  if (fail()) {
    throw TarnException("A stream that has failed is not made the content of an item.",
                        ErrorID::Unspecified);
  }
  bytes_->pass();
  bytes_->writer().finish();
}

}  // namespace tarns
