#include "core/further_children.h"

namespace tarns {

namespace {

FurtherHolderFunction& Function() {
  static FurtherHolderFunction function = nullptr;
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

}  // namespace tarns
