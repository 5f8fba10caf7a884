#include "core/NodePlaces.h"

#include <goods/object_handle.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <charconv>
#include <functional>
#include <utility>
#include <vector>

#include "core/branch_batch.h"
#include "core/node_access.h"

namespace tarns {

namespace {

constexpr std::size_t kMostSteps = std::size_t{1} << 24;  // parents may form a circle when damaged

std::uint64_t KeyOf(const TarnRef& node) { return WalkKeyOf(node.word()); }

// The step to a child of `holder` as it is now.
std::string StepTo(const TarnRef& holder, std::string_view name, const TarnRef& child) {
  unsigned long number = 1;
  for (TarnIterator place = holder->getIterTo(std::string(name).c_str());
       !place.isNull() && place.getEntryName() == name; ++number) {
    if (place.next(nullptr) == child) break;
  }
  return NodePlaces::ChildStep(name, number);
}

// The child of that number among those of its name. When there are fewer, null, and `number` is
// less by as many.
TarnRef ChildAt(const TarnRef& node, std::string_view name, unsigned long& number) {
  for (TarnIterator place = node->getIterTo(std::string(name).c_str());
       !place.isNull() && place.getEntryName() == name; place.next(nullptr)) {
    if (--number == 0) return place.get(nullptr);
  }
  return nullptr;
}

TarnRef NodeOfMember(const TarnRef& node, std::string_view member) {
  const std::string name(member);
  TarnRef target;
  const auto body = *node;
  const TarnFieldDescriptor* field = body->getClass().findMember(name.c_str());
  // A class may keep what it writes as its member's node elsewhere, and find it by its name.
  if (field == nullptr) return body->getChildWithName(name.c_str());
  if (field->mayHoldNodes()) field->copyFrom(&*body, target, name.c_str());
  return target;
}

// Takes the first step off `rest`.
std::string_view TakeStep(std::string_view& rest) {
  const std::size_t end = rest.find('~');
  const std::string_view step = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return step;
}

}  // namespace

bool NodePlaces::note(const TarnRef& node) {
  const goods::object_id id = node.id();
  return id != 0 ? noteStored(id) : transient_.insert(node.handle()).second;
}

bool NodePlaces::noteStored(goods::object_id id) {
  if (last_ == nullptr || lastNumber_ != id / kChunk) {
    auto& chunk = stored_[id / kChunk];
    if (chunk == nullptr) chunk = std::make_unique<std::bitset<kChunk>>();
    last_ = chunk.get();
    lastNumber_ = id / kChunk;
  }
  auto bit = (*last_)[id % kChunk];
  const bool isNew = !bit;
  bit = true;
  return isNew;
}

bool NodePlaces::noteAll(const NodePlaces& others) {
  for (const auto& [number, chunk] : others.stored_) {
    const auto found = stored_.find(number);
    if (found != stored_.end() && (*found->second & *chunk).any()) return false;
  }
  for (const auto& [number, chunk] : others.stored_) {
    auto& mine = stored_[number];
    if (mine == nullptr) mine = std::make_unique<std::bitset<kChunk>>();
    *mine |= *chunk;
  }
  return true;
}

void NodePlaces::noteAway(const TarnRef& node, const TarnRef& holder, std::string step) {
  away_.emplace(KeyOf(node), Away{holder, std::move(step)});
}

void NodePlaces::noteAgain(const TarnRef& node, std::string place, Check check) {
  again_.insert_or_assign(KeyOf(node), Again{std::move(place), check});
}

// Transient nodes are those of the thread that writes.
void NodePlaces::notePlace(const TarnRef& node, Check check) {
  const std::uint64_t id = node.id();
  if (id == 0) return;
  auto& chunk = checks_[id / kChunk];
  if (chunk == nullptr) chunk = std::make_unique<std::array<ShortCheck, kChunk>>();
  (*chunk)[id % kChunk] = static_cast<ShortCheck>(check);
}

bool NodePlaces::find(const TarnRef& node, std::string& place) const {
  place.clear();
  Check check = 0;
  std::vector<std::string> steps;
  const std::uint64_t top = KeyOf(top_);
  for (TarnRef at = node; KeyOf(at) != top;) {
    if (steps.size() == kMostSteps) return false;
    if (const auto again = again_.find(KeyOf(at)); again != again_.end()) {
      place = again->second.place;
      check = again->second.check;
      break;
    }
    if (const auto away = away_.find(KeyOf(at)); away != away_.end()) {
      steps.push_back(away->second.step);
      at = away->second.holder;
      continue;
    }
    const TarnRef parent = at->getParent();
    if (parent.is_null()) return false;
    steps.push_back(StepTo(parent, at->getName().view(), at));
    at = parent;
  }
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
    if (!place.empty()) place += '~';
    place += *step;
    check = CheckBehind(check, *step);
  }
  const std::uint64_t id = node.id();
  if (!mayMove_ || id == 0) return true;
  const auto chunk = checks_.find(id / kChunk);
  return chunk != checks_.end() && (*chunk->second)[id % kChunk] == static_cast<ShortCheck>(check);
}

std::string NodePlaces::MemberStep(std::string_view member) { return "~." + std::string(member); }

std::string NodePlaces::ChildStep(std::string_view name, unsigned long number) {
  std::string step(name);
  if (number > 1) step += "~~" + std::to_string(number);
  return step;
}

NodePlaces::Check NodePlaces::CheckBehind(Check before, std::string_view step) {
  constexpr Check kFactor = 0x9E3779B97F4A7C15;
  const Check mixed = (before + std::hash<std::string_view>()(step)) * kFactor;
  return mixed ^ (mixed >> 32);
}

// A step is looked for when it is known whether a number follows.
TarnRef NodePlaces::NodeAt(const TarnRef& top, std::string_view place, Coming* coming) {
  TarnRef node = top;
  while (!place.empty() && !node.is_null()) {
    const std::string_view step = TakeStep(place);
    if (step.empty()) {
      const std::string_view member = TakeStep(place);
      if (!member.starts_with('.')) return nullptr;
      TarnRef next = coming != nullptr ? coming->member(node, member.substr(1)) : nullptr;
      node = next.is_null() ? NodeOfMember(node, member.substr(1)) : std::move(next);
      continue;
    }
    unsigned long number = 1;
    if (place.size() > 1 && place[0] == '~' && place[1] != '.') {
      place.remove_prefix(1);
      const std::string_view digits = TakeStep(place);
      const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), number);
      if (read.ec != std::errc() || read.ptr != digits.data() + digits.size() || number == 0) {
        return nullptr;
      }
    }
    TarnRef next = ChildAt(node, step, number);
    if (next.is_null() && coming != nullptr) next = coming->child(node, step, number);
    node = std::move(next);
  }
  return node;
}

}  // namespace tarns
