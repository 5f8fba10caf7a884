#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <goods/dbs_storage.h>

#include "support/faulty_vfs.h"
#include "support/scratch_directory.h"

namespace goods {

inline std::span<const std::byte> bytes_of(std::string_view text) {
  return std::as_bytes(std::span(text));
}

inline std::string text_of(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Keeps what load() hands over.
class collecting_sink : public state_sink {
 public:
  void found(const object_state& state) override {
    EXPECT_TRUE(found_.emplace(state.number, text_of(state.body)).second) << state.number;
    layouts_[state.number] = state.layout;
  }
  void missing(object_number number) override { EXPECT_TRUE(missing_.insert(number).second); }

  const std::map<object_number, std::string>& found() const { return found_; }
  const std::set<object_number>& missing() const { return missing_; }
  class_number layout(object_number number) const { return layouts_.at(number); }

 private:
  std::map<object_number, std::string> found_;
  std::map<object_number, class_number> layouts_;
  std::set<object_number> missing_;
};

// The changes of one commit, with the texts that they store.
class change_list {
 public:
  explicit change_list(class_number layout) : layout_(layout) {}

  change_list& put(object_number number, std::string text, bool is_new = false) {
    texts_.push_back(std::make_unique<std::string>(std::move(text)));
    changes_.push_back({number, layout_, bytes_of(*texts_.back()), false, is_new});
    return *this;
  }
  change_list& remove(object_number number) {
    changes_.push_back({number, 0, {}, true, false});
    return *this;
  }

  commit_request request(const void* origin = nullptr,
                         std::shared_ptr<void> attachment = {}) const {
    return {changes_, origin, std::move(attachment)};
  }

 private:
  class_number layout_;
  std::vector<std::unique_ptr<std::string>> texts_;
  std::vector<object_change> changes_;
};

// One object's text; nothing when it is missing.
inline std::optional<std::string> load_text(dbs_storage& storage, object_number number,
                                            commit_version at_least = 0) {
  collecting_sink sink;
  storage.load({&number, 1}, at_least, sink);
  const auto found = sink.found().find(number);
  if (found == sink.found().end()) return std::nullopt;
  return found->second;
}

inline std::map<object_number, std::string> load_all(dbs_storage& storage) {
  std::map<object_number, std::string> all;
  object_number last = 0;
  storage.for_each([&](const object_state& state) {
    EXPECT_GT(state.number, last);
    last = state.number;
    all[state.number] = text_of(state.body);
    return true;
  });
  return all;
}

// Keeps what a check finds: faults as "FIRST-LAST: TEXT".
class recording_sink : public check_sink {
 public:
  bool found(const object_state& state) override {
    EXPECT_TRUE(objects_.emplace(state.number, text_of(state.body)).second) << state.number;
    return objects_.size() != most_;
  }
  bool fault(const storage_fault& fault) override {
    faults_.push_back(std::to_string(fault.first) + "-" + std::to_string(fault.last) + ": " +
                      fault.text);
    return true;
  }
  void stop_after(std::size_t objects) { most_ = objects; }

  const std::map<object_number, std::string>& objects() const { return objects_; }
  const std::vector<std::string>& faults() const { return faults_; }

 private:
  std::map<object_number, std::string> objects_;
  std::vector<std::string> faults_;
  std::size_t most_ = 0;
};

inline std::unique_ptr<storage_view> view_of(dbs_storage& storage) {
  const auto pause = storage.pause_commits();
  return storage.view(*pause);
}

// What a full check finds.
inline std::vector<std::string> faults_of(dbs_storage& storage) {
  recording_sink sink;
  EXPECT_TRUE(view_of(storage)->check(true, sink));
  return sink.faults();
}

inline class_number some_layout(dbs_storage& storage) {
  return storage.intern_layout(bytes_of("some layout"));
}

inline commit_version commit_text(dbs_storage& storage, object_number number, std::string text) {
  change_list changes(some_layout(storage));
  return storage.commit(changes.put(number, std::move(text)).request());
}

// Matches a callable that throws a failure of this code whose text fits.
MATCHER_P2(fails_with, code, text, "") {
  try {
    arg();
  } catch (const database_error& error) {
    *result_listener << "throws " << static_cast<unsigned>(error.code()) << ": " << error.what();
    return error.code() == code && testing::ExplainMatchResult(text, error.what(), result_listener);
  }
  *result_listener << "throws nothing";
  return false;
}

// A directory of its own; stores in it are opened by name.
class storage_test : public testing::Test {
 protected:
  std::shared_ptr<dbs_storage> open(const std::string& name = "store",
                                    const std::string& options = "") {
    return open_storage("file:" + name + options, scratch_.path().string());
  }
  std::string path(const std::string& name) const { return scratch_.file(name); }

  faulty_vfs disk_;  // fails only when told to, and syncs nothing
  scratch_directory scratch_;
};

}  // namespace goods
