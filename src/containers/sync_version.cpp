#include "containers/sync_version.h"

#include <fmt/format.h>

#include <algorithm>
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

// --- Marks --------------------------------------------------------------------------------------

std::optional<SyncMarks> SyncMarks::Parse(std::string_view text) {
  SyncMarks marks;
  const bool isGood = ForEachPair(text, [&](std::uint64_t token, std::uint64_t revision) {
    if (marks.marks_.size() == kMax) return false;
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

void SyncMarks::cutBack(std::uint64_t revision) {
  std::erase_if(marks_, [&](const Mark& mark) { return mark.revision > revision; });
}

}  // namespace tarns
