// Makes branches from text without recursion.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/util/PInOut.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/PartStore.h"

namespace tarns {

class TarnFieldDescriptor;

// One branch. A node's read() takes the lines of its block up to where something nested begins,
// which is only noted (see Pending); the reader goes through that and then calls read() again.
//
// New nodes are put below their parent before their own lines are read, so that references to
// places lead to them.
//
// With storeTo() the branch is stored part by part. A part ends before a node is made, and with it
// all nodes that are open are stored: from there on nothing is written to them, and nothing read
// from them. What is to be put at them is kept in `additions_` and goes with the next part. Lines
// that are left of such a node are read in a transaction of their own, after all that came before
// has been stored; for plain nodes there are none. References to places are looked for in what is
// stored and then among the additions. The number of nodes that are open when a part ends is
// `stored_`: it falls as they are closed, and new nodes stand above them.
// Memory: what the nodes and their entries take, and a few dozen bytes for each level that is open;
// in parts what two parts take, and a handle for each node that is listed before its place.
// Errors: TarnException with the number of the line. Threads: one.
class NodeReader : public PInOut::Nesting {
 public:
  // What to do at a class, or a member, that the process does not know: pass it over, with a line
  // in the log, or throw 3, or 15.
  enum class Unknown { kPassOver, kRefuse };

  explicit NodeReader(PInOut& in, Unknown unknown = Unknown::kPassOver);
  NodeReader(const NodeReader&) = delete;
  NodeReader& operator=(const NodeReader&) = delete;
  ~NodeReader() override;

  // Before readAll(): hands parts of about `nodes` nodes (0 counts as 1) to `store`, which outlives
  // the reader. Shorter texts are not stored.
  void storeTo(PartStore& store, std::size_t nodes);

  // The node whose header is the current line, at level 0 of a whole text; null when its class is
  // not known. `name`, when not null, becomes what the header says.
  TarnRef readAll(XString* name);

  // The node whose header is the current line, at the level of the PInOut, which stands behind the
  // node's lines then; null, and nothing read, when its class is not known. What links nodes in it
  // to each other beside the tree is undone with the reader, so that nothing remains of a node that
  // was only looked at.
  TarnRef readBlock(XString& name);
  // The lines of such a node into `node`, which is new or has been cleared.
  void readInto(const TarnRef& node);

  // What TarnObjects::Read() and GOODSinOut::ReadMember() come to: read the children of a node, or
  // the node of a member, from the current line on. Within a reader's work that is put off: the
  // result is End, and the PInOut shows no more lines.
  static PInOut::Status ReadChildren(TarnObject& parent, unsigned char pageN, PInOut& in);
  static PInOut::Status ReadMember(TarnObject& holder, const TarnFieldDescriptor& field,
                                   const std::string& name, PInOut& in);

  // What TarnObject::readName() comes to for a node without parent: the parent of a node that is
  // being read may be stored already, and then gets it later. Throws for what is no name.
  void rename(const TarnRef& node, std::string_view name);

 private:
  // Something nested that read() has come to.
  struct Pending {
    enum Kind { kNothing, kChildren, kMember };
    Kind kind = kNothing;
    TarnRef holder;
    std::size_t level = 0;  // of the line
    unsigned char pageN = 0;
    const TarnFieldDescriptor* field = nullptr;
    std::string name;
  };
  // A block, or a list of children, that is open.
  struct Open {
    TarnRef node;       // whose lines, or whose children, are read
    std::size_t level;  // of those lines
    bool isList;
    xcptref<TarnObjects> index;  // of a list: where its nodes go; null once that is stored
  };
  // What leads to a node that stands elsewhere in the file: an entry, which may be to become its
  // place in the tree, or a member.
  struct Listing {
    PartStore::Home place;
    bool isHome;
  };
  struct Link {
    TarnRef holder;
    const TarnFieldDescriptor* field;
    std::string name;
  };
  // Of the nodes that are not stored yet.
  struct Ways {
    std::vector<Listing> listings;
    std::vector<Link> links;
  };
  class ComingNodes;

  static PInOut::Status ReadNested(Pending pending, PInOut& in);
  void readLinesOf(const TarnRef& node);
  void work();
  void readLines(std::size_t at);
  void beginPending();
  void beginChildren();
  void beginMember();
  void readChild(const Open& list);
  void verifyName(const TarnRef& parent, const std::string& name);
  void readListed(const Open& list, const std::string& name);
  bool isStored() const { return stored_ != 0 && stored_ == open_.size(); }
  void close();
  void endPartIfFull(std::size_t longest);
  void endPart();
  void waitForParts();
  void storeRest();
  template <class Work>
  void write(const Work& work);
  void takeHome();
  void keepLinks();
  void undoLinks(const Ways& ways) const;
  void warnWhereCut() const;
  // Nothing when what is unknown is passed over.
  void refuseMember(const TarnRef& node) const;
  void refuseClass(const std::string& type) const;
  bool isReference() const;
  TarnRef readReference(bool& isHome);
  template <class Work>
  auto withLineNumber(Work&& work) const;

  PInOut& in_;
  const Unknown unknown_;
  PInOut::Nesting* const before_;
  const std::size_t level_;
  TarnRef top_;
  std::vector<Open> open_;
  Ways ways_;
  Pending pending_;
  std::uint64_t lineOfLastClose_ = 0;  // of the } that ended a list of children last

  // In parts.
  PartStore* store_ = nullptr;
  std::size_t partSize_ = 0;     // nodes
  bool hasParts_ = false;        // one has been handed over
  std::size_t stored_ = 0;       // of open_, from the first on
  std::size_t made_ = 0;         // nodes of the part that is being read
  std::int64_t madeBefore_ = 0;  // see goods::new_object_bytes
  std::vector<PartStore::Addition> additions_;
  std::unordered_map<std::string, std::vector<TarnRef>> coming_;  // by place; see ComingNodes
  std::size_t numComing_ = 0;                                     // additions that are in it
  Ways waysOnTheWay_;                                             // of the part before
  std::vector<PartStore::Home> homes_;                            // of all parts before
};

}  // namespace tarns
