// The control protocol: every control code of \Device\Tervane, on the fast
// path and through request packets alike. Outcomes travel in the status block.
#include "control/control.h"

#include "control/exclusion_list.h"
#include "control/filter_directory.h"
#include "control/process_list.h"
#include "base/log.h"
#include "core/tervane.h"
#include "index/file_index.h"

// Inputs are read in place. A record shorter than its code needs, or a path
// slot without its zero, is refused with STATUS_INVALID_DEVICE_REQUEST, as
// the index load refuses a short record.

// TRUE when every whole slot of the input holds a zero.
static BOOLEAN AreSlotsTerminated(PVOID Input, ULONG InputLength) {
    const ULONG ulCount = InputLength / PATH_SLOT_SIZE;
    for (ULONG i = 0; i < ulCount; i++) {
        const PUCHAR pSlot = (PUCHAR)Input + i * PATH_SLOT_SIZE;
        BOOLEAN bTerminated = FALSE;
        for (ULONG c = 0; c < PATH_SLOT_CHARS && !bTerminated; c++) {
            WCHAR wc;
            memcpy(&wc, pSlot + c * sizeof(WCHAR), sizeof(WCHAR));
            bTerminated = (wc == L'\0');
        }
        if (!bTerminated) {
            return FALSE;
        }
    }
    return TRUE;
}

// A counted string over a terminated slot: length up to the zero, capacity
// equal to the length.
static VOID SlotString(PVOID Slot, PUNICODE_STRING String) {
    RtlInitUnicodeString(String, (PCWSTR)Slot);
    String->MaximumLength = String->Length;
}

// A filter directory's root is a drive path: letter, colon, backslash. An
// empty, relative or UNC root would map the view's paths to places no one
// chose, so a list holding one is refused whole.
static BOOLEAN AreRootsDrivePaths(PVOID Input, ULONG InputLength) {
    const ULONG ulCount = InputLength / PATH_SLOT_SIZE;
    for (ULONG i = 0; i < ulCount; i++) {
        UNICODE_STRING ustrRoot;
        SlotString((PUCHAR)Input + i * PATH_SLOT_SIZE, &ustrRoot);
        const PWSTR pwc = ustrRoot.Buffer;
        const BOOLEAN bLetter = ustrRoot.Length >= 3 * sizeof(WCHAR) &&
                                ((pwc[0] >= L'A' && pwc[0] <= L'Z') || (pwc[0] >= L'a' && pwc[0] <= L'z'));
        if (!bLetter || pwc[1] != L':' || pwc[2] != L'\\') {
            TRVN_LOG("TervaneFastIoDeviceControl", __LINE__, "filter directory root [%wZ] is not a drive path\r\n",
                     &ustrRoot);
            return FALSE;
        }
    }
    return TRUE;
}

static NTSTATUS SetFilterList(PVOID Input, ULONG InputLength) {
    if (!AreSlotsTerminated(Input, InputLength) || !AreRootsDrivePaths(Input, InputLength)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (!SetFilterDirectories(Input, InputLength)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    // Every root but the last is hidden from the filter directories above it.
    const ULONG ulCount = InputLength / PATH_SLOT_SIZE;
    for (ULONG i = 0; i + 1 < ulCount; i++) {
        UNICODE_STRING ustrRoot;
        SlotString((PUCHAR)Input + i * PATH_SLOT_SIZE, &ustrRoot);
        HidePath(&ustrRoot);
    }
    return STATUS_SUCCESS;
}

static NTSTATUS LoadIndex(PVOID Input, ULONG InputLength) {
    if (InputLength < INDEX_RECORD_SIZE || !AreSlotsTerminated(Input, INDEX_RECORD_SIZE)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    ULONG ulLastFlag = 0;
    if (GetFilterDirectoryCount(&ulLastFlag) == 0) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return LoadFilterIndex(ulLastFlag, Input) ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST;
}

static NTSTATUS RenameIndex(PVOID Input, ULONG InputLength) {
    if (IsFilteringEnabled()) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (InputLength < INDEX_RECORD_SIZE || !AreSlotsTerminated(Input, INDEX_RECORD_SIZE)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    ULONG ulLastFlag = 0;
    GetFilterDirectoryCount(&ulLastFlag);
    PFilterDirectoryEntry pEntry = GetFilterDirectory(ulLastFlag);
    if (pEntry == NULL || pEntry->m_ppIndexHolder == NULL) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    PFileIndex pIndex = __atomic_load_n(pEntry->m_ppIndexHolder, __ATOMIC_ACQUIRE);
    if (pIndex == NULL) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    UNICODE_STRING ustrSource;
    UNICODE_STRING ustrTarget;
    SlotString(Input, &ustrSource);
    SlotString((PUCHAR)Input + PATH_SLOT_SIZE, &ustrTarget);
    RenameIndexPath(pIndex, &ustrSource, &ustrTarget);
    return STATUS_SUCCESS;
}

// Writes a 32-bit count; the output must hold it.
static NTSTATUS WriteCount(BOOLEAN (*GetCount)(PULONG), PVOID Output, ULONG OutputLength,
                           PIO_STATUS_BLOCK IoStatus) {
    if (OutputLength < sizeof(ULONG)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONG ulCount = 0;
    GetCount(&ulCount);
    memcpy(Output, &ulCount, sizeof(ULONG));
    IoStatus->Information = sizeof(ULONG);
    return STATUS_SUCCESS;
}

static BOOLEAN GetFilterCount(PULONG Count) {
    *Count = GetFilterDirectoryCount(NULL);
    return TRUE;
}

// Writes as many whole elements as fit and says whether all did.
static NTSTATUS WriteList(BOOLEAN (*GetList)(PVOID, ULONG, PULONG), PVOID Output, ULONG OutputLength,
                          PIO_STATUS_BLOCK IoStatus) {
    ULONG ulWritten = 0;
    BOOLEAN bComplete = GetList(Output, OutputLength, &ulWritten);
    IoStatus->Information = ulWritten;
    return bComplete ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL;
}

static NTSTATUS StartFiltering(PVOID Output, ULONG OutputLength, PIO_STATUS_BLOCK IoStatus) {
    if (OutputLength == 0) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    const UCHAR ucFiltering = IsFilterIndexLoaded() ? 1 : 0;
    SetFilteringSwitch(ucFiltering);
    *(PUCHAR)Output = ucFiltering;
    IoStatus->Information = sizeof(UCHAR);
    return STATUS_SUCCESS;
}

static NTSTATUS ServeControlCode(ULONG IoControlCode, PVOID Input, ULONG InputLength, PVOID Output,
                                 ULONG OutputLength, PIO_STATUS_BLOCK IoStatus) {
    switch (IoControlCode) {
    case IOCTL_ADD_PROCESS: {
        if (InputLength < sizeof(TervaneProcessRecord)) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        TervaneProcessRecord record;
        memcpy(&record, Input, sizeof(record));
        return AddMonitoredProcess(&record);
    }
    case IOCTL_REMOVE_PROCESS: {
        if (InputLength < sizeof(ULONG)) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        ULONG ulProcessId;
        memcpy(&ulProcessId, Input, sizeof(ULONG));
        RemoveMonitoredProcess(ulProcessId);
        return STATUS_SUCCESS;
    }
    case IOCTL_GET_PROCESS_LIST:
        return WriteList(GetMonitoredProcessList, Output, OutputLength, IoStatus);
    case IOCTL_CLEAR_PROCESS_LIST:
        ClearMonitoredProcessList();
        return STATUS_SUCCESS;
    case IOCTL_GET_FILTER_LIST:
        return WriteList(GetFilterDirectoryList, Output, OutputLength, IoStatus);
    case IOCTL_SET_FILTER_LIST:
        return SetFilterList(Input, InputLength);
    case IOCTL_ADD_EXCLUSIONS:
        if (!AreSlotsTerminated(Input, InputLength)) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        return AddExcludedPaths(Input, InputLength);
    case IOCTL_REMOVE_EXCLUSIONS:
        if (!AreSlotsTerminated(Input, InputLength)) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        RemoveExcludedPaths(Input, InputLength);
        return STATUS_SUCCESS;
    case IOCTL_GET_EXCLUSION_LIST:
        return WriteList(GetExcludedPathList, Output, OutputLength, IoStatus);
    case IOCTL_GET_PROCESS_COUNT:
        return WriteCount(GetMonitoredProcessCount, Output, OutputLength, IoStatus);
    case IOCTL_GET_FILTER_COUNT:
        return WriteCount(GetFilterCount, Output, OutputLength, IoStatus);
    case IOCTL_GET_EXCLUSION_COUNT:
        return WriteCount(GetExcludedPathCount, Output, OutputLength, IoStatus);
    case IOCTL_STOP_FILTERING:
        SetFilteringSwitch(0);
        return STATUS_SUCCESS;
    case IOCTL_START_FILTERING:
        return StartFiltering(Output, OutputLength, IoStatus);
    case IOCTL_LOAD_FILTER_INDEX:
        return LoadIndex(Input, InputLength);
    case IOCTL_RENAME_INDEX_PATH:
        return RenameIndex(Input, InputLength);
    default:
        TRVN_LOG("TervaneFastIoDeviceControl", 679, "unknown IRP_MJ_DEVICE_CONTROL\n");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

BOOLEAN NTAPI TervaneFastIoDeviceControl(PFILE_OBJECT FileObject, BOOLEAN Wait, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                         ULONG IoControlCode, PIO_STATUS_BLOCK IoStatus,
                                         PDEVICE_OBJECT DeviceObject) {
    UNREFERENCED_PARAMETER(FileObject);
    UNREFERENCED_PARAMETER(Wait);
    PTervaneDeviceExtension pExtension = (PTervaneDeviceExtension)DeviceObject->DeviceExtension;
    if (pExtension->m_ulIsHookDevice != 0) {
        return FALSE;
    }

    IoStatus->Status = STATUS_SUCCESS;
    IoStatus->Information = 0;
    // A missing buffer counts as an empty one.
    if (InputBuffer == NULL) {
        InputBufferLength = 0;
    }
    if (OutputBuffer == NULL) {
        OutputBufferLength = 0;
    }
    IoStatus->Status = ServeControlCode(IoControlCode, InputBuffer, InputBufferLength, OutputBuffer,
                                        OutputBufferLength, IoStatus);
    return TRUE;
}
