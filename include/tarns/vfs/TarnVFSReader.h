#pragma once

#include <tarns/session/TarnPathText.h>
#include <tarns/tarns_api.h>
#include <tarns/vfs/TarnVFSFile.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tarns {

class TarnVFS;

// Reads an item's content, as it was when the reader was made: what others write meanwhile is not
// seen, and never half of it. Keeps one piece in memory.
//
//   TarnVFSReader reader(files, "letters~2026~january.txt");
//   for (std::string_view piece = reader.nextPiece(); !piece.empty(); piece = reader.nextPiece())
//     out.write(piece);
//
// Threads: one at a time, attached to the session. Errors: 7 when there is no such item; what the
// storage reports, after which the position is unchanged.
class TARNS_API TarnVFSReader {
 public:
  TarnVFSReader(TarnVFS& files, TarnPathText path);
  explicit TarnVFSReader(const xcptref<TarnVFSItem>& item);  // one without content: empty
  explicit TarnVFSReader(TarnVFSContent content);
  ~TarnVFSReader();
  TarnVFSReader(TarnVFSReader&&) noexcept;
  TarnVFSReader& operator=(TarnVFSReader&&) noexcept;
  TarnVFSReader(const TarnVFSReader&) = delete;
  TarnVFSReader& operator=(const TarnVFSReader&) = delete;

  std::uint64_t getSize() const { return content_.size; }
  std::uint64_t tell() const { return at_; }
  // Behind the end nothing is read.
  void seek(std::uint64_t position) { at_ = position; }

  // Fills as much as there is; returns how much, less than asked for at the end only.
  std::size_t read(char* into, std::size_t size);
  std::size_t read(std::span<std::byte> into) {
    return read(reinterpret_cast<char*>(into.data()), into.size());
  }
  // The bytes from the position to the end of their piece, valid until the next call; empty at the
  // end.
  std::string_view nextPiece();
  // Everything from the position on.
  std::string readAll();

 private:
  std::string_view look();  // as nextPiece(), without moving on

  TarnVFSContent content_;
  std::uint64_t at_ = 0;
  std::string piece_;
  std::uint64_t loaded_ = kNone;  // which piece that is
  static constexpr std::uint64_t kNone = ~std::uint64_t{0};
};

}  // namespace tarns
