#pragma once

#include <gtest/gtest.h>
#include <tarns/containers/TarnBundle.h>

#include <cstdint>
#include <set>
#include <string>

// Fails the test unless slots, names of blocks and children of a bundle agree. Returns the names of
// its objects.
inline std::set<std::string> VerifyBundle(const tarns::xcptref<tarns::TarnBundle>& bundle) {
  using namespace tarns;
  std::set<std::string> names;
  std::set<std::uint64_t> children, used;
  for (const auto& [name, child] : bundle->getChildWithName("BundledChildren")->children()) {
    EXPECT_TRUE(names.insert(name).second) << name;
    EXPECT_TRUE(children.insert(TarnObject::GetObjectID(child)).second) << name;
    EXPECT_STREQ(child->getName(), name.c_str());
  }
  for (const auto& [name, child] : bundle->getChildWithName("Blocks")->children()) {
    const xcptref<TarnBundleBlock> block(child);
    EXPECT_EQ(name.substr(0, 4), block->getBaseName().view());
    for (unsigned short slot = block->getNextUsed(0); slot < TarnBundleBlock::kCapacity;
         slot = block->getNextUsed(static_cast<unsigned short>(slot + 1))) {
      used.insert(TarnObject::GetObjectID(block->getAt(slot)));
    }
  }
  EXPECT_EQ(used, children);
  return names;
}
