#include "vfs/TarnVFSPieces.h"

#include <goods/cache_manager.h>
#include <goods/reader.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <algorithm>
#include <iterator>

namespace tarns {

TARN_REGISTER_WITH(TarnVFSPieces, TarnObject, .mayBeGuest = true);

namespace {

constexpr unsigned kSlotBits = 8;
static_assert(std::size_t{1} << kSlotBits == TarnVFSPieces::kSlots);
constexpr unsigned kMaxLevel = 7;  // beyond 2^64 pieces

// The slot for piece `index` in a table of that level.
std::size_t SlotOf(std::uint64_t index, unsigned level) {
  return (index >> (kSlotBits * level)) % TarnVFSPieces::kSlots;
}

// Whether a table of that level has a place for piece `index`.
bool Covers(unsigned level, std::uint64_t index) {
  return level >= kMaxLevel || index >> (kSlotBits * (level + 1)) == 0;
}

[[noreturn]] void ThrowBadTables() {
  throw TarnException("The tables of an item's content contradict each other.",
                      ErrorID::CorruptData);
}

}  // namespace

TarnVFSPieces::~TarnVFSPieces() = default;

bool TarnVFSPieces::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  out.write("Level", level_);
  out.write("Piece", &pieces_[0], kSlots);
  return out.write("Table", &tables_[0], kSlots);
}

void TarnVFSPieces::clearFrom(std::size_t first) {
  std::fill(std::begin(pieces_) + static_cast<std::ptrdiff_t>(first), std::end(pieces_),
            TarnString());
  std::fill(std::begin(tables_) + static_cast<std::ptrdiff_t>(first), std::end(tables_), nullptr);
}

std::string_view TarnVFSPieces::Look(goods::reader& reader, const xcptref<TarnVFSPieces>& root,
                                     std::uint64_t index) {
  const TarnVFSPieces* table = reader.get(root);
  if (table == nullptr) return {};
  unsigned level = table->getLevel();
  if (level > kMaxLevel) ThrowBadTables();
  if (!Covers(level, index)) return {};
  for (; level > 0; --level) {
    table = reader.get(table->table(SlotOf(index, level)));
    if (table == nullptr) return {};
    if (table->getLevel() + 1 != level) ThrowBadTables();
  }
  return table->piece(SlotOf(index, 0)).look(reader);
}

// --- Writing ------------------------------------------------------------------------------------

// `table` itself when it was made here, else a copy of it; a new one for null.
xcptref<TarnVFSPieces> VFSPieceTree::owned(const xcptref<TarnVFSPieces>& table, unsigned level) {
  if (!table.is_null() && own_.contains(table)) return table;
  auto fresh = TarnVFSPieces::Create();
  auto body = modify(fresh);
  body->setLevel(level);
  if (!table.is_null()) {
    const auto from = *table;
    for (std::size_t slot = 0; slot < TarnVFSPieces::kSlots; ++slot) {
      body->setPiece(slot, from->piece(slot));
      body->setTable(slot, from->table(slot));
    }
  }
  own_.insert(fresh);
  return fresh;
}

xcptref<TarnVFSPieces> VFSPieceTree::ownedRootFor(std::uint64_t index) {
  root_ = owned(root_, 0);
  for (unsigned level = root_->getLevel(); !Covers(level, index); ++level) {
    const auto above = owned(nullptr, level + 1);
    modify(above)->setTable(0, root_);
    root_ = above;
  }
  return root_;
}

void VFSPieceTree::set(std::uint64_t index, const TarnString& piece) {
  xcptref<TarnVFSPieces> table = ownedRootFor(index);
  for (unsigned level = table->getLevel(); level > 0; --level) {
    const std::size_t slot = SlotOf(index, level);
    const xcptref<TarnVFSPieces> below = table->table(slot);
    const xcptref<TarnVFSPieces> own = owned(below, level - 1);
    if (own != below) modify(table)->setTable(slot, own);
    table = own;
  }
  modify(table)->setPiece(SlotOf(index, 0), piece);
}

void VFSPieceTree::truncate(std::uint64_t count) {
  if (root_.is_null()) return;
  if (count == 0) {
    root_ = nullptr;
    return;
  }
  if (!Covers(root_->getLevel(), count)) return;  // longer than all that there is
  root_ = owned(root_, root_->getLevel());
  xcptref<TarnVFSPieces> table = root_;
  for (unsigned level = table->getLevel(); level > 0; --level) {
    const std::size_t slot = SlotOf(count, level);
    const xcptref<TarnVFSPieces> below = table->table(slot);
    modify(table)->clearFrom(slot + 1);
    if (below.is_null()) return;
    const xcptref<TarnVFSPieces> own = owned(below, level - 1);
    modify(table)->setTable(slot, own);
    table = own;
  }
  modify(table)->clearFrom(SlotOf(count, 0));
}

}  // namespace tarns
