#pragma once

#include <goods/object.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnIterator.h>
#include <tarns/core/xcptref.h>
#include <tarns/schema/TarnClassMacros.h>
#include <tarns/tarns_api.h>
#include <tarns/util/Buffer.h>
#include <tarns/util/PInOut.h>
#include <tarns/util/XString.h>
#include <tarns/util/XStringList.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace goods {
class database;
class reader;
class set_member;
}  // namespace goods

namespace tarns {

class GOODSinOut;
class TarnChildren;
class TarnObjects;
class TarnPath;

// A persistent node: the base of every class whose objects live in the tree.
//
// A node has a parent (or none), members that its class declares (concrete children) and children
// added by name (abstract children) in an index ordered by name. Its own name is the name of the
// entry that holds it in its parent's index. A path names a node or value below a node: names from
// the outermost in, joined by '~'; the empty (or null) path names the node itself.
//
// Names: 1 to 65,535 bytes, any but '~' and NUL. Two children may bear one name; a path then leads
// to the one that was added first.
//
// Access: always through xcptref. `node->f()` calls const members, which answer from the node's
// state at that moment, also when the access (a named result of *) is older; members of one's own
// class are read as the access found them. `modify(node)->f()` any member, on the transaction's
// private copy. Outside a transaction each such call is a transaction of its own, however many
// objects it changes. Members are called on the object behind an access only, never on a body that
// was kept from an earlier one.
//
// Members: a class declares them once, in write(), and gives them default values in the class. How
// a class is declared and registered: TarnClassMacros.h and examples/.
//
// What derived classes may override are the virtual functions. All path look-ups of the library
// work through findChild() and readValue(), which take the place of overriding get() in each class.
//
// Errors: TarnException; a check that fails leaves everything as it was. Absence is an answer
// (false, null) wherever the function's result can say so. Recursion: nothing here recurses with
// the depth of the tree, and references in circles are fine. Threads: as for xcptref.
class TARNS_API TarnObject : public goods::object {
 public:
  static constexpr std::size_t kMaxNameLength = 65'535;  // bytes
  // What a callback over children is given: name, child, and the caller's own argument.
  using ChildFunction = void (*)(const char* name, xcptref<TarnObject> child, const void* arg);
  using ChildMember = void (TarnObject::*)(const char* name, xcptref<TarnObject> child,
                                           const void* arg);
  using ChildTest = bool (*)(const char* name, xcptref<TarnObject> child, const void* arg);
  using ChildTestMember = bool (TarnObject::*)(const char* name, xcptref<TarnObject> child,
                                               const void* arg);

  // --- Class ------------------------------------------------------------------------------------

  // What TARN_CLASS declares in other classes.
  static TarnClassDescriptor& SelfClass();
  static TarnClassDescriptor& self_class;
  static const char* GetType() { return "TarnObject"; }
  static TarnObject* Constructor() { return new TarnObject; }
  static xcptref<TarnObject> Create() { return {new TarnObject}; }
  TarnObject() : TarnObject(SelfClass()) {}
  // Throws 3 for a class whose descriptor is no TarnClassDescriptor.
  TarnObject(goods::object_handle* handle, goods::class_descriptor& cls);
  ~TarnObject() override;

  // The name of the node's class, also of one that this program does not know.
  virtual const char* getType() const { return cls().name(); }
  // A new node of the same class, without parent.
  virtual xcptref<TarnObject> constructor() const;
  TarnClassDescriptor& getClass() const;

  // A new node of the registered class, without parent; null when there is no such class.
  static xcptref<TarnObject> CreateOfType(const char* typeName);
  // Whether `reference` is to a node; false for null.
  static bool IsTarnObject(const goods::object_ref& reference);
  bool isTarnObject() const { return true; }

  // Whether the node's class is the one named, or derived from it.
  virtual bool isDerivedFrom(const char* typeName) const;
  // Whether the node's class is the one named.
  virtual bool isOfType(const char* typeName) const;
  // The number that sizes the children index: pages of a new index start at twice as many entries.
  unsigned char getPageN() const;

  // The class's members, made by letting write() describe the prototype.
  goods::field_descriptor* describe_components() override;
  // Declares the class's persistent members; a class calls its base's first.
  virtual bool write(const char* name, GOODSinOut& out);

  // For classes with children of their own: makes them in a new node. The base does nothing.
  virtual void initialize() {}
  // Does nothing; a write access alone makes the transaction write the node.
  virtual void touch() {}

  // The node's identifier: storage in bits 32-47, number within it in bits 0-31; 0 while not
  // stored.
  static std::uint64_t GetObjectID(const xcptref<TarnObject>& node);

  // --- Adding children --------------------------------------------------------------------------

  // Adds `child` as the last of the children called `name`. A child that has a parent already keeps
  // its entry there as well, and this node becomes its parent. Where `child` is this node itself or
  // above it, only the entry is made, so that no node becomes its own ancestor. A new child is
  // placed beside this node in the storage. Adding a stored child below a node that is not stored
  // yet belongs into one transaction with storing that node: otherwise the child's way to its
  // parent is lost. Throws 0 for a null child, an empty or null name, a name with '~' or one that
  // is too long.
  virtual void addChild(const char* name, xcptref<TarnObject> child);
  // The same under getUniqueChildName(name); returns the name.
  virtual XString addUniqueChild(const char* name, xcptref<TarnObject> child);
  // Adds `child` under one name that is free in both nodes; this one becomes the parent. The name
  // is the unique one of this node or, where that is taken in the other, of the other; where that
  // is taken here, the next element name that is free in both. Once only when both are one node.
  XString addUniqueToParents(const char* name, xcptref<TarnObject> child,
                             xcptref<TarnObject> otherParent);
  // `name` itself, or an element name (name_0, name_1, ...) that no child bears. For names of fewer
  // than 7 characters gaps between indexes may be filled; for longer ones it is always the largest
  // index in use plus 1.
  XString getUniqueChildName(const char* name) const;
  // Adds entries for all abstract children to `other` as well; they keep their parent.
  virtual void addChildrenTo(xcptref<TarnObject> other) const;

  // --- Finding children -------------------------------------------------------------------------

  // Whether a child or member of the class bears the name, so that addUniqueChild() would not use
  // it: also true for members that are no nodes, for elements of arrays and for null references.
  // False for paths and for the empty name.
  bool hasChild(const char* name) const;
  // The node at a path, or null.
  virtual xcptref<TarnObject> getChildWithName(const char* name) const;
  xcptref<TarnObject> getChildWithName(std::string_view path) const;
  // The child; one of class `type` is made, added (or put into the reference member of that name)
  // and initialized when there is none. Null, and nothing added, when there is no such class. A
  // path of several branches gets default children in between.
  virtual xcptref<TarnObject> getChildWithNameNoFail(const char* name, const char* type);
  // The first abstract child of exactly that class, or null.
  virtual xcptref<TarnObject> getChildOfType(const char* type) const;
  // Adds entries for the abstract children of exactly that class to `list`; returns how many.
  virtual unsigned long getChildrenOfType(const char* type, xcptref<TarnObjects> list) const;
  // The name of the i-th child: the elements of the class's data members first, in the order of
  // TarnClassDescriptor::iterateFields (a member that is a text has one name for all its
  // characters), then the abstract children. Empty when there are not so many.
  virtual XString getChildName(unsigned long index) const;
  // Adds the names of all children: each data member's (each element's), then the abstract ones'.
  virtual void getChildNames(XStringList& names) const;
  // The names of up to `limit` abstract children, of those behind all that are called `after`
  // unless that is empty: pages through very many. Of one state for up to 4,096 names. Makes
  // nothing for the children themselves.
  std::vector<std::string> getChildNames(std::string_view after, std::size_t limit) const;
  // Data members of the class (elements of arrays counted singly) and abstract children.
  virtual unsigned long getNumChildren() const;
  unsigned long getNumAbstractChildren() const;
  virtual unsigned long getNumChildrenOfType(const char* type) const;

  // --- Going through children: abstract ones, in the order of their names -----------------------

  // for (const auto& [name, child] : node->children()) ...
  // Fetches some at a time; children that come or go meanwhile may or may not be met.
  TarnChildren children() const;
  // The same with a callback, which may do anything, reading and writing included.
  virtual void iterateChildren(ChildFunction function, const void* arg) const;
  virtual void iterateChildren(TarnObject* target, ChildMember function, const void* arg) const;
  void iterateChildren(
      const std::function<void(const char* name, xcptref<TarnObject> child)>& function) const;

  TarnIterator getIterTo(const char* name) const;         // the first of that name; null when none
  TarnIterator getIterToOrAfter(const char* name) const;  // the first whose name is not less
  TarnIterator getIterToFirstAbstractChild() const;
  TarnIterator getIterToLastAbstractChild() const;
  // The child, and its name when `name` is not null; a null reference when there are none.
  xcptref<TarnObject> getFirstAbstractChild(XString* name) const;
  xcptref<TarnObject> getLastAbstractChild(XString* name) const;

  // --- Deleting: the entry goes and the child has no parent any more. A child that nothing else
  // refers to is reclaimed by the database.

  // Whether there was one. Throws 6 when `name` has several branches.
  virtual bool deleteChild(const char* name);
  // The entry that is the child's parent link; where that is elsewhere, findAndDeleteChild() looks
  // for the first entry that holds the child.
  bool deleteChild(const xcptref<TarnObject>& child);
  bool findAndDeleteChild(const xcptref<TarnObject>& child);
  void deleteChildren();
  // Those for which the function returns true; how many there were.
  unsigned long deleteChildrenIf(ChildTest function, const void* arg);
  unsigned long deleteChildrenIf(TarnObject* target, ChildTestMember function, const void* arg);
  unsigned long deleteChildrenIf(
      const std::function<bool(const char* name, xcptref<TarnObject> child)>& test);
  unsigned long deleteChildrenOfType(const char* type);
  unsigned long deleteChildrenWithNames(const XStringList& names);  // each name's first child
  // Those that have a value at the path `name` below them which compares equal as
  // TarnData::compare() says: a Boolean with a text by whether the text is empty, so that "False"
  // equals true; use TarnData(false). Nothing equals a null TarnData; a null text is the empty one.
  unsigned long deleteChildrenWithValue(const char* name, const char* text);
  unsigned long deleteChildrenWithValue(const char* name, const TarnData* value);
  // Removes the entry at `place`, which then stands at the next one (null behind the last).
  void deleteLinkToChild(TarnIterator& place);
  // Deletes what is at a path of two branches or more; whether there was something. Throws 6 for a
  // path of one branch or none.
  bool deleteBranch(const char* path) const;

  // Takes the branch apart: this node and everything below it loses its children, and what their
  // members refer to is taken apart in turn, wherever it stands. The root of a storage is left
  // alone.
  void shatter();

  // --- Parents ----------------------------------------------------------------------------------

  bool hasParent() const;
  // Levels 0 and 1 are the parent, 2 its parent and so on; null when there are not so many.
  xcptref<TarnObject> getParent(unsigned long level = 0) const;
  xcptref<TarnObject> getRootParent() const;  // the uppermost; this node when it has no parent
  // The nearest ancestor of that class or one derived from it (of that name), or null.
  xcptref<TarnObject> getAncestorOfType(const char* type) const;
  xcptref<TarnObject> getAncestorWithName(const char* name) const;
  XString getParentName() const;  // empty when there is no parent
  // Sets `path` to the names from the uppermost ancestor (whose name is left out) to `node`.
  static void GetPath(const xcptref<TarnObject>& node, TarnPath& path);

  // Takes an index's entry as the link to the parent. `hadParent`: another index goes on listing
  // the node as well. Who makes the entry calls this; addChild() does.
  void adoptOrphan(const goods::ref<goods::set_member>& entry, bool hadParent);
  // Forgets the link to the parent. The parent's entry is its own affair.
  void makeOrphan();
  // Makes this node the parent of its child `name`, which another node may be so far. Whether there
  // is such a child; false also when the child is this node or above it.
  bool becomeParentOf(const char* name);
  // Hands the children to `heir`: the index whole when the heir has none, else each entry. Children
  // that have another parent keep it. Throws 0 when the heir is below this node.
  void bequeathChildren(xcptref<TarnObject>& heir);
  // Takes `child` over from its parent: its entry there goes, and it gets one here, in place of a
  // child that bears `name` already. Where a reference member bears the name, the member refers to
  // the child from then on, which has no parent any more, as nodes of members have none. Throws 0
  // when `child` is this node or above it, 12 when it is of another class than the member's;
  // otherwise as addChild().
  void moveChild(const char* name, xcptref<TarnObject> child);

  // --- Names ------------------------------------------------------------------------------------

  // Empty for a node without parent.
  XString getName() const;
  void getName(Buffer& name) const;
  void addNameTo(XStringList& names) const;
  // Renames the node within its parent. Throws 0 without a parent and for names addChild() refuses.
  void setName(const char* name);
  // -1, 0 or 1 by bytes as unsigned numbers (of upper-cased ASCII letters when not case-sensitive).
  signed char compareName(const char* name, bool caseSensitive = true) const;
  // Throws unless `name` may be a child's; `of` is named in the message.
  static void VerifyChildName(const xcptref<TarnObject>& of, std::string_view name);

  // --- Values by path ---------------------------------------------------------------------------

  // False when there is no value at `path`; `out` is then as before.
  virtual bool get(const char* path, TarnData& out) const;
  bool get(std::string_view path, TarnData& out) const;
  // Whether the value existed; `out` becomes the default otherwise.
  bool get(const char* path, TarnData& out, const TarnData& defaultValue) const;
  std::optional<TarnData> valueAt(std::string_view path) const;

  // The value converted to the type asked for. The first form throws ThrowNonExistentValue(path).
  bool getBoolean(const char* path) const;
  bool getBoolean(const char* path, bool defaultValue) const;
  double getDouble(const char* path) const;
  double getDouble(const char* path, double defaultValue) const;
  float getFloat(const char* path) const;
  float getFloat(const char* path, float defaultValue) const;
  std::int8_t getSint8(const char* path) const;
  std::int8_t getSint8(const char* path, std::int8_t defaultValue) const;
  std::int16_t getSint16(const char* path) const;
  std::int16_t getSint16(const char* path, std::int16_t defaultValue) const;
  std::int32_t getSint32(const char* path) const;
  std::int32_t getSint32(const char* path, std::int32_t defaultValue) const;
  std::int64_t getSint64(const char* path) const;
  std::int64_t getSint64(const char* path, std::int64_t defaultValue) const;
  std::uint8_t getUint8(const char* path) const;
  std::uint8_t getUint8(const char* path, std::uint8_t defaultValue) const;
  std::uint16_t getUint16(const char* path) const;
  std::uint16_t getUint16(const char* path, std::uint16_t defaultValue) const;
  std::uint32_t getUint32(const char* path) const;
  std::uint32_t getUint32(const char* path, std::uint32_t defaultValue) const;
  std::uint64_t getUint64(const char* path) const;
  std::uint64_t getUint64(const char* path, std::uint64_t defaultValue) const;
  XString getXString(const char* path) const;
  XString getXString(const char* path, const char* defaultValue) const;
  // Throws ThrowNonExistentPath(path) when there is no value.
  void copyAsStringTo(const char* path, XString& text) const;

  // Writes the value that exists at `path`, converted to its type. Nothing but the value is
  // written. Branches that are missing on the way are made (createDefaultChild), which helps where
  // a class's default children hold the value. Throws 9 when there is no value to write, or a
  // branch cannot be made; 11 when a node without a value is there.
  virtual void set(const char* path, const TarnData& value) const;
  template <TarnScalar T>  // so that a literal 0 is a number here, and not the null node
  void set(const char* path, T value) const {
    set(path, TarnData(value));
  }
  // Puts `node` at a path of two branches or more, as setNode() does. Throws 9 for one of fewer.
  virtual void set(const char* path, xcptref<TarnObject> node) const;
  void set(const char* path, std::nullptr_t) const { set(path, xcptref<TarnObject>()); }
  // Writes the value at `path`, or adds a value node of the fitting class, with plain nodes for
  // missing branches. An existing value keeps its type. The empty value makes a plain node.
  // Throws 11 when a node without a value is there, 9 when the path leads on below a member that is
  // no node.
  virtual void setValue(const char* path, const TarnData& value);
  // Puts `node` at `path` in place of what is there; missing branches are made. A member that is a
  // reference is set to it; anything else becomes a child, for which addChild() says how an earlier
  // parent is dealt with. For the empty path the node takes over the members of `node`, which must
  // be of the same class, else throws 11. A member's node of another class throws 12 (in a node
  // whose class this program does not know, 11). What throws has changed nothing.
  virtual void setNode(const char* path, xcptref<TarnObject> node);
  // Whether set(path, value) would find a value to write.
  virtual bool willSetModify(const char* path) const;

  // Replaces each token #TarnValue:PATH or #TarnHTMLvalue:PATH by the value at PATH as text (""
  // where there is none), the latter with the characters that mean something in HTML escaped. PATH
  // is written as an attribute value, see Stringer::ParseAttributeValueToken. Values that were put
  // in are not searched for tokens.
  virtual void replaceTokens(XString& text) const;

  // --- Copies -----------------------------------------------------------------------------------

  // A new node of the same class with the same members and no parent. Texts are copied; references
  // to nodes are to the same nodes. Children are not copied.
  virtual xcptref<TarnObject> clone() const;
  // Takes over the members of `other` that this node's class has too (by name, converted), as
  // clone() copies them. Items of arrays that one of both does not have, and members whose types
  // cannot be converted, stay as they are. Children stay. Throws 12, and has changed nothing, when
  // a node does not fit the member that it goes into.
  virtual void copyFrom(xcptref<TarnObject> other);
  // A copy of the whole branch, without parent. To the branch belong the node, the children whose
  // parent is in it, and the nodes without parent that members refer to. A reference or further
  // entry whose target belongs to the branch is to the copy of it in the copy; any other is to the
  // same target. For a copy of one state of the branch, call it within a transaction.
  xcptref<TarnObject> deepClone() const;

  // --- As text: see docs/text-format.md ---------------------------------------------------------
  //
  // The branch of a node is the node, its children at any depth and the nodes that reflected
  // members refer to. Each is written once, in full where it is met first; further places refer to
  // that one. Each batch of nodes is of one state; for one state throughout: a transaction. Without
  // one, large lists are written by several threads (see TarnManager::exportTo), and where others
  // may move nodes meanwhile, so that they are met twice, it takes ExportMinLockingTo().
  // Errors: 16 when writing fails; what is wrong with a text names the line.

  // Writes the branch under the node's own name.
  void exportTo(PInOut& out) const;
  void exportTo(const char* file) const;  // complete or not at all; permissions 0600
  void exportTo(std::ostream& out) const;
  // To a new file in $TMPDIR or /tmp, permissions 0600, which is the caller's to delete.
  XString exportToTempFile() const;
  // The same with each node looked at only while its own lines are written, also in a transaction:
  // for branches that others are changing.
  static XString ExportMinLockingToTempFile(const xcptref<TarnObject>& node, const char* name);

  // Writes the node's block to `out`, a PInOut.
  static void Write(const char* name, xcptref<TarnObject> node, const void* out);
  // The lines of the block but its header.
  bool writeMembers(const char* name, PInOut& out) const;
  // The lines of the members. A class with state that its members do not show adds lines of its
  // own, and reads them in read().
  virtual bool writeConcreteMembers(PInOut& out) const;
  // Reads the lines of a block from the one behind its header on, as far as the class knows them:
  // true, with the first line that it does not know as the current one. Called again behind what
  // is nested, so what overrides it loops as TarnValue's classes do. `in` must stand at the level
  // of the lines.
  // In an import that stores what it reads in parts (TarnManager::importTo) the node may be stored
  // between two calls, so only persistent members last, is not called again when none of its lines
  // are left then, and may get its parent later.
  virtual bool read(PInOut& in);

  // --- For derived classes ----------------------------------------------------------------------

  // The abstract child or reference member called `name`, or null. A class with its own way of
  // finding children overrides this: all paths lead through it. Runs while several objects are
  // looked at: must have no effect, may run again, may not call the application.
  virtual const TarnObject* findChild(goods::reader& reader, std::string_view name) const;
  // The node's own value, under the same conditions; false when it has none.
  virtual bool readValue(goods::reader& reader, TarnData& out) const;

  // A new node for a branch `name` that is missing below this node; not added yet. The base makes a
  // plain node, or for a reference member one of its class; null refuses.
  virtual xcptref<TarnObject> createDefaultChild(const char* name) const;
  // Puts `node` into the reference member of that name; false when the class has none. Throws 12
  // for a node of another class than the member's.
  virtual bool setChildNode(const char* name, xcptref<TarnObject>& node);
  // Sets the member of that name to a value; false when the class has none. Some names beside the
  // member's own are taken for it as well, see TarnClassDescriptor::setChildValue().
  virtual bool setChildValue(const char* name, const TarnData& value);

  // The children index; null until the first child is added.
  xcptref<TarnObjects> getChildren() const;
  xcptref<TarnObject> getSelf() const;  // a reference to this very node

 protected:
  explicit TarnObject(goods::class_descriptor& cls);

  static void ExportMinLockingTo(const char* name, const xcptref<TarnObject>& node, PInOut& out);
  // Reads a line that gives the node another name in its parent.
  PInOut::Status readName(PInOut& in);

 private:
  friend class TarnNodeAccess;  // the small door for look-ups in src/core

  xcptref<TarnObjects> children_;                  // stored as "Children"
  goods::back_ref<goods::set_member> parentLink_;  // stored as "ParentLink"
};

}  // namespace tarns

#include <tarns/core/TarnChildren.h>
