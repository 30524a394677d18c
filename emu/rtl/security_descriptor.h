// Capturing a caller's security descriptor: validation of every part and a
// compact self-relative copy for the I/O manager to hand to a file system.
#pragma once

#include <vector>

#include <nt/ntstatus.h>
#include <nt/se.h>

namespace tervane::emu {

// Validates the self-relative descriptor SD as NT validates one a caller
// passes: STATUS_INVALID_SECURITY_DESCR for a bad revision, form or layout,
// STATUS_INVALID_SID for a bad owner or group, STATUS_INVALID_ACL for a bad
// SACL or DACL. On success COPY holds the descriptor rebuilt without gaps.
NTSTATUS RtlpCaptureSecurityDescriptor(PSECURITY_DESCRIPTOR sd, std::vector<UCHAR>* copy);

}  // namespace tervane::emu
