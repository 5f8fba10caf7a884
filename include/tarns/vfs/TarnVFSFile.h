#pragma once

#include <tarns/schema/TarnString.h>
#include <tarns/tarns_api.h>
#include <tarns/vfs/TarnVFSItem.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace tarns {

class TarnVFSPieces;

// The bytes of an item, as they were at one time: a value that is copied for nothing.
//
// Bytes that are stored are never changed. Writing makes new pieces, and new tables on the way to
// them, and then gives the item the new content, so whoever read the old one goes on reading it,
// and copies of an item share what they have in common. What nothing refers to any more a
// collection removes.
struct TARNS_API TarnVFSContent {
  // Bytes in a piece; each is an object of its own. Smaller ones would cost more per byte to
  // store and load, larger ones make rewriting a few bytes dearer (see docs/vfs.md).
  static constexpr std::uint64_t kPieceSize = std::uint64_t{128} << 10;

  std::uint64_t size = 0;                   // bytes
  TarnString bytes = {};                    // all of them, as long as they are one piece
  xcptref<TarnVFSPieces> pieces = nullptr;  // null then
  TarnVFSContent();
  explicit TarnVFSContent(std::string_view text);  // at most kPieceSize bytes
  TarnVFSContent(const TarnVFSContent&);
  TarnVFSContent(TarnVFSContent&&) noexcept;
  TarnVFSContent& operator=(const TarnVFSContent&);
  TarnVFSContent& operator=(TarnVFSContent&&) noexcept;
  ~TarnVFSContent();

  // Whether both are the same stored bytes; contents that merely equal each other are not.
  bool isSameAs(const TarnVFSContent& other) const;
};

// An item with content: a file, or a symbolic link.
//
// Stored in members, so that a small file is two objects: this one and its bytes. Write content
// through TarnVFSWriter, or here where it is at most one piece, and read it through TarnVFSReader.
// By path the members read as Size, Modified, ModifiedNs, Created, CreatedNs, Told (bits: 1, that
// Modified was told though it may be 0; 2, the same for Created), Permissions, Kind and
// ContentType; Bytes and Pieces are the file system's own and not to be written.
//
// Threads and transactions: as every node.
class TARNS_API TarnVFSFile : public TarnVFSItem {
  TARN_CLASS(TarnVFSFile, TarnVFSItem)

 public:
  ~TarnVFSFile() override;

  TarnVFSInfo getInfo() const override;
  // What a listing needs, without the count of references (1).
  TarnVFSInfo getStoredInfo() const;
  void setKind(TarnVFSInfo::Kind kind) { kind_ = kind; }
  // Throws 111 for more than 07777 other than TarnVFSInfo::kNoPermissions.
  void setPermissions(std::uint32_t permissions);
  // Throw 111 for more nanoseconds than a second has; TarnVFSInfo::kNoTime: as if never told.
  void setModified(TarnVFSTime time);
  void setCreated(TarnVFSTime time);

  // What was set or, where nothing was, what the extension of `name` stands for:
  // "application/octet-stream" when it is not known.
  std::string getContentType(std::string_view name) const;
  void setContentType(const char* type);  // null or "": by the extension again
  static const char* GetContentTypeFor(std::string_view name);

  TarnVFSContent getContent() const;
  // Leaves the times alone.
  void setContent(const TarnVFSContent& content);
  std::uint64_t getSize() const { return size_; }

  bool write(const char* name, GOODSinOut& out) override;

 private:
  std::uint64_t size_ = 0;
  std::int64_t modified_ = 0;
  std::int64_t created_ = 0;
  std::uint32_t modifiedNs_ = 0;
  std::uint32_t createdNs_ = 0;
  std::uint8_t told_ = 0;  // which of both were: kModifiedTold, kCreatedTold
  std::uint32_t permissions_ = TarnVFSInfo::kNoPermissions;
  TarnVFSInfo::Kind kind_ = TarnVFSInfo::Kind::kFile;
  TarnString contentType_;  // null: by the extension
  TarnString bytes_;
  xcptref<TarnVFSPieces> pieces_;
};

}  // namespace tarns
