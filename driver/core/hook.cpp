// Volume attachment: a filter device on top of each hooked volume's
// file-system stack, shared by every drive letter of that volume.
#include "base/log.h"
#include "core/tervane.h"

// "\DosDevices\A:\" with the letter at ROOT_NAME_LETTER.
#define ROOT_NAME_TEMPLATE L"\\DosDevices\\A:\\"
#define ROOT_NAME_LETTER 12

static PTervaneDeviceExtension FilterExtension(PDEVICE_OBJECT DeviceObject) {
    return (PTervaneDeviceExtension)DeviceObject->DeviceExtension;
}

static BOOLEAN IsFilterDeviceInUse(PDEVICE_OBJECT DeviceObject) {
    for (ULONG i = 0; i < TERVANE_DRIVE_COUNT; i++) {
        if (g_apFilterDevices[i] == DeviceObject) {
            return TRUE;
        }
    }
    return FALSE;
}

// Keeps the volume's attribute record, or null when it cannot be read.
static VOID ReadFsAttributeInfo(PTervaneDeviceExtension Extension, PFILE_OBJECT FileObject) {
    Extension->m_pFsAttributeInfo =
        ExAllocatePoolWithTag(NonPagedPool, TERVANE_FS_ATTRIBUTE_INFO_SIZE, TRVN_TAG_GENERAL);
    if (Extension->m_pFsAttributeInfo == NULL) {
        return;
    }
    ULONG ulReturned = 0;
    NTSTATUS nStatus = IoQueryVolumeInformation(FileObject, FileFsAttributeInformation,
                                                TERVANE_FS_ATTRIBUTE_INFO_SIZE, Extension->m_pFsAttributeInfo,
                                                &ulReturned);
    if (!NT_SUCCESS(nStatus)) {
        ExFreePoolWithTag(Extension->m_pFsAttributeInfo, TRVN_TAG_GENERAL);
        Extension->m_pFsAttributeInfo = NULL;
    }
}

BOOLEAN HookDrive(ULONG ulDriveIndex, PDRIVER_OBJECT DriverObject, PNTSTATUS pnStatus) {
    NTSTATUS nIgnored;
    PNTSTATUS pnFailure = pnStatus != NULL ? pnStatus : &nIgnored;
    *pnFailure = STATUS_SUCCESS;
    if (ulDriveIndex >= TERVANE_DRIVE_COUNT) {
        *pnFailure = STATUS_INVALID_PARAMETER;
        return FALSE;
    }
    if (g_apFilterDevices[ulDriveIndex] != NULL) {
        FilterExtension(g_apFilterDevices[ulDriveIndex])->m_bHooked = 1;
        return TRUE;
    }

    const WCHAR wcLetter = (WCHAR)(L'A' + ulDriveIndex);
    WCHAR wszRootName[] = ROOT_NAME_TEMPLATE;
    wszRootName[ROOT_NAME_LETTER] = wcLetter;
    UNICODE_STRING ustrRootName;
    RtlInitUnicodeString(&ustrRootName, wszRootName);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &ustrRootName, OBJ_CASE_INSENSITIVE, NULL, NULL);

    HANDLE hRoot = NULL;
    IO_STATUS_BLOCK iosb;
    NTSTATUS nStatus = ZwCreateFile(&hRoot, SYNCHRONIZE, &oa, &iosb, NULL, 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("HookDrive", 170, "Could not open drive %c: %x\n", (int)wcLetter, (ULONG)nStatus);
        *pnFailure = nStatus;
        return FALSE;
    }
    TRVN_LOG("HookDrive", 174, "opened the root directory!!! handle: %x\n", (ULONG)(ULONG_PTR)hRoot);

    PFILE_OBJECT pFileObject = NULL;
    nStatus = ObReferenceObjectByHandle(hRoot, FILE_READ_DATA, NULL, KernelMode, (PVOID*)&pFileObject, NULL);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("HookDrive", 183, "Could not get fileobject from handle: %c\n", (int)wcLetter);
        ZwClose(hRoot);
        *pnFailure = nStatus;
        return FALSE;
    }

    BOOLEAN bHooked = FALSE;
    PDEVICE_OBJECT pFilterDevice = NULL;
    PDEVICE_OBJECT pRelatedDevice = IoGetRelatedDeviceObject(pFileObject);
    if (pRelatedDevice == NULL) {
        TRVN_LOG("HookDrive", 196, "Could not get related device object: %c\n", (int)wcLetter);
        *pnFailure = STATUS_UNSUCCESSFUL;
    } else if (IsFilterDeviceInUse(pRelatedDevice)) {
        // Another letter of this volume is served already: join its group.
        pFilterDevice = pRelatedDevice;
        bHooked = TRUE;
    } else {
        nStatus = IoCreateDevice(DriverObject, sizeof(TervaneDeviceExtension), NULL, pRelatedDevice->DeviceType,
                                 0, FALSE, &pFilterDevice);
        if (!NT_SUCCESS(nStatus)) {
            TRVN_LOG("HookDrive", 238, "failed to create associated device: %c\n", (int)wcLetter);
            pFilterDevice = NULL;
            *pnFailure = nStatus;
        } else {
            pFilterDevice->Flags &= ~DO_DEVICE_INITIALIZING;
            PTervaneDeviceExtension pExtension = FilterExtension(pFilterDevice);
            pExtension->m_ulDriveLetter = wcLetter;
            pExtension->m_pLowerDevice = pRelatedDevice;
            pExtension->m_bHooked = 1;
            pExtension->m_ulIsHookDevice = 1;

            PDEVICE_OBJECT pAttachedTo = IoAttachDeviceToDeviceStack(pFilterDevice, pRelatedDevice);
            if (pAttachedTo == NULL) {
                TRVN_LOG("HookDrive", 273, "Connect with Filesystem failed: %c (%x) =>%x\n", (int)wcLetter,
                         (ULONG)(ULONG_PTR)pRelatedDevice, (ULONG)nStatus);
                // Nothing refers to an unattached filter device: delete it.
                IoDeleteDevice(pFilterDevice);
                pFilterDevice = NULL;
                *pnFailure = STATUS_UNSUCCESSFUL;
            } else {
                if (pAttachedTo != pRelatedDevice) {
                    TRVN_LOG("HookDrive", 287, "Attached other device\n");
                }
                TRVN_LOG("HookDrive", 293, "Successfully connected to Filesystem device %c\n", (int)wcLetter);
                ReadFsAttributeInfo(pExtension, pFileObject);
                bHooked = TRUE;
            }
        }
    }

    ObDereferenceObject(pFileObject);
    ZwClose(hRoot);
    if (bHooked) {
        g_apFilterDevices[ulDriveIndex] = pFilterDevice;
    }
    return bHooked;
}

VOID UnhookDrive(ULONG ulDriveIndex) {
    if (ulDriveIndex < TERVANE_DRIVE_COUNT && g_apFilterDevices[ulDriveIndex] != NULL) {
        FilterExtension(g_apFilterDevices[ulDriveIndex])->m_bHooked = 0;
    }
}

ULONG HookDriveSet(ULONG ulDriveMask, PDRIVER_OBJECT DriverObject, PNTSTATUS pnStatus) {
    const ULONG ulHookedAtStart = g_ulHookedDriveMask;
    ULONG ulMask = ulDriveMask;
    if (pnStatus != NULL) {
        *pnStatus = STATUS_SUCCESS;
    }

    for (ULONG i = 0; i < TERVANE_DRIVE_COUNT; i++) {
        const ULONG ulBit = 1UL << i;
        if ((ulMask & ulBit) && !(ulHookedAtStart & ulBit)) {
            NTSTATUS nStatus;
            if (!HookDrive(i, DriverObject, &nStatus)) {
                TRVN_LOG("HookDriveSet", 396, "Hook Drive failure\n");
                if (pnStatus != NULL && NT_SUCCESS(*pnStatus)) {
                    *pnStatus = nStatus;
                }
                ulMask &= ~ulBit;
            } else {
                TRVN_LOG("HookDriveSet", 404, "Hook Drive hook drives in same drive group   \n");
                for (ULONG j = 0; j < TERVANE_DRIVE_COUNT; j++) {
                    if (g_apFilterDevices[j] == g_apFilterDevices[i]) {
                        ulMask |= 1UL << j;
                    }
                }
            }
        } else if (!(ulMask & ulBit) && (ulHookedAtStart & ulBit)) {
            PDEVICE_OBJECT pGroupDevice = g_apFilterDevices[i];
            for (ULONG j = 0; j < TERVANE_DRIVE_COUNT; j++) {
                if (pGroupDevice != NULL && g_apFilterDevices[j] == pGroupDevice) {
                    UnhookDrive(j);
                    ulMask &= ~(1UL << j);
                }
            }
        }
    }

    g_ulHookedDriveMask = ulMask;
    return ulMask;
}
