// What a check knows about each object.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

// One byte of marks for each object number. Memory is taken for 1,024 numbers at a time, and only
// for objects that exist: what a hostile store names costs nothing. Threads: one.
class object_marks {
 public:
  enum mark : std::uint8_t {
    exists = 1,
    is_index = 2,
    is_page = 4,
    is_member = 8,
    reached = 16,  // something reachable refers to it, whether it exists or not
    placed = 32,   // a page in an index, a member in a page
    wants_place = 64,
  };

  bool has(object_number number, mark one) const {
    const std::size_t chunk = number / chunk_size;
    return chunk < chunks_.size() && chunks_[chunk] &&
           ((*chunks_[chunk])[number % chunk_size] & one) != 0;
  }

  // An object that exists.
  void add(object_number number, unsigned marks) {
    const std::size_t chunk = number / chunk_size;
    if (chunk >= chunks_.size()) chunks_.resize(chunk + 1);
    if (!chunks_[chunk]) chunks_[chunk] = std::make_unique<bytes>();
    set(number, marks | exists);
  }

  // Whether anything was not set yet. Of numbers with no object anywhere near, nothing is kept.
  bool set(object_number number, unsigned marks) {
    const std::size_t chunk = number / chunk_size;
    if (chunk >= chunks_.size() || !chunks_[chunk]) return true;
    std::uint8_t& all = (*chunks_[chunk])[number % chunk_size];
    const std::uint8_t before = all;
    all = static_cast<std::uint8_t>(all | marks);
    return all != before;
  }

  // Shows all objects, and other numbers that have marks, ascending.
  template <class Visit>
  void for_each(Visit&& visit) const {
    for (std::size_t chunk = 0; chunk < chunks_.size(); ++chunk) {
      for (std::size_t i = 0; chunks_[chunk] && i < chunk_size; ++i) {
        const std::uint8_t marks = (*chunks_[chunk])[i];
        if (marks != 0) visit(static_cast<object_number>(chunk * chunk_size + i), marks);
      }
    }
  }

 private:
  static constexpr std::size_t chunk_size = 1024;
  using bytes = std::array<std::uint8_t, chunk_size>;
  std::vector<std::unique_ptr<bytes>> chunks_;
};

}  // namespace goods
