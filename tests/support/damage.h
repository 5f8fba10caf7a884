#pragma once

#include <goods/database.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

// What a full check of a TarnManager, or goods::database, finds: a line each, empty when all is
// well. `objects`, unless null, becomes the number of objects that it has seen.
template <class Database>
std::string damage_of(Database& database, std::uint64_t* objects = nullptr) {
  std::string damage;
  goods::check_options options;
  options.full = true;  // the quick check counts no objects
  options.found = [&](const goods::check_finding& finding) {
    damage += finding.path + " (" + std::to_string(finding.id) + "): " + finding.text + '\n';
  };
  const std::uint64_t seen = database.check(options).objects;
  EXPECT_GT(seen, 0U);
  if (objects != nullptr) *objects = seen;
  return damage;
}

// Objects of a sound database once it has been collected.
template <class Manager>
std::uint64_t objects_after_collection(Manager& manager) {
  EXPECT_TRUE(manager.startGarbageCollection());
  std::uint64_t objects = 0;
  EXPECT_EQ(damage_of(manager, &objects), "");
  return objects;
}
