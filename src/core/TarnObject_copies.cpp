// TarnObject: copying nodes and branches.
#include <goods/cache_manager.h>
#include <goods/object_handle.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnString.h>

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/further_children.h"
#include "core/node_access.h"

namespace tarns {

namespace {

goods::object_ref* ReferenceAt(TarnObject& node, const goods::field_descriptor& field,
                               unsigned item) {
  return reinterpret_cast<goods::object_ref*>(reinterpret_cast<char*>(&node) + field.offset() +
                                              std::size_t{item} * field.size());
}

// Calls `visit(field, reference)` for every counted reference member of the node's class, items of
// arrays one by one; those of TarnObject itself are left out.
template <class Visit>
void ForEachReference(TarnObject& node, Visit&& visit) {
  for (const goods::class_descriptor* cls = &node.cls();
       cls != nullptr && cls != &TarnObject::self_class; cls = cls->base()) {
    goods::for_each_field(cls->fields(), [&](const goods::field_descriptor& field) {
      if (field.type() != goods::field_type::reference ||
          field.kind() != goods::ref_kind::counted) {
        return;
      }
      for (unsigned item = 0; item < field.n_items(); ++item) {
        visit(field, *ReferenceAt(node, field, item));
      }
    });
  }
}

// A String of its own with the same text.
goods::object_ref CopyOfText(const goods::object_ref& text) {
  const auto original = goods::ref<goods::String>::trusted(text);
  const std::string copy = goods::read_here(
      [&](goods::reader& reader) { return std::string(reader.get(original)->text()); });
  return goods::String::create(copy);
}

// An index of its own with copies of its texts.
goods::object_ref CopyOfTexts(const goods::object_ref& list, const TarnRef& owner) {
  const auto original = goods::ref<goods::B_tree>::trusted(list);
  auto copy = goods::B_tree::create(owner, original->page_number());
  goods::B_tree::iterate(original, [&](const goods::held_entry& entry) {
    const goods::object_ref text = entry.target ? CopyOfText(entry.target) : entry.target;
    modify(copy)->insert(goods::set_member::create(text, entry.name));
    return true;
  });
  return copy;
}

// What the member of a copy refers to: its own copy of a text or a list of texts, else the same.
goods::object_ref CopyOfOwned(const goods::object_ref& original, const TarnObject& copy) {
  if (original.is_null()) return original;
  const goods::class_descriptor& cls = goods::class_of(original);
  if (&cls == &goods::String::self_class) return CopyOfText(original);
  if (&cls == &goods::B_tree::self_class) return CopyOfTexts(original, copy.getSelf());
  return original;
}

// Gives a copied node texts of its own; its references to nodes stay.
void SeparateTexts(TarnObject& copy) {
  ForEachReference(copy, [&](const goods::field_descriptor&, goods::object_ref& reference) {
    const goods::object_ref original(reference);
    reference = CopyOfOwned(original, copy);
  });
}

// Copies of the nodes of one branch.
class BranchCopy {
 public:
  explicit BranchCopy(const TarnRef& top) { find(top); }

  TarnRef make() {
    // Grows while it is gone through.
    for (std::size_t i = 0; i < found_.size(); ++i) copyNode(i);
    for (const auto& [original, copy] : found_) linkCopy(original, copy);
    return found_.front().second;
  }

 private:
  void find(const TarnRef& original) {
    if (copies_.try_emplace(original.handle()).second) found_.emplace_back(original, nullptr);
  }

  // What has no parent belongs to the member that refers to it.
  static bool IsOwnedByMember(const TarnRef& node) {
    return goods::number_of(node.id()) != goods::root_object_number && !node->hasParent();
  }

  void copyNode(std::size_t i) {
    const TarnRef original = found_[i].first;
    const TarnRef copy = original->clone();
    found_[i].second = copy;
    copies_[original.handle()] = copy;
    auto body = modify(copy);
    ForEachReference(*body, [&](const goods::field_descriptor&, goods::object_ref& reference) {
      const goods::object_ref target(reference);
      if (!TarnObject::IsTarnObject(target)) return;
      if (const auto node = TarnRef::Trusted(target); IsOwnedByMember(node)) find(node);
    });
    for (TarnRef holder = original; !holder.is_null(); holder = FurtherHolderOf(holder)) {
      ForEachEntry(holder->getChildren(),
                   [&](const goods::held_entry& entry, const TarnRef& child) {
                     if (TarnNodeAccess::IsParentLink(child, entry.member)) find(child);
                     return true;
                   });
    }
  }

  // The copy of a node of the branch; otherwise null.
  TarnRef copyOf(const goods::object_ref& original) const {
    const auto found = copies_.find(original.handle());
    return found != copies_.end() ? found->second : TarnRef();
  }

  void linkCopy(const TarnRef& original, const TarnRef& copy) {
    auto body = modify(copy);
    ForEachReference(*body, [&](const goods::field_descriptor&, goods::object_ref& reference) {
      const goods::object_ref target(reference);
      if (TarnRef inside = copyOf(target); !inside.is_null()) reference = inside;
    });
    for (TarnRef holder = original; !holder.is_null(); holder = FurtherHolderOf(holder)) {
      linkChildren(holder->getChildren(), *body);
    }
  }

  void linkChildren(const xcptref<TarnObjects>& children, TarnObject& copy) {
    xcptref<TarnObjects> index;
    ForEachEntry(children, [&](const goods::held_entry& entry, const TarnRef& child) {
      if (index.is_null()) index = TarnNodeAccess::MakeIndex(copy);
      const bool isOwned = TarnNodeAccess::IsParentLink(child, entry.member);
      const TarnRef inside = copyOf(child);
      if (isOwned && !inside.is_null()) {
        modify(index)->insert(entry.name, inside);
      } else if (!isOwned) {
        modify(index)->link(entry.name, inside.is_null() ? child : inside);
      }
      return true;  // an owned one without a copy was added while this ran
    });
  }

  std::vector<std::pair<TarnRef, TarnRef>> found_;  // originals and copies, in the order found
  std::unordered_map<const goods::object_handle*, TarnRef> copies_;
};

// Copies the members of a node into one of another class: by name, item by item, converted.
class MemberCopy {
 public:
  MemberCopy(const TarnObject& from, TarnObject& to) : from_(from), to_(to) {}

  void make() {
    forEachItem([](const Item& item) { return item.verify(); });
    forEachItem([](const Item& item) { return item.copy(); });
  }

 private:
  // One item of a member that both classes have.
  struct Item {
    const TarnObject& from;
    TarnObject& to;
    const TarnFieldDescriptor& source;
    const TarnFieldDescriptor& target;
    unsigned index;

    void verify() const {
      if (source.mayHoldNodes() && target.mayHoldNodes()) {
        target.verifyFits(to, target.getNameOfItem(index), sourceReference());
      }
    }
    void copy() const {
      if (IsReference(target) && !target.isForText()) {
        if (IsReference(source)) copyReference();
        return;
      }
      TarnData value(TarnData::Uint64);  // an enumeration gives its number
      if (!source.getValue(from, source.getNameOfItem(index), value)) return;
      // What has no value leaves a number as it is; a text it empties.
      if (value.getType() == TarnData::None && !target.isForText()) return;
      target.setValue(&to, target.getNameOfItem(index), value);
    }

   private:
    const goods::object_ref& sourceReference() const {
      return *ReferenceAt(const_cast<TarnObject&>(from), source, index);
    }
    void copyReference() const {
      const goods::object_ref& reference = sourceReference();
      if (target.mayHoldNodes() && source.mayHoldNodes()) {
        TarnRef node;
        source.copyFrom(&from, node, source.getNameOfItem(index));
        target.copyTo(node, &to, target.getNameOfItem(index));
      } else if (const goods::class_descriptor* cls = target.getReferencedClass();
                 cls != nullptr &&
                 (reference.is_null() || cls->is_superclass_for(goods::class_of(reference)))) {
        *ReferenceAt(to, target, index) = CopyOfOwned(reference, to);
      }
    }
  };

  static bool IsReference(const goods::field_descriptor& field) {
    return field.type() == goods::field_type::reference && field.kind() == goods::ref_kind::counted;
  }

  template <class Visit>
  void forEachItem(const Visit& visit) {
    const auto visitField = [&](const TarnFieldDescriptor& target) {
      const TarnFieldDescriptor* source = from_.getClass().findField(target.name());
      if (source == nullptr) return;
      const unsigned long count = std::min(target.getNumNames(), source->getNumNames());
      for (unsigned long index = 0; index < count; ++index) {
        visit(Item{from_, to_, *source, target, static_cast<unsigned>(index)});
      }
    };
    to_.getClass().iterateFields(
        [](const TarnFieldDescriptor& target, const void* arg) {
          (*static_cast<const decltype(visitField)*>(arg))(target);
          return true;
        },
        &visitField, true);
  }

  const TarnObject& from_;
  TarnObject& to_;
};

}  // namespace

const xcptref<TarnObjects>& TarnNodeAccess::MakeIndex(TarnObject& node) {
  return MakeIndex(node, node.getPageN());
}

const xcptref<TarnObjects>& TarnNodeAccess::MakeIndex(TarnObject& node, unsigned char pageN) {
  if (node.children_.is_null()) node.children_ = TarnObjects::Create(node.getSelf(), pageN);
  return node.children_;
}

// Everything that the class keeps is copied as it is; then what may not be shared is replaced.
void TarnNodeAccess::CopyState(const TarnObject& from, TarnObject& to) {
  const xcptref<TarnObjects> children = to.children_;
  const goods::ref<goods::set_member> link = to.parentLink_.get();
  from.cls().copy_state(from, to);
  to.children_ = children;
  to.parentLink_.set(link);
  SeparateTexts(to);
}

xcptref<TarnObject> TarnObject::clone() const {
  xcptref<TarnObject> copy = constructor();
  TarnNodeAccess::CopyState(*this, *modify(copy));
  return copy;
}

void TarnObject::copyFrom(xcptref<TarnObject> other) {
  if (other == getSelf()) return;
  const auto from = *other;
  if (&from->cls() == &cls()) {
    TarnNodeAccess::CopyState(*from, *this);
    note_relinked();
    return;
  }
  MemberCopy(*from, *this).make();
}

xcptref<TarnObject> TarnObject::deepClone() const { return BranchCopy(getSelf()).make(); }

}  // namespace tarns
