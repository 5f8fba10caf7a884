// Configuration files: the input is the file.
#include <goods/errors.h>
#include <tarns/session/StorageID2ipMap.h>
#include <tarns/util/XException.h>

#include <fstream>

#include "fuzz/fuzzer.h"
#include "goods/configuration.h"
#include "storage/storage_address.h"
#include "tests/support/scratch_directory.h"

namespace {

void ReadMap(const std::string& file) {
  try {
    const tarns::StorageID2ipMap map(file.c_str(), 7);
    for (unsigned long id = 0; id < 4; ++id) {
      if (const char* address = map.lookup(id)) fuzz::require(*address != '\n');
    }
  } catch (const tarns::XException&) {
    fuzz::refused();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const scratch_directory directory(scratch_directory::place::in_memory);
  static const std::string file = directory.file("tarns.conf");
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  try {
    const goods::configuration read = goods::read_configuration(file);
    for (const std::string& address : read.addresses) {
      fuzz::require(!address.empty());
      const auto storage = goods::parse_storage_address(address, read.directory);
      fuzz::require(storage.directory.starts_with('/'));
    }
  } catch (const goods::error_info& error) {
    fuzz::require(error.code() == goods::error_code::usage);
  }
  ReadMap(file);
  return 0;
}
