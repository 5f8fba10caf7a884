// In how many places items are listed: "vfsRefs".
//
// The count is stored from the second place on; without it, an item that has a parent is listed
// once. A folder lists an item as often as it has names for it, and an entry of the recycle bin
// counts as a folder does. Everything here belongs into the transaction that changes the list.
#pragma once

#include <tarns/vfs/TarnVFSFolder.h>
#include <tarns/vfs/TarnVFSItem.h>

namespace tarns {

// To be called before the item gets an entry in `list`, a child of a folder or of the bin.
void CountPlace(const xcptref<TarnVFSItem>& item, const TarnRef& list);

// To be called when an entry of the item has been removed.
void UncountPlace(const xcptref<TarnVFSItem>& item);

// The same before all items are removed that `list` has.
void UncountPlacesIn(const TarnRef& list);

// To be called when a folder has been removed: takes items that stand elsewhere as well off it and
// the folders below, so that they count these places no more and do not keep the folders from being
// collected. What has its parent elsewhere stays. `root` is the root folder of the file system.
// Looks at nothing where no items have been shared.
void RemoveSharedItems(const xcptref<TarnVFSFolder>& root, const xcptref<TarnVFSFolder>& removed);

// Whether items of the folder, or of those below, may be listed in several places. Told by the
// uppermost folder.
bool MayListSharedItems(const xcptref<TarnVFSFolder>& top);

// To be called when `folder` has come below `above`: what it tells is told by the uppermost one.
void NoteSharedItemsOf(const xcptref<TarnVFSFolder>& folder, const TarnRef& above);

}  // namespace tarns
