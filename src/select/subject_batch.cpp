#include "select/subject_batch.h"

#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <algorithm>
#include <optional>

#include "core/node_access.h"

namespace tarns {

namespace {

std::string_view UpToNul(std::string_view text) { return text.substr(0, text.find('\0')); }

// Whether a path goes on from the node by what its list of children says.
bool IsPlain(const TarnObject& node) {
  return node.getClass().may_be_guest() && !node.getClass().hasDataMembers();
}

}  // namespace

std::span<const std::string_view> SubjectBatch::read(goods::reader& reader,
                                                     std::span<const TarnObject* const> nodes,
                                                     std::string_view path) {
  at_.assign(nodes.begin(), nodes.end());
  texts_.assign(nodes.size(), {});
  kept_.resize(std::max(kept_.size(), nodes.size()));
  const TarnBranches branches(path);
  for (auto branch = branches.begin(); branch != branches.end(); ++branch) {
    for (std::size_t i = 0; i < at_.size(); ++i) {
      if (at_[i] == nullptr || IsPlain(*at_[i])) continue;
      readOne(reader, *at_[i], branch.rest(), i);
      at_[i] = nullptr;
    }
    stepDown(reader, *branch);
  }
  for (std::size_t i = 0; i < at_.size(); ++i) {
    const TarnObject* const node = at_[i];
    if (node == nullptr) continue;
    if (&node->cls() == &TarnStringValue::SelfClass()) {
      const auto& text = static_cast<const TarnStringValue*>(node)->getTarnString();
      texts_[i] = UpToNul(text.look(reader));
    } else {
      readOne(reader, *node, {}, i);
    }
  }
  return texts_;
}

void SubjectBatch::stepDown(goods::reader& reader, std::string_view branch) {
  lists_.assign(at_.size(), nullptr);
  words_.assign(at_.size(), {});
  for (std::size_t i = 0; i < at_.size(); ++i) {
    if (at_[i] != nullptr) lists_[i] = TarnNodeAccess::IndexOf(reader, *at_[i]);
  }
  for (std::size_t i = 0; i < at_.size(); ++i) {
    const auto entry = lists_[i] != nullptr ? lists_[i]->find(reader, branch) : std::nullopt;
    if (entry) words_[i] = entry->target;
  }
  reader.prefetch(words_);
  for (std::size_t i = 0; i < at_.size(); ++i) {
    at_[i] = static_cast<const TarnObject*>(reader.look(words_[i], TarnObject::self_class));
  }
}

void SubjectBatch::readOne(goods::reader& reader, const TarnObject& node, std::string_view path,
                           std::size_t at) {
  value_.empty();
  if (!ReadValue(reader, node, path, value_)) return;
  kept_[at] = value_.getText();
  texts_[at] = UpToNul(kept_[at]);
}

}  // namespace tarns
