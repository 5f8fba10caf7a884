#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XException.h>

namespace tarns {

// What getErrorID() of a TarnException tells apart. Below 100, and 111: the caller asked for
// something that cannot be done; 0 is every such case that has no number of its own, and the
// message tells which. From 100 to 110: the storage could not do it; the session still works
// afterwards, or the message says that it must be reopened. 1, 2 and 13 are not in use.
struct ErrorID {
  static constexpr unsigned long Unspecified = 0;        // null references, bad names, and others
  static constexpr unsigned long MissingDescriptor = 3;  // a class without a class descriptor
  static constexpr unsigned long DBuninitialized = 4;    // the session is not connected
  static constexpr unsigned long CannotConnect = 5;      // the database server is not reached
  static constexpr unsigned long CannotDelete = 6;       // misuse of deleteBranch, deleteChild
  static constexpr unsigned long NonExistentPath = 7;    // no node, or no value, at the path
  static constexpr unsigned long BadBranch = 8;          // an empty branch name, or one with "~"
  static constexpr unsigned long BadSet = 9;             // misuse of TarnObject::set
  static constexpr unsigned long BadDataType = 10;       // a TarnData of an unknown type
  static constexpr unsigned long CannotMutate = 11;      // another class, or a node without value
  static constexpr unsigned long BadTypecast = 12;       // a reference to another class
  static constexpr unsigned long ClassDefinitionDomain = 14;  // the number of a class layout
  static constexpr unsigned long BadExportFile = 15;          // an export file that cannot be read
  static constexpr unsigned long TempFileFailure = 16;        // a temporary file cannot be written
  static constexpr unsigned long FileNotFound = 17;           // there is no such file
  static constexpr unsigned long Deadlock = 100;              // transactions waited for each other
  static constexpr unsigned long LockTimeOut = 101;           // a lock was not given in time
  static constexpr unsigned long IOFailure = 102;             // input or output failed
  static constexpr unsigned long StorageFull = 103;           // no room is left
  static constexpr unsigned long CorruptData = 104;           // stored data is damaged
  static constexpr unsigned long DatabaseInUse = 105;         // another process holds the database
  static constexpr unsigned long OutcomeUnknown = 106;     // a commit may or may not have happened
  static constexpr unsigned long ReadOnly = 107;           // the database cannot be changed
  static constexpr unsigned long ObjectGone = 108;         // the object no longer exists
  static constexpr unsigned long NewerVersion = 109;       // written by a newer version of tarns
  static constexpr unsigned long ThreadNotAttached = 110;  // the thread must attach() first
  static constexpr unsigned long BadUsage = 111;           // an address or call that makes no sense
};

// The one exception that the library throws: a message and an identifier, see ErrorID.
// The functions that throw one and are used in many places stand here, each with its message.
class TARNS_API TarnException : public XException {
 public:
  TarnException() noexcept;
  TarnException(const char* message, unsigned long id);
  TarnException(const TarnException& other);
  TarnException(TarnException&& other) noexcept;
  TarnException& operator=(const TarnException& other);
  TarnException& operator=(TarnException&& other) noexcept;
  ~TarnException() override;

  unsigned long getErrorID() const noexcept { return errorID_; }
  void setErrorID(unsigned long id) noexcept { errorID_ = id; }

  using XException::setError;
  void setError(const char* message, unsigned long id);

  [[noreturn]] static void ThrowDBuninitialized();
  [[noreturn]] static void ThrowFileNotFound(const char* file);
  [[noreturn]] static void ThrowBadDataType(long type);
  [[noreturn]] static void ThrowMissingDescriptor(const char* className);
  [[noreturn]] static void ThrowNonExistentPath(const char* path);
  [[noreturn]] static void ThrowNonExistentValue(const char* path);

 private:
  unsigned long errorID_ = ErrorID::Unspecified;
};

// Throws the error of a null reference: this message and identifier 0.
[[noreturn]] TARNS_API void ThrowBadRef(const char* message);

}  // namespace tarns
