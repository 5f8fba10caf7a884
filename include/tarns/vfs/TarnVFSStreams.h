#pragma once

#include <tarns/session/TarnPathText.h>
#include <tarns/tarns_api.h>
#include <tarns/vfs/TarnVFSItem.h>
#include <tarns/vfs/TarnVFSWriter.h>

#include <istream>
#include <memory>
#include <ostream>

namespace tarns {

class TarnVFS;

// An item's content as a stream of the standard library, as it was when the stream was made; see
// TarnVFSReader. Seeks to any place up to the end.
//
//   TarnVFSInput in(files, "letters~2026~january.txt");
//   for (std::string line; std::getline(in, line);) ...
//
// Errors: the constructor throws what TarnVFSReader throws. What the storage reports while reading
// sets badbit; after exceptions(std::ios::badbit) it is thrown as it is. Threads: one at a time,
// attached to the session.
class TARNS_API TarnVFSInput : public std::istream {
 public:
  TarnVFSInput(TarnVFS& files, TarnPathText path);
  explicit TarnVFSInput(const xcptref<TarnVFSItem>& item);
  ~TarnVFSInput() override;

 private:
  class Bytes;
  std::unique_ptr<Bytes> bytes_;
};

// Writes an item's content as a stream of the standard library: nobody sees any of it before
// finish(); see TarnVFSWriter. Seeks to any place.
//
//   TarnVFSOutput out(files, "letters~2026~january.txt");
//   out << "Dear Sir,\n";
//   out.finish();
//
// Errors: as for TarnVFSInput; a stream that has failed is not finished. The TarnVFS outlives it.
class TARNS_API TarnVFSOutput : public std::ostream {
 public:
  TarnVFSOutput(TarnVFS& files, TarnPathText path,
                TarnVFSWriter::Mode mode = TarnVFSWriter::Mode::kReplace);
  ~TarnVFSOutput() override;  // without finish(): as if nothing had been written

  // For times, permissions and so on. What has been streamed is in it after flush().
  TarnVFSWriter& getWriter();

  // Makes what was written the item's content. Throws what TarnVFSWriter::finish() throws, and 0
  // when the stream has failed before.
  void finish();

 private:
  class Bytes;
  std::unique_ptr<Bytes> bytes_;
};

}  // namespace tarns
