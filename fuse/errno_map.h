// The errno a Linux program expects for an NT status, in one table.
#pragma once

#include <nt/ntifs.h>

namespace tervane::fuse {

// 0 for a success; a positive errno otherwise (EIO for a status the table
// does not name).
int ErrnoFromStatus(NTSTATUS status);

}  // namespace tervane::fuse
