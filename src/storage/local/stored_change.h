// One object's part in a commit, as stored in the commit log and in prepared commits:
//
//   change = number flags [ layout length body ]   4 bytes, 1 byte, varint, varint, bytes
//   flags  = 1: removed (nothing follows), 2: new, added up
#pragma once

#include <goods/dbs_storage.h>

#include "storage/local/byte_order.h"

namespace goods {

std::size_t stored_size(const object_change& change);
// Returns the end of what it has written: stored_size() bytes.
std::byte* store_change(std::byte* at, const object_change& change);
// The body refers to the reader's bytes. Throws damaged_bytes.
object_change read_change(row_reader& reader);

}  // namespace goods
