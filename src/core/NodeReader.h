// Makes branches from text without recursion.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/util/PInOut.h>

#include <string>
#include <string_view>
#include <vector>

namespace tarns {

class TarnFieldDescriptor;

// One branch. A node's read() takes the lines of its block up to where something nested begins,
// which is only noted (see Pending); the reader goes through that and then calls read() again.
//
// New nodes are put below their parent before their own lines are read, so that references to
// places lead to them.
// Memory: what the nodes and their entries take, and a few dozen bytes for each level that is open.
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
  };
  // What leads to a node that stands elsewhere in the file: an entry, which may be to become its
  // place in the tree, or a member.
  struct Listing {
    TarnRef node;
    xcptref<TarnObjects> index;
    goods::ref<goods::set_member> entry;
    bool isHome;
  };
  struct Link {
    TarnRef holder;
    const TarnFieldDescriptor* field;
    std::string name;
  };

  static PInOut::Status ReadNested(Pending pending, PInOut& in);
  void readLinesOf(const TarnRef& node);
  void work();
  void readLines(std::size_t at);
  void beginPending();
  void beginChildren();
  void beginMember();
  void readChild(const Open& list);
  void readListed(const TarnRef& parent, const std::string& name);
  void takeHome();
  void keepLinks();
  void undoLinks();
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
  std::vector<Listing> listings_;
  std::vector<Link> links_;
  Pending pending_;
  std::uint64_t lineOfLastClose_ = 0;  // of the } that ended a list of children last
};

}  // namespace tarns
