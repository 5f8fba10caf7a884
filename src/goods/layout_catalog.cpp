#include "goods/layout_catalog.h"

#include <algorithm>

#include <fmt/format.h>

#include <goods/errors.h>

#include "goods/state_loader.h"

namespace goods {

layout_catalog::layout_catalog(dbs_storage& storage, storage_number number)
    : storage_(storage), number_(number) {}

layout_catalog::~layout_catalog() {
  for (const auto& part : loaders_) {
    std::atomic<const state_loader*>* const entries = part.load();
    for (std::size_t i = 0; entries != nullptr && i < chunk; ++i) delete entries[i].load();
    delete[] entries;
  }
  for (const auto& part : numbers_) delete[] part.load();
}

// The place of `index`, whose part of the table is made on demand by one thread at a time.
template <class T>
std::atomic<T>* layout_catalog::slot(table<T>& of, std::size_t index, bool make) {
  std::atomic<std::atomic<T>*>& part = of[index / chunk];
  std::atomic<T>* entries = part.load(std::memory_order_acquire);
  if (entries == nullptr) {
    if (!make) return nullptr;
    entries = new std::atomic<T>[chunk]();
    part.store(entries, std::memory_order_release);
  }
  return entries + index % chunk;
}

class_number layout_catalog::number_for(const class_descriptor& cls) {
  const std::size_t index = cls.index();
  if (index >= numbers_.size() * chunk) {  // more classes than the table has room for
    return storage_.intern_layout(cls.layout().bytes);
  }
  const std::atomic<std::uint32_t>* known = slot(numbers_, index, false);
  if (known != nullptr) {
    if (const std::uint32_t number = known->load(std::memory_order_acquire); number != 0) {
      return static_cast<class_number>(number);
    }
  }
  const class_number number = storage_.intern_layout(cls.layout().bytes);
  const std::lock_guard guard(lock_);
  slot(numbers_, index, true)->store(number, std::memory_order_release);
  return number;
}

const state_loader& layout_catalog::loader(class_number number) {
  const std::atomic<const state_loader*>* known = slot(loaders_, number, false);
  if (known != nullptr) {
    if (const state_loader* found = known->load(std::memory_order_acquire)) return *found;
  }
  return make_loader(number);
}

const state_loader& layout_catalog::make_loader(class_number number) {
  const std::lock_guard guard(lock_);
  std::atomic<const state_loader*>& entry = *slot(loaders_, number, true);
  if (const state_loader* found = entry.load(std::memory_order_acquire)) return *found;
  const std::vector<layout_record> records = storage_.layouts();
  const auto record = std::ranges::find(records, number, &layout_record::number);
  if (record == records.end()) {
    throw_error(error_code::corrupt_data,
                fmt::format("The storage \"{}\" holds objects of class layout {}, which it does "
                            "not have.",
                            storage_.name(), number));
  }
  auto stored = std::make_shared<const class_layout>(
      class_layout::parse(record->layout, make_object_id(number_, number)));
  class_descriptor& cls = class_for(stored);
  const auto* made = new state_loader(std::move(stored), cls);
  entry.store(made, std::memory_order_release);
  return *made;
}

object* layout_catalog::instantiate(object_handle* handle, const object_state& state) {
  return loader(state.layout).load(handle, state.body, make_object_id(number_, state.number));
}

object* layout_catalog::instantiate_guest(body_arena& arena, const object_state& state) {
  const state_loader& with = loader(state.layout);
  if (!with.cls().may_be_guest()) return nullptr;
  byte_reader in(state.body, make_object_id(number_, state.number));
  in.set_lasting(state.group != nullptr);
  return with.load_guest(arena, in);
}

void layout_catalog::for_each_reference(const object_state& state,
                                        const stored_reference_visitor& visit) {
  goods::for_each_reference(loader(state.layout).layout(), state.body,
                            make_object_id(number_, state.number), visit);
}

const class_layout& layout_catalog::layout(class_number number) { return loader(number).layout(); }

class_descriptor& layout_catalog::class_of(class_number number) { return loader(number).cls(); }

}  // namespace goods
