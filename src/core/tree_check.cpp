#include "core/tree_check.h"

#include <fmt/format.h>
#include <goods/cache_manager.h>
#include <goods/database.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnPath.h>
#include <tarns/core/TarnValueIndex.h>

#include "core/node_access.h"

namespace tarns {

namespace {

// As TarnObject::write() and TarnObjects::describe_components() call them.
constexpr const char* kChildren = "Children";
constexpr const char* kParentLink = "ParentLink";
constexpr const char* kParent = "mParent";
constexpr const char* kValueIndexes = "ValueIndexes";

void CheckIndex(const goods::stored_object& node, goods::object_id index, goods::check_desk& desk) {
  bool isIndex = false;
  goods::object_id parent = 0;
  const bool isReadable = desk.look(index, [&](const goods::stored_object& found) {
    isIndex = found.is_a(TarnObjects::self_class.name());
    parent = found.reference(kParent);
  });
  if (!isReadable) return;
  if (!isIndex) {
    desk.report(index, "",
                fmt::format("is no TarnObjects, although node {} has its children there",
                            goods::text_of(node.id)));
  } else if (parent != node.id) {
    desk.report(index, "",
                fmt::format("has the children of node {}, but says {}", goods::text_of(node.id),
                            goods::text_of(parent)));
  }
}

void CheckParentLink(const goods::stored_object& node, goods::object_id link,
                     goods::check_desk& desk) {
  if (!desk.is_member(link)) {
    return desk.report(node.id, "",
                       fmt::format("has object {} for its link to its parent, which is no entry",
                                   goods::text_of(link)));
  }
  goods::object_id target = 0;
  const bool isReadable = desk.look(
      link, [&](const goods::stored_object& found) { target = found.reference("object"); });
  if (!isReadable) return;
  if (target != node.id) {
    desk.report(node.id, "",
                fmt::format("has the entry {} for its link to its parent, which stands for {}",
                            goods::text_of(link), goods::text_of(target)));
  }
  desk.needs_place(link);
}

}  // namespace

bool TreeCheck::is_silent(std::string_view member) const {
  return member == kChildren || member == kParentLink || member == kParent;
}

void TreeCheck::check(const goods::stored_object& object, goods::check_desk& desk) {
  if (object.is_a(TarnObjects::self_class.name()) && object.reference(kValueIndexes) != 0) {
    if (const goods::object_id node = object.reference(kParent)) indexed_.push_back(node);
  }
  if (!object.is_a(TarnObject::GetType())) return;
  if (const goods::object_id index = object.reference(kChildren)) CheckIndex(object, index, desk);
  if (const goods::object_id link = object.reference(kParentLink)) {
    CheckParentLink(object, link, desk);
  }
}

void TreeCheck::check_entry(const goods::stored_object& index, std::string_view name,
                            goods::object_id target, goods::check_desk& desk) {
  if (!index.is_a(TarnObjects::self_class.name())) return;
  if (!IsChildName(name) || name.find('\0') != std::string_view::npos) {
    desk.report(index.id, name, "has a child under a name that nodes may not have");
  }
  bool isNode = target != 0;
  desk.look(target,
            [&](const goods::stored_object& found) { isNode = found.is_a(TarnObject::GetType()); });
  if (!isNode) {
    desk.report(
        target != 0 ? target : index.id, name,
        target != 0 ? "is no node, although it is a child" : "has an entry without a child");
  }
}

void TreeCheck::check_root(const goods::stored_object& root, goods::check_desk& desk) {
  if (!root.is_a(TarnObject::GetType())) desk.report(root.id, "", "is the root, but no node");
}

// What cannot be read is reported where it was met.
void TreeCheck::finish(goods::check_desk& desk) {
  goods::cache_manager& session = db_.session();
  const bool isAttached = goods::cache_manager::current() == &session;
  if (!indexed_.empty() && !isAttached) session.attach();
  for (const goods::object_id id : indexed_) {
    const TarnRef node = TarnRef::Trusted(session.find(id));
    try {
      const std::vector<std::string> faults = TarnValueIndex::Check(node);
      if (faults.empty()) continue;
      TarnPath path;
      TarnObject::GetPath(node, path);
      for (const std::string& fault : faults) desk.report(id, path.view(), fault);
    } catch (const goods::error_info& error) {
      if (error.code() != goods::error_code::corrupt_data &&
          error.code() != goods::error_code::object_deleted) {
        throw;
      }
    }
  }
  if (!indexed_.empty() && !isAttached) goods::cache_manager::detach();
}

}  // namespace tarns
