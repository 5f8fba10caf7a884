// BranchShadow: reading nodes.
#include <goods/String.h>
#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/errors.h>
#include <goods/reader.h>
#include <goods/set_member.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/session/TarnRoot.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "core/node_access.h"
#include "goods/B_tree_walk.h"
#include "services/branch_shadow_parts.h"

namespace tarns {

namespace {

using goods::object_id;
using goods::ref_word;

constexpr std::size_t kLookedAtTogether = 256;  // nodes, in one round of a reader

object_id IdOf(ref_word word) { return word.is_id() ? word.id() : 0; }

// Finds the texts that a node's members refer to.
class TextFinder : public goods::ref_visitor {
 public:
  TextFinder(goods::reader& in, object_id index, std::vector<object_id>& texts)
      : in_(in), index_(index), texts_(texts) {}

  void visit(ref_word& word, goods::ref_kind kind) override {
    const object_id id = IdOf(word);
    if (kind != goods::ref_kind::counted || id == 0 || id == index_) return;
    try {
      const auto* const target = in_.look(word, goods::object::self_class);
      if (&target->cls() == &goods::String::self_class) texts_.push_back(id);
    } catch (const goods::error_info& error) {  // what is gone is no text
      if (error.code() != goods::error_code::object_deleted) throw;
    }
  }

 private:
  goods::reader& in_;
  const object_id index_;
  std::vector<object_id>& texts_;
};

}  // namespace

// What the entries' nodes are, some of them at a time in one state.
BranchShadow::Pictures BranchShadow::look(std::span<Entry* const> entries,
                                          bool (*withChildren)(const Entry&)) {
  Pictures pictures;
  for (std::size_t at = 0; at < entries.size(); at += kLookedAtTogether) {
    const auto some = entries.subspan(at, std::min(kLookedAtTogether, entries.size() - at));
    std::vector<Picture> seen = session_.read([&](goods::reader& in) {
      std::vector<Picture> result;
      std::vector<ref_word> words;
      for (const Entry* entry : some) words.push_back(ref_word::of(entry->node));
      const goods::guest_scope passing(in);
      in.prefetch(words);
      for (const Entry* entry : some) {
        result.push_back(pictureOf(in, *entry, withChildren(*entry)));
      }
      return result;
    });
    for (std::size_t i = 0; i < some.size(); ++i) pictures.emplace(some[i], std::move(seen[i]));
  }
  return pictures;
}

BranchShadow::Picture BranchShadow::pictureOf(goods::reader& in, const Entry& entry,
                                              bool withChildren) const {
  Picture picture;
  const TarnObject* node = nullptr;
  try {
    node =
        static_cast<const TarnObject*>(in.look(ref_word::of(entry.node), TarnObject::self_class));
  } catch (const goods::error_info& error) {  // removed by a collection
    if (error.code() != goods::error_code::object_deleted) throw;
    return picture;
  }
  picture.exists = true;
  picture.isPlain =
      &node->cls() == &TarnObject::SelfClass() || &node->cls() == &TarnRoot::SelfClass();
  picture.link = IdOf(TarnNodeAccess::ParentLinkOf(*node));
  const ref_word index = TarnNodeAccess::ChildrenOf(*node).word();
  picture.index = IdOf(index);
  TarnData value;
  picture.hasValue = node->readValue(in, value);
  if (picture.hasValue) picture.value = std::hash<std::string_view>()(value.getText());
  if (!picture.isPlain) {
    TextFinder finder(in, picture.index, picture.texts);
    // A body that is only visited stays as it is.
    node->cls().visit_references(const_cast<TarnObject&>(*node), finder);  // NOLINT(*-const-cast)
  }
  if (!withChildren || picture.index == 0) return picture;
  // One that has been at home here may have moved with its children.
  const bool hasChildren = entry.isHome || picture.link == entry.member || isOnWay(entry);
  if (!hasChildren) return picture;
  readChildren(in, *static_cast<const TarnObjects*>(in.look(index, TarnObjects::self_class)), entry,
               picture);
  return picture;
}

void BranchShadow::readChildren(goods::reader& in, const TarnObjects& index, const Entry& entry,
                                Picture& picture) const {
  const auto add = [&](const goods::index_entry& child) {
    if (child.target.is_null()) return;
    picture.children.push_back({std::string(child.name), IdOf(child.member), IdOf(child.target)});
  };
  goods::B_tree_walk walk(in, index);
  const std::size_t level = levelOf(entry);
  if (level < way_.size()) {  // only what leads on
    walk.seek_lower(way_[level]);
    if (!walk.at_end() && walk.entry().name == way_[level]) add(walk.entry());
    return;
  }
  for (walk.seek_index(0); !walk.at_end(); walk.next()) {
    add(walk.entry());
    if (picture.children.size() > mostNodes_) ThrowBranchTooLarge();  // before it takes more memory
  }
}

// Makes the entry what the picture says, but for the children.
void BranchShadow::takeOver(Entry& entry, Picture& picture) {
  disown(entry);
  entry.link = picture.link;
  entry.index = picture.index;
  entry.value = picture.value;
  entry.texts = std::move(picture.texts);
  entry.isRewritten = false;
  own(entry);
}

// Reads new entries and all that is below them. Among that may be what was elsewhere before.
void BranchShadow::fill(std::vector<Entry*> fresh, Update& update) {
  for (std::size_t at = 0; at < fresh.size();) {
    const std::size_t end = std::min(fresh.size(), at + kLookedAtTogether);
    const std::vector<Entry*> some(fresh.begin() + static_cast<std::ptrdiff_t>(at),
                                   fresh.begin() + static_cast<std::ptrdiff_t>(end));
    at = end;
    Pictures pictures = look(some, [](const Entry&) { return true; });
    for (Entry* const entry : some) {
      Picture& picture = pictures.at(entry);
      takeOver(*entry, picture);
      entry->isHome = entry->link == entry->member;
      const bool isTold = update.fresh.contains(entry);  // not at the beginning
      for (Picture::Child& child : picture.children) {
        if (auto moved = findMoved(*entry, child.member, child.node, child.name, update)) {
          entry->children.push_back(std::move(moved));
          continue;
        }
        if (++count_ > mostNodes_) ThrowBranchTooLarge();
        auto& made = entry->children.emplace_back(std::make_unique<Entry>());
        made->parent = entry;
        made->member = child.member;
        made->node = child.node;
        made->name = std::move(child.name);
        fresh.push_back(made.get());
        if (!isTold) continue;
        update.fresh.insert(made.get());
        update.come.push_back({made.get(), {}});
      }
    }
  }
}

}  // namespace tarns
