// Copying branches piece by piece; see TarnCloner.h for what belongs to a copy.
#pragma once

#include <goods/object_ref.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnFieldDescriptor.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tarns {

// Makes the copies of one or several branches: begin() for each top, copyMore() until it returns 0,
// then setReferences(). All copies are new nodes, which nothing has stored; when the caller stores
// those that were made so far, further ones are only noted, until attach() puts them below these:
//
//   while (copy.copyMore(n) > 0) { in a transaction: copy.attach(); then: copy.settle(); }
//
// Threads: one. Each call may be repeated after it has thrown only where that is said.
class BranchCopy {
 public:
  // Passes over that node, where it meets it, with all below.
  void exclude(const TarnRef& node) { excluded_ = node; }

  // Notes what became of a node only where it cannot be found again by its place in the branch:
  // each copy that is noted has to stay in memory until it is stored. For originals that are
  // stored.
  void noteFew() { notesAll_ = false; }
  // Makes no copies of nodes that only members lead to: for originals that are given up.
  void shareOwned() { copiesOwned_ = false; }

  enum class Below { kCopied, kLeftOut };
  // The copy of one node, whose children copyMore() goes on with.
  TarnRef begin(const TarnRef& original, Below children);
  // Makes `copy` what references to `original` lead to.
  void relate(const TarnRef& original, const TarnRef& copy);
  // The references that the members of a node hold, in the order of its class.
  using References = std::vector<goods::object_ref>;
  static References ReferencesOf(const TarnRef& node);
  // Takes the references of `node`, which was given members of `original`, for a copy's; but not
  // those that it had `before` and the original has not. What is new and of neither was made by the
  // node's own clone() or copyFrom(): it is the copy already.
  void noteReferences(const TarnRef& node, const TarnRef& original, const References& before = {});

  // Makes up to `limit` copies more (or a few above); returns how many, 0 at the end.
  std::size_t copyMore(std::size_t limit);

  // Puts copies below nodes that were stored before. To be called again when the transaction was
  // rolled back. Then settle() when it was committed, which forgets what is not needed any more.
  bool hasToAttach() const { return !attachments_.empty() || !memberTargets_.empty(); }
  void attach();
  void settle();

  // References and entries that lead to originals that have copies. When all is copied:
  // findExchanges() looks at up to `limit` of them from the `first` on, and only reads; exchange()
  // then makes them lead to the copies.
  struct Exchange {
    std::size_t reference;
    goods::object_ref copy;
  };
  std::size_t countReferences() const { return members_.size() + links_.size(); }
  std::vector<Exchange> findExchanges(std::size_t first, std::size_t limit);
  void exchange(const std::vector<Exchange>& exchanges);
  // All at once.
  void setReferences();

  // What became of a node, or null. Once all is copied.
  TarnRef copyOf(const TarnRef& original);

 private:
  // Children that become those of a copy. `met`: of which some may come twice, since they move from
  // the one node to the other meanwhile.
  struct Task {
    TarnRef from, copy;
    std::shared_ptr<std::unordered_set<std::uint64_t>> met;
  };
  struct Copied {
    std::uint64_t original;  // see WalkKeyOf()
    goods::object_ref copy;
  };
  // A member, or an entry, that may have to lead elsewhere.
  struct Member {
    goods::object_ref node;
    const goods::field_descriptor* field;
    unsigned item;
    std::uint64_t original;
  };
  struct Link {
    goods::object_ref index, entry;
    std::uint64_t original;
  };
  // A node without parent that a member refers to.
  struct Owned {
    TarnRef original;
    Member by;
  };
  struct Level {
    TarnRef copy;
    xcptref<TarnObjects> index;  // null while there is none, or the node is stored
    std::string lastName;        // of the child before, where that counts
  };
  struct Attachment {
    TarnRef parent, child;
    std::string name;
    std::uint64_t original;  // of an entry
    bool isLink;
  };

  void note(const TarnRef& original, const TarnRef& copy);
  TarnRef copyNode(const TarnRef& original, const TarnClassDescriptor& cls, const TarnData* value);
  void noteReference(const Member& member, const TarnRef& target);
  bool startTask();
  void addTask(const TarnRef& original, const TarnClassDescriptor& cls, const TarnRef& copy);
  std::size_t copyOwned();
  std::size_t copyStep(const TarnBranchWalk::Step& step);
  void addBelow(Level& level, const std::string& name, const TarnRef& child, bool isLink,
                std::uint64_t original);
  goods::object_ref find(std::uint64_t original);
  const goods::object_ref* findNoted(std::uint64_t original);
  goods::object_ref findByPlace(std::uint64_t original);
  void sortCopies();
  bool isToExchange(const Member& member, const goods::object_ref& copy) const;

  TarnRef excluded_;
  bool notesAll_ = true, copiesOwned_ = true;
  std::vector<Task> tasks_;
  std::vector<Owned> owned_;
  std::unordered_set<std::uint64_t> metOwned_;
  std::optional<TarnBranchWalk> walk_;  // the task that is being done; its levels
  std::shared_ptr<std::unordered_set<std::uint64_t>> met_;
  std::vector<Level> levels_;

  std::vector<Copied> copies_;  // the first sorted_ are in order
  std::size_t sorted_ = 0;
  std::unordered_map<std::uint64_t, goods::object_ref> found_;  // by place; null: in no branch
  std::vector<Member> members_;
  std::vector<Link> links_;

  std::vector<Attachment> attachments_;
  std::vector<std::pair<Member, TarnRef>> memberTargets_;
  std::size_t linksBefore_ = 0;  // those that attach() made are behind
  std::size_t settledCopies_ = 0, settledMembers_ = 0, settledLinks_ = 0;
  std::size_t settledLevels_ = 0, settledTasks_ = 0;
};

}  // namespace tarns
