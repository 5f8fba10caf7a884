#include "goods/lock_errors.h"

#include <fmt/format.h>

#include <goods/cache_manager.h>
#include <goods/database.h>
#include <goods/dbs_storage.h>
#include <goods/obj_storage.h>

namespace goods {

namespace {

const char* purpose(lock_mode mode) {
  return mode == lock_mode::shared ? "for reading" : "for writing";
}

std::string name_of(cache_manager& session, const lock_wait& wait) {
  for (std::uint32_t s = 0; s < session.db().get_number_of_storages(); ++s) {
    const auto storage = static_cast<storage_number>(s);
    if (&session.db().storage(storage).dbs().locks() != wait.table) continue;
    return session.name_of(make_object_id(storage, wait.number));
  }
  return fmt::format("object {} of the storage \"{}\"", wait.number, wait.storage);
}

}  // namespace

std::string describe_conflict(cache_manager& session, error_code code, object_id wanted,
                              lock_mode mode, const lock_conflict& conflict) {
  const bool is_deadlock = code == error_code::deadlock;
  std::string text = session.name_of(wanted);
  if (is_deadlock) {
    text += fmt::format(" cannot be locked {} without a deadlock", purpose(mode));
  } else {
    text += fmt::format(" could not be locked {} within {} ms", purpose(mode),
                        session.lock_timeout().count());
  }
  const char* separator = ": ";
  for (const lock_wait& wait : conflict.waits) {
    text += separator;
    if (is_deadlock) text += fmt::format("{} waits, and ", wait.waiting);
    text += describe_in_the_way(wait, is_deadlock ? name_of(session, wait) : "it");
    separator = is_deadlock ? "; " : ", ";
  }
  return text + '.';
}

}  // namespace goods
