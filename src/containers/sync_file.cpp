#include "containers/sync_file.h"

#include <fmt/format.h>
#include <tarns/core/TarnException.h>
#include <tarns/util/PInOut.h>
#include <tarns/util/XException.h>
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "core/NodeReader.h"
#include "core/node_access.h"

namespace tarns {

namespace {

constexpr const char* kHeader = "BundleChanges";
constexpr unsigned kFormat = 1;
constexpr std::string_view kEnd = "End ";
constexpr std::size_t kDigestDigits = 32;

PInOut::Source SourceOf(std::string_view text) {
  return [text](char* into, std::size_t size) mutable {
    const std::size_t count = std::min(size, text.size());
    std::memcpy(into, text.data(), count);
    text.remove_prefix(count);
    return count;
  };
}

std::string ChecksumOf(std::string_view text) {
  const XXH128_hash_t hash = XXH3_128bits(text.data(), text.size());
  return fmt::format("{:016x}{:016x}", hash.high64, hash.low64);
}

[[noreturn]] void ThrowBadFile(const char* what) {
  TarnException error;
  error << "This is no export of a bundle that can be imported: " << what << ".";
  error.setErrorID(ErrorID::BadExportFile);
  throw error;
}

// The last line holds a checksum of everything before it.
void VerifyChecksum(std::string_view text) {
  const std::size_t length = kEnd.size() + kDigestDigits + 1;
  if (text.size() < length || text.back() != '\n') ThrowBadFile("its end is missing");
  const std::string_view before = text.substr(0, text.size() - length);
  const std::string_view last = text.substr(before.size(), length - 1);
  if (!last.starts_with(kEnd)) ThrowBadFile("its end is missing");
  if (last.substr(kEnd.size()) != ChecksumOf(before)) ThrowBadFile("it has been changed");
}

void WriteReplica(PInOut& out, ReplicaID replica, const SyncMarks& marks,
                  const SyncFile::Arrived& arrived) {
  out.write("Replica", TextOfReplica(replica));
  out.indentIn();
  out.write("Marks", marks.str());
  if (arrived.received != 0) out.write("Received", arrived.received);
  if (arrived.receivedFiltered > arrived.received) {
    out.write("ReceivedFiltered", arrived.receivedFiltered);
  }
  if (arrived.lacksExport) out.write("LacksExport", true);
  out.indentOut();
}

void WriteChange(PInOut& out, const SyncChange& change) {
  out.write(change.isDeleted ? "Deleted" : "Changed", change.name);
  out.indentIn();
  out.write("Version", change.version.str());
  if (!change.isDeleted) TarnObject::Write(change.name.c_str(), change.object, &out);
  out.indentOut();
}

// Goes through the lines of an export.
class FileReader {
 public:
  explicit FileReader(std::string_view text) { in_.readFrom(SourceOf(text), text.size()); }

  SyncFile read() {
    readFormat();
    in_.indentIn();
    while (*in_.getCommand() != '\0') readLine();
    in_.indentOut();
    if (!in_.isCmd("End")) in_.fail("the end of the export is missing");
    if (in_.readLine() != PInOut::End) in_.fail("something follows the end of the export");
    verify();
    return std::move(file_);
  }

 private:
  void readFormat() {
    if (!in_.isCmd(kHeader)) ThrowBadFile("it begins with something else");
    unsigned format = 0;
    in_.read(format);
    if (format == kFormat) return;
    TarnException error;
    error << "The export has format " << format << "; this version of the library reads " << kFormat
          << ".";
    error.setErrorID(ErrorID::NewerVersion);
    throw error;
  }

  void readLine() {
    if (in_.isCmd("Changed") || in_.isCmd("Deleted")) return readChange();
    if (in_.isCmd("Replica")) return readAboutReplica();
    if (!file_.changes.empty()) in_.fail("this line belongs before the changes");
    if (in_.isCmd("Class")) {
      in_.read(file_.className);
    } else if (in_.isCmd("From")) {
      file_.from = readReplica();
    } else if (in_.isCmd("For")) {
      file_.addressee = readReplica();
    } else if (in_.isCmd("Former")) {
      file_.former = readVersion();
    } else if (in_.isCmd("Ended")) {
      file_.ended = readEnds();
    } else if (in_.isCmd("Since")) {
      file_.since = readRevision();
    } else if (in_.isCmd("Revision")) {
      file_.revision = readRevision();
    } else if (in_.isCmd("Partial")) {
      in_.read(file_.isPartial);
    } else if (in_.isCmd("Known")) {
      file_.known = readVersion();
    } else {
      in_.fail("an export has no line of this kind");
    }
  }

  void readAboutReplica() {
    const ReplicaID id = readReplica();
    SyncMarks marks;
    SyncFile::Arrived arrived;
    in_.indentIn();
    while (*in_.getCommand() != '\0') {
      if (in_.isCmd("Marks")) {
        marks = readMarks();
      } else if (in_.isCmd("Received")) {
        arrived.received = readRevision();
      } else if (in_.isCmd("ReceivedFiltered")) {
        arrived.receivedFiltered = readRevision();
      } else if (in_.isCmd("LacksExport")) {
        in_.read(arrived.lacksExport);
      } else {
        in_.fail("of a replica, an export has no line of this kind");
      }
    }
    in_.indentOut();
    arrived.receivedFiltered = std::max(arrived.received, arrived.receivedFiltered);
    file_.partners[id] = arrived;
    if (!file_.marks.emplace(id, std::move(marks)).second) in_.fail("a replica is named twice");
  }

  void readChange() {
    SyncChange change;
    change.isDeleted = in_.isCmd("Deleted");
    change.name = in_.getValue();
    if (!IsChildName(change.name)) in_.fail("this is no name of an object");
    if (!file_.changes.empty() && file_.changes.back().name >= change.name) {
      in_.fail("names must be in ascending order");
    }
    in_.readLine();
    in_.indentIn();
    if (!in_.isCmd("Version")) in_.fail("the version of a change is missing");
    change.version = readVersion();
    if (change.version.empty()) in_.fail("a change has an empty version");
    if (!change.isDeleted) readObject(change);
    if (*in_.getCommand() != '\0') in_.fail("a change has no line of this kind");
    in_.indentOut();
    file_.changes.push_back(std::move(change));
  }

  // The object is made once to see that it can be.
  void readObject(SyncChange& change) {
    if (!in_.isCmd(file_.className.c_str())) {
      in_.fail("an object is missing, or of another class than the bundle's");
    }
    NodeReader reader(in_, NodeReader::Unknown::kRefuse);
    XString name;
    const TarnRef object = reader.readBlock(name);
    if (object.is_null()) TarnException::ThrowMissingDescriptor(file_.className.c_str());
    if (name.view() != change.name) in_.fail("an object has another name than its change");
    change.text = TextOf(change.name, object);
  }

  ReplicaID readReplica() {
    const auto replica = ReplicaFrom(in_.getValue());
    if (!replica) in_.fail("this is no replica");
    in_.readLine();
    return *replica;
  }
  std::uint64_t readRevision() {
    std::uint64_t revision = 0;
    if (!PInOut::ParseNumber(in_.getValue(), revision) || revision > kMaxRevision) {
      in_.fail("this is no revision");
    }
    in_.readLine();
    return revision;
  }
  SyncVersion readVersion() {
    auto version = SyncVersion::Parse(in_.getValue());
    if (!version) in_.fail("this is no version");
    in_.readLine();
    return *std::move(version);
  }
  SyncEnds readEnds() {
    auto ends = EndsFrom(in_.getValue());
    if (!ends) in_.fail("this is no list of ends");
    in_.readLine();
    return *std::move(ends);
  }
  SyncMarks readMarks() {
    auto marks = SyncMarks::Parse(in_.getValue());
    if (!marks) in_.fail("this is no list of marks");
    in_.readLine();
    return *std::move(marks);
  }

  // What the lines say must fit together.
  void verify() const {
    if (file_.from == 0 || file_.className.empty()) ThrowBadFile("its sender is missing");
    const auto sender = file_.marks.find(file_.from);
    if (sender == file_.marks.end() || sender->second.empty() ||
        sender->second.newest().revision != file_.revision) {
      ThrowBadFile("its marks end at another revision than its own");
    }
    if (file_.since > file_.revision) ThrowBadFile("it begins behind its end");
    for (const auto& [replica, revision] : file_.known.entries()) {
      if (revision > file_.revision) ThrowBadFile("it knows of a revision later than its own");
    }
    for (const SyncChange& change : file_.changes) {
      for (const auto& [replica, revision] : change.version.entries()) {
        if (revision > file_.revision || !file_.marks.contains(replica)) {
          ThrowBadFile("it has a change of a revision that it does not know");
        }
      }
    }
  }

  PInOut in_;
  SyncFile file_;
};

}  // namespace

std::string TextOf(std::string_view name, const TarnRef& object, const NodeWriter::Visit& visit) {
  std::string text;
  PInOut out;
  out.writeTo(text);
  NodeWriter(out, NodeWriter::Form::kWhole, visit).write(name, object);
  out.close();
  return text;
}

std::string SyncFile::write() const {
  std::string text;
  PInOut out;
  out.writeTo(text);
  out.write(kHeader, kFormat);
  out.indentIn();
  out.write("Class", className);
  out.write("From", TextOfReplica(from));
  if (addressee != 0) out.write("For", TextOfReplica(addressee));
  if (!former.empty()) out.write("Former", former.str());
  if (!ended.empty()) out.write("Ended", TextOfEnds(ended));
  out.write("Since", since);
  out.write("Revision", revision);
  if (isPartial) out.write("Partial", true);
  out.write("Known", known.str());
  for (const auto& [replica, list] : marks) {
    const auto partner = partners.find(replica);
    WriteReplica(out, replica, list, partner == partners.end() ? Arrived() : partner->second);
  }
  for (const SyncChange& change : changes) WriteChange(out, change);
  out.indentOut();
  out.close();
  const std::string checksum = ChecksumOf(text);
  return text.append(kEnd).append(checksum).append("\n");
}

SyncFile SyncFile::Read(std::string_view text) {
  VerifyChecksum(text);
  try {
    return FileReader(text).read();
  } catch (const TarnException&) {
    throw;
  } catch (const XException& error) {
    throw TarnException(error.getError(), ErrorID::BadExportFile);
  }
}

void SyncFile::applyEnds(SyncEnds& ends) {
  ApplyEnds(ends, {}, marks, [&](ReplicaID replica, std::uint64_t first, ReplicaID name) {
    bool isNamed = known.rename(replica, first, name);
    for (SyncChange& change : changes) isNamed |= change.version.rename(replica, first, name);
    return isNamed;
  });
}

void ReplaceContent(const TarnRef& object, std::string_view text) {
  {
    auto body = modify(object);
    if (body->getNumAbstractChildren() > 0) body->deleteChildren();
    TarnNodeAccess::ForgetIndex(*body);
    const TarnRef fresh = body->constructor();
    TarnNodeAccess::CopyState(*fresh.read(), *body);
    body->note_relinked();
  }
  PInOut in;
  in.readFrom(SourceOf(text), text.size());
  NodeReader(in).readInto(object);
}

}  // namespace tarns
