#include <goods/cache_manager.h>
#include <goods/reader.h>
#include <tarns/core/TarnException.h>
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSReader.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "vfs/TarnVFSPieces.h"

namespace tarns {

namespace {

xcptref<TarnVFSItem> ItemAt(TarnVFS& files, TarnPathText path) {
  auto item = files.getItem(path);
  if (item.is_null()) TarnException::ThrowNonExistentPath(path.str().c_str());
  return item;
}

TarnVFSContent ContentOf(const xcptref<TarnVFSItem>& item) {
  return item.isA<TarnVFSFile>() ? xcptref<TarnVFSFile>(item)->getContent() : TarnVFSContent();
}

}  // namespace

TarnVFSReader::TarnVFSReader(TarnVFS& files, TarnPathText path)
    : TarnVFSReader(ItemAt(files, path)) {}
TarnVFSReader::TarnVFSReader(const xcptref<TarnVFSItem>& item) : TarnVFSReader(ContentOf(item)) {}
TarnVFSReader::TarnVFSReader(TarnVFSContent content) : content_(std::move(content)) {}
TarnVFSReader::TarnVFSReader(TarnVFSReader&&) noexcept = default;
TarnVFSReader& TarnVFSReader::operator=(TarnVFSReader&&) noexcept = default;
TarnVFSReader::~TarnVFSReader() = default;

std::string_view TarnVFSReader::look() {
  if (at_ >= content_.size) return {};
  constexpr std::uint64_t kPiece = TarnVFSContent::kPieceSize;
  const std::uint64_t index = at_ / kPiece;
  if (loaded_ != index) {
    std::string fresh = goods::read_here([&](goods::reader& reader) {
      const goods::guest_scope guests(reader);
      if (!content_.pieces.is_null()) {
        return std::string(TarnVFSPieces::Look(reader, content_.pieces, index));
      }
      return index == 0 ? std::string(content_.bytes.look(reader)) : std::string();
    });
    // What was never written is zero.
    fresh.resize(std::min(kPiece, content_.size - index * kPiece));
    piece_.swap(fresh);
    loaded_ = index;
  }
  return std::string_view(piece_).substr(at_ % kPiece);
}

std::string_view TarnVFSReader::nextPiece() {
  const std::string_view piece = look();
  at_ += piece.size();
  return piece;
}

std::size_t TarnVFSReader::read(char* into, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const std::string_view piece = look().substr(0, size - done);
    if (piece.empty()) break;
    std::memcpy(into + done, piece.data(), piece.size());
    done += piece.size();
    at_ += piece.size();
  }
  return done;
}

std::string TarnVFSReader::readAll() {
  std::string all;
  for (std::string_view piece = nextPiece(); !piece.empty(); piece = nextPiece()) all += piece;
  return all;
}

}  // namespace tarns
