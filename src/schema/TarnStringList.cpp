#include <goods/cache_manager.h>
#include <goods/object_handle.h>
#include <goods/set_member.h>
#include <tarns/schema/TarnStringList.h>

namespace tarns {

namespace {

constexpr unsigned kPageNumber = 2;

}  // namespace

TarnStringList::~TarnStringList() = default;

void TarnStringList::insert(const char* name, const TarnString& string) {
  const auto entry = goods::set_member::create(string.getReference(), name != nullptr ? name : "");
  if (tree_.is_null()) {
    const goods::object_ref owner(owner_ != nullptr ? owner_->handle() : nullptr);
    tree_ = goods::B_tree::create(owner, kPageNumber);
  }
  modify(tree_)->insert(entry);
}

unsigned long TarnStringList::getCount() const { return tree_.is_null() ? 0 : tree_->count(); }

void TarnStringList::iterateChildren(void (*callback)(TarnString string, const void* arg),
                                     const void* arg) const {
  iterateChildren([=](std::string_view, TarnString string) { callback(std::move(string), arg); });
}

void TarnStringList::iterateChildren(
    const std::function<void(std::string_view name, TarnString string)>& callback) const {
  if (tree_.is_null()) return;
  goods::B_tree::iterate(tree_, [&](const goods::held_entry& entry) {
    callback(entry.name, TarnString(goods::checked_cast<goods::String>(entry.target)));
    return true;
  });
}

}  // namespace tarns
