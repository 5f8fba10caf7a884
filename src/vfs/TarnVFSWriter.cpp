#include <goods/cache_manager.h>
#include <goods/reader.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSWriter.h>

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "vfs/TarnVFSPieces.h"
#include "vfs/UnfinishedContent.h"
#include "vfs/vfs_access.h"

namespace tarns {

namespace {

constexpr std::uint64_t kPiece = TarnVFSContent::kPieceSize;
// Written pieces that are kept until they go into the database together, in bytes: large enough
// that syncing does not count, small against the commit log.
constexpr std::uint64_t kPutAwayAt = std::uint64_t{4} << 20;
constexpr std::uint64_t kMostBytes = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();

[[noreturn]] void ThrowConflict(const std::string& name, const char* what) {
  TarnException error;
  error << "The item \"" << name << "\" " << what;
  throw error;
}

[[noreturn]] void ThrowTooLong() {
  throw TarnException("The content of an item has at most 2^63 bytes.", ErrorID::BadUsage);
}

}  // namespace

// The content as it is being written: pieces in the tables, over them those that have been written
// since these were put away, over them the one that is being written.
class TarnVFSWriter::State {
 public:
  State(TarnVFS& files, std::string_view path, Mode mode);

  void write(std::string_view bytes);
  void truncate(std::uint64_t size);
  void finish();
  void requireOpen() const;

  std::uint64_t at_ = 0, size_ = 0;
  std::optional<TarnVFSTime> modified_;
  std::optional<std::uint32_t> permissions_;
  std::optional<TarnVFSInfo::Kind> kind_;
  std::optional<std::string> contentType_;

 private:
  std::string fetch(std::uint64_t index) const;
  void open(std::uint64_t index);
  void closePiece();
  void putIntoTables();
  void putAway();
  void letGo(const xcptref<UnfinishedContent>& unfinished) noexcept;
  TarnVFSContent content();
  xcptref<TarnVFSFile> fileToWrite();
  void inherit(const xcptref<TarnVFSItem>& item, const xcptref<TarnVFSFile>& file);
  void attach();

  TarnVFS& files_;
  const Mode mode_;
  const std::string above_;  // path of the folder
  const xcptref<TarnVFSFolder> folder_;
  const std::string name_;
  TarnVFSContent before_;  // of the item, in the mode kUpdate

  TarnString bytes_;  // the first piece, while there are no tables
  VFSPieceTree tables_;
  std::uint64_t tablesEnd_ = kNone;              // pieces of both from here on have been cut off
  std::map<std::uint64_t, TarnString> written_;  // not in the tables yet
  std::uint64_t writtenBytes_ = 0;
  std::string piece_;            // being written
  std::uint64_t index_ = kNone;  // which one it is
  bool isChanged_ = false;
  bool isOver_ = false;
};

TarnVFSWriter::State::State(TarnVFS& files, std::string_view path, Mode mode)
    : files_(files),
      mode_(mode),
      above_(TarnBranches::ParentOf(path)),
      folder_(path.empty() ? nullptr : files.folderAt(above_)),
      name_(TarnBranches::LastOf(path)) {
  VerifyNoNul(name_);
  if (folder_.is_null()) TarnException::ThrowNonExistentPath(std::string(path).c_str());
  TarnObject::VerifyChildName(folder_, name_);
  if (mode != Mode::kUpdate) return;
  const auto item = folder_->getItem(name_);
  if (item.is_null()) TarnException::ThrowNonExistentPath(std::string(path).c_str());
  if (item.isA<TarnVFSFile>()) before_ = xcptref<TarnVFSFile>(item)->getContent();
  size_ = before_.size;
  bytes_ = before_.bytes;
  tables_ = VFSPieceTree(before_.pieces);
}

void TarnVFSWriter::State::requireOpen() const {
  if (!isOver_) return;
  throw TarnException("A writer was used after its content was finished.", ErrorID::BadUsage);
}

// --- Pieces -------------------------------------------------------------------------------------

// The piece as it was written last, shorter where its end is zero.
std::string TarnVFSWriter::State::fetch(std::uint64_t index) const {
  const auto written = written_.find(index);
  return goods::read_here([&](goods::reader& reader) {
    const goods::guest_scope guests(reader);
    if (written != written_.end()) return std::string(written->second.look(reader));
    if (index >= tablesEnd_) return std::string();
    if (!tables_.root().is_null()) {
      return std::string(TarnVFSPieces::Look(reader, tables_.root(), index));
    }
    return std::string(index == 0 ? bytes_.look(reader) : std::string_view());
  });
}

void TarnVFSWriter::State::open(std::uint64_t index) {
  if (index_ == index) return;
  closePiece();
  const bool isNew = index >= (size_ + kPiece - 1) / kPiece;  // behind all that there is
  piece_ = isNew ? std::string() : fetch(index);
  index_ = index;
}

void TarnVFSWriter::State::closePiece() {
  if (index_ == kNone) return;
  if (isChanged_) {
    written_[index_] = piece_.empty() ? TarnString() : TarnString(std::string_view(piece_));
    writtenBytes_ += piece_.size();
    isChanged_ = false;
  }
  index_ = kNone;
  if (writtenBytes_ >= kPutAwayAt) putAway();
}

void TarnVFSWriter::State::write(std::string_view bytes) {
  if (at_ > kMostBytes || bytes.size() > kMostBytes - at_) ThrowTooLong();
  while (!bytes.empty()) {
    open(at_ / kPiece);
    const std::size_t offset = at_ % kPiece;
    const std::string_view part = bytes.substr(0, kPiece - offset);
    if (piece_.size() < offset + part.size()) piece_.resize(offset + part.size());
    piece_.replace(offset, part.size(), part);
    isChanged_ = true;
    at_ += part.size();
    size_ = std::max(size_, at_);
    bytes.remove_prefix(part.size());
  }
}

void TarnVFSWriter::State::truncate(std::uint64_t size) {
  if (size > kMostBytes) ThrowTooLong();
  if (size < size_) {
    if (size % kPiece != 0) {
      open(size / kPiece);
      piece_.resize(std::min<std::size_t>(piece_.size(), size % kPiece));
      isChanged_ = true;
    }
    closePiece();
    const std::uint64_t end = (size + kPiece - 1) / kPiece;
    written_.erase(written_.lower_bound(end), written_.end());
    tablesEnd_ = std::min(tablesEnd_, end);
  }
  size_ = size;
}

// --- Into the database --------------------------------------------------------------------------

// Within a transaction, or on tables that nobody else knows. May be repeated.
void TarnVFSWriter::State::putIntoTables() {
  if (tablesEnd_ != kNone) tables_.truncate(tablesEnd_);
  if (tables_.root().is_null() && !bytes_.isNull() && tablesEnd_ > 0 && !written_.contains(0)) {
    tables_.set(0, bytes_);
  }
  for (const auto& [index, piece] : written_) tables_.set(index, piece);
}

void TarnVFSWriter::State::putAway() {
  TarnManager& manager = files_.getManager();
  if (manager.db().getCacheManager().in_transaction()) return;
  const auto unfinished = UnfinishedContent::In(files_);
  const bool isFirst = Atomically(manager, [&] {
    putIntoTables();
    const bool isNew = tables_.root().id() == 0;
    if (isNew) modify(unfinished)->setTables(tables_.root());
    return isNew;
  });
  written_.clear();
  writtenBytes_ = 0;
  bytes_ = TarnString();
  tablesEnd_ = kNone;
  if (isFirst) letGo(unfinished);
}

// What has been stored is kept by this writer from now on: a crash leaves garbage.
void TarnVFSWriter::State::letGo(const xcptref<UnfinishedContent>& unfinished) noexcept {
  try {
    Atomically(files_.getManager(), [&] {
      if (unfinished->getTables() == tables_.root()) modify(unfinished)->setTables(nullptr);
    });
  } catch (const std::exception& error) {
    Log(Log::Warning) << "What is left of writing the item \"" << name_.c_str()
                      << "\" stays in the database until the next large item is written: "
                      << error.what();
  }
}

TarnVFSContent TarnVFSWriter::State::content() {
  TarnVFSContent content;
  content.size = size_;
  if (size_ > kPiece) {
    putIntoTables();
    content.pieces = tables_.root();
  } else if (written_.empty() && tablesEnd_ == kNone && tables_.root().is_null() &&
             size_ == before_.size) {
    content.bytes = bytes_;  // neither written to nor cut
  } else {
    const std::string bytes = fetch(0);
    content = TarnVFSContent(std::string_view(bytes).substr(0, size_));
    content.size = size_;
  }
  return content;
}

// The item, made one with content when it is none.
xcptref<TarnVFSFile> TarnVFSWriter::State::fileToWrite() {
  const auto item = folder_->getItem(name_);
  if (mode_ == Mode::kNew && !item.is_null()) ThrowConflict(name_, "exists already.");
  if (mode_ == Mode::kUpdate && item.is_null()) ThrowConflict(name_, "has been removed meanwhile.");
  if (item.isA<TarnVFSFile>()) {
    xcptref<TarnVFSFile> file(item);
    if (mode_ == Mode::kUpdate && !file->getContent().isSameAs(before_)) {
      ThrowConflict(name_, "has been written to by others meanwhile.");
    }
    return file;
  }
  auto file = TarnVFSFile::Create();
  modify(file)->setCreated(TarnVFSTime::Now());
  if (!item.is_null()) inherit(item, file);
  modify(folder_)->addItem(name_.c_str(), file, false);
  return file;
}

// Lets the file take the place of an item without content, which keeps its attributes when it is
// listed elsewhere as well.
void TarnVFSWriter::State::inherit(const xcptref<TarnVFSItem>& item,
                                   const xcptref<TarnVFSFile>& file) {
  modify(folder_)->removeItem(name_);
  if (item->getRefCount() == 0) {
    TarnRef heir(file);
    modify(item)->bequeathChildren(heir);
    return;
  }
  for (const auto& [name, child] : item->children()) {
    if (name == TarnVFSItem::kRefCount) continue;
    modify(file)->addChild(name.c_str(), child->deepClone());
  }
}

void TarnVFSWriter::State::attach() {
  Hold(folder_);
  files_.verifyRoot();
  files_.verifyFolder();
  if (!files_.isThere(folder_, above_)) TarnException::ThrowNonExistentPath(above_.c_str());
  const auto file = fileToWrite();
  auto body = modify(file);
  body->setContent(content());
  body->setModified(modified_ ? *modified_ : TarnVFSTime::Now());
  if (permissions_) body->setPermissions(*permissions_);
  if (kind_) body->setKind(*kind_);
  if (contentType_) body->setContentType(contentType_->c_str());
}

void TarnVFSWriter::State::finish() {
  closePiece();
  Atomically(files_.getManager(), [&] { attach(); });
  isOver_ = true;
  ++files_.numChanges_;
}

// --- The interface ------------------------------------------------------------------------------

TarnVFSWriter::TarnVFSWriter(TarnVFS& files, TarnPathText path, Mode mode)
    : state_(std::make_unique<State>(files, path.view(), mode)) {}

TarnVFSWriter::~TarnVFSWriter() = default;

void TarnVFSWriter::write(std::string_view bytes) {
  state_->requireOpen();
  state_->write(bytes);
}

std::uint64_t TarnVFSWriter::tell() const { return state_->at_; }

void TarnVFSWriter::seek(std::uint64_t position) { state_->at_ = position; }

std::uint64_t TarnVFSWriter::getSize() const { return state_->size_; }

void TarnVFSWriter::truncate(std::uint64_t size) {
  state_->requireOpen();
  state_->truncate(size);
}

void TarnVFSWriter::setModified(TarnVFSTime time) { state_->modified_ = time; }

void TarnVFSWriter::setPermissions(std::uint32_t permissions) {
  state_->permissions_ = permissions;
}

void TarnVFSWriter::setKind(TarnVFSInfo::Kind kind) { state_->kind_ = kind; }

void TarnVFSWriter::setContentType(const char* type) { state_->contentType_ = ViewOf(type); }

void TarnVFSWriter::finish() {
  state_->requireOpen();
  state_->finish();
}

}  // namespace tarns
