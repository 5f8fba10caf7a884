#pragma once

#include <gtest/gtest.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnPath.h>
#include <tarns/core/TarnValues.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/stored_tree.h"

enum class tree_kind { transient, stored };

// Runs every case on a tree that is in memory only and on one in a database, where each call is a
// transaction of its own.
class node_test : public testing::TestWithParam<tree_kind> {
 protected:
  node_test() {
    if (is_stored()) stored_ = std::make_unique<stored_tree>();
    root_ = is_stored() ? stored_->root() : tarns::TarnRef(tarns::TarnObject::Create());
  }

  bool is_stored() const { return GetParam() == tree_kind::stored; }
  stored_tree& stored() { return *stored_; }
  const tarns::TarnRef& root() const { return root_; }

  // Lets go of everything in memory and loads it again; nothing on a tree in memory.
  void reload() {
    if (!is_stored()) return;
    root_ = nullptr;
    stored_->reopen();
    root_ = stored_->root();
  }

  // Runs `work` as one transaction where the tree is stored.
  template <class Work>
  void atomically(Work&& work) {
    if (is_stored()) {
      stored_->session().atomically(work);
    } else {
      work();
    }
  }

  // A child of the root, new.
  tarns::TarnRef add(const char* name) {
    tarns::TarnRef child = tarns::TarnObject::Create();
    modify(root_)->addChild(name, child);
    return child;
  }

 private:
  std::unique_ptr<stored_tree> stored_;
  tarns::TarnRef root_;
};

#define INSTANTIATE_NODE_TEST(suite)                                          \
  INSTANTIATE_TEST_SUITE_P(                                                   \
      Trees, suite, testing::Values(tree_kind::transient, tree_kind::stored), \
      [](const auto& tree) { return tree.param == tree_kind::stored ? "Stored" : "Transient"; })

// The names of a node's abstract children in order.
inline std::vector<std::string> names_of(const tarns::TarnRef& node) {
  std::vector<std::string> names;
  for (const auto& [name, child] : node->children()) names.push_back(name);
  return names;
}

inline std::string path_of(const tarns::TarnRef& node) {
  tarns::TarnPath path;
  tarns::TarnObject::GetPath(node, path);
  return std::string(path.view());
}

// The path of a child of the node at `path`.
inline std::string joined(const std::string& path, const std::string& name) {
  std::string whole = path;
  if (!whole.empty()) whole += '~';
  return whole += name;
}

// Every node and value below a node: path to class and value. Links that lead upwards are not
// followed.
inline std::map<std::string, std::string> picture_of(const tarns::TarnRef& top) {
  std::map<std::string, std::string> picture;
  std::vector<std::pair<std::string, tarns::TarnRef>> open{{"", top}};
  while (!open.empty()) {
    const auto [path, node] = open.back();
    open.pop_back();
    tarns::TarnData value;
    node->get(nullptr, value);
    picture[path] = std::string(node->getType()) + "=" + value.getString();
    for (const auto& [name, child] : node->children()) {
      if (child->getParent() == node) {
        open.emplace_back(joined(path, name), child);
      }
    }
  }
  return picture;
}
