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

bool can_hold(const lock_node& node, const lock_waiter& request) {
  for (const lock_grant* holder = node.holders; holder != nullptr; holder = holder->next_holder)
    if (holder->owner != request.owner && holder->excludes(request.members, request.mode))
      return false;
  return true;
}

bool is_awaited(const lock_node& node, std::uint64_t members) {
  for (const lock_waiter* waiter = node.queue; waiter != nullptr; waiter = waiter->next)
    if ((waiter->members & members) != 0) return true;
  return false;
}

void hold(lock_node& node, const lock_waiter& request) {
  lock_grant& grant = *request.grant;
  if (request.mode == lock_mode::exclusive) {
    if (grant.exclusive == 0) grant.exclusive_since = coarse_now();
    grant.exclusive |= request.members;
    grant.shared &= ~request.members;
  } else {
    if (grant.shared == 0) grant.shared_since = coarse_now();
    grant.shared |= request.members & ~grant.exclusive;
  }
  if (!request.is_first) return;
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

// Lets in whoever comes first for each of these, as far as they go together.
void grant_waiting(lock_node& node, std::uint64_t members) {
  for (lock_waiter** at = &node.queue; *at != nullptr;) {
    lock_waiter& next = **at;
    if ((next.members & members) == 0 || !can_hold(node, next)) {
      members &= ~next.members;  // who wants the same waits behind it
      at = &next.next;
      continue;
    }
    *at = next.next;
    hold(node, next);
    graph().clear(*next.owner);
    next.granted = true;
    lock_owner::door(*next.owner).wake().notify_one();
  }
  if (node.queue != nullptr) graph().refresh(node);
}

// Without waiting; those that wait learn how it is held.
void hold_and_tell(lock_node& node, const lock_waiter& request) {
  hold(node, request);
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
    grant_waiting(node_, waiter_.members);
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

lock_node*& object_lock_table::shard::bucket_of(object_number group) {
  return buckets[(group / shards) & (buckets.size() - 1)];
}

lock_node* object_lock_table::shard::need(object_number group) {
  if (used >= buckets.size()) grow();
  lock_node*& bucket = bucket_of(group);
  for (lock_node* node = bucket; node != nullptr; node = node->next)
    if (node->group == group) return node;
  lock_node* node = unused;
  if (node != nullptr)
    unused = node->next;
  else
    node = &nodes.emplace_back();
  node->group = group;
  node->next = std::exchange(bucket, node);
  ++used;
  return node;
}

void object_lock_table::shard::drop(lock_node* node) {
  lock_node** at = &bucket_of(node->group);
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
      lock_node*& bucket = bucket_of(node->group);
      node->next = std::exchange(bucket, node);
    }
  }
}

// ---- the table

object_lock_table::object_lock_table(const dbs_storage& storage) : storage_(storage) {}

object_lock_table::~object_lock_table() = default;

object_lock_table::shard& object_lock_table::shard_of(object_number group) {
  return shards_[group % shards];
}

commit_version object_lock_table::lock(lock_owner& owner, object_number number, lock_mode mode,
                                       std::chrono::milliseconds limit) {
  const object_number group = neighbours::group_of(number);
  const std::uint64_t member = neighbours::member_of(number);
  lock_grant* held = lock_owner::door(owner).find(*this, group);
  if (held != nullptr && held->holds(member, mode)) return storage_.newest_version();
  lock_waiter wanted{&owner,          held,
                     member,          mode,
                     held == nullptr, held != nullptr && held->holds(member, lock_mode::shared)};
  request(wanted, group, true, limit);
  return storage_.newest_version();
}

commit_version object_lock_table::lock_shared(lock_owner& owner, const neighbours& objects,
                                              std::chrono::milliseconds limit) {
  lock_grant* held = lock_owner::door(owner).find(*this, objects.group);
  const std::uint64_t known = held != nullptr ? held->shared | held->exclusive : 0;
  const std::uint64_t missing = objects.members & ~known;
  if (missing == 0) return storage_.newest_version();
  lock_waiter wanted{&owner, held, missing, lock_mode::shared, held == nullptr, false};
  if (request(wanted, objects.group, false, limit)) return storage_.newest_version();
  return lock_table::lock_shared(owner, {objects.group, missing}, limit);
}

bool object_lock_table::request(lock_waiter& wanted, object_number group, bool waits,
                                std::chrono::milliseconds limit) {
  lock_owner::door door(*wanted.owner);
  if (wanted.is_first) {
    wanted.grant = door.new_grant();
    *wanted.grant = {.table = this, .owner = wanted.owner, .group = group};
  }
  bool is_granted = true;
  shard& in = shard_of(group);
  try {
    guarded_scope scope(in.lock);
    lock_node& node = *in.need(group);
    if (can_hold(node, wanted) && (wanted.is_upgrade || !is_awaited(node, wanted.members)))
      hold_and_tell(node, wanted);
    else if (waits)
      wait(in, node, wanted, limit);
    else
      is_granted = false;
  } catch (...) {
    if (wanted.is_first) door.put_back(wanted.grant);
    throw;
  }
  if (!wanted.is_first) return is_granted;
  is_granted ? door.insert(wanted.grant) : door.put_back(wanted.grant);
  return is_granted;
}

void object_lock_table::wait(shard& in, lock_node& node, lock_waiter& waiter,
                             std::chrono::milliseconds limit) {
  lock_owner& owner = *waiter.owner;
  graph().make_room(node, owner);
  lock_conflict& conflict = lock_owner::door(owner).conflict();
  conflict.waits.clear();
  queued in_queue(node, waiter);
  if (graph().closes_circle(node, waiter, conflict)) {
    if (can_hold(node, waiter)) {
      // It would only wait behind others that wait.
      dequeue(node, waiter);
      graph().clear(owner);
      hold(node, waiter);
      waiter.granted = true;
      grant_waiting(node, waiter.members);
      return;
    }
    throw_error(
        error_code::deadlock,
        fmt::format("Object {} of the storage \"{}\" cannot be locked without a deadlock: {}.",
                    waiter.number(), storage_.name(), who_is_in_the_way(conflict, 1)));
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
                            waiter.number(), storage_.name(), limit.count(),
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
  const object_number group = neighbours::group_of(number);
  shard& in = shard_of(group);
  guarded_scope scope(in.lock);
  if (in.buckets.empty()) return 0;
  std::size_t count = 0;
  for (const lock_node* node = in.bucket_of(group); node != nullptr; node = node->next) {
    if (node->group != group) continue;
    for (const lock_waiter* waiter = node->queue; waiter != nullptr; waiter = waiter->next)
      count += waiter->members == neighbours::member_of(number) ? 1 : 0;
  }
  return count;
}

void object_lock_table::release(lock_grant& grant) noexcept {
  shard& in = shard_of(grant.group);
  guarded_scope scope(in.lock);
  lock_node& node = *grant.node;
  remove_holder(node, grant);
  if (node.queue != nullptr) grant_waiting(node, ~std::uint64_t{0});
  if (node.holders == nullptr && node.queue == nullptr) in.drop(&node);
}

}  // namespace goods
