#include "support/history_workload.h"

#include <tarns/core/TarnException.h>
#include <tarns/session/TarnTransaction.h>

#include <chrono>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

using tarns::TarnException;
using tarns::TarnManager;
using tarns::TarnTransaction;

namespace {

// Transactions until the next list comes into use.
constexpr std::uint64_t transactions_per_list = 60;
constexpr const char* list_prefix = "k";

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string place_name(unsigned place) {
  return "p" + std::to_string(place % history_workload::places);
}

std::string list_name(unsigned list) { return list_prefix + std::to_string(list); }

std::vector<std::uint64_t> elements_of(const std::string& text) {
  std::istringstream numbers(text);
  std::vector<std::uint64_t> list;
  std::uint64_t element = 0;
  while (numbers >> element) list.push_back(element);
  return list;
}

}  // namespace

// One thread's share. A transaction that is repeated begins with begin() again.
class history_workload::thread_work {
 public:
  thread_work(history_workload& whole, TarnManager& manager, std::string who, unsigned seed)
      : whole_(whole), manager_(manager), who_(std::move(who)), random_(seed) {}

  void one(bool tolerates_errors) {
    first_list_ =
        whole_.first_list_ + static_cast<unsigned>(whole_.transactions_++ / transactions_per_list);
    current_.reset();
    try {
      const work kind = choose();
      if (kind == work::single) {
        single();
      } else if (kind == work::roll_back) {
        roll_back();
      } else {
        commit(kind);
      }
    } catch (const TarnException& error) {
      const bool is_known = error.getErrorID() == 100 || error.getErrorID() == 101;
      if (!tolerates_errors && !is_known) throw;
      end(history_transaction::outcome::aborted);
    }
  }

  void read_all(unsigned end_of_lists) {
    TarnTransaction transaction(manager_);
    begin();
    for (unsigned list = whole_.first_list_; list < end_of_lists; ++list) read(list_name(list));
    transaction.commit();
    end(history_transaction::outcome::committed);
  }

 private:
  struct found_list {
    std::string path, text;
  };

  work choose() {
    const unsigned dice = random_() % 100;
    if (dice < 20) return work::look;
    if (dice < 55) return work::append;
    if (dice < 65) return work::move;
    if (dice < 75) return work::take_over;
    if (dice < 80) return work::scan;
    if (dice < 95) return work::single;
    return work::roll_back;
  }

  void begin() {
    if (current_) {
      count(work::repeat);
      end(history_transaction::outcome::aborted);
    }
    current_.emplace();
    current_->who = who_;
    current_->begun = now();
  }

  void end(history_transaction::outcome outcome) {
    if (!current_) return;
    current_->end = outcome;
    if (outcome == history_transaction::outcome::committed) current_->ended = now();
    whole_.log_.ended(*std::exchange(current_, std::nullopt));
  }

  void count(work kind) { ++whole_.counts_[static_cast<std::size_t>(kind)]; }

  void commit(work kind) {
    manager_.transaction([&] {
      begin();
      perform(kind);
      whole_.log_.commits(*current_);
    });
    end(history_transaction::outcome::committed);
    count(kind);
  }

  void roll_back() {
    TarnTransaction transaction(manager_);
    begin();
    perform(random_() % 2 == 0 ? work::append : work::take_over);
    transaction.rollback();
    end(history_transaction::outcome::aborted);
    count(work::roll_back);
  }

  void perform(work kind) {
    const unsigned times = 1 + random_() % 3;
    switch (kind) {
      case work::look:
        for (unsigned i = 0; i < times; ++i) read(some_list());
        return;
      case work::append:
        for (unsigned i = 0; i < times; ++i) {
          append(some_list());
          if (random_() % 2 == 0) read(some_list());
        }
        return;
      case work::move:
        return move(some_list());
      case work::take_over:
        return take_over(some_list());
      default:
        return scan();
    }
  }

  std::string some_list() { return list_name(first_list_ + random_() % lists_in_use); }

  // The list, wherever it is, as a step of the transaction.
  std::optional<found_list> read(const std::string& name) {
    let_others_in();
    for (unsigned place = 0; place < places; ++place) {
      const std::string path = place_name(place) + "~" + name;
      if (auto value = manager_.valueAt(path)) {
        note_read(name, path, std::string(value->getText()));
        return found_list{path, std::string(value->getText())};
      }
    }
    note_read(name, {}, {});
    return std::nullopt;
  }

  // Else a thread mostly runs a whole transaction, or many, before another one has its turn.
  void let_others_in() {
    if (random_() % 4 == 0) std::this_thread::yield();
  }

  void note_read(const std::string& name, const std::string& path, const std::string& text) {
    current_->steps.push_back({history_step::kind::read, name, path, elements_of(text), 0});
  }

  // `text` with one element more, as a step.
  std::string longer(const std::string& name, const std::string& path, const std::string& text) {
    let_others_in();
    const std::uint64_t element = whole_.next_element_++;
    current_->steps.push_back({history_step::kind::append, name, path, {}, element});
    return text + (text.empty() ? "" : " ") + std::to_string(element);
  }

  void append(const std::string& name) {
    const std::optional<found_list> found = read(name);
    const std::string path = found ? found->path : some_place() + "~" + name;
    manager_.set(path, longer(name, path, found ? found->text : ""));
  }

  std::string some_place() { return place_name(random_()); }
  std::string other_place(const std::string& path) {
    const auto place = static_cast<unsigned>(path[1] - '0');
    return place_name(place + 1 + random_() % (places - 1));
  }

  void move(const std::string& name) {
    const std::optional<found_list> found = read(name);
    if (!found) return append(name);
    const std::string to = other_place(found->path) + "~" + name;
    manager_.moveBranch(found->path, to);
    if (random_() % 2 == 0) append(name);
  }

  void take_over(const std::string& name) {
    const std::optional<found_list> found = read(name);
    if (!found) return append(name);
    manager_.deleteBranch(found->path);
    const std::string to = other_place(found->path) + "~" + name;
    manager_.set(to, longer(name, to, found->text));
  }

  // What the nodes list, in place of looking for names. Lists that are met nowhere have nothing.
  void scan() {
    std::vector<bool> met(lists_in_use);
    for (unsigned place = 0; place < places; ++place) {
      for (const auto& [name, child] : manager_.children(place_name(place))) {
        const unsigned list = static_cast<unsigned>(std::stoul(name.substr(1))) - first_list_;
        if (list >= lists_in_use) continue;
        met[list] = true;
        const auto value = child->valueAt("");
        note_read(name, place_name(place) + "~" + name, value ? std::string(value->getText()) : "");
      }
    }
    for (unsigned list = 0; list < lists_in_use; ++list) {
      if (!met[list]) note_read(list_name(first_list_ + list), {}, {});
    }
  }

  // Each call is a transaction by itself.
  void single() {
    const std::string name = some_list(), path = some_place() + "~" + name;
    begin();
    if (random_() % 4 != 0) {
      const auto value = manager_.valueAt(path);
      // Where nothing is, the list may be elsewhere.
      if (value) note_read(name, path, std::string(value->getText()));
    } else {
      try {
        manager_.moveBranch(path, other_place(path) + "~" + name);
      } catch (const TarnException& error) {
        if (error.getErrorID() != 7) throw;  // nothing there
      }
    }
    if (current_->steps.empty()) {
      current_.reset();
    } else {
      end(history_transaction::outcome::committed);
      count(work::single);
    }
  }

  history_workload& whole_;
  TarnManager& manager_;
  const std::string who_;
  std::minstd_rand random_;
  unsigned first_list_ = 0;                     // of those in use
  std::optional<history_transaction> current_;  // none between two
};

history_workload::history_workload(observer& log, std::uint64_t first_element, unsigned first_list)
    : log_(log), first_list_(first_list), next_element_(first_element) {}

void history_workload::prepare(TarnManager& manager) {
  manager.transaction([&] {
    for (unsigned place = 0; place < places; ++place) {
      if (!manager.getObject(place_name(place)).is_null()) continue;
      const tarns::TarnRef node = tarns::TarnObject::Create();
      manager.attachToStorage(node, place % manager.getNumStorages());
      manager.set(place_name(place), node);
    }
  });
}

void history_workload::run(TarnManager& manager, const std::string& who, unsigned seed,
                           const std::function<bool()>& is_enough, bool tolerates_errors) {
  thread_work mine(*this, manager, who, seed);
  while (!is_enough()) mine.one(tolerates_errors);
}

unsigned history_workload::end_of_lists() const {
  return first_list_ + static_cast<unsigned>(transactions_ / transactions_per_list) + lists_in_use;
}

void history_workload::read_all(TarnManager& manager, unsigned end) {
  thread_work(*this, manager, "at the end", 1).read_all(end);
}
