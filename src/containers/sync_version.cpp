#include "containers/sync_version.h"

#include <fmt/format.h>
#include <tarns/core/TarnException.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <random>
#include <system_error>

namespace tarns {

namespace {

constexpr std::size_t kDigits = 16;

std::optional<std::uint64_t> HexFrom(std::string_view text) {
  std::uint64_t number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number, 16);
  if (text.size() != kDigits || read.ec != std::errc() || read.ptr != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

std::optional<std::uint64_t> RevisionFrom(std::string_view text) {
  std::uint64_t number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size() || number > kMaxRevision) {
    return std::nullopt;
  }
  return number;
}

// Calls visit(hexadecimal number, revision) for each "HEX:REVISION"; false where something else
// stands, or `visit` returns false.
template <class Visit>
bool ForEachPair(std::string_view text, const Visit& visit) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view piece = text.substr(0, end);
    const std::size_t colon = piece.find(':');
    if (colon == std::string_view::npos) return false;
    const auto left = HexFrom(piece.substr(0, colon));
    const auto right = RevisionFrom(piece.substr(colon + 1));
    if (!left || !right || !visit(*left, *right)) return false;
    if (end == text.size()) return true;
    text.remove_prefix(end + 1);
    if (text.empty()) return false;
  }
  return true;
}

void AppendPair(std::string& text, std::uint64_t hex, std::uint64_t revision) {
  if (!text.empty()) text += ' ';
  fmt::format_to(std::back_inserter(text), "{:016x}:{}", hex, revision);
}

}  // namespace

std::string TextOfReplica(ReplicaID replica) { return fmt::format("{:016x}", replica); }

std::optional<ReplicaID> ReplicaFrom(std::string_view text) {
  const auto number = HexFrom(text);
  return number == 0 ? std::nullopt : number;
}

ReplicaID NewReplicaID() {
  std::random_device device;
  ReplicaID replica = 0;
  while (replica == 0) replica = std::uint64_t{device()} << 32 | device();
  return replica;
}

// --- Versions -----------------------------------------------------------------------------------

std::optional<SyncVersion> SyncVersion::Parse(std::string_view text) {
  SyncVersion version;
  const bool isGood = ForEachPair(text, [&](ReplicaID replica, std::uint64_t revision) {
    if (replica == 0 || revision == 0) return false;
    if (!version.entries_.empty() && version.entries_.back().first >= replica) return false;
    version.entries_.emplace_back(replica, revision);
    return true;
  });
  return isGood ? std::optional(std::move(version)) : std::nullopt;
}

std::string SyncVersion::str() const {
  std::string text;
  for (const auto& [replica, revision] : entries_) AppendPair(text, replica, revision);
  return text;
}

std::uint64_t SyncVersion::of(ReplicaID replica) const {
  const auto at = std::lower_bound(entries_.begin(), entries_.end(), Entry(replica, 0));
  return at != entries_.end() && at->first == replica ? at->second : 0;
}

void SyncVersion::add(ReplicaID replica, std::uint64_t revision) {
  if (revision == 0) return;
  const auto at = std::lower_bound(entries_.begin(), entries_.end(), Entry(replica, 0));
  if (at != entries_.end() && at->first == replica) {
    at->second = std::max(at->second, revision);
  } else {
    entries_.insert(at, {replica, revision});
  }
}

void SyncVersion::cutBack(ReplicaID replica, std::uint64_t revision) {
  const auto at = std::lower_bound(entries_.begin(), entries_.end(), Entry(replica, 0));
  if (at == entries_.end() || at->first != replica) return;
  at->second = std::min(at->second, revision);
  if (at->second == 0) entries_.erase(at);
}

bool SyncVersion::rename(ReplicaID replica, std::uint64_t first, ReplicaID name) {
  const std::uint64_t revision = of(replica);
  if (revision < first) return false;
  cutBack(replica, first - 1);
  add(name, revision);
  return true;
}

void SyncVersion::join(const SyncVersion& other) {
  for (const auto& [replica, revision] : other.entries_) add(replica, revision);
}

bool SyncVersion::isWithin(const SyncVersion& other) const {
  return std::all_of(entries_.begin(), entries_.end(),
                     [&](const Entry& entry) { return entry.second <= other.of(entry.first); });
}

SyncVersion::Order SyncVersion::compare(const SyncVersion& other) const {
  const bool isWithinOther = isWithin(other), isOtherWithin = other.isWithin(*this);
  if (isWithinOther) return isOtherWithin ? Order::kEqual : Order::kBefore;
  return isOtherWithin ? Order::kAfter : Order::kConcurrent;
}

bool SyncVersion::sharesReplicaWith(const SyncVersion& other) const {
  return std::any_of(entries_.begin(), entries_.end(),
                     [&](const Entry& entry) { return other.of(entry.first) != 0; });
}

std::pair<std::uint64_t, ReplicaID> SyncVersion::stamp() const {
  std::pair<std::uint64_t, ReplicaID> greatest{};
  for (const auto& [replica, revision] : entries_) {
    greatest = std::max(greatest, {revision, replica});
  }
  return greatest;
}

// --- Ends ---------------------------------------------------------------------------------------

std::optional<SyncEnds> EndsFrom(std::string_view text) {
  SyncEnds ends;
  const bool isGood = ForEachPair(text, [&](ReplicaID replica, std::uint64_t first) {
    return replica != 0 && first != 0 && ends.emplace(replica, first).second;
  });
  return isGood ? std::optional(std::move(ends)) : std::nullopt;
}

std::string TextOfEnds(const SyncEnds& ends) {
  std::string text;
  for (const auto& [replica, first] : ends) AppendPair(text, replica, first);
  return text;
}

bool AddEnd(SyncEnds& ends, ReplicaID replica, std::uint64_t first) {
  const auto [known, isNew] = ends.emplace(replica, first);
  if (!isNew && known->second <= first) return false;
  known->second = first;
  return true;
}

// --- Marks --------------------------------------------------------------------------------------

std::optional<SyncMarks> SyncMarks::Parse(std::string_view text) {
  SyncMarks marks;
  const bool isGood = ForEachPair(text, [&](std::uint64_t token, std::uint64_t revision) {
    if (marks.marks_.size() == kMax || token == 0) return false;
    if (!marks.empty() && marks.newest().revision >= revision) return false;
    marks.marks_.push_back({token, revision});
    return true;
  });
  return isGood ? std::optional(std::move(marks)) : std::nullopt;
}

std::string SyncMarks::str() const {
  std::string text;
  for (const Mark& mark : marks_) AppendPair(text, mark.token, mark.revision);
  return text;
}

bool SyncMarks::contains(const Mark& mark) const {
  return std::find(marks_.begin(), marks_.end(), mark) != marks_.end();
}

void SyncMarks::add(const Mark& mark) {
  if (marks_.size() == kMax) marks_.erase(marks_.begin());
  marks_.push_back(mark);
}

SyncMarks::Relation SyncMarks::compare(const SyncMarks& other) const {
  if (empty() || other.empty()) {
    if (empty() && other.empty()) return Relation::kSame;
    return empty() ? Relation::kEarlier : Relation::kLater;
  }
  if (newest() == other.newest()) return Relation::kSame;
  if (other.contains(newest())) return Relation::kEarlier;
  if (contains(other.newest())) return Relation::kLater;
  if (other.mayHaveDropped(newest().revision)) return Relation::kEarlier;
  if (mayHaveDropped(other.newest().revision)) return Relation::kLater;
  return Relation::kApart;
}

std::uint64_t SyncMarks::lastCommon(const SyncMarks& other) const {
  for (auto at = marks_.rbegin(); at != marks_.rend(); ++at) {
    if (other.contains(*at)) return at->revision;
  }
  return 0;
}

ReplicaID SyncMarks::nameFrom(std::uint64_t first, ReplicaID replica) const {
  for (const Mark& mark : marks_) {
    if (mark.revision >= first && mark.token != replica) return mark.token;
  }
  const ReplicaID made = std::rotl(replica, 32) ^ first;
  return made == 0 || made == replica ? ~replica : made;
}

void SyncMarks::join(const SyncMarks& other) {
  if (other.compare(*this) == Relation::kLater) *this = other;
}

SyncMarks SyncMarks::splitFrom(std::uint64_t first) {
  SyncMarks later;
  const auto at = std::find_if(marks_.begin(), marks_.end(),
                               [&](const Mark& mark) { return mark.revision >= first; });
  later.marks_.assign(at, marks_.end());
  marks_.erase(at, marks_.end());
  return later;
}

namespace {

constexpr std::size_t kMaxRounds = 64;

// A name leads to one that is new, unless somebody has made the marks up.
[[noreturn]] void ThrowCircle() {
  TarnException error;
  error << "This is no export of a bundle that can be imported: its marks lead in a circle.";
  error.setErrorID(ErrorID::BadExportFile);
  throw error;
}

// One end; whether anything has changed.
bool ApplyEnd(ReplicaID replica, std::uint64_t first, bool isNew, SyncEnds& ends,
              std::map<ReplicaID, SyncMarks>& marks, const SyncRename& rename) {
  SyncMarks before = marks[replica];
  const SyncMarks later = before.splitFrom(first);
  if (later.empty() && !isNew) return false;
  const ReplicaID name = later.nameFrom(first, replica);
  // Two lives that part further on have the same first mark here, and one of them has the name.
  if (const auto there = marks.find(name); there != marks.end()) {
    if (later.compare(there->second) == SyncMarks::Relation::kApart) {
      return AddEnd(ends, name, later.lastCommon(there->second) + 1);
    }
  }
  marks[replica] = before;
  if (rename(replica, first, name) || !later.empty()) marks[name].join(later);
  return true;
}

}  // namespace

// What has got a name may have to get another one: until nothing changes any more.
void ApplyEnds(SyncEnds& ends, SyncEnds applied, std::map<ReplicaID, SyncMarks>& marks,
               const SyncRename& rename) {
  std::size_t rounds = 0;
  for (bool isDone = false; !isDone;) {
    if (++rounds > kMaxRounds + 2 * ends.size()) ThrowCircle();
    isDone = true;
    for (const auto& [replica, first] : SyncEnds(ends)) {
      if (!marks.contains(replica)) continue;
      std::uint64_t& done = applied[replica];
      if (ApplyEnd(replica, first, done != first, ends, marks, rename)) isDone = false;
      done = first;
    }
  }
}

}  // namespace tarns
