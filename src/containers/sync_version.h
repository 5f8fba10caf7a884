// What synchronised bundles know of each other's revisions.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarns {

// A bundle among those that are synchronised: a random number other than 0.
using ReplicaID = std::uint64_t;

// As 16 hexadecimal digits; nothing for anything else and for 0.
std::string TextOfReplica(ReplicaID replica);
std::optional<ReplicaID> ReplicaFrom(std::string_view text);
ReplicaID NewReplicaID();

// The greatest revision in use: what files may name, so that counting on never overflows.
constexpr std::uint64_t kMaxRevision = std::uint64_t{1} << 62;

// A version vector: for each replica the last of its changes that is contained.
//
// Of an object: the changes that led to it. The greatest of them, by revision and then by replica,
// is the one that the object's content is of; every new change gets a revision above all that it
// builds on, so a version that contains another one has a stamp that is not less.
// As text: "REPLICA:REVISION" for each, with blanks between, in the order of replicas.
class SyncVersion {
 public:
  using Entry = std::pair<ReplicaID, std::uint64_t>;
  enum class Order { kEqual, kBefore, kAfter, kConcurrent };

  SyncVersion() = default;
  explicit SyncVersion(ReplicaID replica, std::uint64_t revision) { add(replica, revision); }
  static std::optional<SyncVersion> Parse(std::string_view text);
  std::string str() const;

  const std::vector<Entry>& entries() const { return entries_; }
  bool empty() const { return entries_.empty(); }
  std::uint64_t of(ReplicaID replica) const;            // 0 when there is none
  void add(ReplicaID replica, std::uint64_t revision);  // unless there is a later one
  // Takes what is later than `revision` away; with 0 all.
  void cutBack(ReplicaID replica, std::uint64_t revision);
  // What `replica` did from the revision `first` on, `name` did; whether it did anything.
  bool rename(ReplicaID replica, std::uint64_t first, ReplicaID name);
  void join(const SyncVersion& other);

  // Whether all of this is in `other`.
  bool isWithin(const SyncVersion& other) const;
  Order compare(const SyncVersion& other) const;
  bool sharesReplicaWith(const SyncVersion& other) const;
  // Of a version that is not empty.
  std::pair<std::uint64_t, ReplicaID> stamp() const;

 private:
  std::vector<Entry> entries_;  // in the order of replicas, no revision is 0
};

// Where replicas have ended: the first revision that does not count any more. One that is set back
// gives out revisions for the second time; what was done after the point that it was set back to is
// counted under other names, in each of its lives under another one (SyncMarks::nameFrom).
using SyncEnds = std::map<ReplicaID, std::uint64_t>;

// As text: like a version's.
std::optional<SyncEnds> EndsFrom(std::string_view text);
std::string TextOfEnds(const SyncEnds& ends);
// Whether that was not known yet. Of two ends the earlier one counts.
bool AddEnd(SyncEnds& ends, ReplicaID replica, std::uint64_t first);

// Points in the life of a replica: at each export that has something new it draws a random token
// for its revision. Of two lists of one replica one continues the other, unless the replica has
// been set back in between.
// As text: "TOKEN:REVISION" for each, with blanks between, in ascending order of revisions.
class SyncMarks {
 public:
  struct Mark {
    std::uint64_t token, revision;
    friend bool operator==(const Mark& left, const Mark& right) {
      return left.token == right.token && left.revision == right.revision;
    }
  };
  static constexpr std::size_t kMax = 64;  // the oldest ones go
  enum class Relation { kSame, kEarlier, kLater, kApart };

  static std::optional<SyncMarks> Parse(std::string_view text);
  std::string str() const;

  bool empty() const { return marks_.empty(); }
  const Mark& newest() const { return marks_.back(); }
  // What `replica`, whose marks these are, is called after its end, in this one of its lives: the
  // token of its first mark there. All who have the mark find the same name. Where there is none,
  // as in a copy that was made before the mark: a name that is made of the end.
  ReplicaID nameFrom(std::uint64_t first, ReplicaID replica) const;
  // Takes away, and returns, the marks from that revision on.
  SyncMarks splitFrom(std::uint64_t first);
  // Takes the other list where it goes on behind this one.
  void join(const SyncMarks& other);
  bool contains(const Mark& mark) const;
  void add(const Mark& mark);
  // How this list stands to another one of the same replica. What can no longer be told, since the
  // marks in question have gone, is taken for what the revisions say.
  Relation compare(const SyncMarks& other) const;
  // The revision of the last mark that both have; 0 when there is none.
  std::uint64_t lastCommon(const SyncMarks& other) const;

 private:
  bool mayHaveDropped(std::uint64_t revision) const {
    return marks_.size() == kMax && revision < marks_.front().revision;
  }
  std::vector<Mark> marks_;  // ascending
};

// Gives all that replicas did after their ends its names, on one side of an exchange: in `marks`,
// which are of the lives that this side knows, and through `rename`, which does so in all versions
// and says whether there was anything. Adds to `ends` where two lists of marks show another one.
// What is in `applied` has been done here before. Throws 15 for marks that no bundle has drawn.
using SyncRename = std::function<bool(ReplicaID replica, std::uint64_t first, ReplicaID name)>;
void ApplyEnds(SyncEnds& ends, SyncEnds applied, std::map<ReplicaID, SyncMarks>& marks,
               const SyncRename& rename);

}  // namespace tarns
