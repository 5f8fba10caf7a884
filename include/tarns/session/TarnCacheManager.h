#pragma once

#include <goods/cache_manager.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnPath.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>
#include <tarns/util/XStringList.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarns {

class RememberedValues;
class TarnManager;
class TarnRoot;

// What a session keeps beside the objects of its cache: the way to the root, what values were
// lately read by path, and in which order a thread's transaction has locked nodes.
//
// Checking transactions (off by default): two threads that lock the same nodes in different orders
// end in a deadlock sooner or later, mostly not in tests. With checking on, the application's own
// transactions (TarnTransaction, TarnManager::transaction) must lock nodes for writing in ascending
// order of their paths (see TarnPath); a node that is locked already may be written again at any
// time. Below a hierarchical locker L the order is free, but a node two or more levels below L may
// be locked in a transaction that holds other nodes only after its ancestor directly below L. A
// transaction that breaks this is an error in the program: it is logged, and abort() is called.
// TarnTransaction::Lock() does it right. Calls outside such transactions, nodes that are not stored
// yet and nodes without a way to the root are not checked; paths are those before the transaction.
//
// Ownership: the session's TarnDatabase. Threads: any attached one, but for setCacheLimit().
// Errors: 110 on a thread that is not attached to this session.
class TARNS_API TarnCacheManager : public goods::cache_manager {
 public:
  // For the database that manager.db() is.
  explicit TarnCacheManager(TarnManager& manager);
  ~TarnCacheManager() override;

  TarnManager& getManager() const { return manager_; }

  // --- Checking transactions --------------------------------------------------------------------

  // Also sets goods::pessimistic_metaobject::abort_on_read_lock_promotion.
  static void EnableTransactionChecking(bool on);
  static std::atomic<bool> McheckTransactions;
  // Paths of the hierarchical lockers. Read without a lock: fill it before transactions begin.
  static XStringList MhierarchicalLockers;
  // Of the first locker above `path`: its child on the way there, which may be `path` itself. Empty
  // when no locker is above.
  static TarnPath GetHierarchicalLocker(const char* path);

  // Checks an object that the thread's transaction is about to lock, and records its path.
  void add(goods::object_handle* handle);
  // The same by path. Nothing happens while checking is off or no transaction is open.
  void addObjectToTransaction(TarnPath& path);
  // Forgets the paths when the outermost transaction ends.
  goods::isolation_level end_transaction() override;
  // What the thread's transaction has locked so far, in that order; for tests and diagnosis.
  XStringList getLockedPaths() const;

  // The one way from the root to the node, as it is committed; none when there is no such way.
  std::optional<TarnPath> getPhysicalPath(const xcptref<TarnObject>& node);

  // The path of a node in quotation marks; what belongs to a node by that one's path, as far as it
  // can be told: the children of "a", the entry "b" of "a". Else by number. Reads what is
  // committed.
  std::string name_of(goods::object_id id) override;

  // --- Values and the root ----------------------------------------------------------------------

  // Throws 110 unless the calling thread is attached to this session.
  void verifyAttached() const;
  // Throws 111 when the calling thread has a transaction open in another session, or in the one
  // that it is attached to.
  void verifyMayAttach() const;
  static void VerifyMayLeave();

  // The root, made when the database is fresh: in a transaction of its own, also while the calling
  // thread has one open, so that a root that somebody has seen is there to stay.
  xcptref<TarnRoot> getRoot();

  // The value at a path below the root; false when there is none. `out` comes with the type that an
  // enumeration is to be read as (see ReadValue) and is changed in either case.
  bool readValue(std::string_view path, TarnData& out);

  // Bytes of memory, see cache_manager::set_cache_limit(). Up to half of it, as far as values are
  // read by path, is for remembering these. Before threads share the session.
  void setCacheLimit(std::size_t bytes);

  // Whether values are remembered by path (they are by default): for measuring, and for programs
  // that never read a path twice. Before threads share the session.
  void rememberValues(bool on);
  bool remembersValues() const { return remembered_ != nullptr; }

 protected:
  // Whether a locker governs the order in which `path` is locked. Ends the process when its parent
  // had to be locked first.
  bool enforceHierarchicalLocking(const TarnPath& path);
  void joins_transaction(goods::object_handle& handle) override { add(&handle); }
  bool watches_joins() const override { return McheckTransactions.load(std::memory_order_relaxed); }
  void promotes_read_lock(goods::object_handle& handle) override;

 private:
  void makeRoot();
  void setFreshRoot();
  bool readLocking(std::string_view path, TarnData& out);
  // Runs a read that sets `out`, which is as it came at the beginning of every round.
  template <class Work>
  bool readRepeatably(TarnData& out, const Work& work);

  // Fixed after construction.
  TarnManager& manager_;  // outlives this object
  // Set before threads share the session.
  std::unique_ptr<RememberedValues> remembered_;  // null: none are
  // Shared by all attached threads.
  std::atomic<bool> hasRoot_{false};  // goes to true once
};

}  // namespace tarns
