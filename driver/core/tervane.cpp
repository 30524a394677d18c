// Driver start-up: the control device, the dispatch entry, every list, lock
// and pool, and the hook of the system drive.
#include "core/tervane.h"

#include "control/exclusion_list.h"
#include "control/filter_directory.h"
#include "control/process_list.h"
#include "base/strings.h"
#include "base/log.h"
#include "filemgr/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"

// The current process name holds 20 characters.
#define CURRENT_PROCESS_NAME_SIZE 40

// Systems older than this build know only the first part of the fast I/O
// table, up to and including FastIoDetachDevice.
#define FULL_FAST_IO_TABLE_BUILD 1381

// Where the system drive letter is read from.
#define SYSTEM_ROOT_KEY L"\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion"
#define SYSTEM_ROOT_VALUE L"SystemRoot"
#define DEFAULT_DRIVE_MASK (1UL << ('C' - 'A'))

// The image name of the process that loads drivers.
#define SYSTEM_PROCESS_NAME "System"
#define SYSTEM_PROCESS_NAME_LENGTH 6
#define PROCESS_NAME_SEARCH_SIZE 12288

ULONG FindProcessNameOffset() {
    const CHAR* pProcess = (const CHAR*)IoGetCurrentProcess();
    for (ULONG ulOffset = 0; ulOffset < PROCESS_NAME_SEARCH_SIZE; ulOffset++) {
        if (strncmp(pProcess + ulOffset, SYSTEM_PROCESS_NAME, SYSTEM_PROCESS_NAME_LENGTH) == 0) {
            return ulOffset;
        }
    }
    return 0;
}

// The drive mask of the system drive named by SystemRoot; drive C: when the
// value cannot be read. A value that does not start with an uppercase letter
// names no drive we could hook, so C: is taken for it as well.
static ULONG ReadSystemDriveMask() {
    ULONG ulDriveMask = DEFAULT_DRIVE_MASK;

    UNICODE_STRING ustrKey;
    RtlInitUnicodeString(&ustrKey, SYSTEM_ROOT_KEY);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &ustrKey, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    HANDLE hKey = NULL;
    if (!NT_SUCCESS(ZwOpenKey(&hKey, KEY_READ, &oa))) {
        return ulDriveMask;
    }

    UNICODE_STRING ustrValue;
    RtlInitUnicodeString(&ustrValue, SYSTEM_ROOT_VALUE);
    ULONG ulSize = 0;
    NTSTATUS nStatus = ZwQueryValueKey(hKey, &ustrValue, KeyValueFullInformation, NULL, 0, &ulSize);
    if (nStatus == STATUS_BUFFER_OVERFLOW || nStatus == STATUS_BUFFER_TOO_SMALL) {
        PVOID pBuffer = ExAllocatePoolWithTag(NonPagedPool, ulSize, TRVN_TAG_GENERAL);
        TRVN_ASSERT(pBuffer, "tervane", 923);
        if (pBuffer != NULL) {
            nStatus = ZwQueryValueKey(hKey, &ustrValue, KeyValueFullInformation, pBuffer, ulSize, &ulSize);
            PKEY_VALUE_FULL_INFORMATION pInfo = (PKEY_VALUE_FULL_INFORMATION)pBuffer;
            if (NT_SUCCESS(nStatus) && pInfo->DataLength >= sizeof(WCHAR) && pInfo->DataOffset < ulSize &&
                pInfo->DataLength <= ulSize - pInfo->DataOffset) {
                UCHAR ucLetter = *((PUCHAR)pBuffer + pInfo->DataOffset);
                if (ucLetter >= 'A' && ucLetter <= 'Z') {
                    ulDriveMask = 1UL << (ucLetter - 'A');
                }
            }
            ExFreePoolWithTag(pBuffer, TRVN_TAG_GENERAL);
        }
    }
    ZwClose(hKey);
    return ulDriveMask;
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(RegistryPath);

    TRVN_LOG("DriverEntry", 782, "entering DriverEntry\n");

    g_FastIoDispatch.SizeOfFastIoDispatch = sizeof(FAST_IO_DISPATCH);
    if ((SHORT)(NtBuildNumber & 0xFFFF) < FULL_FAST_IO_TABLE_BUILD) {
        g_FastIoDispatch.SizeOfFastIoDispatch = FIELD_OFFSET(FAST_IO_DISPATCH, FastIoQueryNetworkOpenInfo);
    }

    UNICODE_STRING ustrDeviceName;
    RtlInitUnicodeString(&ustrDeviceName, TERVANE_DEVICE_NAME);
    PDEVICE_OBJECT pControlDevice = NULL;
    NTSTATUS nStatus = IoCreateDevice(DriverObject, sizeof(TervaneDeviceExtension), &ustrDeviceName,
                                      TERVANE_DEVICE_TYPE, 0, TRUE, &pControlDevice);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("DriverEntry", 829, "Failed to create our device!\n");
        return nStatus;
    }
    ((PTervaneDeviceExtension)pControlDevice->DeviceExtension)->m_ulIsHookDevice = 0;

    UNICODE_STRING ustrLinkName;
    RtlInitUnicodeString(&ustrLinkName, TERVANE_LINK_NAME);
    nStatus = IoCreateSymbolicLink(&ustrLinkName, &ustrDeviceName);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("DriverEntry", 858, "IoCreateSymbolicLink failed\n");
        IoDeleteDevice(pControlDevice);
        return nStatus;
    }
    g_pControlDevice = pControlDevice;

    for (ULONG i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; i++) {
        DriverObject->MajorFunction[i] = TervaneDispatch;
    }
    DriverObject->FastIoDispatch = &g_FastIoDispatch;

    InitFileIndexPool();
    CreateHiddenPathIndex();
    InitFileHandleTable();
    InitCopyUpClaims();
    InitGeneralPathPool();
    InitFilterDirectoryList();
    InitExcludedPathList();
    InitMonitoredProcessList();

    g_ustrCurrentProcessName.Length = 0;
    g_ustrCurrentProcessName.MaximumLength = CURRENT_PROCESS_NAME_SIZE;
    g_ustrCurrentProcessName.Buffer =
        (PWSTR)ExAllocatePoolWithTag(NonPagedPool, CURRENT_PROCESS_NAME_SIZE, TRVN_TAG_GENERAL);
    if (g_ustrCurrentProcessName.Buffer != NULL) {
        memset(g_ustrCurrentProcessName.Buffer, 0, CURRENT_PROCESS_NAME_SIZE);
    } else {
        g_ustrCurrentProcessName.MaximumLength = 0;
    }

    g_ulProcessNameOffset = FindProcessNameOffset();

    // Start-up fails when memory runs short for the hidden-path index or for
    // hooking the system drive: a driver without either would serve every
    // monitored process the bare volume, or bring deleted names back. A drive
    // that has no volume still does not fail start-up.
    NTSTATUS nHookStatus;
    HookDriveSet(ReadSystemDriveMask(), DriverObject, &nHookStatus);
    if (g_pHiddenPathIndex == NULL || nHookStatus == STATUS_INSUFFICIENT_RESOURCES ||
        nHookStatus == STATUS_NO_MEMORY) {
        ReleaseDriverState();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}
