#include <goods/kept_numbers.h>

#include <atomic>

namespace goods {
namespace {

std::atomic<int> keepers{0};

}  // namespace

kept_numbers::kept_numbers() { ++keepers; }
kept_numbers::~kept_numbers() { --keepers; }
bool kept_numbers::is_any() { return keepers.load() != 0; }

}  // namespace goods
