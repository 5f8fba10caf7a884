#include <tarns/logging/CallBack.h>
#include <tarns/logging/CallBacks.h>

#include <algorithm>

namespace tarns {

bool CallBack::isCallBack(const CallBack& other, int withArgument) const {
  const bool callsTheSame =
      function_ == other.function_ && client_ == other.client_ && method_ == other.method_;
  return callsTheSame && (withArgument == 0 || argument_ == other.argument_);
}

void CallBack::execute() const {
  if (client_ != nullptr && method_ != nullptr) (client_->*method_)(argument_);
  if (function_ != nullptr) function_(argument_);
}

bool CallBacks::add(const CallBack& callBack) {
  for (const CallBack& known : list_) {
    if (known.isCallBack(callBack, 1)) return false;
  }
  list_.push_back(callBack);
  return true;
}

bool CallBacks::remove(const CallBack& callBack) {
  return std::erase_if(list_, [&](const CallBack& c) { return c.isCallBack(callBack, 1); }) > 0;
}

std::size_t CallBacks::removeFor(const void* client) {
  return std::erase_if(list_, [&](const CallBack& c) {
    return c.getClient() != nullptr && c.getClient() == client;
  });
}

}  // namespace tarns
