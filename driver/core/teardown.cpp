// Release of the driver's state: after a start-up that failed half way, and
// at the end of an emulated machine's life.

#include "control/exclusion_list.h"
#include "control/filter_directory.h"
#include "control/process_list.h"
#include "base/strings.h"
#include "base/log.h"
#include "core/tervane.h"
#include "filemgr/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"

static VOID ReleaseFilterDirectories() {
    PFilterDirectoryEntry pEntry = g_pFilterDirectoryList;
    g_pFilterDirectoryList = NULL;
    g_ulFilterMask = 0;
    while (pEntry != NULL) {
        PFilterDirectoryEntry pNext = pEntry->m_pNext;
        if (pEntry->m_ppIndexHolder != NULL) {
            if (*pEntry->m_ppIndexHolder != NULL) {
                FreeFileIndex(*pEntry->m_ppIndexHolder);
            }
            ExFreePoolWithTag(pEntry->m_ppIndexHolder, TRVN_TAG_GENERAL);
        }
        FreeFilterPathBlock(pEntry->m_ustrRoot.Buffer);
        ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
        pEntry = pNext;
    }
    ExDeleteResourceLite(&g_FilterDirectoryListLock);
}

static VOID ReleaseExclusions() {
    PExcludedPathEntry pEntry = g_pExcludedPathList;
    g_pExcludedPathList = NULL;
    while (pEntry != NULL) {
        PExcludedPathEntry pNext = pEntry->m_pNext;
        ExFreePoolWithTag(pEntry->m_ustrPath.Buffer, TRVN_TAG_GENERAL);
        ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
        pEntry = pNext;
    }
    ExDeleteResourceLite(&g_ExcludedPathListLock);
}

static VOID ReleaseDevices() {
    for (ULONG i = 0; i < TERVANE_DRIVE_COUNT; i++) {
        PDEVICE_OBJECT pDevice = g_apFilterDevices[i];
        if (pDevice == NULL) {
            continue;
        }
        for (ULONG j = i; j < TERVANE_DRIVE_COUNT; j++) {
            if (g_apFilterDevices[j] == pDevice) {
                g_apFilterDevices[j] = NULL;
            }
        }
        PTervaneDeviceExtension pExtension = (PTervaneDeviceExtension)pDevice->DeviceExtension;
        if (pExtension->m_pFsAttributeInfo != NULL) {
            ExFreePoolWithTag(pExtension->m_pFsAttributeInfo, TRVN_TAG_GENERAL);
        }
        // Detach from whatever the filter device sits on now.
        PDEVICE_OBJECT pBelow = pExtension->m_pLowerDevice;
        while (pBelow != NULL && pBelow->AttachedDevice != pDevice) {
            pBelow = pBelow->AttachedDevice;
        }
        if (pBelow != NULL) {
            IoDetachDevice(pBelow);
        }
        IoDeleteDevice(pDevice);
    }
    g_ulHookedDriveMask = 0;

    if (g_pControlDevice != NULL) {
        UNICODE_STRING ustrLinkName;
        RtlInitUnicodeString(&ustrLinkName, TERVANE_LINK_NAME);
        IoDeleteSymbolicLink(&ustrLinkName);
        IoDeleteDevice(g_pControlDevice);
        g_pControlDevice = NULL;
    }
}

VOID ReleaseDriverState() {
    SetFilteringSwitch(0);
    // Without the control device start-up failed before it made anything else.
    if (g_pControlDevice == NULL) {
        return;
    }
    // Redirected opens still open close their real files through the stack.
    ReleaseFileHandleTable();
    ReleaseCopyUpClaims();
    ReleaseDevices();

    ClearMonitoredProcessList();
    ExDeleteResourceLite(&g_MonitoredProcessListLock);
    ReleaseExclusions();
    ReleaseFilterDirectories();
    ExDeleteNPagedLookasideList(&g_FilterPathPool);
    ExDeleteNPagedLookasideList(&g_GeneralPathPool);

    if (g_pHiddenPathIndex != NULL) {
        FreeFileIndex(g_pHiddenPathIndex);
        g_pHiddenPathIndex = NULL;
    }
    DeleteFileIndexPool();

    if (g_ustrCurrentProcessName.Buffer != NULL) {
        ExFreePoolWithTag(g_ustrCurrentProcessName.Buffer, TRVN_TAG_GENERAL);
    }
    g_ustrCurrentProcessName.Buffer = NULL;
    g_ustrCurrentProcessName.Length = 0;
    g_ustrCurrentProcessName.MaximumLength = 0;
    g_ulProcessNameOffset = 0;
}
