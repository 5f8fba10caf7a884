#include "core/NodePlaces.h"

#include <goods/object_handle.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <charconv>
#include <utility>
#include <vector>

#include "core/branch_batch.h"
#include "core/node_access.h"

namespace tarns {

namespace {

constexpr std::size_t kMostSteps = std::size_t{1} << 24;  // parents may form a circle when damaged

std::uint64_t KeyOf(const TarnRef& node) { return WalkKeyOf(node.word()); }

// The step to a child of `holder`, with its number among those of its name.
std::string StepTo(const TarnRef& holder, std::string_view name, const TarnRef& child) {
  std::string step(name);
  unsigned long number = 1;
  for (TarnIterator place = holder->getIterTo(step.c_str());
       !place.isNull() && place.getEntryName() == name; ++number) {
    if (place.next(nullptr) == child) break;
  }
  if (number > 1) step += "~~" + std::to_string(number);
  return step;
}

TarnRef ChildAt(const TarnRef& node, std::string_view name, unsigned long number) {
  TarnIterator place = node->getIterTo(std::string(name).c_str());
  while (!place.isNull() && --number != 0) {
    place.next(nullptr);
    if (!place.isNull() && place.getEntryName() != name) return nullptr;
  }
  return place.get(nullptr);
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
  const std::uint64_t id = node.id();
  if (id == 0) return transient_.insert(node.handle()).second;
  auto& chunk = stored_[id / kChunk];
  if (chunk == nullptr) chunk = std::make_unique<std::bitset<kChunk>>();
  const auto bit = (*chunk)[id % kChunk];
  const bool isNew = !bit;
  chunk->set(id % kChunk);
  return isNew;
}

void NodePlaces::noteAway(const TarnRef& node, const TarnRef& holder, std::string_view name,
                          bool isMember) {
  std::string step = isMember ? "~." + std::string(name) : StepTo(holder, name, node);
  away_.emplace(KeyOf(node), Away{holder, std::move(step)});
}

bool NodePlaces::find(const TarnRef& node, std::string& place) const {
  std::vector<std::string> steps;
  const std::uint64_t top = KeyOf(top_);
  for (TarnRef at = node; KeyOf(at) != top;) {
    if (steps.size() == kMostSteps) return false;
    const auto found = away_.find(KeyOf(at));
    if (found != away_.end()) {
      steps.push_back(found->second.step);
      at = found->second.holder;
      continue;
    }
    const TarnRef parent = at->getParent();
    if (parent.is_null()) return false;
    steps.push_back(StepTo(parent, at->getName().view(), at));
    at = parent;
  }
  place.clear();
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
    if (step != steps.rbegin()) place += '~';
    place += *step;
  }
  return true;
}

// A step is looked for when it is known whether a number follows.
TarnRef NodePlaces::NodeAt(const TarnRef& top, std::string_view place) {
  TarnRef node = top;
  while (!place.empty() && !node.is_null()) {
    const std::string_view step = TakeStep(place);
    if (step.empty()) {
      const std::string_view member = TakeStep(place);
      if (!member.starts_with('.')) return nullptr;
      node = NodeOfMember(node, member.substr(1));
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
    node = ChildAt(node, step, number);
  }
  return node;
}

}  // namespace tarns
