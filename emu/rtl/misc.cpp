// Assertion reports, memory comparison, generic access mapping and the length
// of security descriptors.
#include <string>

#include <nt/ntifs.h>

#include "kernel.h"

// Writes the report to the debug log and returns: execution goes on.
extern "C" VOID RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PCHAR Message) {
    std::string text = "*** Assertion failed: ";
    if (Message) text += Message;
    if (FailedAssertion) text += static_cast<const char*>(FailedAssertion);
    text += "\n***   Source File: ";
    if (FileName) text += static_cast<const char*>(FileName);
    text += ", line " + std::to_string(LineNumber) + "\n\n";
    tervane::emu::DbgLogWrite(text);
}

extern "C" SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length) {
    auto* a = static_cast<const unsigned char*>(Source1);
    auto* b = static_cast<const unsigned char*>(Source2);
    SIZE_T i = 0;
    while (i < Length && a[i] == b[i]) ++i;
    return i;
}

extern "C" VOID RtlMapGenericMask(PACCESS_MASK AccessMask, PGENERIC_MAPPING GenericMapping) {
    ACCESS_MASK mask = *AccessMask;
    if (mask & GENERIC_READ) mask |= GenericMapping->GenericRead;
    if (mask & GENERIC_WRITE) mask |= GenericMapping->GenericWrite;
    if (mask & GENERIC_EXECUTE) mask |= GenericMapping->GenericExecute;
    if (mask & GENERIC_ALL) mask |= GenericMapping->GenericAll;
    *AccessMask = mask & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
}

namespace {
ULONG SidLength(const SID* sid) { return 8 + 4 * static_cast<ULONG>(sid->SubAuthorityCount); }
ULONG LongAlign(ULONG n) { return (n + 3) & ~3u; }
}  // namespace

// Self-relative descriptors only (the form the file services exchange): the
// header plus each present part, each part rounded up to 4 bytes.
extern "C" ULONG RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor) {
    auto* sd = static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(SecurityDescriptor);
    auto* base = static_cast<const unsigned char*>(SecurityDescriptor);
    ULONG length = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    if (sd->Owner) length += LongAlign(SidLength(reinterpret_cast<const SID*>(base + sd->Owner)));
    if (sd->Group) length += LongAlign(SidLength(reinterpret_cast<const SID*>(base + sd->Group)));
    if ((sd->Control & SE_SACL_PRESENT) && sd->Sacl)
        length += LongAlign(reinterpret_cast<const ACL*>(base + sd->Sacl)->AclSize);
    if ((sd->Control & SE_DACL_PRESENT) && sd->Dacl)
        length += LongAlign(reinterpret_cast<const ACL*>(base + sd->Dacl)->AclSize);
    return length;
}
