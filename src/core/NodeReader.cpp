#include "core/NodeReader.h"

#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFieldDescriptor.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <span>
#include <utility>

#include "core/NodePlaces.h"
#include "core/node_access.h"
#include "core/text_words.h"
#include "goods/new_objects.h"

namespace tarns {

namespace {

constexpr std::size_t kNoLevel = std::numeric_limits<std::size_t>::max();  // no line is as deep
// A part ends where only few nodes have to be put at nodes that are stored, or when it has as many
// nodes as several. Within the lines of a node it ends late: for each further line the node is read
// in a transaction of its own then.
constexpr std::size_t kLongestPart = 2, kLongestWithinLines = 8;
constexpr std::int64_t kPartBytes = std::int64_t{32} << 20;  // of few, but large nodes
constexpr std::size_t kHomesTogether = 1000;                 // in a transaction

// What a place one step below a stored node is called in NodeReader::coming_.
std::string KeyOf(const TarnRef& holder, char kind, std::string_view name) {
  return std::to_string(holder.id()) + kind + std::string(name);
}

// Calls work(item) for all of them, some at a time in a transaction.
template <class Work>
void InTransactions(PartStore& store, std::span<const PartStore::Home> all, const Work& work) {
  while (!all.empty()) {
    const auto some = all.first(std::min(all.size(), kHomesTogether));
    store.change([&] {
      for (const PartStore::Home& one : some) work(one);
    });
    all = all.subspan(some.size());
  }
}

}  // namespace

// Where the additions of the part that is being read lead to. All parts before have been stored.
class NodeReader::ComingNodes : public NodePlaces::Coming {
 public:
  explicit ComingNodes(NodeReader& reader) : reader_(reader) {
    auto& at = reader.numComing_;
    for (; at < reader.additions_.size(); ++at) {
      const PartStore::Addition& addition = reader.additions_[at];
      const bool isMember = addition.kind == PartStore::Addition::kMember;
      const TarnRef& from = isMember ? addition.reader : addition.holder;
      reader.coming_[KeyOf(from, isMember ? kMember : kChild, addition.name)].push_back(
          addition.node);
    }
  }
  TarnRef child(const TarnRef& holder, std::string_view name, unsigned long number) override {
    const std::vector<TarnRef>* const all = find(holder, kChild, name);
    return all != nullptr && number <= all->size() ? (*all)[number - 1] : TarnRef();
  }
  TarnRef member(const TarnRef& holder, std::string_view name) override {
    const std::vector<TarnRef>* const all = find(holder, kMember, name);
    return all != nullptr ? all->back() : TarnRef();
  }

 private:
  static constexpr char kChild = '~', kMember = '.';

  const std::vector<TarnRef>* find(const TarnRef& holder, char kind, std::string_view name) const {
    if (holder.id() == 0) return nullptr;
    const auto found = reader_.coming_.find(KeyOf(holder, kind, name));
    return found != reader_.coming_.end() ? &found->second : nullptr;
  }

  NodeReader& reader_;
};

NodeReader::NodeReader(PInOut& in, Unknown unknown)
    : in_(in), unknown_(unknown), before_(in.getNesting()), level_(in.getLevel()) {
  in_.setNesting(this);
}

NodeReader::~NodeReader() {
  if (store_ != nullptr) store_->finish();
  undoLinks(ways_);
  undoLinks(waysOnTheWay_);
  in_.setNesting(before_);
  in_.setLevel(level_);
}

void NodeReader::storeTo(PartStore& store, std::size_t nodes) {
  store_ = &store;
  partSize_ = std::max<std::size_t>(nodes, 1);
  madeBefore_ = goods::new_object_bytes::count();
}

// Errors of the text name the line already.
template <class Work>
auto NodeReader::withLineNumber(Work&& work) const {
  try {
    return work();
  } catch (const LocatedException&) {
    throw;
  } catch (const TarnException& error) {
    if (error.getErrorID() >= ErrorID::Deadlock) throw;  // not the text's fault
    throw LocatedException(in_.getLineNumber(), error);
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
  open_.push_back({node, level_ + 1, false, {}});
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

void NodeReader::close() {
  open_.pop_back();
  stored_ = std::min(stored_, open_.size());
}

// --- In parts -----------------------------------------------------------------------------------

// Before a node is made.
void NodeReader::endPartIfFull(std::size_t longest) {
  if (store_ == nullptr) return;
  const std::int64_t bytes = goods::new_object_bytes::count() - madeBefore_;
  const std::size_t parts = std::max(
      made_ / partSize_, static_cast<std::size_t>(std::max<std::int64_t>(bytes / kPartBytes, 0)));
  if (parts >= longest || (parts > 0 && isStored())) endPart();
  ++made_;
}

void NodeReader::endPart() {
  PartStore::Part part;
  if (!std::exchange(hasParts_, true)) part.top = top_;
  part.additions = std::exchange(additions_, {});
  coming_.clear();
  numComing_ = 0;
  waitForParts();
  waysOnTheWay_ = std::exchange(ways_, {});
  store_->store(std::move(part));
  for (; stored_ < open_.size(); ++stored_) open_[stored_].index = nullptr;
  made_ = 0;
  madeBefore_ = goods::new_object_bytes::count();
}

void NodeReader::waitForParts() {
  for (PartStore::Home& home : store_->wait()) homes_.push_back(std::move(home));
  for (Listing& listing : waysOnTheWay_.listings) {
    if (listing.isHome) homes_.push_back(std::move(listing.place));
  }
  waysOnTheWay_ = {};
}

// All that has been read until now.
void NodeReader::storeRest() {
  if (!additions_.empty()) endPart();
  waitForParts();
}

// Runs `work`, which changes the node that is on top of the stack, and what it returns.
template <class Work>
void NodeReader::write(const Work& work) {
  if (!isStored()) return work();
  storeRest();
  store_->change(work);
}

void NodeReader::rename(const TarnRef& node, std::string_view name) {
  if (additions_.empty() || additions_.back().node != node ||
      additions_.back().kind != PartStore::Addition::kChild || additions_.back().name == name) {
    return;
  }
  TarnObject::VerifyChildName(node, name);
  additions_.back().name = name;
  coming_.clear();
  numComing_ = 0;
}

// --- Ways to nodes that stand elsewhere ---------------------------------------------------------

// Only when everything stands in its place: until then a node may be where it was met first, and
// its place in the tree below that.
void NodeReader::takeHome() {
  if (hasParts_) {
    storeRest();
    InTransactions(*store_, homes_,
                   [](const PartStore::Home& home) { modify(home.node)->makeOrphan(); });
    InTransactions(*store_, homes_,
                   [](const PartStore::Home& home) { modify(home.index)->becomeHome(home.entry); });
    return;
  }
  for (const auto& [place, isHome] : ways_.listings) {
    if (isHome) modify(place.node)->makeOrphan();
  }
  for (const auto& [place, isHome] : ways_.listings) {
    if (isHome) modify(place.index)->becomeHome(place.entry);
  }
}

// The text was good to its end.
void NodeReader::keepLinks() { ways_ = {}; }

// After a failure: nodes that refer to each other in a circle would never be freed. In a part that
// has been stored nothing is left to undo.
void NodeReader::undoLinks(const Ways& ways) const {
  try {
    for (const auto& [place, isHome] : ways.listings) {
      if (hasParts_ && place.index.id() != 0) continue;
      modify(place.index)->removeEntry(place.entry);
    }
    for (const Link& link : ways.links) {
      if (hasParts_ && link.holder.id() != 0) continue;
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
  if (isStored() && (in_.isAtEnd() || in_.getLineLevel() < open_[at].level)) return close();
  write([&] { modify(open_[at].node)->read(in_); });
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
  close();
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
  write([&] { TarnNodeAccess::MakeIndex(*modify(pending.holder), pending.pageN); });
  in_.readLine();
  if (isStored()) {
    open_.push_back({pending.holder, pending.level + 1, true, {}});
    stored_ = open_.size();
  } else {
    open_.push_back({pending.holder, pending.level + 1, true, pending.holder->getChildren()});
  }
}

void NodeReader::beginMember() {
  const Pending pending = std::exchange(pending_, {});
  in_.setLevel(pending.level);
  const std::uint64_t line = in_.getLineNumber();
  in_.readLine();
  in_.setLevel(pending.level + 1);
  const std::string type = in_.getCommand();
  if (type.empty()) in_.fail("the node of the member \"" + pending.name + "\" is missing");
  in_.readLine();
  in_.setLevel(pending.level + 2);
  endPartIfFull(kLongestWithinLines);
  bool isHome = false;
  const bool isElsewhere = isReference();
  TarnRef node = isElsewhere ? readReference(isHome) : TarnObject::CreateOfType(type.c_str());
  if (node.is_null()) refuseClass(type);
  if (isStored()) {
    if (pending.field->isForNodes()) VerifyRefClass(node, *pending.field->getReferencedClass());
    additions_.push_back({PartStore::Addition::kMember, pending.holder, node, pending.name,
                          pending.field, line, open_.back().node});
  } else {
    pending.field->copyTo(node, &*modify(pending.holder), pending.name.c_str());
    if (isElsewhere) ways_.links.push_back({pending.holder, pending.field, pending.name});
  }
  if (node.is_null() || isElsewhere) {
    in_.skip(pending.level + 2);
  } else {
    open_.push_back({std::move(node), pending.level + 2, false, {}});
  }
}

// A line of a list of children: the header of one, or the end.
void NodeReader::readChild(const Open& list) {
  const std::size_t level = list.level;
  in_.setLevel(level - 1);
  if (in_.getLineLevel() == level - 1 && in_.isCmd(TextWord::kClose)) {
    lineOfLastClose_ = in_.getLineNumber();
    in_.readLine();
    close();
    return;
  }
  endPartIfFull(kLongestPart);
  in_.setLevel(level);
  const std::string type = in_.getCommand();
  if (type.empty()) in_.fail("the } that ends the children is missing");
  std::string name = in_.getValue();
  in_.readLine();
  in_.setLevel(level + 1);
  if (isReference()) {
    readListed(list, name);
    in_.skip(level + 1);
    return;
  }
  TarnRef child = TarnObject::CreateOfType(type.c_str());
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
  verifyName(list.node, name);
  if (isStored()) {
    additions_.push_back(
        {PartStore::Addition::kChild, list.node, child, name, nullptr, in_.getLineNumber(), {}});
  } else {
    modify(list.index)->insert(name, child);
  }
  open_.push_back({std::move(child), level + 1, false, {}});
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
void NodeReader::readListed(const Open& list, const std::string& name) {
  bool isHome = false;
  const TarnRef node = readReference(isHome);
  verifyName(list.node, name);
  if (isStored()) {
    using Addition = PartStore::Addition;
    additions_.push_back({isHome ? Addition::kHome : Addition::kListed,
                          list.node,
                          node,
                          name,
                          nullptr,
                          in_.getLineNumber(),
                          {}});
    return;
  }
  const auto entry = modify(list.index)->link(name, node);
  ways_.listings.push_back({{node, list.index, entry}, isHome});
}

// The error names the parent.
void NodeReader::verifyName(const TarnRef& parent, const std::string& name) {
  if (IsChildName(name)) return;
  if (isStored()) waitForParts();
  TarnObject::VerifyChildName(parent, name);
}

bool NodeReader::isReference() const {
  return in_.isCmd(TextWord::kSame) || in_.isCmd(TextWord::kHome);
}

// The node that stands at the place that the line names.
TarnRef NodeReader::readReference(bool& isHome) {
  isHome = in_.isCmd(TextWord::kHome);
  const std::string place = in_.getValue();
  TarnRef node;
  if (hasParts_) {
    waitForParts();
    ComingNodes coming(*this);
    node = NodePlaces::NodeAt(top_, place, &coming);
  } else {
    node = NodePlaces::NodeAt(top_, place);
  }
  if (node.is_null()) in_.fail("no node above this line stands at \"" + place + "\"");
  in_.readLine();
  return node;
}

}  // namespace tarns
