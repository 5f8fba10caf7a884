#pragma once

#include <tarns/session/TarnPathText.h>
#include <tarns/tarns_api.h>
#include <tarns/vfs/TarnVFSFile.h>
#include <tarns/vfs/TarnVFSInfo.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace tarns {

class TarnVFS;

// Writes an item's content: nobody sees any of it before finish(), and all of it afterwards.
//
//   TarnVFSWriter writer(files, "letters~2026~january.txt");
//   writer.write("Dear Sir,\n");
//   writer.finish();
//
// Content may be of any size: beyond some megabytes it is put into the database in transactions of
// its own while it is written, where nothing leads to it, and finish() makes it the item's in one
// small transaction. What a crash leaves of a writing that was not finished, or what was given up,
// a collection removes. While the thread has a transaction open, nothing is put away before that
// commits; then everything must fit into the transaction.
//
// Errors: 7 when there is no such folder, or finish() finds it removed; 111 for calls after
// finish(); from 100 on what the storage reports. After an error the item is as it was; finish()
// may be called again when only that has failed. Threads: one at a time, attached to the session.
// The TarnVFS outlives it.
class TARNS_API TarnVFSWriter {
 public:
  enum class Mode : std::uint8_t {
    kReplace,  // begins empty; finish() replaces the content, or makes the item
    kNew,      // begins empty; finish() throws 0 when there is an item of the name by then
    kUpdate    // begins with the content that the item has, which must be there; finish() throws 0
               // when others have written to it meanwhile
  };

  TarnVFSWriter(TarnVFS& files, TarnPathText path, Mode mode = Mode::kReplace);
  ~TarnVFSWriter();  // without finish(): as if nothing had been written
  TarnVFSWriter(const TarnVFSWriter&) = delete;
  TarnVFSWriter& operator=(const TarnVFSWriter&) = delete;

  // At the position, which moves on; behind the end, zeros come in between, which take no room
  // where they are whole pieces.
  void write(std::string_view bytes);
  void write(std::span<const std::byte> bytes) {
    write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  }
  std::uint64_t tell() const;
  void seek(std::uint64_t position);
  std::uint64_t getSize() const;
  // Cuts the content, or lengthens it by zeros. The position stays.
  void truncate(std::uint64_t size);

  // What finish() is to note beside the content; what is not told stays as it was in an item that
  // is there. The time is that of finish() unless it is told. The arguments are those of
  // TarnVFSFile.
  void setModified(TarnVFSTime time);
  void setPermissions(std::uint32_t permissions);
  void setKind(TarnVFSInfo::Kind kind);
  void setContentType(const char* type);

  // Makes what was written the item's content. The writer is over then.
  void finish();

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace tarns
