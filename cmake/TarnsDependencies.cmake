# Libraries from the system. All are private to ours: a consumer needs none of their headers.

find_package(PkgConfig REQUIRED)
pkg_check_modules(sqlite3 REQUIRED IMPORTED_TARGET sqlite3>=3.40)
pkg_check_modules(xxhash REQUIRED IMPORTED_TARGET libxxhash)
pkg_check_modules(lz4 REQUIRED IMPORTED_TARGET liblz4)
find_package(fmt 9 REQUIRED)
find_package(spdlog 1.10 REQUIRED)

if(TARNS_BUILD_TOOL)
  find_package(CLI11 2.1 REQUIRED)
  find_package(nlohmann_json 3.11 REQUIRED)
  pkg_check_modules(utf8proc REQUIRED IMPORTED_TARGET libutf8proc)
  pkg_check_modules(zstd REQUIRED IMPORTED_TARGET libzstd)
endif()

if(TARNS_BUILD_TESTS)
  find_package(GTest 1.12 REQUIRED)
  find_package(rapidcheck REQUIRED)
endif()

if(TARNS_BUILD_BENCH)
  pkg_check_modules(lmdb REQUIRED IMPORTED_TARGET lmdb)
  find_package(nlohmann_json 3.11 REQUIRED)
endif()
