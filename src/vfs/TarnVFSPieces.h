// The pieces of a content that is longer than one.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnString.h>
#include <tarns/vfs/TarnVFSFile.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_set>

namespace goods {
class reader;
}

namespace tarns {

// A table of up to 256 pieces (level 0) or of as many tables of the level below. What is null reads
// as zero bytes, so a gap takes no room.
class TarnVFSPieces : public TarnObject {
  TARN_CLASS(TarnVFSPieces, TarnObject)

 public:
  static constexpr std::size_t kSlots = 256;

  ~TarnVFSPieces() override;
  bool write(const char* name, GOODSinOut& out) override;

  unsigned getLevel() const { return level_; }
  void setLevel(unsigned level) { level_ = static_cast<std::uint8_t>(level); }
  const TarnString& piece(std::size_t slot) const { return pieces_[slot]; }
  void setPiece(std::size_t slot, const TarnString& piece) { pieces_[slot] = piece; }
  const xcptref<TarnVFSPieces>& table(std::size_t slot) const { return tables_[slot]; }
  void setTable(std::size_t slot, const xcptref<TarnVFSPieces>& table) { tables_[slot] = table; }
  // Forgets all slots from `first` on.
  void clearFrom(std::size_t first);

  // The bytes of piece `index`, shorter than a piece, or empty, where the rest is zero.
  static std::string_view Look(goods::reader& reader, const xcptref<TarnVFSPieces>& root,
                               std::uint64_t index);

 private:
  std::uint8_t level_ = 0;
  TarnString pieces_[kSlots];
  xcptref<TarnVFSPieces> tables_[kSlots];
};

// Tables that are being written. What somebody else may see is copied before it is changed.
//
// Every function may be repeated when the transaction that it ran in was rolled back.
class VFSPieceTree {
 public:
  VFSPieceTree() = default;
  explicit VFSPieceTree(xcptref<TarnVFSPieces> root) : root_(std::move(root)) {}

  const xcptref<TarnVFSPieces>& root() const { return root_; }  // null while there is none
  void set(std::uint64_t index, const TarnString& piece);
  // Forgets all pieces from `count` on.
  void truncate(std::uint64_t count);

 private:
  xcptref<TarnVFSPieces> owned(const xcptref<TarnVFSPieces>& table, unsigned level);
  xcptref<TarnVFSPieces> ownedRootFor(std::uint64_t index);

  xcptref<TarnVFSPieces> root_;
  std::unordered_set<xcptref<TarnVFSPieces>> own_;  // made here
};

}  // namespace tarns
