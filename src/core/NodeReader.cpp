#include "core/NodeReader.h"

#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFieldDescriptor.h>

#include <exception>
#include <limits>
#include <utility>

#include "core/NodePlaces.h"
#include "core/node_access.h"
#include "core/text_words.h"

namespace tarns {

namespace {

constexpr std::size_t kNoLevel = std::numeric_limits<std::size_t>::max();  // no line is as deep

}  // namespace

NodeReader::NodeReader(PInOut& in, Unknown unknown)
    : in_(in), unknown_(unknown), before_(in.getNesting()), level_(in.getLevel()) {
  in_.setNesting(this);
}

NodeReader::~NodeReader() {
  undoLinks();
  in_.setNesting(before_);
  in_.setLevel(level_);
}

// Errors of the text name the line already.
template <class Work>
auto NodeReader::withLineNumber(Work&& work) const {
  try {
    return work();
  } catch (const TarnException& error) {
    if (error.getErrorID() >= ErrorID::Deadlock) throw;  // not the text's fault
    TarnException located;
    located << "Line " << in_.getLineNumber() << ": " << error.getError();
    located.setErrorID(error.getErrorID());
    throw located;
  } catch (const XException& error) {
    throw TarnException(error.getError(), ErrorID::BadExportFile);
  }
}

TarnRef NodeReader::readAll(XString* name) {
  return withLineNumber([&]() -> TarnRef {
    if (in_.isAtEnd()) in_.fail("there is no node in the file");
    TarnRef node = TarnObject::CreateOfType(in_.getCommand());
    if (node.is_null()) return node;
    if (name != nullptr) *name = in_.getValue();
    readLinesOf(node);
    if (!in_.isAtEnd()) in_.fail("something follows the end of the first node");
    warnWhereCut();
    keepLinks();
    return node;
  });
}

TarnRef NodeReader::readBlock(XString& name) {
  return withLineNumber([&]() -> TarnRef {
    TarnRef node = TarnObject::CreateOfType(in_.getCommand());
    if (node.is_null()) return node;
    name = in_.getValue();
    readLinesOf(node);
    return node;
  });
}

void NodeReader::readInto(const TarnRef& node) {
  withLineNumber([&] { readLinesOf(node); });
  keepLinks();
}

// From the header on.
void NodeReader::readLinesOf(const TarnRef& node) {
  in_.readLine();
  top_ = node;
  open_.push_back({node, level_ + 1, false});
  work();
  in_.setLevel(level_);
}

PInOut::Status NodeReader::ReadChildren(TarnObject& parent, unsigned char pageN, PInOut& in) {
  return ReadNested({.kind = Pending::kChildren,
                     .holder = parent.getSelf(),
                     .level = in.getLevel(),
                     .pageN = pageN,
                     .name = {}},
                    in);
}

PInOut::Status NodeReader::ReadMember(TarnObject& holder, const TarnFieldDescriptor& field,
                                      const std::string& name, PInOut& in) {
  return ReadNested({.kind = Pending::kMember,
                     .holder = holder.getSelf(),
                     .level = in.getLevel(),
                     .field = &field,
                     .name = name},
                    in);
}

PInOut::Status NodeReader::ReadNested(Pending pending, PInOut& in) {
  if (auto* const reader = dynamic_cast<NodeReader*>(in.getNesting())) {
    reader->pending_ = std::move(pending);
    in.setLevel(kNoLevel);
    return PInOut::End;
  }
  NodeReader reader(in);
  reader.top_ = pending.holder;
  reader.pending_ = std::move(pending);
  reader.withLineNumber([&] { reader.work(); });
  reader.keepLinks();
  return PInOut::Continue;
}

void NodeReader::work() {
  beginPending();
  while (!open_.empty()) {
    const Open& open = open_.back();
    if (open.isList) {
      readChild(open);
    } else {
      readLines(open_.size() - 1);
    }
  }
  takeHome();
}

// Only when everything stands in its place: until then a node may be where it was met first, and
// its place in the tree below that.
void NodeReader::takeHome() {
  for (const Listing& listing : listings_) {
    if (listing.isHome) modify(listing.node)->makeOrphan();
  }
  for (const Listing& listing : listings_) {
    if (listing.isHome) modify(listing.index)->becomeHome(listing.entry);
  }
}

// The text was good to its end.
void NodeReader::keepLinks() {
  listings_.clear();
  links_.clear();
}

// After a failure: nodes that refer to each other in a circle would never be freed.
void NodeReader::undoLinks() {
  try {
    for (const Listing& listing : listings_) modify(listing.index)->removeEntry(listing.entry);
    for (const Link& link : links_) {
      TarnRef nothing;
      link.field->copyTo(nothing, &*modify(link.holder), link.name.c_str());
    }
  } catch (const std::exception& error) {
    Log log(Log::Level::Warning);
    log << "Nodes of an import that failed stay in memory: " << error.what();
  }
}

// Lets the node read up to what is nested or ends its block.
void NodeReader::readLines(std::size_t at) {
  in_.setLevel(open_[at].level);
  modify(open_[at].node)->read(in_);
  in_.setLevel(open_[at].level);
  if (pending_.kind != Pending::kNothing) {
    beginPending();
    return;
  }
  const std::uint64_t line = in_.getLineNumber();
  if (!in_.isAtEnd() && in_.getLineLevel() >= open_[at].level) refuseMember(open_[at].node);
  if (const std::uint64_t skipped = in_.skip(open_[at].level)) {
    Log log(Log::Level::Warning);
    log << "Line " << line << ": a \"" << open_[at].node->getType()
        << "\" does not know this member; " << skipped << " lines of the node are passed over.";
  }
  open_.pop_back();
}

void NodeReader::beginPending() {
  switch (pending_.kind) {
    case Pending::kNothing:
      break;
    case Pending::kChildren:
      beginChildren();
      break;
    case Pending::kMember:
      beginMember();
      break;
  }
}

void NodeReader::beginChildren() {
  const Pending pending = std::exchange(pending_, {});
  in_.setLevel(pending.level);
  if (in_.getValue() != TextWord::kOpen) in_.fail("Children are followed by {");
  TarnNodeAccess::MakeIndex(*modify(pending.holder), pending.pageN);
  in_.readLine();
  open_.push_back({pending.holder, pending.level + 1, true});
}

void NodeReader::beginMember() {
  const Pending pending = std::exchange(pending_, {});
  in_.setLevel(pending.level);
  in_.readLine();
  in_.setLevel(pending.level + 1);
  const std::string type = in_.getCommand();
  if (type.empty()) in_.fail("the node of the member \"" + pending.name + "\" is missing");
  in_.readLine();
  in_.setLevel(pending.level + 2);
  bool isHome = false;
  const bool isElsewhere = isReference();
  TarnRef node = isElsewhere ? readReference(isHome) : TarnObject::CreateOfType(type.c_str());
  if (node.is_null()) refuseClass(type);
  pending.field->copyTo(node, &*modify(pending.holder), pending.name.c_str());
  if (isElsewhere) links_.push_back({pending.holder, pending.field, pending.name});
  if (node.is_null() || isElsewhere) {
    in_.skip(pending.level + 2);
  } else {
    open_.push_back({std::move(node), pending.level + 2, false});
  }
}

// A line of a list of children: the header of one, or the end.
void NodeReader::readChild(const Open& list) {
  const TarnRef parent = list.node;
  const std::size_t level = list.level;
  in_.setLevel(level - 1);
  if (in_.getLineLevel() == level - 1 && in_.isCmd(TextWord::kClose)) {
    lineOfLastClose_ = in_.getLineNumber();
    in_.readLine();
    open_.pop_back();
    return;
  }
  in_.setLevel(level);
  const std::string type = in_.getCommand();
  if (type.empty()) in_.fail("the } that ends the children is missing");
  std::string name = in_.getValue();
  in_.readLine();
  in_.setLevel(level + 1);
  if (isReference()) {
    readListed(parent, name);
    in_.skip(level + 1);
    return;
  }
  const TarnRef child = TarnObject::CreateOfType(type.c_str());
  if (child.is_null()) {
    refuseClass(type);
    Log log(Log::Level::Warning);
    log << "Line " << in_.getLineNumber() << ": there is no class \"" << type << "\"; the node \""
        << name << "\" is left out.";
    in_.skip(level + 1);
    return;
  }
  // A line "Name" has the last word.
  if (in_.isCmd(TextWord::kName) && !HasMemberCalledName(*child.read())) name = in_.getValue();
  TarnObject::VerifyChildName(parent, name);
  modify(parent->getChildren())->insert(name, child);
  open_.push_back({child, level + 1, false});
}

void NodeReader::refuseMember(const TarnRef& node) const {
  if (unknown_ == Unknown::kPassOver) return;
  in_.fail("a \"" + std::string(node->getType()) + "\" has no member \"" + in_.getCommand() + "\"");
}

void NodeReader::refuseClass(const std::string& type) const {
  if (unknown_ == Unknown::kRefuse) TarnException::ThrowMissingDescriptor(type.c_str());
}

// A list of children that does not end is refused; a node without children may end anywhere, and
// editors leave the last line without a line feed, too.
void NodeReader::warnWhereCut() const {
  if (!in_.isLastLineOpen() || in_.getLineNumber() == lineOfLastClose_) return;
  Log log(Log::Level::Warning);
  log << "Line " << in_.getLineNumber()
      << ": the last line does not end; the file may have been cut within it.";
}

// A child that stands elsewhere in the file.
void NodeReader::readListed(const TarnRef& parent, const std::string& name) {
  bool isHome = false;
  const TarnRef node = readReference(isHome);
  TarnObject::VerifyChildName(parent, name);
  const xcptref<TarnObjects> index = parent->getChildren();
  const auto entry = modify(index)->link(name, node);
  listings_.push_back({node, index, entry, isHome});
}

bool NodeReader::isReference() const {
  return in_.isCmd(TextWord::kSame) || in_.isCmd(TextWord::kHome);
}

// The node that stands at the place that the line names.
TarnRef NodeReader::readReference(bool& isHome) {
  isHome = in_.isCmd(TextWord::kHome);
  const std::string place = in_.getValue();
  TarnRef node = NodePlaces::NodeAt(top_, place);
  if (node.is_null()) in_.fail("no node above this line stands at \"" + place + "\"");
  in_.readLine();
  return node;
}

}  // namespace tarns
