// Commits to a storage until it is killed: storage_writer DIRECTORY THREADS.
//
// Each thread has a row of objects and raises the number in all of them with every commit; when a
// commit has returned, it writes "THREAD NUMBER" to the standard output. Starts from what is
// stored. With 0 threads it opens the storage, writes "open", and waits to be killed.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "storage/storage_rows.h"
#include "support/acknowledge.h"

namespace {

void commit_for_good(goods::dbs_storage& storage, unsigned thread) {
  for (unsigned number = goods::stored_number(storage, thread) + 1;; ++number) {
    goods::commit_row(storage, thread, number);
    acknowledge(std::to_string(thread) + ' ' + std::to_string(number));
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  try {
    const auto storage = goods::open_storage("file:store", arguments[1]);
    const int threads = std::atoi(arguments[2]);  // NOLINT(cert-err34-c): from our own test
    if (threads == 0) {
      std::puts("open");
      std::fflush(stdout);
      ::pause();
    }
    std::vector<std::thread> workers;
    workers.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i)
      workers.emplace_back([&, i] { commit_for_good(*storage, static_cast<unsigned>(i)); });
    for (std::thread& worker : workers) worker.join();
  } catch (const goods::database_error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 10 + static_cast<int>(error.code());
  }
  return 0;
}
