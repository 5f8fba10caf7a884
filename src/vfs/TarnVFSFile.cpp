#include <tarns/core/TarnException.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/Stringer.h>
#include <tarns/vfs/TarnVFSFile.h>

#include <algorithm>
#include <array>
#include <string>

#include "vfs/TarnVFSPieces.h"
#include "vfs/vfs_attributes.h"

namespace tarns {

TARN_REGISTER_WITH(TarnVFSFile, TarnVFSItem, .mayBeGuest = true);

namespace {

struct ExtensionType {
  const char *extension, *type;
};

// In the order of the extensions.
constexpr std::array kTypes = std::to_array<ExtensionType>({
    {"bmp", "image/bmp"},
    {"bz2", "application/x-bzip2"},
    {"c", "text/x-c"},
    {"cpp", "text/x-c++"},
    {"css", "text/css"},
    {"csv", "text/csv"},
    {"doc", "application/msword"},
    {"gif", "image/gif"},
    {"gz", "application/gzip"},
    {"h", "text/x-c"},
    {"htm", "text/html"},
    {"html", "text/html"},
    {"ico", "image/x-icon"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"js", "text/javascript"},
    {"json", "application/json"},
    {"log", "text/plain"},
    {"md", "text/markdown"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
    {"odt", "application/vnd.oasis.opendocument.text"},
    {"ogg", "audio/ogg"},
    {"pdf", "application/pdf"},
    {"png", "image/png"},
    {"ps", "application/postscript"},
    {"py", "text/x-python"},
    {"rtf", "application/rtf"},
    {"sh", "application/x-sh"},
    {"svg", "image/svg+xml"},
    {"tar", "application/x-tar"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"txt", "text/plain"},
    {"wav", "audio/wav"},
    {"webp", "image/webp"},
    {"xls", "application/vnd.ms-excel"},
    {"xml", "application/xml"},
    {"xz", "application/x-xz"},
    {"yaml", "application/yaml"},
    {"yml", "application/yaml"},
    {"zip", "application/zip"},
    {"zst", "application/zstd"},
});
constexpr const char* kUnknownType = "application/octet-stream";

constexpr std::uint8_t kModifiedTold = 1, kCreatedTold = 2;

std::uint8_t WithBit(std::uint8_t bits, std::uint8_t bit, bool isSet) {
  return static_cast<std::uint8_t>(isSet ? bits | bit : bits & ~bit);
}

[[noreturn]] void ThrowTooLong(std::size_t size) {
  TarnException error;
  error << "A content of " << size << " bytes is longer than a piece; write it with a "
        << "TarnVFSWriter.";
  error.setErrorID(ErrorID::BadUsage);
  throw error;
}

}  // namespace

// --- Content ------------------------------------------------------------------------------------

TarnVFSContent::TarnVFSContent() = default;
TarnVFSContent::TarnVFSContent(const TarnVFSContent&) = default;
TarnVFSContent::TarnVFSContent(TarnVFSContent&&) noexcept = default;
TarnVFSContent& TarnVFSContent::operator=(const TarnVFSContent&) = default;
TarnVFSContent& TarnVFSContent::operator=(TarnVFSContent&&) noexcept = default;
TarnVFSContent::~TarnVFSContent() = default;

TarnVFSContent::TarnVFSContent(std::string_view text) : size(text.size()) {
  if (size > kPieceSize) ThrowTooLong(text.size());
  if (size > 0) bytes = TarnString(text);
}

bool TarnVFSContent::isSameAs(const TarnVFSContent& other) const {
  return size == other.size && bytes.getReference() == other.bytes.getReference() &&
         pieces == other.pieces;
}

// --- The item -----------------------------------------------------------------------------------

TarnVFSFile::~TarnVFSFile() = default;

bool TarnVFSFile::write(const char* name, GOODSinOut& out) {
  TarnVFSItem::write(name, out);
  out.write("Size", size_);
  out.write("Modified", modified_);
  out.write("ModifiedNs", modifiedNs_);
  out.write("Created", created_);
  out.write("CreatedNs", createdNs_);
  out.write("Told", told_);
  out.write("Permissions", permissions_);
  out.writeEnum("Kind", kind_);
  out.addEnumValue("Kind", static_cast<unsigned long>(TarnVFSInfo::Kind::kFile), "File");
  out.addEnumValue("Kind", static_cast<unsigned long>(TarnVFSInfo::Kind::kLink), "Link");
  out.write("ContentType", contentType_);
  out.write("Bytes", bytes_);
  return out.write("Pieces", pieces_);
}

TarnVFSInfo TarnVFSFile::getStoredInfo() const {
  TarnVFSInfo info;
  info.kind = kind_;
  info.size = size_;
  info.permissions = permissions_;
  info.modified = TimeFromStored({modified_, modifiedNs_}, (told_ & kModifiedTold) != 0);
  info.created = TimeFromStored({created_, createdNs_}, (told_ & kCreatedTold) != 0);
  return info;
}

TarnVFSInfo TarnVFSFile::getInfo() const {
  TarnVFSInfo info = getStoredInfo();
  info.references = getRefCount();
  return info;
}

void TarnVFSFile::setPermissions(std::uint32_t permissions) {
  VerifyPermissions(permissions);
  permissions_ = permissions;
}

void TarnVFSFile::setModified(TarnVFSTime time) {
  VerifyTime(time);
  const TarnVFSTime stored = TimeToStore(time);
  modified_ = stored.seconds;
  modifiedNs_ = stored.nanoseconds;
  told_ = WithBit(told_, kModifiedTold, time != TarnVFSInfo::kNoTime);
}

void TarnVFSFile::setCreated(TarnVFSTime time) {
  VerifyTime(time);
  const TarnVFSTime stored = TimeToStore(time);
  created_ = stored.seconds;
  createdNs_ = stored.nanoseconds;
  told_ = WithBit(told_, kCreatedTold, time != TarnVFSInfo::kNoTime);
}

const char* TarnVFSFile::GetContentTypeFor(std::string_view name) {
  const std::string text(name);
  const char* const extension = FileFP::FindExtension(text.c_str());
  if (extension == nullptr) return kUnknownType;
  const auto found =
      std::find_if(kTypes.begin(), kTypes.end(), [extension](const ExtensionType& known) {
        return Stringer::CompareIgnoringCase(known.extension, extension) == 0;
      });
  return found != kTypes.end() ? found->type : kUnknownType;
}

std::string TarnVFSFile::getContentType(std::string_view name) const {
  const std::string told = contentType_.isNull() ? std::string() : contentType_.str();
  return told.empty() ? GetContentTypeFor(name) : told;
}

void TarnVFSFile::setContentType(const char* type) { contentType_ = TarnString(type); }

TarnVFSContent TarnVFSFile::getContent() const {
  TarnVFSContent content;
  content.size = size_;
  content.bytes = bytes_;
  content.pieces = pieces_;
  return content;
}

void TarnVFSFile::setContent(const TarnVFSContent& content) {
  size_ = content.size;
  bytes_ = content.bytes;
  pieces_ = content.pieces;
}

}  // namespace tarns
