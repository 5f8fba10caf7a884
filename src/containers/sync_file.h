// Exports of synchronised bundles as text; the grammar is in docs/sync.md.
#pragma once

#include <tarns/core/TarnObject.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "containers/sync_version.h"
#include "core/NodeWriter.h"

namespace tarns {

// What happened to one name.
struct SyncChange {
  std::string name;
  SyncVersion version;
  bool isDeleted = false;
  TarnRef object;    // to be written
  std::string text;  // the object's text form, as it was read
};

struct SyncFile {
  // What the sender has got from a partner.
  struct Arrived {
    std::uint64_t received = 0, receivedFiltered = 0;
    bool lacksExport = false;
  };

  std::string className;
  ReplicaID from = 0;
  ReplicaID addressee = 0;               // what this one has seen is not in it; 0: for everybody
  SyncVersion former;                    // replicas that the sender was
  SyncEnds ended;                        // and all that it knows to have ended
  std::uint64_t since = 0;               // 0: everything that there is
  std::uint64_t revision = 0;            // of the sender
  bool isPartial = false;                // filters may have kept something back
  SyncVersion known;                     // what the sender has seen
  std::map<ReplicaID, SyncMarks> marks;  // of all that the sender has heard of, and itself
  std::map<ReplicaID, Arrived> partners;
  std::vector<SyncChange> changes;  // in ascending order of names

  std::string write() const;
  // Gives what replicas did after their ends the names that the sender's marks say; see ApplyEnds.
  void applyEnds(SyncEnds& ends);
  // Checks everything that can be checked without a bundle. Throws 3, 15, 109.
  static SyncFile Read(std::string_view text);
};

// The text form of an object as a child of that name. `visit` is called with the nodes below it.
std::string TextOf(std::string_view name, const TarnRef& object,
                   const NodeWriter::Visit& visit = {});

// Makes `object` what its text form says; whatever it was.
void ReplaceContent(const TarnRef& object, std::string_view text);

}  // namespace tarns
