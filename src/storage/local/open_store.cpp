#include "storage/local/open_store.h"

#include <fmt/format.h>

#include <cstring>

#include "storage/local/change_merger.h"
#include "storage/local/log_recovery.h"
#include "storage/local/segment_writer.h"

namespace goods {
namespace {

constexpr std::size_t replayed_at_once = std::size_t{32} << 20;  // bytes of the log

}  // namespace

open_store::open_store(const storage_address& address, const std::string& name,
                       dbs_storage& locks_for, commit_queue::writer write)
    : files(address.directory),
      hold(address.directory),
      settings{files.database(), name, address.options.mapped},
      checked(prepare_files()),
      relaxed(address.options.relaxed),
      store(settings),
      identity(store.reader().identity()),
      layouts(name),
      prepared(name),
      cache(address.options.cache_bytes.value_or(suggested_cache_size::without_any)),
      cache_size(cache, !address.options.cache_bytes),
      readers(settings),
      newest{name, cache, overlay, presence, readers, versions},
      ahead(newest, settings),
      log(address.directory, name, identity, address.options.log_bytes / 2),
      checkpoints(settings, database_turn, readers),
      merger({store, turn, database_turn, prepared, stored_presence, log, overlay, versions,
              checkpoints},
             address.options.log_bytes, relaxed),
      opened_at(load_everything()),
      notices(opened_at),
      locks(locks_for),
      queue(turn, std::move(write)) {}

bool open_store::prepare_files() {
  files.remove_unfinished();
  if (!files.exist()) {
    files.create_unfinished();
    make_store(files.unfinished());
    files.finish();
  }
  files.check_header();
  sqlite_connection connection(files.database(), sqlite_connection::access::read_write);
  check_schema(connection);
  if (connection.text("PRAGMA journal_mode=WAL") != "wal")
    throw_error(
        error_code::input_output,
        fmt::format("The storage file \"{}\" cannot have a write-ahead log.", files.database()));
  return true;
}

commit_version open_store::load_everything() {
  load_tables();
  versions.merged = versions.visible = store.state().version;
  replay_log();
  return versions.visible;
}

void open_store::load_tables() {
  std::uint64_t segments = 0;
  store.reader().for_each_row(
      "presence", row_kind::presence, [&](std::int64_t key, const byte_block& content) {
        presence_map::content bits;
        if (key < 0 || key >= presence_map::chunks || content.size != sizeof bits)
          throw damaged_bytes("it does not describe segments");
        std::memcpy(bits.data(), content.bytes.get(), sizeof bits);
        segments += presence.load(static_cast<std::uint32_t>(key), bits);
        stored_presence.load(static_cast<std::uint32_t>(key), bits);
      });
  if (segments != store.state().segments)
    throw_damaged_row(settings.store, "presence", 0, "rows of it are missing");
  layouts.load(store.reader(), store.state());
  prepared.load(store.reader(), store.state());
}

// Some at a time, so that a long log takes no more memory than itself; what has been merged when
// this ends early is left out the next time.
void open_store::replay_log() {
  log_recovery found(files.directory(), settings.store, identity, versions.merged);
  std::vector<object_change> changes;
  const writer_turn::hold scope(turn);
  while (const commit_version through = found.take(replayed_at_once, changes))
    replay(changes, through);
  log.note_durable(found.newest());
  if (found.found_files()) log.remove();
}

// What an object was in between is of no interest any more.
void open_store::replay(std::span<const object_change> changes, commit_version through) {
  std::vector<const object_change*> all;
  all.reserve(changes.size());
  for (const object_change& change : changes) {
    if (!change.removed && change.layout > layouts.count())
      throw_damaged_object(settings.store, change.number,
                           fmt::format("the log has it with the unknown layout {}", change.layout));
    all.push_back(&change);
  }
  newest_states current(newest);
  change_merger replaying(current, versions.visible, change_merger::mode::takes_damage);
  const segment_changes replayed = replaying.merge(std::move(all), through);
  for (const auto& change : replayed.changed) {
    if (change.exists) presence.reserve(change.number);
    presence.set(change.number, change.exists);
    cache.publish(change.number, nullptr, change.exists ? change.patch : nullptr, through);
  }
  auto unmerged = overlay.prepare(replayed);
  overlay.add(unmerged);
  versions.visible = through;
  merger.merge_all();
}

open_store::~open_store() {
  readers.end_idle();
  writer_turn::hold scope(turn);
  try {
    merger.merge_all();
    writer_turn::hold database(database_turn);
    if (prepared.has_forgotten()) {
      segment_store::transaction transaction(store);
      prepared.erase_forgotten(transaction);
      transaction.commit();
    }
    log.remove();
  } catch (...) {  // NOLINT(bugprone-empty-catch): opening it again finishes this
  }
}

}  // namespace goods
