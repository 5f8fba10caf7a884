#pragma once

#include <gtest/gtest.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/schema/TarnCloner.h>

#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

#include "examples/Machine.h"
#include "support/session_fixture.h"

// Branches to copy and merge.
class ClonerFixture : public session_test {
 protected:
  tarns::TarnRef at(const std::string& path) { return manager().getObject(path); }
  void removeAll() {
    while (manager().getNumChildren("") > 0) manager().deleteBranch(manager().getChildName("", 0));
  }
  // "a~b=1 a~c": values and nodes.
  void grow(const std::string& tree) {
    std::istringstream words(tree);
    for (std::string word; words >> word;) {
      const std::size_t sign = word.find('=');
      if (sign == std::string::npos) {
        manager().set(word);
      } else if (const std::string value = word.substr(sign + 1); value[0] == '"') {
        manager().set(word.substr(0, sign), value.substr(1));
      } else {
        manager().set(word.substr(0, sign), std::stoi(value));
      }
    }
  }
  void copyTo(const std::string& from, const std::string& to, std::size_t batch) {
    tarns::TarnCloner({.batchSize = batch}).copyInBatches(at(from), manager().getRoot(), to);
  }
  tarns::xcptref<Machine> machineAt(const std::string& path) {
    return tarns::xcptref<Machine>(at(path));
  }
  tarns::xcptref<Machine> addMachine(const std::string& path) {
    tarns::xcptref<Machine> machine = Machine::Create();
    manager().set(path, machine);
    return machine;
  }
  // A collection that is being balanced: of the children "0" to "5", which are their own values,
  // the first three have been moved.
  tarns::xcptref<tarns::TarnCollection> addBalancing(const std::string& path) {
    const tarns::TarnRef old = tarns::TarnObject::Create();
    for (int i = 3; i < 6; ++i)
      modify(old)->setValue(std::to_string(i).c_str(), tarns::TarnData(i));
    tarns::xcptref<tarns::TarnCollection> collection(new tarns::TarnCollection(old));
    manager().set(path, collection);
    for (int i = 0; i < 3; ++i) manager().set(path + "~" + std::to_string(i), i);
    return collection;
  }
  // How many children of each name.
  std::map<std::string, int> namesOf(const char* path) {
    std::map<std::string, int> found;
    for (const auto& [name, child] : at(path)->children()) ++found[name];
    return found;
  }
};
