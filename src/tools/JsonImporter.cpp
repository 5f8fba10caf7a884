#include "tools/JsonImporter.h"

#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnPath.h>
#include <tarns/core/TarnValue.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/session/TarnRoot.h>

#include <nlohmann/json.hpp>

#include <random>
#include <stdexcept>
#include <utility>

#include "tools/TarnJsonNodes.h"
#include "tools/json_names.h"
#include "tools/json_values.h"
#include "tools/node_view.h"
#include "tools/signals.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tarns {

namespace {

// What is wrong with the input; read() adds where.
[[noreturn]] void Fail(const std::string& what) { throw std::invalid_argument(what); }

// Hands the parser's events on. Texts cannot hold NUL bytes, and reading one as the text before it
// would change it.
class Events {
 public:
  explicit Events(JsonImporter& importer) : importer_(importer) {}

  // NOLINTBEGIN(readability-identifier-naming): names that the parser calls
  bool null() { return importer_.null(), true; }
  bool boolean(bool value) { return importer_.boolean(value), true; }
  bool number_integer(std::int64_t value) { return importer_.integer(value), true; }
  bool number_unsigned(std::uint64_t value) { return importer_.integer(value), true; }
  bool number_float(double value, const std::string& digits) {
    return importer_.real(value, digits), true;
  }
  bool string(const std::string& text) {
    if (text.find('\0') != std::string::npos) Fail("a text cannot hold the character \\u0000");
    return importer_.text(text), true;
  }
  bool binary(const nlohmann::json::binary_t&) { return false; }  // JSON text has none
  bool start_object(std::size_t) { return importer_.beginObject(), true; }
  bool key(const std::string& key) { return importer_.key(key), true; }
  bool end_object() { return importer_.endObject(), true; }
  bool start_array(std::size_t) { return importer_.beginArray(), true; }
  bool end_array() { return importer_.endArray(), true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& error) {
    // "[json.exception.parse_error.101] parse error at line 1, column 2: what"
    const std::string text = error.what();
    const std::size_t what = text.find(": ");
    const std::size_t prefix = text.find("] ");
    if (what != std::string::npos) Fail(text.substr(what + 2));
    Fail(prefix == std::string::npos ? text : text.substr(prefix + 2));
  }
  // NOLINTEND(readability-identifier-naming)

 private:
  JsonImporter& importer_;
};

std::string InQuotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

std::string ClassOf(const TarnRef& node) { return goods::class_of(node).name(); }

// Throws 8 for a path with an empty branch.
void VerifyPath(std::string_view path) {
  TarnPath verified;
  for (const std::string_view branch : TarnBranches(path)) verified.addBranch(branch);
}

std::uint64_t RandomNumber() {
  std::random_device random;
  return (std::uint64_t{random()} << 32) | random();
}

}  // namespace

JsonImporter::JsonImporter(TarnManager& manager, JsonInput& input,
                           std::function<void(std::uint64_t)> stored)
    : manager_(manager), input_(input), stored_(std::move(stored)), seed_(RandomNumber()) {}

void JsonImporter::read(std::string_view path) {
  const auto where = [&](const char* what) {
    return "Line " + std::to_string(input_.getLine()) + ": " + what;
  };
  VerifyPath(path);
  try {
    Level& ground = levels_.emplace_back();
    if (!path.empty()) ground.node = manager_.getNoFail(TarnBranches::ParentOf(path));
    ground.name = TarnBranches::LastOf(path);
    ground.existed = true;
    Events events(*this);
    nlohmann::json::sax_parse(input_.begin(), input_.end(), &events);
  } catch (const std::invalid_argument& error) {
    throw TarnException((where(error.what()) + ".").c_str(), ErrorID::BadExportFile);
  } catch (const TarnException& error) {
    if (error.getErrorID() >= ErrorID::Deadlock) throw;  // not the input's fault
    throw TarnException(where(error.getError()).c_str(), error.getErrorID());
  }
}

// --- Objects and arrays -------------------------------------------------------------------------

// Before anything that may be a child: names the element of an array that it is.
void JsonImporter::startValue() {
  ThrowIfInterrupted();
  Level& level = top();
  if (level.isArray) {
    level.name =
        TarnMember::GetElementName(std::string_view(TarnJsonArray::kElements), level.element);
    ++level.element;
  }
}

void JsonImporter::beginObject() {
  startValue();
  const Role role = top().role;
  if (role == Role::kClass || role == Role::kTypedValue) Fail("an object cannot stand here");
  Level level;
  level.mustBeTyped = role == Role::kOwnValue || role == Role::kMember;
  level.isMembers = role == Role::kMembers;
  if (levels_.size() == 1 && top().node.is_null()) {
    level.node = manager_.getRoot();
    level.existed = true;
  }
  levels_.push_back(std::move(level));
}

void JsonImporter::endObject() {
  if (top().isTyped()) {
    const TarnData value = std::move(*top().typedValue);
    levels_.pop_back();
    deliver(value);
    return;
  }
  if (top().mustBeTyped) Fail("only a value can stand here");
  if (!top().isMembers) settleNode();
  const bool isEmpty = !top().hasChildren;
  levels_.pop_back();
  if (isEmpty) count();
}

void JsonImporter::beginArray() {
  startValue();
  if (top().role != Role::kChild) Fail("an array cannot stand here");
  takingParent();
  Level level;
  level.isArray = true;
  level.node = TarnJsonArray::Create();
  put(top(), level.node, existingChild(top()));
  levels_.push_back(std::move(level));
}

void JsonImporter::endArray() {
  const bool isEmpty = top().element == 0;
  levels_.pop_back();
  if (isEmpty) count();
}

// Decides that the open object is a node, and finds or makes it.
void JsonImporter::settleNode() {
  Level& level = top();
  verifyClass(level);
  if (!level.node.is_null()) return;
  Level& parent = levels_[levels_.size() - 2];
  if (level.className.empty()) level.className = TarnObject::GetType();
  const TarnRef existing = existingChild(parent);
  level.existed = !existing.is_null() && level.className == ClassOf(existing);
  if (level.existed) {
    level.node = existing;
    return;
  }
  level.node = TarnObject::CreateOfType(level.className.c_str());
  if (level.node.is_null()) {
    Fail("the class " + InQuotes(level.className) + " is not known to this program");
  }
  put(parent, level.node, existing);
}

// There is one root, and it stays what it is.
void JsonImporter::verifyClass(const Level& level) const {
  const bool isForRoot = level.className == TarnRoot::GetType();
  const bool isRoot = levels_.front().node.is_null() && levels_.size() == 2;
  if (isRoot && !isForRoot && !level.className.empty()) {
    Fail("the root cannot become a " + InQuotes(level.className));
  }
  if (isForRoot && !isRoot) Fail("only the root can be a " + InQuotes(level.className));
}

// --- Keys ---------------------------------------------------------------------------------------

void JsonImporter::key(std::string_view key) {
  ThrowIfInterrupted();
  Level& level = top();
  if (level.isTyped()) Fail("nothing can stand beside a typed value");
  if (level.isMembers) {
    noteKey(key);
    level.role = Role::kMember;
    level.name = key;
  } else if (auto exact = ReadExactKey(key)) {
    childKey(std::move(exact->name), exact->ordinal);
  } else if (key.starts_with('~')) {
    noteKey(key);
    reservedKey(key);
  } else {
    childKey(NameOfKey(key), 1);
  }
}

// Of children the name is noted, which has no "~", so that two spellings of one are noticed.
void JsonImporter::noteKey(std::string_view key) {
  if (top().keys.insert(hashOf(key)).second) return;
  Fail("the key " + InQuotes(key) + " is there twice");
}

std::uint64_t JsonImporter::hashOf(std::string_view key) const {
  return XXH3_64bits_withSeed(key.data(), key.size(), seed_);
}

void JsonImporter::childKey(std::string name, std::size_t ordinal) {
  if (top().mustBeTyped) Fail("only a value can stand here");
  settleNode();
  Level& level = top();
  if (ordinal == 1) {
    noteKey(name);
  } else if (!level.hasChildren || level.name != name || level.ordinal != ordinal - 1) {
    Fail("number " + std::to_string(ordinal) + " of the children " + InQuotes(name) +
         " must follow the one before it");
  }
  level.hasChildren = true;
  level.role = Role::kChild;
  level.name = std::move(name);
  level.ordinal = ordinal;
}

void JsonImporter::reservedKey(std::string_view key) {
  Level& level = top();
  if (const auto type = TypeOfKey(key)) {
    if (level.keys.size() > 1) Fail("nothing can stand beside a typed value");
    level.type = *type;
    level.role = Role::kTypedValue;
  } else if (key == "~class" || key == "~value" || key == "~members") {
    if (level.hasChildren) Fail("the key " + InQuotes(key) + " must come before the children");
    if (level.mustBeTyped) Fail("only a value can stand here");
    level.role = key == "~class"   ? Role::kClass
                 : key == "~value" ? Role::kOwnValue
                                   : Role::kMembers;
    if (level.role == Role::kClass && level.keys.size() > 1) {
      Fail("the key \"~class\" must come first");
    }
    if (level.role == Role::kMembers) settleNode();
  } else {
    Fail("the key " + InQuotes(key) +
         " begins with \"~\", which only keys with a meaning of their own do");
  }
}

// --- Values -------------------------------------------------------------------------------------

void JsonImporter::null() {
  startValue();
  if (top().role == Role::kMember) {
    storeNullMember();
  } else {
    if (top().role != Role::kChild) Fail("null cannot stand here");
    takingParent();
    put(top(), TarnJsonNull::Create(), existingChild(top()));
  }
  count();
}

void JsonImporter::boolean(bool value) {
  startValue();
  if (top().role == Role::kTypedValue) {
    finishTyped(TypedBoolean(value, top().type));
  } else {
    deliver(value);
  }
}

void JsonImporter::integer(std::int64_t value) {
  startValue();
  if (top().role == Role::kTypedValue) {
    finishTyped(TypedInteger(value, top().type));
  } else {
    deliver(value);
  }
}

void JsonImporter::integer(std::uint64_t value) {
  startValue();
  if (top().role == Role::kTypedValue) {
    finishTyped(TypedInteger(value, top().type));
  } else if (std::in_range<std::int64_t>(value)) {
    deliver(static_cast<std::int64_t>(value));
  } else {
    deliver(value);
  }
}

void JsonImporter::real(double value, std::string_view digits) {
  startValue();
  if (digits.find_first_of(".eE") == std::string_view::npos) {
    Fail("the integer " + std::string(digits) + " does not fit into 64 bits");
  }
  if (value == 0 && digits.substr(0, digits.find_first_of("eE")).find_first_of("123456789") !=
                        std::string_view::npos) {
    Fail("the number " + std::string(digits) + " is too small to be told from 0");
  }
  if (top().role == Role::kTypedValue) {
    finishTyped(TypedReal(digits, top().type));
  } else {
    deliver(value);
  }
}

void JsonImporter::text(std::string_view text) {
  startValue();
  if (top().role == Role::kTypedValue) {
    finishTyped(TypedText(text, top().type));
  } else if (top().role == Role::kClass) {
    top().className = text;
  } else {
    deliver(TarnData(text));
  }
}

void JsonImporter::finishTyped(const std::optional<TarnData>& value) {
  if (!value) Fail(std::string("this is no ") + TarnData::GetTypeAsString(top().type));
  top().typedValue = value;
}

void JsonImporter::deliver(const TarnData& value) {
  switch (top().role) {
    case Role::kChild:
      storeChild(value);
      break;
    case Role::kOwnValue:
      storeOwnValue(value);
      break;
    case Role::kMember:
      storeMember(value);
      break;
    case Role::kClass:
    case Role::kMembers:
    case Role::kTypedValue:
      Fail("a value cannot stand here");
  }
  count();
}

void JsonImporter::storeChild(const TarnData& value) {
  takingParent();
  const TarnRef existing = existingChild(top());
  const TarnRef made = TarnValue::CreateValue(value);
  const bool canKeep = !existing.is_null() &&
                       &goods::class_of(existing) == &goods::class_of(made) &&
                       existing->getNumAbstractChildren() == 0;
  if (canKeep) {
    modify(existing)->setValue("", value);
  } else {
    put(top(), made, existing);
  }
}

void JsonImporter::storeOwnValue(const TarnData& value) {
  if (top().className.empty()) {
    top().className = ClassOf(TarnValue::CreateValue(value));
  }
  settleNode();
  const TarnRef& node = top().node;
  modify(node)->setValue("", value);
  const auto stored = node->valueAt("");
  if (!stored || !IsSameValue(value, *stored)) {
    Fail("a " + InQuotes(ClassOf(node)) + " cannot hold " + JsonOfValue(value));
  }
}

void JsonImporter::storeMember(const TarnData& value) {
  const TarnRef& node = levels_[levels_.size() - 2].node;
  const std::string& name = top().name;
  if (!modify(node)->setChildValue(name.c_str(), value)) failMissingMember(node);
  if (!IsSameValue(value, MemberOf(node, name))) {
    Fail("the member " + InQuotes(name) + " of the class " + InQuotes(ClassOf(node)) +
         " cannot hold " + JsonOfValue(value));
  }
}

void JsonImporter::storeNullMember() {
  const TarnRef& node = levels_[levels_.size() - 2].node;
  const std::string& name = top().name;
  TarnRef nothing;
  if (!modify(node)->setChildNode(name.c_str(), nothing) &&
      !modify(node)->setChildValue(name.c_str(), TarnData())) {
    failMissingMember(node);
  }
  if (MemberOf(node, name).getType() != TarnData::None) {
    Fail("the member " + InQuotes(name) + " of the class " + InQuotes(ClassOf(node)) +
         " cannot be null");
  }
}

void JsonImporter::failMissingMember(const TarnRef& node) const {
  Fail("the class " + InQuotes(ClassOf(node)) + " has no member " + InQuotes(levels_.back().name));
}

// --- Children -----------------------------------------------------------------------------------

// The node that takes the next child; the root has none above it.
const TarnRef& JsonImporter::takingParent() const {
  if (levels_.back().node.is_null()) Fail("the root can only take an object");
  return levels_.back().node;
}

// What is where the next child of a level goes; null for nothing. Further children of one name come
// one after the other, so that each step takes no longer than the one before.
TarnRef JsonImporter::existingChild(Level& parent) const {
  if (!parent.existed) return {};
  if (parent.ordinal == 1) {
    parent.place.nullify();
    parent.following.nullify();
    return parent.node->getChildWithName(std::string_view(parent.name));
  }
  if (parent.ordinal == 2) {
    parent.following = parent.node->getIterTo(parent.name.c_str());
    parent.following.next(nullptr);
  }
  // What is put in the place of an entry gets a new one, from which no way leads on.
  parent.place = parent.following;
  parent.following.next(nullptr);
  if (parent.place.getEntryName() != parent.name) parent.place.nullify();
  return parent.place.get(nullptr);
}

void JsonImporter::put(const Level& parent, const TarnRef& node, const TarnRef& existing) {
  if (existing.is_null()) {
    modify(parent.node)->addChild(parent.name.c_str(), node);
  } else if (parent.place.isNull()) {
    modify(parent.node)->setNode(parent.name.c_str(), node);
  } else {
    goods::modify(parent.node->getChildren())->replaceChild(parent.place.getEntry(), node);
  }
}

}  // namespace tarns
