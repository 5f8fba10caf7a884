#include <goods/cache_manager.h>
#include <tarns/core/TarnIterator.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>

#include <utility>
#include <vector>

namespace tarns {

TarnIterator::TarnIterator(xcptref<TarnObjects> children, const goods::held_entry& entry)
    : children_(std::move(children)), entry_(entry.member), name_(entry.name) {}

xcptref<TarnObject> TarnIterator::get(XString* name) const {
  if (name != nullptr) copyName(*name);
  return isNull() ? xcptref<TarnObject>() : xcptref<TarnObject>::Trusted(entry_->target());
}

xcptref<TarnObject> TarnIterator::next(XString* name) {
  xcptref<TarnObject> current = get(name);
  move(Direction::kForward);
  return current;
}

xcptref<TarnObject> TarnIterator::back(XString* name) {
  xcptref<TarnObject> current = get(name);
  move(Direction::kBackward);
  return current;
}

void TarnIterator::copyName(XString& name) const {
  if (isNull()) {
    name.setCapacity(0);
  } else {
    name = std::string_view(name_);
  }
}

bool TarnIterator::isAtTop() const { return !isNull() && isAtEnd(Direction::kBackward); }

bool TarnIterator::isAtBottom() const { return !isNull() && isAtEnd(Direction::kForward); }

void TarnIterator::nullify() { *this = TarnIterator(); }

void TarnIterator::move(Direction direction) {
  if (isNull()) return;
  goods::index_position here(name_, entry_);
  here.before = before_;
  here.behind = behind_;
  const auto entries = goods::read_here([&](goods::reader& reader) {
    const TarnObjects* index = reader.get(children_);
    return direction == Direction::kForward ? index->entries_after(reader, &here, 1)
                                            : index->entries_before(reader, &here, 1);
  });
  if (entries.empty()) {
    nullify();
  } else {
    moveTo(entries.front(), direction);
  }
}

void TarnIterator::moveTo(const goods::held_entry& entry, Direction direction) {
  const bool isForward = direction == Direction::kForward;
  auto& left = isForward ? before_ : behind_;
  auto& ahead = isForward ? behind_ : before_;
  if (entry.name != name_) {
    before_.clear();
    behind_.clear();
  } else {
    left.push_back(entry_);
    if (!ahead.empty()) ahead.pop_back();
  }
  name_ = entry.name;
  entry_ = entry.member;
}

bool TarnIterator::isAtEnd(Direction direction) const {
  TarnIterator probe = *this;
  probe.move(direction);
  return probe.isNull();
}

}  // namespace tarns
