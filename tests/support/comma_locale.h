#pragma once

#include <clocale>
#include <cstdlib>
#include <initializer_list>
#include <locale>
#include <string>

#include "support/scratch_directory.h"

// While it lives, the process has a locale that writes 1.5 as "1,5" and 1234 as "1.234".
//
// C's part (printf, strtod) is an installed locale or one compiled from the system's sources with
// localedef; where neither can be had, has_c_part() is false and only the part of the C++ streams
// is in force. Not for programs with several threads running.
class comma_locale {
 public:
  comma_locale()
      : previous_(std::locale::global(std::locale(std::locale(), new comma_punctuation))) {
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "nl_NL.UTF-8"}) {
      if (use(name)) return;
    }
    // NOLINTBEGIN(concurrency-mt-unsafe,cert-env33-c): one thread, fixed command
    const std::string made = compiled_.file("de_DE.UTF-8");
    const std::string command = "localedef -i de_DE -f UTF-8 '" + made + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) == 0) {
      ::setenv("LOCPATH", compiled_.path().c_str(), 1);
      use("de_DE.UTF-8");
    }
    // NOLINTEND(concurrency-mt-unsafe,cert-env33-c)
  }
  comma_locale(const comma_locale&) = delete;
  comma_locale& operator=(const comma_locale&) = delete;
  ~comma_locale() {
    std::locale::global(previous_);
    // NOLINTBEGIN(concurrency-mt-unsafe): one thread
    std::setlocale(LC_ALL, "C");
    ::unsetenv("LOCPATH");
    // NOLINTEND(concurrency-mt-unsafe)
  }

  bool has_c_part() const { return has_c_part_; }

 private:
  struct comma_punctuation : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };

  bool use(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    has_c_part_ = std::setlocale(LC_ALL, name) != nullptr;
    return has_c_part_;
  }

  scratch_directory compiled_;
  std::locale previous_;
  bool has_c_part_ = false;
};
