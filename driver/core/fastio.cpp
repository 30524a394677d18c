// The fast I/O table. Every fast path on a hooked volume is declined so that
// the request arrives as a packet at the hook routine; device-control calls
// on the control device are served here directly.
#include "core/tervane.h"

static BOOLEAN NTAPI FastIoCheckIfPossible(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, BOOLEAN,
                                           PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoRead(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK,
                                PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoWrite(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK,
                                 PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoQueryBasicInfo(PFILE_OBJECT, BOOLEAN, PFILE_BASIC_INFORMATION, PIO_STATUS_BLOCK,
                                          PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoQueryStandardInfo(PFILE_OBJECT, BOOLEAN, PFILE_STANDARD_INFORMATION, PIO_STATUS_BLOCK,
                                             PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoLock(PFILE_OBJECT, PLARGE_INTEGER, PLARGE_INTEGER, PEPROCESS, ULONG, BOOLEAN, BOOLEAN,
                                PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoUnlockSingle(PFILE_OBJECT, PLARGE_INTEGER, PLARGE_INTEGER, PEPROCESS, ULONG,
                                        PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoUnlockAll(PFILE_OBJECT, PEPROCESS, PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoUnlockAllByKey(PFILE_OBJECT, PVOID, ULONG, PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
static VOID NTAPI AcquireFileForNtCreateSection(PFILE_OBJECT) {}
static VOID NTAPI ReleaseFileForNtCreateSection(PFILE_OBJECT) {}
// Filter devices stay attached for the life of the system.
static VOID NTAPI FastIoDetachDevice(PDEVICE_OBJECT, PDEVICE_OBJECT) {}
static BOOLEAN NTAPI FastIoQueryNetworkOpenInfo(PFILE_OBJECT, BOOLEAN, PFILE_NETWORK_OPEN_INFORMATION,
                                                PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
static NTSTATUS NTAPI AcquireForModWrite(PFILE_OBJECT, PLARGE_INTEGER, struct _ERESOURCE**, PDEVICE_OBJECT) {
    return STATUS_NOT_IMPLEMENTED;
}
static BOOLEAN NTAPI MdlRead(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PMDL*, PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI MdlReadComplete(PFILE_OBJECT, PMDL, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI PrepareMdlWrite(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PMDL*, PIO_STATUS_BLOCK,
                                     PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI MdlWriteComplete(PFILE_OBJECT, PLARGE_INTEGER, PMDL, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoReadCompressed(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PVOID, PMDL*,
                                          PIO_STATUS_BLOCK, struct _COMPRESSED_DATA_INFO*, ULONG, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoWriteCompressed(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PVOID, PMDL*,
                                           PIO_STATUS_BLOCK, struct _COMPRESSED_DATA_INFO*, ULONG,
                                           PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI MdlReadCompleteCompressed(PFILE_OBJECT, PMDL, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI MdlWriteCompleteCompressed(PFILE_OBJECT, PLARGE_INTEGER, PMDL, PDEVICE_OBJECT) {
    return FALSE;
}
static BOOLEAN NTAPI FastIoQueryOpen(PIRP, PFILE_NETWORK_OPEN_INFORMATION, PDEVICE_OBJECT) {
    return FALSE;
}
static NTSTATUS NTAPI ReleaseForModWrite(PFILE_OBJECT, struct _ERESOURCE*, PDEVICE_OBJECT) {
    return STATUS_NOT_IMPLEMENTED;
}
static NTSTATUS NTAPI AcquireForCcFlush(PFILE_OBJECT, PDEVICE_OBJECT) {
    return STATUS_NOT_IMPLEMENTED;
}
static NTSTATUS NTAPI ReleaseForCcFlush(PFILE_OBJECT, PDEVICE_OBJECT) {
    return STATUS_NOT_IMPLEMENTED;
}

// The whole table; start-up shortens the size word on old systems.
FAST_IO_DISPATCH g_FastIoDispatch = {
    sizeof(FAST_IO_DISPATCH),
    FastIoCheckIfPossible,
    FastIoRead,
    FastIoWrite,
    FastIoQueryBasicInfo,
    FastIoQueryStandardInfo,
    FastIoLock,
    FastIoUnlockSingle,
    FastIoUnlockAll,
    FastIoUnlockAllByKey,
    TervaneFastIoDeviceControl,
    AcquireFileForNtCreateSection,
    ReleaseFileForNtCreateSection,
    FastIoDetachDevice,
    FastIoQueryNetworkOpenInfo,
    AcquireForModWrite,
    MdlRead,
    MdlReadComplete,
    PrepareMdlWrite,
    MdlWriteComplete,
    FastIoReadCompressed,
    FastIoWriteCompressed,
    MdlReadCompleteCompressed,
    MdlWriteCompleteCompressed,
    FastIoQueryOpen,
    ReleaseForModWrite,
    AcquireForCcFlush,
    ReleaseForCcFlush,
};

#if defined(_WIN32)
static_assert(sizeof(FAST_IO_DISPATCH) == 112, "the full fast I/O table is 112 bytes on x86");
static_assert(FIELD_OFFSET(FAST_IO_DISPATCH, FastIoQueryNetworkOpenInfo) == 56,
              "the table of old systems ends after FastIoDetachDevice");
#endif
