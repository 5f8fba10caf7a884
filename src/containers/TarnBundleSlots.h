// The objects of a block.
#pragma once

#include <tarns/containers/TarnBundleBlock.h>
#include <tarns/core/TarnObject.h>

#include <string_view>
#include <utility>

namespace tarns {

// What a TarnBundleBlock refers to and hardly ever changes: it is written once, with the block.
class TarnBundleSlots : public TarnObject {
  TARN_CLASS(TarnBundleSlots, TarnObject)

 public:
  static constexpr const char* kMember = "BundleBlock";
  static constexpr std::string_view kElementPrefix = "BundleBlock_";

  ~TarnBundleSlots() override;

  bool write(const char* name, GOODSinOut& out) override;

  const xcptref<TarnObject>& at(std::size_t index) const { return slots_[index]; }
  void setAt(std::size_t index, xcptref<TarnObject> child) { slots_[index] = std::move(child); }

 private:
  xcptref<TarnObject> slots_[TarnBundleBlock::kCapacity];
};

}  // namespace tarns
