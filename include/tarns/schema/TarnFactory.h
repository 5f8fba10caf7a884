#pragma once

#include <tarns/tarns_api.h>

namespace tarns {

class TarnObject;
class XStringList;

// Makes nodes of one class; all factories form a chain that makes nodes of any registered class.
//
// The factory of TarnObject is the head of the chain; each other one stands directly behind the
// head from its construction to its destruction (when its shared library is unloaded). Classes
// register when they are first needed, a base before what derives from it, so the order of the
// chain differs between programs. Threads: any.
class TARNS_API TarnFactory {
 public:
  using CreateFunction = TarnObject* (*)();
  using TypeFunction = const char* (*)();

  TarnFactory(CreateFunction create, TypeFunction getType);
  TarnFactory(const TarnFactory&) = delete;
  TarnFactory& operator=(const TarnFactory&) = delete;
  virtual ~TarnFactory();

  // The factory of TarnObject, through which all others are found.
  static const TarnFactory& GetHead();

  // A new node of the class named exactly so, or null. It goes into a reference at once. Asks this
  // factory and those behind it.
  TarnObject* createOfType(const char* typeName) const;
  // Adds the names of this factory's class and of those behind it.
  void getClassList(XStringList& names) const;

 private:
  CreateFunction create_;
  TypeFunction getType_;
  TarnFactory* next_ = nullptr;  // under the mutex of the chain
};

}  // namespace tarns
