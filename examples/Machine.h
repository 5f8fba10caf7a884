#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnString.h>

#include <cstdint>

// A persistent class of an application, with the usual kinds of members.
//
// Members are declared to the library once, in write(). After that they are stored, can be read and
// written by name and path ("hall~press~Speed", "hall~press~Loads_2") and appear among the
// children.
class Machine : public tarns::TarnObject {
  TARN_CLASS(Machine, tarns::TarnObject)

 public:
  enum class State : std::uint8_t { kIdle = 0, kRunning = 1, kBroken = 3 };
  static constexpr unsigned kLoads = 3;

  bool write(const char* name, tarns::GOODSinOut& out) override;

  std::int32_t getSpeed() const { return speed_; }
  void setSpeed(std::int32_t speed) { speed_ = speed; }
  State getState() const { return static_cast<State>(state_); }
  void setState(State state) { state_ = static_cast<std::uint8_t>(state); }
  double getLoad(unsigned index) const { return loads_[index]; }  // index below kLoads
  void setLoad(unsigned index, double load) { loads_[index] = load; }
  std::string getLabel() const { return label_.str(); }
  void setLabel(std::string_view label) { label_.set(label); }
  bool isOn() const { return isOn_; }
  tarns::xcptref<Machine> getFeeder() const { return feeder_; }
  void setFeeder(const tarns::xcptref<Machine>& feeder) { feeder_ = feeder; }

 private:
  std::int32_t speed_ = 0;     // rounds per minute
  double loads_[kLoads] = {};  // kilowatts, one for each motor
  std::uint8_t state_ = 0;     // a State
  char serial_[8] = {};        // at most 7 characters
  bool isOn_ = false;
  tarns::TarnString label_;         // any length
  tarns::xcptref<Machine> feeder_;  // the machine that this one takes its parts from, or null
};
