// Loads Debian's package index into a database: tree packages~NAME~FIELD, Size and Installed-Size
// as integers, everything else as text.
//
//   apt-cache dumpavail | package_index data/tarns.conf
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValue.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnTransaction.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>

namespace {

using namespace tarns;

bool IsNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Reads an index stanza by stanza and adds a node for each package that is not there yet.
class Loader {
 public:
  explicit Loader(TarnManager& manager) : packages_(manager.getNoFail("packages", "TarnObject")) {}

  void readLine(const std::string& line) {
    if (line.empty()) {
      endPackage();
    } else if (line[0] == ' ' || line[0] == '\t') {
      value_ += "\n" + line;  // goes on with the field before it
    } else {
      endField();
      const std::size_t colon = line.find(':');
      field_ = line.substr(0, colon);
      const std::size_t start = line.find_first_not_of(" \t", colon + 1);
      value_ = start == std::string::npos ? "" : line.substr(start);
    }
  }

  void endPackage() {
    endField();
    if (!name_.empty() && !packages_->hasChild(name_.c_str())) {
      modify(packages_)->addChild(name_.c_str(), package_);
      ++count_;
    }
    name_.clear();
    package_ = TarnObject::Create();
  }

  int getCount() const { return count_; }

 private:
  void endField() {
    if (field_.empty()) return;
    if (field_ == "Package") name_ = value_;
    const bool isSize = field_ == "Size" || field_ == "Installed-Size";
    const TarnData value =
        isSize && IsNumber(value_) ? TarnData(std::int64_t{std::stoll(value_)}) : TarnData(value_);
    modify(package_)->addChild(field_.c_str(), TarnValue::CreateValue(value));
    field_.clear();
  }

  TarnRef packages_;
  TarnRef package_ = TarnObject::Create();  // the one that is being read
  std::string name_, field_, value_;
  int count_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: package_index CONFIGURATION < INDEX\n";
    return 2;
  }
  try {
    TarnManager::Initialize();
    TarnManager manager;
    manager.connect(argv[1], std::chrono::seconds(5));
    const TarnAttachment attachment(manager);
    // All packages or, when something goes wrong, none.
    TarnTransaction transaction(manager);
    Loader loader(manager);
    for (std::string line; std::getline(std::cin, line);) loader.readLine(line);
    loader.endPackage();
    transaction.commit();
    std::cout << loader.getCount() << " packages\n";
    return 0;
  } catch (const TarnException& error) {
    std::cerr << "package_index: " << error.getError() << "\n";
    return 1;
  }
}
