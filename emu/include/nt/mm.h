// Memory manager: sections and views in system space.
#pragma once
#include "ntdef.h"

#define SECTION_QUERY 0x0001
#define SECTION_MAP_WRITE 0x0002
#define SECTION_MAP_READ 0x0004
#define SECTION_MAP_EXECUTE 0x0008
#define SECTION_EXTEND_SIZE 0x0010
#define SECTION_ALL_ACCESS 0xF001F

#define PAGE_NOACCESS 0x01
#define PAGE_READONLY 0x02
#define PAGE_READWRITE 0x04
#define PAGE_WRITECOPY 0x08
#define PAGE_EXECUTE 0x10
#define SEC_COMMIT 0x8000000
#define SEC_RESERVE 0x4000000
#define PAGE_SIZE 0x1000

NT_BEGIN_C
// FileHandle NULL creates a page-file-backed section of MaximumSize bytes.
NTSTATUS ZwCreateSection(PHANDLE SectionHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                         PLARGE_INTEGER MaximumSize, ULONG SectionPageProtection, ULONG AllocationAttributes,
                         HANDLE FileHandle);
NTSTATUS MmMapViewInSystemSpace(PVOID Section, PVOID* MappedBase, PSIZE_T ViewSize);
NTSTATUS MmUnmapViewInSystemSpace(PVOID MappedBase);
extern POBJECT_TYPE* MmSectionObjectType;
NT_END_C
