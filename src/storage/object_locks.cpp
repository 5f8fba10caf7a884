#include "storage/object_locks.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "storage/coarse_clock.h"
#include "storage/lock_owner_door.h"
#include "storage/storage_process.h"

namespace goods {
namespace {

constexpr std::size_t first_buckets = 64;

// A wait that is meant to have no end; so late a moment that adding to it cannot overflow.
constexpr std::chrono::hours longest_wait{24};

waits_for_graph& graph() { return storage_process::instance().waits(); }

bool can_hold(const lock_node& node, const lock_owner& owner, lock_mode mode) {
  for (const lock_grant* holder = node.holders; holder != nullptr; holder = holder->next_holder) {
    if (holder->owner == &owner) continue;
    if (mode == lock_mode::exclusive || holder->mode == lock_mode::exclusive) return false;
  }
  return true;
}

void hold(lock_node& node, lock_grant& grant, lock_mode mode, bool is_upgrade) {
  grant.mode = mode;
  grant.since = coarse_now();
  if (is_upgrade) return;
  grant.node = &node;
  grant.next_holder = std::exchange(node.holders, &grant);
}

void enqueue(lock_node& node, lock_waiter& waiter) {
  lock_waiter** at = &node.queue;
  while (*at != nullptr && (!waiter.is_upgrade || (*at)->is_upgrade)) at = &(*at)->next;
  waiter.next = std::exchange(*at, &waiter);
}

void dequeue(lock_node& node, lock_waiter& waiter) {
  lock_waiter** at = &node.queue;
  while (*at != &waiter) at = &(*at)->next;
  *at = waiter.next;
}

// Lets in whoever comes first, as far as they go together.
void grant_waiting(lock_node& node) {
  while (node.queue != nullptr && can_hold(node, *node.queue->owner, node.queue->mode)) {
    lock_waiter& first = *node.queue;
    node.queue = first.next;
    hold(node, *first.grant, first.mode, first.is_upgrade);
    graph().clear(*first.owner);
    first.granted = true;
    lock_owner::door(*first.owner).wake().notify_one();
  }
  if (node.queue != nullptr) graph().refresh(node);
}

// Without waiting; those that wait learn how it is held.
void hold_and_tell(lock_node& node, lock_waiter& waiter) {
  hold(node, *waiter.grant, waiter.mode, waiter.is_upgrade);
  if (node.queue != nullptr) graph().refresh(node);
}

void remove_holder(lock_node& node, lock_grant& grant) {
  lock_grant** at = &node.holders;
  while (*at != &grant) at = &(*at)->next_holder;
  *at = grant.next_holder;
}

// Takes a request out of the queue again, unless it has been granted.
class queued {
 public:
  queued(lock_node& node, lock_waiter& waiter) : node_(node), waiter_(waiter) {
    enqueue(node_, waiter_);
  }
  ~queued() { leave(); }
  queued(const queued&) = delete;
  queued& operator=(const queued&) = delete;

  void leave() noexcept {
    if (waiter_.granted || has_left_) return;
    has_left_ = true;
    dequeue(node_, waiter_);
    graph().clear(*waiter_.owner);
    grant_waiting(node_);
  }

 private:
  lock_node& node_;
  lock_waiter& waiter_;
  bool has_left_ = false;
};

// "thread 17 has held it exclusively for 12 ms, ..."
std::string who_is_in_the_way(const lock_conflict& conflict, std::size_t most) {
  std::string text;
  for (const lock_wait& wait : conflict.waits) {
    if (most-- == 0) break;
    if (!text.empty()) text += ", ";
    text += describe_in_the_way(wait, "it");
  }
  return text;
}

}  // namespace

std::string describe_in_the_way(const lock_wait& wait, std::string_view object) {
  if (!wait.is_held) return fmt::format("{} waits for {} longer", wait.in_the_way, object);
  return fmt::format("{} has held {} {} for {} ms", wait.in_the_way, object,
                     wait.held == lock_mode::shared ? "shared" : "exclusively", wait.milliseconds);
}

// ---- the shard's nodes

lock_node*& object_lock_table::shard::bucket_of(object_number number) {
  return buckets[(number / shards) & (buckets.size() - 1)];
}

lock_node* object_lock_table::shard::need(object_number number) {
  if (used >= buckets.size()) grow();
  lock_node*& bucket = bucket_of(number);
  for (lock_node* node = bucket; node != nullptr; node = node->next)
    if (node->number == number) return node;
  lock_node* node = unused;
  if (node != nullptr)
    unused = node->next;
  else
    node = &nodes.emplace_back();
  node->number = number;
  node->next = std::exchange(bucket, node);
  ++used;
  return node;
}

void object_lock_table::shard::drop(lock_node* node) {
  lock_node** at = &bucket_of(node->number);
  while (*at != node) at = &(*at)->next;
  *at = node->next;
  node->next = std::exchange(unused, node);
  --used;
}

void object_lock_table::shard::grow() {
  std::vector<lock_node*> larger(buckets.empty() ? first_buckets : buckets.size() * 4);
  buckets.swap(larger);
  for (lock_node* chain : larger) {
    while (chain != nullptr) {
      lock_node* node = std::exchange(chain, chain->next);
      lock_node*& bucket = bucket_of(node->number);
      node->next = std::exchange(bucket, node);
    }
  }
}

// ---- the table

object_lock_table::object_lock_table(const dbs_storage& storage) : storage_(storage) {}

object_lock_table::~object_lock_table() = default;

object_lock_table::shard& object_lock_table::shard_of(object_number number) {
  return shards_[number % shards];
}

commit_version object_lock_table::lock(lock_owner& owner, object_number number, lock_mode mode,
                                       std::chrono::milliseconds limit) {
  lock_owner::door door(owner);
  lock_grant* held = door.find(*this, number);
  if (held != nullptr && held->mode >= mode) return storage_.newest_version();

  lock_waiter waiter{&owner, held != nullptr ? held : door.new_grant(), mode, held != nullptr};
  if (!waiter.is_upgrade) {
    waiter.grant->table = this;
    waiter.grant->owner = &owner;
    waiter.grant->number = number;
  }
  shard& in = shard_of(number);
  try {
    guarded_scope scope(in.lock);
    lock_node& node = *in.need(number);
    if (can_hold(node, owner, mode) && (waiter.is_upgrade || node.queue == nullptr))
      hold_and_tell(node, waiter);
    else
      wait(in, node, waiter, limit);
  } catch (...) {
    if (!waiter.is_upgrade) door.put_back(waiter.grant);
    throw;
  }
  if (!waiter.is_upgrade) door.insert(waiter.grant);
  return storage_.newest_version();
}

void object_lock_table::wait(shard& in, lock_node& node, lock_waiter& waiter,
                             std::chrono::milliseconds limit) {
  lock_owner& owner = *waiter.owner;
  graph().make_room(node, owner);
  lock_conflict& conflict = lock_owner::door(owner).conflict();
  conflict.waits.clear();
  queued in_queue(node, waiter);
  if (graph().closes_circle(node, waiter, conflict)) {
    if (can_hold(node, owner, waiter.mode)) {
      // It would only wait behind others that wait.
      dequeue(node, waiter);
      graph().clear(owner);
      hold(node, *waiter.grant, waiter.mode, waiter.is_upgrade);
      waiter.granted = true;
      grant_waiting(node);
      return;
    }
    throw_error(
        error_code::deadlock,
        fmt::format("Object {} of the storage \"{}\" cannot be locked without a deadlock: {}.",
                    waiter.grant->number, storage_.name(), who_is_in_the_way(conflict, 1)));
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::min<std::chrono::milliseconds>(limit, longest_wait);
  auto& wake = lock_owner::door(owner).wake();
  while (!waiter.granted) {
    if (wake.wait_until(in.lock, deadline) == std::cv_status::no_timeout || waiter.granted)
      continue;
    conflict = graph().in_the_way_of(waiter);
    in_queue.leave();
    if (node.holders == nullptr && node.queue == nullptr) in.drop(&node);
    throw_error(error_code::lock_timeout,
                fmt::format("Object {} of the storage \"{}\" could not be locked within {} ms: {}.",
                            waiter.grant->number, storage_.name(), limit.count(),
                            who_is_in_the_way(conflict, conflict.waits.size())));
  }
}

void object_lock_table::unlock_all(lock_owner& owner) noexcept {
  lock_owner::door door(owner);
  for (lock_grant* grant = door.first_held(); grant != nullptr; grant = grant->next_held)
    if (grant->table == this) release(*grant);
  door.forget(*this);
}

std::size_t object_lock_table::waiting(object_number number) {
  shard& in = shard_of(number);
  guarded_scope scope(in.lock);
  if (in.buckets.empty()) return 0;
  std::size_t count = 0;
  for (const lock_node* node = in.bucket_of(number); node != nullptr; node = node->next) {
    if (node->number != number) continue;
    for (const lock_waiter* waiter = node->queue; waiter != nullptr; waiter = waiter->next) ++count;
  }
  return count;
}

void object_lock_table::release(lock_grant& grant) noexcept {
  shard& in = shard_of(grant.number);
  guarded_scope scope(in.lock);
  lock_node& node = *grant.node;
  remove_holder(node, grant);
  if (node.queue != nullptr) grant_waiting(node);
  if (node.holders == nullptr && node.queue == nullptr) in.drop(&node);
}

}  // namespace goods
