// What storage_writer stores, for it and for the test that checks it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

// Of one thread: neighbours, far ones, and one that is stored by itself.
inline std::vector<object_number> row_objects(unsigned thread) {
  const object_number base = 0x10100 + thread * 7;
  return {base, base + 1, base + 1000, base + 100'000, base + 100'070};
}

inline std::string row_text(unsigned thread, unsigned number, std::size_t place) {
  std::string text = std::to_string(thread) + " " + std::to_string(number) + " ";
  // Lengths change with the number.
  text.append(place == 4 ? 1500 + number % 4000 : number % 50,
              static_cast<char>('a' + number % 26));
  return text;
}

class text_sink : public state_sink {
 public:
  void found(const object_state& state) override {
    text_.assign(reinterpret_cast<const char*>(state.body.data()), state.body.size());
  }
  void missing(object_number) override { text_.clear(); }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

inline std::string row_text_stored(dbs_storage& storage, object_number number) {
  text_sink sink;
  storage.load({&number, 1}, 0, sink);
  return sink.text();
}

// The number in a thread's row, 0 when there is none. The whole row must have the same.
inline unsigned stored_number(dbs_storage& storage, unsigned thread) {
  const auto objects = row_objects(thread);
  const std::string stored = row_text_stored(storage, objects[0]);
  const unsigned number =
      stored.empty() ? 0 : static_cast<unsigned>(std::stoul(stored.substr(stored.find(' '))));
  for (std::size_t i = 0; i < objects.size(); ++i) {
    const std::string expected = number == 0 ? "" : row_text(thread, number, i);
    EXPECT_EQ(row_text_stored(storage, objects[i]), expected);
  }
  return number;
}

inline void commit_row(dbs_storage& storage, unsigned thread, unsigned number) {
  const class_number layout = storage.intern_layout({});
  const auto objects = row_objects(thread);
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < objects.size(); ++i) texts.push_back(row_text(thread, number, i));
  std::vector<object_change> changes;
  for (std::size_t i = 0; i < objects.size(); ++i)
    changes.push_back({objects[i], layout, std::as_bytes(std::span(texts[i])), false, false});
  storage.commit({changes, nullptr, {}});
}

}  // namespace goods
