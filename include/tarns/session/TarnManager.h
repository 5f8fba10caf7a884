#pragma once

#include <goods/cache_manager.h>
#include <tarns/core/TarnChildren.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnPath.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnDatabase.h>
#include <tarns/session/TarnLibraries.h>
#include <tarns/session/TarnPathText.h>
#include <tarns/session/TarnRoot.h>
#include <tarns/tarns_api.h>
#include <tarns/util/Buffer.h>
#include <tarns/util/XString.h>
#include <tarns/util/XStringList.h>

#include <atomic>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tarns {

class BranchMerge;
struct BranchNode;
struct TarnCloneOptions;

// A session with a database, and the tree in it by path from the root.
//
//   TarnManager::Initialize();
//   TarnManager manager;
//   manager.connect("data/tarns.conf");
//   const TarnAttachment attachment(manager);
//   manager.set("machines~press~speed", 40);
//   const long speed = manager.getSint32("machines~press~speed", 0);
//
// Paths are branch names joined by "~", the empty path is the root. A name may be 1 to 65,535
// bytes, any but "~" and NUL.
//
// Atomicity: outside a transaction each call below is a transaction of its own, durable when the
// call returns, created parents and the value together; a read sees what some commit left, never
// half of one. Inside a TarnTransaction calls are part of it.
//
// Ownership: the session owns its database; references to objects hold nothing once it is closed.
// Threads: any number, each of which has called attach() (see TarnAttachment). connect(), the
// destructor and setCacheLimit() need the session for themselves.
// Errors: TarnException. 4 not connected, 110 calling thread not attached, 7 no such path or object
// (where absence is no answer), others as said below and by TarnObject, from 100 on what the
// storage reports; after any of them the session can still be used, or the message says what to do.
class TARNS_API TarnManager {
 public:
  TarnManager();

  // The database; connect() must have been called.
  virtual TarnDatabase& db() const;
  // Throws 4 when there is none.
  virtual void verifyIsInitialized() const;
  virtual ~TarnManager();  // closes the database; no thread may use the session any more
  // The path given to the last connect() that succeeded; null when there was none.
  virtual const char* getDBconfigFilePath() const;

  TarnManager(const TarnManager&) = delete;
  TarnManager& operator=(const TarnManager&) = delete;

  // --- Connection -------------------------------------------------------------------------------

  // Prepares the process; call it once before the first session. Calling it again does no harm.
  static void Initialize();

  // Only whether it is 0 counts: with any other number (1 by default) connect() goes on trying for
  // as long as the database is held by another process, with 0 it tries not even once. Setting it
  // to 0 from another thread makes a connect() that is waiting give up.
  static void SetNumConnectAttempts(unsigned long attempts);

  // Opens the database that a configuration file describes (see goods::database), after closing the
  // one that is open, and waits while it is in use elsewhere, looking again every 5 seconds. Does
  // not attach the calling thread. With `loadDataLibraries` the extension libraries named for the
  // database are loaded then; what is wrong with one is reported by MdataLibraries and the log, and
  // is no error here. Throws 5 when the number of attempts is 0; at once what is wrong with the
  // file or the storages. A session whose connect() has thrown is not connected; a TarnMeister,
  // which cannot be connected, throws 111 and stays as it is.
  void connect(const char* configPath, bool loadDataLibraries = false,
               const char* libraryPath = nullptr);
  // The same, but gives up after `limit` (0: after one attempt) with 105, naming the storage that
  // is in use. Does not look at the number of attempts.
  void connect(const char* configPath, std::chrono::milliseconds limit,
               bool loadDataLibraries = false, const char* libraryPath = nullptr);

  // Loads extension libraries for all sessions of the process.
  static TarnLibraries MdataLibraries;

  // Attaches the calling thread to this session, leaving another one; detaches it from the session
  // that it is attached to, rolling back its open transaction.
  void attach();
  void detach();

  // Whether extension libraries may be linked with each other, see TarnLibraries; for connect().
  void supportDependencies(bool on) { supportsDependencies_ = on; }
  bool supportsDependencies() const { return supportsDependencies_; }

  // Bytes of memory that the session's objects may take, 256 MiB by default; before threads share
  // the session.
  void setCacheLimit(std::size_t bytes);

  // How long a transaction waits for a lock before it fails with 101. Default 10 s; 0: not at all.
  void setLockTimeout(std::chrono::milliseconds limit);
  // How much memory (bytes) one transaction may take, see goods::cache_manager: 4 GiB by default,
  // or half of the machine's memory. Beyond it calls in the transaction throw 103, and it is rolled
  // back. From any thread, at any time.
  void setTransactionLimit(std::size_t bytes);

  // The root node, made when the database is fresh.
  xcptref<TarnRoot> getRoot() const;

  // Runs `work` as one transaction, joining the one that is open, and returns its result. Repeats
  // it after a deadlock, so it should have no effect but on the database. An exception rolls back.
  template <std::invocable Work>
  std::invoke_result_t<Work&> transaction(Work&& work) {
    return getCacheManager().atomically(std::forward<Work>(work), goods::caller::application);
  }

  // --- Storages and counters --------------------------------------------------------------------

  unsigned long getNumStorages() const;
  unsigned long getLeastUsedStorage();
  // Determines where an object that is not stored yet will be placed.
  void attachToStorage(xcptref<TarnObject> obj, unsigned long storageId);
  void attachToLeastUsedStorage(xcptref<TarnObject> obj);
  // Bytes in use, of the storage whose number is in the low 16 bits of `storageId`.
  std::uint64_t getStorageUsage(unsigned long storageId);
  // Bytes of objects loaded and committed since connecting or clearing.
  std::uint64_t getNumBytesFromDatabase();
  std::uint64_t getNumBytesToDatabase();
  std::uint64_t getNumBytesFromStorage(unsigned long id);
  std::uint64_t getNumBytesToStorage(unsigned long id);
  void clearNumBytesFromDatabase();
  void clearNumBytesFromStorage(unsigned long id);

  // Removes objects that are no longer reachable and that no session holds a reference to, and
  // gives their room back; returns when that is done, while other threads may go on working. False
  // when a collection is running already. See goods::database::start_gc.
  bool startGarbageCollection();
  // The same with options; false also when options.progress ended it.
  bool startGarbageCollection(const goods::gc_options& options);

  // Verifies what is stored while other threads go on working; what is wrong is told, by path and
  // identifier, and never thrown. See goods::database::check.
  goods::check_result check(const goods::check_options& options);

  // Makes a copy of the whole database, as of one moment, in a new directory, while other threads
  // may go on working; it is checked, complete or not there, and a database itself, to which
  // connect() takes its "tarns.conf". False when options.progress ended it. The calling thread need
  // not be attached. See goods::database::copy_to.
  bool backup(const char* directory, const goods::copy_options& options = {}) const;

  // Makes a database in a new directory from the backup whose configuration file this is: opens it,
  // which it must not be elsewhere for longer than `limit`, and has it copied as backup() does. The
  // backup stays. False when options.progress ended it; otherwise as backup() and connect(), but
  // nothing is made when a storage of the backup is missing: that throws 111.
  static bool Restore(const char* configPath, const char* directory,
                      const goods::copy_options& options = {},
                      std::chrono::milliseconds limit = std::chrono::milliseconds(0));

  // --- Reading values: conversions are TarnData's -----------------------------------------------

  // False when there is no value at the path; `out` is then as before.
  bool get(TarnPathText path, TarnData& out) const;
  // Whether there is; `out` becomes the default otherwise.
  bool get(TarnPathText path, TarnData& out, const TarnData& dflt) const;
  std::optional<TarnData> valueAt(TarnPathText path) const;

  // The first form throws 7 (ThrowNonExistentValue) when there is no value, the second returns the
  // default and creates nothing.
  bool getBoolean(TarnPathText path) const;
  bool getBoolean(TarnPathText path, bool dflt) const;
  double getDouble(TarnPathText path) const;
  double getDouble(TarnPathText path, double dflt) const;
  float getFloat(TarnPathText path) const;
  float getFloat(TarnPathText path, float dflt) const;
  std::int8_t getSint8(TarnPathText path) const;
  std::int8_t getSint8(TarnPathText path, std::int8_t dflt) const;
  std::int16_t getSint16(TarnPathText path) const;
  std::int16_t getSint16(TarnPathText path, std::int16_t dflt) const;
  std::int32_t getSint32(TarnPathText path) const;
  std::int32_t getSint32(TarnPathText path, std::int32_t dflt) const;
  std::int64_t getSint64(TarnPathText path) const;
  std::int64_t getSint64(TarnPathText path, std::int64_t dflt) const;
  std::uint8_t getUint8(TarnPathText path) const;
  std::uint8_t getUint8(TarnPathText path, std::uint8_t dflt) const;
  std::uint16_t getUint16(TarnPathText path) const;
  std::uint16_t getUint16(TarnPathText path, std::uint16_t dflt) const;
  std::uint32_t getUint32(TarnPathText path) const;
  std::uint32_t getUint32(TarnPathText path, std::uint32_t dflt) const;
  std::uint64_t getUint64(TarnPathText path) const;
  std::uint64_t getUint64(TarnPathText path, std::uint64_t dflt) const;
  XString getXString(TarnPathText path) const;
  XString getXString(TarnPathText path, const char* dflt) const;
  // Throws 7 (ThrowNonExistentPath) when there is no value.
  void copyAsStringTo(TarnPathText path, XString& text) const;

  // --- Writing ----------------------------------------------------------------------------------

  // Stores the value: one that exists keeps its type and nothing else is written, otherwise a value
  // node of the fitting class is added, with plain nodes for missing branches. Takes every type
  // that a TarnData can be made from. Throws 11 when a node without a value is there.
  void set(TarnPathText path, const TarnData& value);
  template <TarnScalar T>
  void set(TarnPathText path, T value) {
    set(path, TarnData(value));
  }
  // Puts `node` there in place of what is there.
  void set(TarnPathText path, xcptref<TarnObject> node);
  // set(path, TarnData()), the empty value: makes a plain node where nothing is, leaves a node
  // without a value alone, and sets a value that is there to what the empty value converts to: 1,
  // true, the empty text. To make a node and never write to what is there: getNoFail(path).
  void set(TarnPathText path);
  // Stores the text as a value of the type. Texts of real numbers are verified (VerifyFloat); a
  // Boolean must begin with "t" or "f" in either case, else throws 10. Integers are read as far as
  // the text is one and wrap to the type's width ("300" as a Sint8 is 44).
  void set(TarnPathText path, const char* text, TarnData::Type type);

  // --- Nodes ------------------------------------------------------------------------------------

  // Null when there is no such node.
  xcptref<TarnObject> getObject(TarnPathText path) const;
  // By the number that getObjectID() gives. Throws 7 for a storage that does not exist, 14 for a
  // number below 65536, 108 when nothing is stored under it. That it is a node is not checked:
  // numbers of other objects (indexes, texts) lead to those, so ask TarnObject::IsTarnObject()
  // before using what a number from outside leads to.
  xcptref<TarnObject> getObject(std::uint64_t id) const;
  // 0 when there is no such node, and while it is not stored.
  std::uint64_t getObjectID(TarnPathText path) const;
  // The newest commit that this session has taken in, in the storage where that object is (0: in
  // storage 0); all that have returned are. What is read from now on is as of it or of a later one,
  // so take it before reading what is to be watched, see TarnWatcher.
  std::uint64_t getVersion(std::uint64_t id = 0) const;
  // The node, whatever it is, or a new one of that class, put there with plain nodes for missing
  // branches. Writes to nothing that is there. Throws 3 when there is no such class.
  xcptref<TarnObject> getNoFail(TarnPathText path, const char* typeName = TarnObject::GetType());

  // Children of the node at a path; throw 7 (ThrowNonExistentPath) when there is none.
  XString getChildName(TarnPathText path, unsigned long index) const;
  void getChildNames(TarnPathText path, XStringList& names) const;
  // Up to `limit` abstract ones behind `after`; see TarnObject::getChildNames().
  std::vector<std::string> getChildNames(TarnPathText path, std::string_view after,
                                         std::size_t limit) const;
  unsigned long getNumChildren(TarnPathText path) const;
  // for (const auto& [name, child] : manager.children("machines")) ...
  TarnChildren children(TarnPathText path) const;

  // --- Branches ---------------------------------------------------------------------------------

  // Removes what is at the path; whether there was something.
  bool deleteBranch(TarnPathText path);
  // Puts a copy of the whole branch at `to`, in place of what is there, which may be within the
  // branch itself. Throws 7 when there is nothing at `from`, 0 when `to` is the root.
  void copyBranch(TarnPathText from, TarnPathText to);
  // The same in several transactions, see TarnCloner::copyInBatches(): for branches that are larger
  // than a transaction may be.
  void copyBranch(TarnPathText from, TarnPathText to, const TarnCloneOptions& options);
  // Moves the node, with everything below it and its identifier, to `to`, in place of what is
  // there. Throws 7 when there is nothing at `from`, 0 when `to` is the root or lies within the
  // branch. Of a node that is listed in several places the one at `from` is given up; the others
  // stay.
  void moveBranch(TarnPathText from, TarnPathText to);

  // Moves a branch into the one at `to`. What `to` does not have is moved there as it is, and the
  // whole branch when nothing is at `to`. Where both have a child of one name, the two are merged
  // in the same way, and one of them wins: the branch that comes with `overwrite`, otherwise the
  // one that is there. The node that wins stays (the one that is there also when both are of the
  // same class) and so do its own value and members; children that only one of the two has are kept
  // in either case. Of several children of one name the first is merged; the later ones are merged
  // into it in turn. A node that is listed elsewhere as well is the same node there, so what is
  // moved out of it is gone there, too. The first form then removes what is left at `from`; throws
  // 7 when nothing is there. The second leaves in `node` what lost. Both throw 0 when `to` lies
  // within the branch or is the same node, and when a node that is more than a plain one would have
  // to win over the root, which stays what it is.
  void mergeBranch(TarnPathText from, TarnPathText to, bool overwrite);
  void mergeBranch(xcptref<TarnObject> node, TarnPathText to, bool overwrite);
  // The same with other rules, see TarnCloner::merge(): also copies instead of moving, or only
  // reports what would happen; the paths of the report begin at `to`.
  void mergeBranch(TarnPathText from, TarnPathText to, const TarnCloneOptions& options);

  // Adds `node` under the path's last name or, when there is a child of that name, under an element
  // name made from it (see TarnObject::getUniqueChildName); returns the name. Missing parents are
  // made.
  XString addUnique(TarnPathText path, xcptref<TarnObject> node);

  // --- Branches as text: see docs/text-format.md ------------------------------------------------

  // Write the branch at `path`; throw 7 when there is none, 16 when writing fails. A file appears
  // when it is complete, with permissions 0600; the temporary one is the caller's to delete. For
  // one state throughout: a transaction. Without one up to three more threads, which end with the
  // call, write large lists of children: what the classes of these nodes do when they are loaded
  // and looked at must not wait for the caller, for example for a mutex that it holds.
  void exportTo(TarnPathText path, PInOut& out) const;
  void exportTo(TarnPathText path, const char* file) const;
  void exportTo(TarnPathText path, std::ostream& out) const;
  XString exportToTempFile(TarnPathText path) const;
  // To a PInOut, with each node looked at only while its own lines are written.
  void exportMinLockingTo(TarnPathText path, PInOut& out) const;

  // Make the nodes that a text describes; the first is returned, has no parent and is not stored.
  // Null when its class is not known. `name`, when not null, becomes the name that it was exported
  // under. What is wrong with the text throws, with the number of the line, 15 or what the node
  // throws; the nodes made until then are gone. The file form throws 17 when there is no such file,
  // 15 when it cannot be opened.
  xcptref<TarnObject> importFromFile(const char* path, XString* name = nullptr,
                                     XProgressReporter* reporter = nullptr) const;
  xcptref<TarnObject> importFrom(PInOut& in, XString* name = nullptr) const;
  xcptref<TarnObject> importFrom(std::istream& in, XString* name = nullptr,
                                 XProgressReporter* reporter = nullptr) const;

  // The same, with the branch put at `path` as set() does, in the place of what is there; returned
  // is its first node. Whoever looks at the path sees what was there or the whole branch, and what
  // throws leaves all as it was. The memory that is needed does not grow with the text: each
  // `nodesAtATime` nodes (and 32 MiB of them; up to twice as many, and eight times within the lines
  // of one node) are stored in a transaction of their own, with nothing that leads to them, by
  // another thread, as above, while the next ones are read; lines that name a place wait for it.
  // A small transaction at the end puts the branch in its place.
  // After an error, or a crash, the next collection removes what was stored. Shorter texts, and all
  // within a transaction of the calling thread, are one transaction. Nodes that are listed before
  // their place in the tree, and those that are open, stay in memory as handles.
  // Beside the errors of importFrom() those of set(); 0 for the empty path.
  static constexpr std::size_t kNodesAtATime = 10'000;
  xcptref<TarnObject> importTo(TarnPathText path, PInOut& in, XString* name = nullptr,
                               std::size_t nodesAtATime = kNodesAtATime);
  xcptref<TarnObject> importTo(TarnPathText path, const char* file, XString* name = nullptr,
                               XProgressReporter* reporter = nullptr);
  xcptref<TarnObject> importTo(TarnPathText path, std::istream& in, XString* name = nullptr,
                               XProgressReporter* reporter = nullptr);

 protected:
  // Closes and destroys the database, if there is one.
  void freeDB();
  // Throws when the session has no database of its own to connect.
  virtual void verifyMayConnect() const {}
  // The node that holds, or is to hold, the path's last branch, made with plain nodes as far as it
  // is missing. The path is left with its last branch only.
  xcptref<TarnObject> createParents(TarnPath& path);

 private:
  void afterConnecting(const char* configPath, bool loadDataLibraries, const char* libraryPath);
  TarnDatabase& openDatabase() const;
  TarnCacheManager& getCacheManager() const;
  bool readValue(std::string_view path, TarnData& out) const;
  template <class T>
  T read(TarnPathText path, T (TarnData::*as)() const noexcept) const;
  template <class T>
  T read(TarnPathText path, T (TarnData::*as)() const noexcept, T dflt) const;
  xcptref<TarnObject> existing(TarnPathText path) const;
  xcptref<TarnObject> branchFor(std::string_view path);
  bool copyUndisturbed(std::string_view from, std::string_view to);
  std::vector<std::uint64_t> currentVersions() const;
  void moveNode(const xcptref<TarnObject>& node, std::string_view to);
  void mergeInto(BranchMerge& merge, const BranchNode& source, std::string_view to,
                 bool changesNothing);

  static std::atomic<unsigned long> MnumConnectAttempts;
  static std::atomic<bool> Minitialized;

  Buffer configPath_;
  std::unique_ptr<TarnDatabase> database_;  // null while disconnected
  bool supportsDependencies_ = false;
};

}  // namespace tarns
