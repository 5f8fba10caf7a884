// The simplest persistent class: a number and two references.
#pragma once

#include <cstdint>

#include <goods/class_descriptor.h>
#include <goods/field_descriptor.h>
#include <goods/metaobject.h>
#include <goods/ref.h>

class cell : public goods::object {
 public:
  explicit cell(std::int64_t number = 0) : object(self_class), value(number) {}
  cell(goods::object_handle* handle, goods::class_descriptor& cls) : object(handle, cls) {}

  std::int64_t value = 0;
  goods::ref<cell> next;
  goods::back_ref<cell> owner;

  static goods::class_descriptor self_class;
};

// A reference to a new cell.
inline goods::ref<cell> new_cell(std::int64_t value, goods::ref<cell> next = nullptr) {
  goods::ref<cell> made(new cell(value));
  modify(made)->next = std::move(next);
  return made;
}
