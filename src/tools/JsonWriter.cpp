#include "tools/JsonWriter.h"

#include <tarns/core/TarnException.h>

#include <algorithm>

#include "tools/TarnJsonNodes.h"
#include "tools/json_names.h"
#include "tools/json_values.h"
#include "tools/signals.h"

namespace tarns {

namespace {

// Deeper levels are not indented further: a tree may be a million levels deep.
constexpr std::size_t kDeepestIndentation = 32;

}  // namespace

void JsonWriter::write(const TarnRef& node) {
  shared_.emplace(node);
  begin(node);
  while (!levels_.empty()) {
    Level& level = levels_.back();
    auto child = level.children.next();
    if (!child) {
      endLevel();
      continue;
    }
    level.ordinal = !level.isEmpty && child->name == level.name ? level.ordinal + 1 : 1;
    level.name = std::move(child->name);
    if (level.children.isArray()) {
      if (!level.isEmpty) out_ << ',';
      breakLine();
      level.isEmpty = false;
    } else {
      writeMember(KeyOfName(level.name, level.ordinal), "");
    }
    verifyNotShared(child->child);
    begin(child->child);
    if (wrote_) wrote_(count_);
  }
  out_ << '\n';
}

void JsonWriter::begin(const TarnRef& node) {
  ThrowIfInterrupted();
  const NodeView view(node);
  if (view.isPlainValue && view.numChildren == 0) {
    out_ << JsonOfValue(*view.value);
    ++count_;
  } else if (view.className == TarnJsonNull::GetType() && view.numChildren == 0) {
    out_ << "null";
    ++count_;
  } else {
    beginLevel(node, view);
  }
}

void JsonWriter::beginLevel(const TarnRef& node, const NodeView& view) {
  openNodes_.insert(node.handle());
  levels_.push_back({node, ChildSource(node), "", 1, true});
  if (levels_.back().children.isArray()) {
    out_ << '[';
  } else {
    out_ << '{';
    writeOwn(node, view);
  }
}

void JsonWriter::writeOwn(const TarnRef& node, const NodeView& view) {
  if (!view.isPlain && !view.isPlainValue) writeMember("~class", Quoted(view.className));
  if (view.value) {
    writeMember("~value", JsonOfValue(*view.value));
    ++count_;
  }
  const std::vector<MemberValue> members = membersOf(node);
  if (members.empty()) return;
  writeMember("~members", "{");
  const char* separator = "";
  for (const MemberValue& member : members) {
    const bool isNull = member.value.getType() == TarnData::None;
    out_ << separator << Quoted(member.name) << ": "
         << (isNull ? "null" : JsonOfValue(member.value));
    separator = ", ";
    ++count_;
  }
  out_ << '}';
}

std::vector<MemberValue> JsonWriter::membersOf(const TarnRef& node) const {
  try {
    return MembersOf(node);
  } catch (const TarnException& error) {
    if (error.getErrorID() >= ErrorID::Deadlock) throw;  // from the database
    const std::string text = "The node at \"" + path() + "\" cannot be written as JSON. ";
    throw TarnException((text + error.getError()).c_str(), error.getErrorID());
  }
}

void JsonWriter::writeMember(std::string_view key, std::string_view json) {
  Level& level = levels_.back();
  if (!level.isEmpty) out_ << ',';
  level.isEmpty = false;
  breakLine();
  out_ << Quoted(key) << ": " << json;
}

void JsonWriter::endLevel() {
  const bool isArray = levels_.back().children.isArray();
  const bool wasEmpty = levels_.back().isEmpty;
  openNodes_.erase(levels_.back().node.handle());
  levels_.pop_back();
  if (!wasEmpty) breakLine();
  out_ << (isArray ? ']' : '}');
}

void JsonWriter::breakLine() {
  out_ << '\n' << std::string(2 * std::min(levels_.size(), kDeepestIndentation), ' ');
}

// Of the node that is being written, from the one where the branch begins.
std::string JsonWriter::path() const {
  std::string path;
  for (std::size_t i = 0; i + 1 < levels_.size(); ++i) {
    if (i != 0) path += '~';
    path += levels_[i].name;
  }
  return path;
}

std::string JsonWriter::pathOfChild() const {
  return path() + (levels_.size() > 1 ? "~" : "") + levels_.back().name;
}

void JsonWriter::verifyNotShared(const TarnRef& child) {
  if (openNodes_.contains(child.handle())) throwCircle();
  if (shared_->entersHere(child, levels_.back().node, levels_.back().name)) return;
  TarnException error;
  error << "The branch lists a node in several places, which JSON cannot express: the node at \""
        << pathOfChild() << "\" is the one at \"" << PlaceOf(child) << "\".";
  throw error;
}

void JsonWriter::throwCircle() const {
  TarnException error;
  error << "The branch contains itself, which JSON cannot express: the node at \"" << pathOfChild()
        << "\" is one of those above it.";
  throw error;
}

}  // namespace tarns
