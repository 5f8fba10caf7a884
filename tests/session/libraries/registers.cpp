// A library with one class, NAME. With THROWS it cannot be registered, and what its static
// initialisers ask for would never come.
#include <tarns/core/TarnObject.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/session/TarnLibrary.h>
#include <tarns/session/TarnManager.h>

#include <stdexcept>

TARN_LIBRARY();

namespace {

class Registered : public tarns::TarnObject {
  TARN_CLASS_NAMED(Registered, tarns::TarnObject, NAME)

 public:
  bool write(const char* name, tarns::GOODSinOut& out) override {
    tarns::TarnObject::write(name, out);
#ifdef THROWS
    throw std::runtime_error("no such press");
#else
    return out.write("Size", size_);
#endif
  }

 private:
  [[maybe_unused]] std::int32_t size_ = 0;
};
TARN_REGISTER(Registered, tarns::TarnObject);

#ifdef THROWS
class Later : public Registered {
  TARN_CLASS(Later, Registered)
};
TARN_REGISTER(Later, Registered);

[[maybe_unused]] const auto asked =
    tarns::TarnManager::MdataLibraries.loadDataLibraries("tarns.conf", nullptr);
#endif

}  // namespace
