#include "session/remembered_values.h"

#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <algorithm>

namespace tarns {

namespace {

constexpr std::size_t kShareOfPaths = 4;  // of the memory: one part in so many
constexpr std::size_t kChargeStep = std::size_t{64} << 10;

// The text that the value of a node is in; 0 when it is in the node itself.
goods::object_id TextOf(const TarnObject& node) {
  if (&node.cls() != &TarnStringValue::self_class) return 0;
  return static_cast<const TarnStringValue&>(node).getTarnString().getReference().id();
}

bool CanKeep(const TarnData& value) {
  return !value.isString() || value.getText().size() <= ValueRing::kLongestText;
}

}  // namespace

RememberedValues::RememberedValues(goods::cache_manager& session, std::size_t bytes)
    : session_(session), shortcuts_(bytes / kShareOfPaths), values_(bytes - shortcuts_.size()) {}

RememberedValues::~RememberedValues() {
  session_.charge(-static_cast<std::ptrdiff_t>(charged_.load()));
}

void RememberedValues::chargeMemory() {
  const std::size_t used = shortcuts_.memory() + values_.memory();
  std::size_t before = charged_.load();
  if (used < before + kChargeStep || !charged_.compare_exchange_strong(before, used)) return;
  session_.charge(static_cast<std::ptrdiff_t>(used - before));
}

RememberedValues::Search::Search(RememberedValues& in, std::string_view path)
    : in_(in), path_(in.shortcuts_.keyOf(path)), key_(path_) {
  in_.shortcuts_.prefetch(path_);
}

bool RememberedValues::Search::read(TarnData& out) {
  key_ = in_.shortcuts_.withRelinks(path_, in_.session_.relink_count());
  const ValueRing::Position at = in_.shortcuts_.find(key_);
  return at != 0 && in_.values_.read(at, known_, out, [&](const ValueRing::Origin& origin) {
    return in_.changesOf(origin) == origin.changes;
  });
}

bool RememberedValues::Search::readLocking(TarnData& out) {
  key_ = in_.shortcuts_.withRelinks(path_, in_.session_.relink_count());
  const ValueRing::Position at = in_.shortcuts_.find(key_);
  return at != 0 && in_.values_.readLocking(at, out, [&](const ValueRing::Locks& locks) {
    return in_.session_.lock_unchanged(locks.objects, locks.changes);
  });
}

goods::object_id RememberedValues::Search::beginRound() {
  found_ = {};
  const PathShortcuts::Key now = in_.shortcuts_.withRelinks(path_, in_.session_.relink_count());
  if (now.tag != key_.tag) known_ = {};
  key_ = now;
  return known_.node;
}

void RememberedValues::Search::found(goods::object_id id, const TarnObject& node) {
  if (id == 0) return;
  const goods::object_id text = TextOf(node);
  found_.node = id;
  found_.nodeCounter = goods::cache_manager::change_counter_of(id);
  found_.textCounter = goods::cache_manager::change_counter_of(text != 0 ? text : id);
  found_.changes = in_.changesOf(found_);
  canKeep_ = node.getClass().isTarnsBaseClass();
}

void RememberedValues::Search::remember(const TarnData& value) {
  if (found_.node == 0) return;
  const bool keeps = canKeep_ && CanKeep(value);
  if (!keeps && known_.node == found_.node) return;
  keep(in_.values_.add(found_, keeps ? &value : nullptr));
}

void RememberedValues::Search::rememberLocking(const TarnData& value,
                                               const goods::passed_objects& passed) {
  if (found_.node == 0 || passed.all().empty() || !canKeep_ || !CanKeep(value)) return;
  const auto changes = in_.session_.changes_of_locked(passed.all());
  if (changes) keep(in_.values_.add(found_, &value, {passed.all(), *changes}));
}

void RememberedValues::Search::keep(ValueRing::Position at) {
  if (at == 0) return;
  in_.shortcuts_.remember(key_, at);
  in_.chargeMemory();
}

}  // namespace tarns
