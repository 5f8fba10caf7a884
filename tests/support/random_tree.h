#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnValue.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "examples/Machine.h"

// A small tree of every kind of node: plain ones, values of all types, machines with random
// members; names and texts of any bytes, several children of one name. The same number gives the
// same tree everywhere.
class random_tree {
 public:
  enum class links : bool {
    none,
    any  // nodes in several places, references to any machine, circles of both
  };

  // Puts the tree into `top`, a plain node that is in a tree.
  random_tree(const tarns::TarnRef& top, std::uint64_t number, links wanted)
      : random_(number * 2 + static_cast<std::uint64_t>(wanted)), nodes_{top} {
    for (std::size_t count = below(24); count != 0; --count) add(freshNode());
    for (const auto& machine : machines_) fill(machine, wanted);
    if (wanted == links::none || below(2) == 0) return;
    for (std::size_t count = below(4); count != 0; --count) add(any(nodes_));
  }

  // The pieces of it, for other tests.
  std::size_t below(std::size_t bound) { return random_() % bound; }

 private:
  template <class T>
  const T& any(const std::vector<T>& all) {
    return all[below(all.size())];
  }

  void add(const tarns::TarnRef& node) {
    const tarns::TarnRef parent = any(nodes_);
    modify(parent)->addChild(name().c_str(), node);
    nodes_.push_back(node);
  }

  tarns::TarnRef freshNode() {
    switch (below(8)) {
      case 0:
        machines_.push_back(Machine::Create());
        return machines_.back();
      case 1:
      case 2:
        return tarns::TarnObject::Create();
      default:
        return tarns::TarnValue::CreateValue(value());
    }
  }

  void fill(const tarns::xcptref<Machine>& machine, links wanted) {
    auto body = modify(machine);
    body->setSpeed(static_cast<std::int32_t>(random_()));
    for (unsigned i = 0; i < Machine::kLoads; ++i) body->setLoad(i, real());
    body->setState(static_cast<Machine::State>(below(5)));  // of which 2 and 4 have no name
    body->setValue("Serial", text().substr(0, 7));
    body->setValue("On", below(2) == 0);
    if (const std::string label = text(); !label.empty() || wanted == links::any) {
      if (below(4) != 0) body->setLabel(label);
    }
    if (wanted == links::none) return;
    if (below(3) == 0) body->setFeeder(any(machines_));
    if (below(6) != 0) return;
    const auto feeder = Machine::Create();  // that only this member leads to
    modify(feeder)->addChild(name().c_str(), tarns::TarnValue::CreateValue(value()));
    modify(feeder)->setFeeder(any(machines_));
    body->setFeeder(feeder);
  }

  // A value of any type; whole numbers of any length.
  tarns::TarnData value() {
    using tarns::TarnData;
    const std::uint64_t bits = random_() >> below(64);
    switch (below(12)) {
      case 0:
        return TarnData(below(2) == 0);
      case 1:
        return TarnData(real());
      case 2:
        return TarnData(static_cast<float>(real()));
      case 3:
        return TarnData(static_cast<std::int8_t>(bits));
      case 4:
        return TarnData(static_cast<std::int16_t>(bits));
      case 5:
        return TarnData(static_cast<std::int32_t>(bits));
      case 6:
        return TarnData(static_cast<std::int64_t>(below(2) == 0 ? bits : ~bits));
      case 7:
        return TarnData(static_cast<std::uint8_t>(bits));
      case 8:
        return TarnData(static_cast<std::uint16_t>(bits));
      case 9:
        return TarnData(static_cast<std::uint32_t>(bits));
      case 10:
        return TarnData(bits);
      default:
        return TarnData(text());
    }
  }

  double real() {
    using limits = std::numeric_limits<double>;
    static const std::vector<double> odd = {0.0,
                                            -0.0,
                                            0.1,
                                            1e23,
                                            limits::denorm_min(),
                                            limits::min(),
                                            limits::max(),
                                            limits::lowest(),
                                            limits::infinity(),
                                            -limits::infinity(),
                                            limits::quiet_NaN(),
                                            9007199254740993.0};
    switch (below(4)) {
      case 0:
        return any(odd);
      case 1:
        return static_cast<double>(static_cast<std::int64_t>(random_())) / 1000;
      default:
        return std::bit_cast<double>(random_());
    }
  }

  // Words of both forms, what must be quoted, and any bytes.
  std::string text() {
    static const std::vector<std::string> odd = {"Children", "{",       "}",
                                                 "NULL",     "Name",    "Value",
                                                 "=",        "==",      "(65) a",
                                                 " a",       "a ",      "\"",
                                                 "\\",       "\\x41",   "\r\n",
                                                 "\t",       "%",       "%25",
                                                 "%7E",      "~",       "~~2",
                                                 "~.Feeder", "Items_0", "1",
                                                 "True",     "nan:",    "\xEF\xBB\xBF",
                                                 "\xFF",     "\x7F",    "\xC3\xA4\xE2\x82\xAC",
                                                 "\x01",     "a_b_3"};
    std::string made;
    for (std::size_t pieces = below(4); pieces != 0; --pieces) {
      if (below(2) == 0) {
        made += any(odd);
        continue;
      }
      for (std::size_t bytes = below(6); bytes != 0; --bytes) {
        made += static_cast<char>(1 + below(255));
      }
    }
    return made;
  }

  // As a name can be. Some come again and again.
  std::string name() {
    std::string made = below(6) == 0 ? std::string(1, static_cast<char>('a' + below(3))) : text();
    std::erase(made, '~');
    return made.empty() ? "x" : made;
  }

  std::mt19937_64 random_;
  std::vector<tarns::TarnRef> nodes_;
  std::vector<tarns::xcptref<Machine>> machines_;
};
