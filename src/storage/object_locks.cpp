#include "storage/object_locks.h"

#include <fmt/format.h>
#include <time.h>

#include <utility>

#include "storage/lock_owner_door.h"
#include "storage/storage_process.h"

namespace goods {
namespace {

constexpr std::size_t first_buckets = 64;

std::int64_t coarse_now() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

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

void remove_holder(lock_node& node, lock_grant& grant) {
  lock_grant** at = &node.holders;
  while (*at != &grant) at = &(*at)->next_holder;
  *at = grant.next_holder;
}

}  // namespace

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
      hold(node, *waiter.grant, mode, waiter.is_upgrade);
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
  enqueue(node, waiter);
  graph().refresh(node);
  if (graph().is_cyclic(owner)) {
    dequeue(node, waiter);
    graph().clear(owner);
    const bool may_pass = can_hold(node, owner, waiter.mode);
    if (may_pass) hold(node, *waiter.grant, waiter.mode, waiter.is_upgrade);
    grant_waiting(node);
    if (may_pass) return;
    throw_error(
        error_code::deadlock,
        fmt::format("Object {} of the storage \"{}\" cannot be locked without a deadlock: {}.",
                    waiter.grant->number, storage_.name(), explain(node, owner)));
  }
  const auto deadline = std::chrono::steady_clock::now() + limit;
  auto& wake = lock_owner::door(owner).wake();
  while (!waiter.granted) {
    if (wake.wait_until(in.lock, deadline) == std::cv_status::no_timeout || waiter.granted)
      continue;
    const std::string holders = explain(node, owner);
    dequeue(node, waiter);
    graph().clear(owner);
    grant_waiting(node);
    if (node.holders == nullptr && node.queue == nullptr) in.drop(&node);
    throw_error(error_code::lock_timeout,
                fmt::format("Object {} of the storage \"{}\" could not be locked within {} ms: {}.",
                            waiter.grant->number, storage_.name(), limit.count(), holders));
  }
}

// "thread 17 has held it exclusively for 12 ms, ..."
std::string object_lock_table::explain(const lock_node& node, const lock_owner& but) const {
  constexpr int most_named = 8;
  std::string text;
  int named = 0;
  for (const lock_grant* holder = node.holders; holder != nullptr; holder = holder->next_holder) {
    if (holder->owner == &but) continue;
    if (++named > most_named) return text + " and others";
    if (!text.empty()) text += ", ";
    text += fmt::format("{} has held it {} for {} ms", holder->owner->description(),
                        holder->mode == lock_mode::shared ? "shared" : "exclusively",
                        (coarse_now() - holder->since) / 1'000'000);
  }
  if (text.empty() && node.queue != nullptr)
    text = fmt::format("{} waits for it longer", node.queue->owner->description());
  return text;
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
