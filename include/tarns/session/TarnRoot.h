#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

namespace tarns {

// The node at the top of a database: the root object of storage 0, below which everything else is
// found by path. There is one, without name and parent; TarnManager::getRoot() makes it in a fresh
// database.
// Threads: as for every node.
class TARNS_API TarnRoot : public TarnObject {
  TARN_CLASS(TarnRoot, TarnObject)

 public:
  ~TarnRoot() override;

  using TarnObject::initialize;
  // What a session asks of the root before it hands it out. A fresh root is an empty node, so there
  // is nothing to be made; a root that claims to be somebody's child throws 104.
  void initialize() const;
};

}  // namespace tarns
