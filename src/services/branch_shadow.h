// What a branch was when it was looked at last, to find out what has become different.
#pragma once

#include <goods/dbs_storage.h>
#include <goods/object_ref.h>
#include <tarns/services/TarnBranchWatch.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace goods {
class cache_manager;
class reader;
}  // namespace goods

namespace tarns {

class TarnObjects;

// One commit, or several that came as one.
struct CommitNote {
  std::uint64_t version;
  std::vector<goods::object_id> changed;
};

// The entries of a branch with the identifiers of what they consist of, so that a commit's notice
// leads to them.
//
// The tree of entries begins at the root of the database; above the watched node there is only the
// way to it, so that the path means whatever stands there. Nothing recurses, however deep the
// branch is.
// Threads: one, attached to the session.
class BranchShadow {
 public:
  // `path`: names of the way to the watched node. Reads the branch. Throws 111 when it has more
  // than `mostNodes` nodes.
  BranchShadow(goods::cache_manager& session, std::vector<std::string> path, std::size_t mostNodes);
  ~BranchShadow();
  BranchShadow(const BranchShadow&) = delete;
  BranchShadow& operator=(const BranchShadow&) = delete;

  // Looks at what these commits have written, and adds what is different to `changes`.
  void apply(std::span<const CommitNote> commits, std::vector<TarnBranchChange>& changes);

 private:
  struct Entry;
  struct Picture;
  struct Update;
  using Entries = std::vector<std::unique_ptr<Entry>>;
  using Pictures = std::unordered_map<Entry*, Picture>;

  // --- Places
  // How far below the root, but not more than the length of the way.
  std::size_t levelOf(const Entry& entry) const;
  bool isOnWay(const Entry& entry) const { return levelOf(entry) < way_.size(); }
  void own(Entry& entry);
  void disown(Entry& entry);

  // --- Reading
  Pictures look(std::span<Entry* const> entries, bool (*withChildren)(const Entry&));
  Picture pictureOf(goods::reader& in, const Entry& entry, bool withChildren) const;
  void readChildren(goods::reader& in, const TarnObjects& index, const Entry& entry,
                    Picture& picture) const;
  void takeOver(Entry& entry, Picture& picture);
  void fill(std::vector<Entry*> fresh, Update& update);

  // --- Comparing
  std::vector<Entry*> findTouched(std::span<const CommitNote> commits, Update& update);
  void compare(Entry& entry, Picture& picture, Update& update);
  void compareChildren(Entry& entry, Picture& picture, Update& update);
  std::unique_ptr<Entry> findMoved(Entry& parent, goods::object_id member, goods::object_id node,
                                   const std::string& name, Update& update);
  void putMovedInPlace(Entry& parent, Update& update);
  void emptyFormerHomes(Update& update);
  std::unordered_set<const Entry*> findDead(const Update& update) const;
  std::unordered_set<const Entry*> forgetWhatIsGone(Update& update);
  void tell(const Update& update, std::uint64_t version,
            const std::unordered_set<const Entry*>& dead,
            std::vector<TarnBranchChange>& changes) const;

  goods::cache_manager& session_;
  const std::vector<std::string> way_;
  const std::size_t mostNodes_;
  std::size_t count_ = 0;
  std::unique_ptr<Entry> root_;
  std::unordered_multimap<goods::object_id, Entry*> owners_;
};

}  // namespace tarns
