// TarnObject: copying nodes and branches.
#include <goods/cache_manager.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnCloner.h>
#include <tarns/schema/TarnString.h>

#include <algorithm>
#include <string>

#include "core/node_access.h"
#include "core/node_members.h"

namespace tarns {

namespace {

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
  ForEachReference(copy,
                   [&](const goods::field_descriptor&, unsigned, goods::object_ref& reference) {
                     const goods::object_ref original(reference);
                     reference = CopyOfOwned(original, copy);
                   });
}

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
      if (IsCountedReference(target) && !target.isForText()) {
        if (IsCountedReference(source)) copyReference();
        return;
      }
      TarnData value(TarnData::Uint64);  // an enumeration gives its number
      if (!source.getValue(from, source.getNameOfItem(index), value)) return;
      // What has no value leaves a number as it is; a text it empties.
      if (value.getType() == TarnData::None && !target.isForText()) return;
      target.setValue(&to, target.getNameOfItem(index), value);
    }

   private:
    const goods::object_ref& sourceReference() const { return ReferenceAt(from, source, index); }
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

xcptref<TarnObject> TarnObject::deepClone() const { return TarnCloner().copy(getSelf()); }

}  // namespace tarns
