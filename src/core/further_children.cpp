#include "core/further_children.h"

namespace tarns {

namespace {

FurtherHolderFunction& Function() {
  static FurtherHolderFunction function = nullptr;
  return function;
}

IndivisibleFunction& IndivisibleTest() {
  static IndivisibleFunction function = nullptr;
  return function;
}

}  // namespace

bool DefineFurtherHolder(FurtherHolderFunction function) {
  Function() = function;
  return true;
}

TarnRef FurtherHolderOf(const TarnRef& node) {
  const FurtherHolderFunction function = Function();
  return function != nullptr ? function(node) : TarnRef();
}

bool DefineIndivisible(IndivisibleFunction function) {
  IndivisibleTest() = function;
  return true;
}

bool IsIndivisible(const TarnRef& node) {
  const IndivisibleFunction function = IndivisibleTest();
  return function != nullptr && function(node);
}

}  // namespace tarns
