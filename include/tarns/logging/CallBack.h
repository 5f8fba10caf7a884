#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XObject.h>

#include <concepts>
#include <memory>
#include <utility>

namespace tarns {

// A function, or a member function and its object (the client), with the argument to call it with.
//
// A plain value. Ownership: the argument is the caller's, and so is the client unless it comes as a
// shared_ptr, which each copy holds on to.
// Threads: as for a value; execute() on any.
class TARNS_API CallBack {
 public:
  using Function = void (*)(const void* argument);
  using Method = void (XObject::*)(const void* argument);

  CallBack(Function function, const void* argument) : function_(function), argument_(argument) {}
  CallBack(XObject* client, Method method, const void* argument)
      : client_(client), method_(method), argument_(argument) {}
  CallBack(std::shared_ptr<XObject> client, Method method, const void* argument)
      : client_(client.get()), method_(method), argument_(argument), keeps_(std::move(client)) {}
  template <std::derived_from<XObject> T>
  CallBack(T* client, void (T::*method)(const void*), const void* argument)
      : CallBack(static_cast<XObject*>(client), static_cast<Method>(method), argument) {}

  // Null for a plain function.
  XObject* getClient() const { return client_; }

  // Whether `other` calls the same; not 0: and with the same argument.
  bool isCallBack(const CallBack& other, int withArgument) const;

  // Calls it. What it throws reaches the caller. No effect without a function.
  void execute() const;

 private:
  Function function_ = nullptr;
  XObject* client_ = nullptr;
  Method method_ = nullptr;
  const void* argument_;
  std::shared_ptr<XObject> keeps_;
};

}  // namespace tarns
