// Branches as JSON. What can be imported is exported, and that must make the same branch again. The
// input is the JSON text; every import is rolled back.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnTransaction.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/OpenSession.h"
#include "fuzz/fuzzer.h"
#include "tests/support/scratch_directory.h"
#include "tools/JsonImporter.h"
#include "tools/JsonInput.h"
#include "tools/JsonWriter.h"
#include "tools/Output.h"

namespace {

using namespace tarns;

constexpr const char* kBranch = "branch";

const std::string& File() {
  static const scratch_directory directory(scratch_directory::place::in_memory);
  static const std::string file = directory.file("branch.json");
  return file;
}

void Save(std::string_view json) {
  std::ofstream(File(), std::ios::binary)
      .write(json.data(), static_cast<std::streamsize>(json.size()));
}

std::string Saved() {
  std::ifstream file(File(), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The branch that the file makes, as JSON.
std::string Imported(TarnManager& manager) {
  TarnTransaction transaction(manager);
  JsonInput input(File());
  JsonImporter(manager, input, [](std::uint64_t) {}).read(kBranch);
  Output out(File());
  JsonWriter(out).write(manager.getNoFail(kBranch));
  out.finish();
  transaction.rollback();
  return Saved();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzz::OpenSession session;
  Save({reinterpret_cast<const char*>(data), size});
  std::string json;
  try {
    json = Imported(session.manager());
  } catch (const TarnException& error) {
    fuzz::require(std::string_view(error.what()).starts_with("Line "));
    return 0;
  }
  fuzz::require(Imported(session.manager()) == json);
  return 0;
}
