// Tells who waits for objects of a session to be changed.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <unordered_map>
#include <vector>

#include <goods/cache_manager.h>
#include <goods/dbs_storage.h>
#include <goods/object_ref.h>
#include <goods/task.h>

namespace goods {

class event;
class object_cache;

// What a session remembers of recent commits, the events that wait for the next ones, and the
// thread that takes commits in as soon as they are there, and signals.
//
// A commit of any session wakes the thread (commit_listener), but only while somebody waits. It has
// the session take the commit in, as any thread that reads may have done before it; whoever does
// that hands the notices to note(), which moves the events that they concern to those that are
// ready. The thread signals these, one after the other. So no event is ever signalled by a thread
// that commits or reads.
//
// Locks: object_cache::publishing_ before lock_, and that before the bell's. Nothing is locked
// while an event is signalled.
// Threads: any.
class modification_signals : private commit_listener {
 public:
  using subscriptions = std::span<const std::unique_ptr<notice_subscription>>;

  // `cache` and `notices` outlive it. Called while no commit is being published.
  modification_signals(object_cache& cache, subscriptions notices,
                       std::vector<commit_version> taken_in);
  // Events that wait are forgotten. Not on the thread that signals.
  ~modification_signals() override { stop(); }
  modification_signals(const modification_signals&) = delete;
  modification_signals& operator=(const modification_signals&) = delete;

  // Ends the thread, which may be taking commits in; called before the cache forgets these signals.
  void stop();

  // Signals `when` once any of the objects is changed by a commit after `as_of`, by storage; soon
  // when that has happened already, or cannot be told any more.
  void add(event& when, std::span<const object_id> objects, std::span<const commit_version> as_of);
  // See cache_manager::withdraw_signal().
  bool withdraw(const event& when);
  // False when none of the objects was changed after `since`; true also when that cannot be told.
  bool have_changed(std::span<const object_id> objects, std::span<const commit_version> since);

  void add_feed(commit_feed& feed);
  void remove_feed(commit_feed& feed);

  // A commit of the session or another one, in order. By the holder of publishing_.
  void note(storage_number storage, const notice& news) noexcept;

 private:
  struct waiting {
    event* when;
    std::vector<object_id> objects;
    bool is_ready = false;
  };
  using waiting_list = std::list<waiting>;
  struct change {
    object_id id;
    commit_version version;
  };
  static constexpr std::size_t most_changes = 32 * 1024;

  void committed() noexcept override { ring(); }
  void ring() noexcept;
  void run() noexcept;
  void take_in() noexcept;
  void deliver() noexcept;

  // With lock_.
  bool changed_after(std::span<const object_id> objects,
                     std::span<const commit_version> as_of) const;
  void remember(object_id id, commit_version version) noexcept;
  void forget_objects_of(waiting_list::iterator one) noexcept;
  void forget_event_of(waiting_list::iterator one) noexcept;
  void make_ready(waiting_list::iterator one) noexcept;
  void listen();
  void stop_listening_if_done() noexcept;

  object_cache& cache_;
  const subscriptions notices_;

  std::mutex lock_;  // of all up to the bell
  // The last changes, in a ring, and by storage up to which version some have been forgotten.
  std::vector<change> changes_;
  std::size_t oldest_change_ = 0;
  std::vector<commit_version> forgotten_;

  waiting_list waiting_, ready_;
  std::unordered_multimap<object_id, waiting_list::iterator> by_object_;    // of waiting_
  std::unordered_multimap<const event*, waiting_list::iterator> by_event_;  // of both
  std::vector<commit_feed*> feeds_;
  bool listens_ = false;
  const event* signalling_ = nullptr;
  std::condition_variable signalled_;
  std::thread::id signaller_;  // of thread_

  std::mutex bell_;
  std::condition_variable rung_;
  bool is_rung_ = false;  // under bell_
  bool stops_ = false;    // written under lock_ and bell_

  task thread_;  // the last one, since it uses all others
};

}  // namespace goods
