// How a persistent class is declared and registered.
//
//   // Machine.h
//   class Machine : public tarns::TarnObject {
//     TARN_CLASS(Machine, tarns::TarnObject)
//    public:
//     bool write(const char* name, tarns::GOODSinOut& out) override;
//    private:
//     std::int32_t speed_ = 0;
//     tarns::TarnString label_;
//   };
//
//   // Machine.cpp
//   TARN_REGISTER(Machine, tarns::TarnObject);
//
//   bool Machine::write(const char* name, tarns::GOODSinOut& out) {
//     tarns::TarnObject::write(name, out);
//     out.write("Speed", speed_);
//     return out.write("Label", label_);
//   }
//
// A new object: Machine::Create(). Stored names ("Speed") are part of the database; members may be
// added, removed, reordered and widened between versions of a program, and renamed with
// GOODSinOut::addFormerName().
//
// The order in which shared libraries and source files are initialised does not matter: a class's
// registration first makes that of its base. Classes are forgotten when the program or shared
// library that holds them ends: sessions and references in static objects must be gone by then, so
// keep them in main() or reset them there.
#pragma once

#include <tarns/core/xcptref.h>
#include <tarns/schema/TarnClassDescriptor.h>

// NOLINTBEGIN(bugprone-macro-parentheses): arguments are names of classes

// Within the class; opens with public and leaves private. Declares the identity of the class:
//   self_class, SelfClass()  the class descriptor; the function also works during static
//                            initialisation of other source files
//   GetType()                the class's name, which is its name in the database, too
//   Create()                 a new object without parent
//   Constructor()            the same for the factory: goes into a reference at once
// and the three constructors. Members get their default values in the class. A constructor of one's
// own starts with the default one: Machine(int speed) : Machine() { speed_ = speed; }
#define TARN_CLASS(Class, Base) TARN_CLASS_NAMED(Class, Base, #Class)

// The same under another name in the database. Names must differ between all classes of a program,
// whatever their namespaces: of two classes of one name only the one that was registered last is
// found, which the log reports.
#define TARN_CLASS_NAMED(Class, Base, Name)                                                    \
 public:                                                                                       \
  static ::tarns::TarnClassDescriptor& SelfClass();                                            \
  static ::tarns::TarnClassDescriptor& self_class;                                             \
  static const char* GetType() { return Name; }                                                \
  static ::tarns::TarnObject* Constructor() { return new Class; }                              \
  static ::tarns::xcptref<Class> Create() { return ::tarns::xcptref<Class>(new Class); }       \
  Class() : Class(SelfClass()) {}                                                              \
  Class(::goods::object_handle* handle, ::goods::class_descriptor& cls) : Base(handle, cls) {} \
                                                                                               \
 protected:                                                                                    \
  explicit Class(::goods::class_descriptor& cls) : Base(cls) {}                                \
                                                                                               \
 private:

// In one source file that includes tarns/schema/TarnClassRegistration.h, within the class's
// namespace and outside of functions.
#define TARN_REGISTER(Class, Base) TARN_REGISTER_WITH(Class, Base, .pageN = 2)

// The same with options, see TarnClassOptions:
//   TARN_REGISTER_WITH(Machine, tarns::TarnObject, .pageN = 146, .formerNames = {"Engine"});
#define TARN_REGISTER_WITH(Class, Base, ...)                                                 \
  ::tarns::TarnClassDescriptor& Class::SelfClass() {                                         \
    static ::tarns::TarnClassRegistration registration(                                      \
        Class::GetType, sizeof(Class), ::goods::construct_object<Class>, Class::Constructor, \
        Base::SelfClass(), ::tarns::TarnClassOptions{__VA_ARGS__});                          \
    return registration.getDescriptor();                                                     \
  }                                                                                          \
  ::tarns::TarnClassDescriptor& Class::self_class = Class::SelfClass()

// NOLINTEND(bugprone-macro-parentheses)
