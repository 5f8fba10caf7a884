#include "core/NodeWriter.h"

#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <utility>

#include "core/text_words.h"

namespace tarns {

namespace {

// Lets the writer be found from the PInOut while it works, and keeps what is written together.
class Writing {
 public:
  Writing(PInOut& out, PInOut::Nesting* writer)
      : out_(out), before_(out.getNesting()), level_(out.getLevel()) {
    out_.setNesting(writer);
  }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;
  ~Writing() {
    out_.setNesting(before_);
    out_.setLevel(level_);
  }

 private:
  PInOut& out_;
  PInOut::Nesting* before_;
  std::size_t level_;
};

class Hold {
 public:
  explicit Hold(PInOut& out) : out_(out) { out_.hold(); }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;
  ~Hold() { out_.release(); }  // a failure is kept, see PInOut::hasFailed()

 private:
  PInOut& out_;
};

std::size_t SizeOf(const TarnData& value) { return value.isString() ? value.getText().size() : 0; }

bool IsPlainNode(const TarnBranchWalk::Step& step) { return step.cls == &TarnObject::self_class; }

bool IsPlainValue(const TarnBranchWalk::Step& step) {
  return step.hasValue && &TarnValueClassOf(step.value.getType()) == step.cls;
}

// Whether the walk has told all that the node writes; an empty text may be null as well.
bool IsKnown(const TarnBranchWalk::Step& step) {
  return IsPlainNode(step) ||
         (IsPlainValue(step) && (!step.value.isString() || !step.value.getText().empty()));
}

}  // namespace

void NodeWriter::verify(bool isWritten) const {
  if (isWritten) return;
  throw TarnException("Error while writing to temporary file; is the disk full?",
                      ErrorID::TempFileFailure);
}

void NodeWriter::defer(std::string_view name, const TarnRef& node) {
  deferred_.push_back({out_.pending().size(), out_.getLevel(), std::string(name), node});
}

void NodeWriter::write(std::string_view name, const TarnRef& node) {
  if (node.is_null()) ThrowBadRef("NULL TarnRef read dereference");
  const Writing here(out_, this);
  places_.emplace(node, form_ == Form::kMinLocking);
  arrive(node, name, out_.getLevel(), true, 0);
  begin(name, node, out_.getLevel());
  while (!blocks_.empty()) step();
  verify(!out_.hasFailed());
}

// Each step writes one node's lines, or ends a block.
void NodeWriter::step() {
  Block& block = *blocks_.back();
  if (block.next < block.deferred.size()) {
    writeDeferred(block);
  } else {
    if (!block.lines.empty()) {
      out_.pending() += block.lines;
      block.lines = {};
      const Hold handOn(out_);
    }
    writeNext(block);
  }
  verify(!out_.hasFailed());
}

void NodeWriter::begin(std::string_view name, const TarnRef& node, std::size_t level,
                       std::string step, NodePlaces::Check check) {
  auto block = std::make_unique<Block>();
  block->top = node;
  block->level = level;
  block->step = std::move(step);
  block->check = check;
  writeOwnLines(*block, name, node, level);
  const unsigned long numChildren = node->getNumAbstractChildren();
  block->hasEmptyIndex =
      form_ == Form::kWhole && numChildren == 0 && !node->getChildren().is_null();
  if (isShared(node, numChildren)) block->pieces = piecesOf(node, level);
  blocks_.push_back(std::move(block));
}

void NodeWriter::writeOwnLines(Block& block, std::string_view name, const TarnRef& node,
                               std::size_t level) {
  const Hold together(out_);
  deferred_.clear();
  const auto body = *node;
  out_.setLevel(level);
  verify(out_.write(body->getType(), name));
  out_.setLevel(level + 1);
  if (form_ == Form::kMinLocking && !HasMemberCalledName(*body)) {
    verify(out_.write(TextWord::kName, name));
  }
  verify(body->writeConcreteMembers(out_));
  if (deferred_.empty()) return;
  // What stands behind the first block among the lines waits for it.
  std::string& pending = out_.pending();
  const std::size_t first = deferred_.front().offset;
  block.lines = pending.substr(first);
  pending.resize(first);
  for (Deferred& deferred : deferred_) deferred.offset -= first;
  block.deferred = std::exchange(deferred_, {});
  block.next = 0;
  block.holder = node;
}

void NodeWriter::writeDeferred(Block& block) {
  const Deferred deferred = std::move(block.deferred[block.next]);
  const std::size_t from = block.next == 0 ? 0 : block.deferred[block.next - 1].offset;
  out_.pending().append(block.lines, from, deferred.offset - from);
  ++block.next;
  if (block.next == block.deferred.size()) {
    block.lines.erase(0, deferred.offset);
    block.deferred.clear();
    block.next = 0;
  }
  if (visit_) visit_(deferred.node, false);
  std::string step = NodePlaces::MemberStep(deferred.name);
  const NodePlaces::Check check = NodePlaces::CheckBehind(CheckOf(block), step);
  const Arrival arrival = arrive(deferred.node, deferred.name, deferred.level, false, check);
  if (arrival == Arrival::kIsWritten) return;
  if (arrival == Arrival::kFirst) places_->noteAway(deferred.node, block.holder, step);
  begin(deferred.name, deferred.node, deferred.level, std::move(step), check);
  if (arrival == Arrival::kAgain) places_->noteAgain(deferred.node, placeNow(), check);
}

// What to do at a node that the writer has come to. kIsWritten: a block has been written that only
// says where it stands.
NodeWriter::Arrival NodeWriter::arrive(const TarnRef& node, std::string_view name,
                                       std::size_t level, bool isHome, NodePlaces::Check check) {
  const bool isFirst = places_->note(node);
  if (!isFirst && writeReference(name, node, level, isHome)) return Arrival::kIsWritten;
  if (form_ == Form::kMinLocking) places_->notePlace(node, check);
  return isFirst ? Arrival::kFirst : Arrival::kAgain;
}

// Of the node that is being written.
std::string NodeWriter::placeNow() const {
  std::string place;
  const auto add = [&place](const std::string& step) {
    if (!place.empty()) place += '~';
    place += step;
  };
  for (const auto& block : blocks_) {
    if (!block->step.empty()) add(block->step);
    for (std::size_t i = 0; i < block->depth; ++i) {
      add(NodePlaces::ChildStep(block->way[i].name, block->way[i].number));
    }
  }
  return place;
}

// The next node of the walk, or the end of the block.
void NodeWriter::writeNext(Block& block) {
  if (!block.walk) {
    if (block.pieces != nullptr) return writeNextPiece(block);
    block.walk.emplace(block.top);
  }
  if (const TarnBranchWalk::Step* const step = block.walk->next()) return writeChild(block, *step);
  if (block.pieces != nullptr) {
    block.walk.reset();
    return;
  }
  moveTo(block, 0);
  blocks_.pop_back();
}

void NodeWriter::writeChild(Block& block, const TarnBranchWalk::Step& step) {
  moveTo(block, step.depth);
  noteStep(block, step);
  const std::size_t level = block.level + 2 * step.depth;
  const bool isHome = step.lister.is_null();
  if (visit_) visit_(step.node, isHome);
  const Block::Step& here = block.way[step.depth - 1];
  const Arrival arrival = arrive(step.node, step.name, level, isHome, here.check);
  if (arrival == Arrival::kIsWritten) {
    block.walk->skipChildren();
    block.hasEmptyIndex = false;
    return;
  }
  if (arrival == Arrival::kAgain) {
    places_->noteAgain(step.node, placeNow(), here.check);
  } else if (!isHome) {
    places_->noteAway(step.node, step.lister, NodePlaces::ChildStep(here.name, here.number));
  }
  block.hasEmptyIndex = form_ == Form::kWhole && step.hasIndex && step.numChildren == 0;
  writeLines(block, step, level);
  // Behind other nodes' own lines there may be blocks that come first.
  if (arrival != Arrival::kFirst || !IsKnown(step)) return;
  if (!isShared(step.node, step.numChildren)) return;
  block.walk->skipChildren();
  shareChildren(step.node, level);
}

// Of the library's own plain nodes and values the walk has told all there is.
void NodeWriter::writeLines(Block& block, const TarnBranchWalk::Step& step, std::size_t level) {
  if (!IsKnown(step)) return writeOwnLines(block, step.name, step.node, level);
  out_.setLevel(level);
  bool isWritten = out_.write(step.cls->name(), std::string_view(step.name));
  out_.setLevel(level + 1);
  if (form_ == Form::kMinLocking) {
    isWritten = isWritten && out_.write(TextWord::kName, std::string_view(step.name));
  }
  verify(isWritten && (IsPlainNode(step) || WriteValue(out_, TextWord::kValue, step.value)));
}

// --- In pieces ----------------------------------------------------------------------------------

bool NodeWriter::isShared(const TarnRef& parent, unsigned long numChildren) const {
  return form_ == Form::kWhole && !visit_ && ListPieces::IsFor(parent, numChildren);
}

// One list at a time has threads.
std::unique_ptr<ListPieces> NodeWriter::piecesOf(const TarnRef& parent, std::size_t level) {
  for (const auto& block : blocks_) {
    if (block->pieces != nullptr) block->pieces->pause();
  }
  return std::make_unique<ListPieces>(parent, [parent, level](ListPieces::Piece& piece) {
    PInOut out;
    out.writeTo(piece.text);
    NodeWriter(out, Form::kWhole).writePiece(parent, level, piece);
  });
}

// The children of a node that has been written, as a block of their own.
void NodeWriter::shareChildren(const TarnRef& parent, std::size_t level) {
  auto block = std::make_unique<Block>();
  block->top = parent;
  block->level = level;
  block->pieces = piecesOf(parent, level);
  blocks_.push_back(std::move(block));
}

void NodeWriter::writeNextPiece(Block& block) {
  const std::unique_ptr<ListPieces::Piece> piece = block.pieces->next();
  if (piece == nullptr) {
    moveTo(block, 0);
    blocks_.pop_back();
    return;
  }
  const bool isNew = piece->nodes && places_->noteAll(*piece->nodes);
  if (!isNew) {
    if (piece->nodes) block.pieces->wasUseless();
    block.walk.emplace(block.top, piece->range);
    return;
  }
  if (piece->text.empty()) return;
  moveTo(block, 1);
  block.way.assign(1, {});
  out_.pending() += piece->text;
  const Hold handOn(out_);
}

// Leaves the piece to others at the first node that needs more than its own lines, and the first
// child that is too much with what comes behind it.
void NodeWriter::writePiece(const TarnRef& parent, std::size_t level, ListPieces::Piece& piece) {
  places_.emplace(parent, false);
  Block block;
  block.level = level;
  block.depth = 1;
  std::string name;                     // of the child of the list, or of several
  std::vector<goods::object_id> nodes;  // of those that are called so
  std::size_t end = 0;                  // of the text of those before
  TarnBranchWalk walk(parent, piece.range);
  while (true) {
    const TarnBranchWalk::Step* const step = walk.next();
    if (step == nullptr || (step->depth == 1 && step->name != name)) {
      moveTo(block, 1);
      end = piece.text.size() + out_.pending().size();
      for (const goods::object_id id : nodes) {
        if (!places_->noteStored(id)) return;
      }
      nodes.clear();
      if (step == nullptr) break;
      name = step->name;
    }
    const bool isPlain = IsPlainNode(*step) || IsPlainValue(*step);
    const goods::object_id id = step->node.id();
    if (!isPlain || !step->lister.is_null() || id == 0) return;
    if (step->numChildren >= ListPieces::kManyChildren ||
        piece.text.size() + SizeOf(step->value) > ListPieces::kLongestText) {
      piece.tooMuch = name;
      break;
    }
    nodes.push_back(id);  // a copy of the reference would make a handle
    moveTo(block, step->depth);
    block.hasEmptyIndex = step->hasIndex && step->numChildren == 0;
    writeLines(block, *step, level + 2 * step->depth);
  }
  if (!out_.close() || (end == 0 && !piece.tooMuch.empty())) return;
  piece.text.resize(end);
  piece.nodes.emplace(std::move(*places_));
}

// --- References and lists -----------------------------------------------------------------------

// A block that only says where the node has been written. False when that cannot be told.
bool NodeWriter::writeReference(std::string_view name, const TarnRef& node, std::size_t level,
                                bool isHome) {
  std::string place;
  if (!places_->find(node, place)) return false;
  out_.setLevel(level);
  const bool isWritten = out_.write(node->getType(), name);
  out_.setLevel(level + 1);
  verify(isWritten && out_.write(isHome ? TextWord::kHome : TextWord::kSame, place));
  return true;
}

// Keeps the block's way to the node that is written next.
void NodeWriter::noteStep(Block& block, const TarnBranchWalk::Step& step) {
  if (block.way.size() < step.depth) block.way.resize(step.depth);
  Block::Step& here = block.way[step.depth - 1];
  // Those below are of another parent from now on.
  if (block.way.size() > step.depth) block.way[step.depth].number = 0;
  here.number = here.number != 0 && here.name == step.name ? here.number + 1 : 1;
  here.name = step.name;
  if (form_ != Form::kMinLocking) return;
  const NodePlaces::Check before = step.depth == 1 ? block.check : block.way[step.depth - 2].check;
  here.check = NodePlaces::CheckBehind(before, NodePlaces::ChildStep(here.name, here.number));
}

// Ends and begins lists of children so that a node of `depth` can follow.
void NodeWriter::moveTo(Block& block, std::size_t depth) {
  if (depth == block.depth + 1) {
    out_.setLevel(block.level + 2 * block.depth + 1);
    verify(out_.write(TextWord::kChildren, TextWord::kOpen));
  } else {
    endIndex(block);
    for (std::size_t open = block.depth; open-- > depth;) {
      out_.setLevel(block.level + 2 * open + 1);
      verify(out_.write(TextWord::kClose));
    }
  }
  block.depth = depth;
}

// An index without entries is written as such.
void NodeWriter::endIndex(Block& block) {
  if (!std::exchange(block.hasEmptyIndex, false)) return;
  out_.setLevel(block.level + 2 * block.depth + 1);
  verify(out_.write(TextWord::kChildren, TextWord::kOpen) && out_.write(TextWord::kClose));
}

}  // namespace tarns
