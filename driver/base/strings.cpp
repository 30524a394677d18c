// Path pools and bounded operations on counted wide strings.
#include "base/strings.h"

#include <stdarg.h>

#include "base/global_state.h"

NPAGED_LOOKASIDE_LIST g_GeneralPathPool;
NPAGED_LOOKASIDE_LIST g_FilterPathPool;

VOID InitGeneralPathPool() {
    ExInitializeNPagedLookasideList(&g_GeneralPathPool, NULL, NULL, 0, PATH_BUFFER_SIZE, TRVN_TAG_GENERAL,
                                    GENERAL_PATH_POOL_DEPTH);
}

VOID InitFilterPathPool() {
    ExInitializeNPagedLookasideList(&g_FilterPathPool, NULL, NULL, 0, PATH_BUFFER_SIZE, TRVN_TAG_GENERAL,
                                    FILTER_PATH_POOL_DEPTH);
}

BOOLEAN AllocatePathBuffer(PUNICODE_STRING String) {
    if (String == NULL) {
        return FALSE;
    }
    String->Buffer = (PWSTR)ExAllocateFromNPagedLookasideList(&g_GeneralPathPool);
    String->Length = 0;
    String->MaximumLength = PATH_BUFFER_SIZE;
    return String->Buffer != NULL;
}

VOID FreePathBuffer(PUNICODE_STRING String) {
    if (String == NULL) {
        return;
    }
    if (String->Buffer != NULL) {
        ExFreeToNPagedLookasideList(&g_GeneralPathPool, String->Buffer);
    }
    String->Length = 0;
    String->MaximumLength = 0;
}

PVOID AllocateFilterPathBlock() {
    return ExAllocateFromNPagedLookasideList(&g_FilterPathPool);
}

VOID FreeFilterPathBlock(PVOID Block) {
    ExFreeToNPagedLookasideList(&g_FilterPathPool, Block);
}

NTSTATUS ValidateCountedString(PCUNICODE_STRING String, ULONG MaxChars) {
    if (String == NULL || (String->Length & 1) || (String->MaximumLength & 1) ||
        String->Length > String->MaximumLength || String->MaximumLength > (ULONG_PTR)MaxChars * sizeof(WCHAR) ||
        (String->Buffer == NULL && (String->Length != 0 || String->MaximumLength != 0))) {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

// Copies Source after the first KeptChars characters of Destination.
static NTSTATUS PutCountedString(PUNICODE_STRING Destination, PCUNICODE_STRING Source, BOOLEAN Append) {
    NTSTATUS nStatus = ValidateCountedString(Destination, MAX_COUNTED_STRING_CHARS);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    const ULONG ulKept = Append ? Destination->Length / sizeof(WCHAR) : 0;
    nStatus = ValidateCountedString(Source, MAX_COUNTED_STRING_CHARS);
    if (!NT_SUCCESS(nStatus)) {
        Destination->Length = (USHORT)(ulKept * sizeof(WCHAR));
        return nStatus;
    }

    const ULONG ulRoom = Destination->MaximumLength / sizeof(WCHAR) - ulKept;
    const ULONG ulSourceChars = Source->Length / sizeof(WCHAR);
    ULONG i = 0;
    for (; i < ulRoom && i < ulSourceChars; i++) {
        Destination->Buffer[ulKept + i] = Source->Buffer[i];
    }
    Destination->Length = (USHORT)((ulKept + i) * sizeof(WCHAR));
    return i < ulSourceChars ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// Copies at most Limit characters of the zero-terminated Source after the
// first KeptChars characters of Destination.
static NTSTATUS PutZeroTerminated(PUNICODE_STRING Destination, PCWSTR Source, SIZE_T Limit, BOOLEAN Append) {
    NTSTATUS nStatus = ValidateCountedString(Destination, MAX_COUNTED_STRING_CHARS);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    if (Limit > MAX_COUNTED_STRING_CHARS) {
        return STATUS_INVALID_PARAMETER;
    }

    const ULONG ulKept = Append ? Destination->Length / sizeof(WCHAR) : 0;
    const ULONG ulRoom = Destination->MaximumLength / sizeof(WCHAR) - ulKept;
    ULONG i = 0;
    while (i < ulRoom && i < Limit && Source[i] != L'\0') {
        Destination->Buffer[ulKept + i] = Source[i];
        i++;
    }
    Destination->Length = (USHORT)((ulKept + i) * sizeof(WCHAR));
    if (i == ulRoom && i < Limit && Source[i] != L'\0') {
        return STATUS_BUFFER_OVERFLOW;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CopyCountedString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    return PutCountedString(Destination, Source, FALSE);
}

NTSTATUS AppendCountedString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    return PutCountedString(Destination, Source, TRUE);
}

NTSTATUS CopyStringToCounted(PUNICODE_STRING Destination, PCWSTR Source) {
    return PutZeroTerminated(Destination, Source, MAX_COUNTED_STRING_CHARS, FALSE);
}

NTSTATUS AppendStringToCounted(PUNICODE_STRING Destination, PCWSTR Source) {
    return PutZeroTerminated(Destination, Source, MAX_COUNTED_STRING_CHARS, TRUE);
}

NTSTATUS AppendStringToCountedN(PUNICODE_STRING Destination, PCWSTR Source, SIZE_T Count) {
    return PutZeroTerminated(Destination, Source, Count, TRUE);
}

NTSTATUS FormatCountedString(PUNICODE_STRING Destination, PCWSTR Format, ...) {
    NTSTATUS nStatus = ValidateCountedString(Destination, MAX_COUNTED_STRING_CHARS);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    const size_t cchCapacity = Destination->MaximumLength / sizeof(WCHAR);
    va_list args;
    va_start(args, Format);
    int nCount = _vsnwprintf(Destination->Buffer, cchCapacity, Format, args);
    va_end(args);
    if (nCount < 0 || (size_t)nCount > cchCapacity) {
        Destination->Length = Destination->MaximumLength;
        return STATUS_BUFFER_OVERFLOW;
    }
    Destination->Length = (USHORT)(nCount * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

// Longest source this copies, in characters.
#define MAX_BUFFER_COPY_CHARS 0x7FFFFFFE

NTSTATUS CopyStringToBuffer(PWSTR Buffer, SIZE_T SizeInBytes, PCWSTR Source) {
    const SIZE_T cchBuffer = SizeInBytes / sizeof(WCHAR);
    if (cchBuffer == 0 || cchBuffer > 0x7FFFFFFF) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS nStatus = STATUS_SUCCESS;
    SIZE_T i = 0;
    while (i < cchBuffer && i < MAX_BUFFER_COPY_CHARS && Source[i] != L'\0') {
        Buffer[i] = Source[i];
        i++;
    }
    if (i == cchBuffer) {
        i--;
        nStatus = STATUS_BUFFER_OVERFLOW;
    }
    Buffer[i] = L'\0';
    return nStatus;
}

BOOLEAN IsDrivePath(PCUNICODE_STRING Path) {
    return Path->Length >= 3 * sizeof(WCHAR) && Path->Buffer[1] == L':' && Path->Buffer[2] == L'\\';
}

ULONG PathPrefixChars(PCUNICODE_STRING Path) {
    ULONG ulChars = Path->Length / sizeof(WCHAR);
    while (ulChars > 0 && Path->Buffer[ulChars - 1] != L'\\') {
        ulChars--;
    }
    return ulChars;
}
