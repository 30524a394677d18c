// Small guards used by the operations across filter directories: each gives
// back what it holds (a pool block, a path buffer, a mapped real path, a
// kernel handle) when its scope ends, on every path.
#pragma once

#include "platform/platform.h"

#include "control/filter_directory.h"
#include "control/strings.h"
#include "core/tervane.h"

namespace filemgr {

// A block of non-paged pool under one tag.
class ScopedPool {
public:
    ScopedPool(SIZE_T Size, ULONG Tag) : m_ulTag(Tag) {
        m_pBlock = ExAllocatePoolWithTag(NonPagedPool, Size, Tag);
    }
    ~ScopedPool() {
        if (m_pBlock != NULL) {
            ExFreePoolWithTag(m_pBlock, m_ulTag);
        }
    }
    ScopedPool(const ScopedPool&) = delete;
    ScopedPool& operator=(const ScopedPool&) = delete;

    PVOID Get() const { return m_pBlock; }
    template <typename T>
    T* As() const {
        return (T*)m_pBlock;
    }

private:
    PVOID m_pBlock;
    ULONG m_ulTag;
};

// A 2048-byte block of the general path pool, as an empty counted string.
class PathBuffer {
public:
    PathBuffer() {
        m_ustr.Length = 0;
        m_ustr.MaximumLength = 0;
        m_ustr.Buffer = NULL;
        m_bHave = AllocatePathBuffer(&m_ustr);
    }
    ~PathBuffer() {
        if (m_ustr.Buffer != NULL) {
            FreePathBuffer(&m_ustr);
        }
    }
    PathBuffer(const PathBuffer&) = delete;
    PathBuffer& operator=(const PathBuffer&) = delete;

    BOOLEAN Have() const { return m_bHave; }
    PUNICODE_STRING Get() { return &m_ustr; }

private:
    UNICODE_STRING m_ustr;
    BOOLEAN m_bHave;
};

// A real path mapped into a filter directory with a new filter path block
// (GetRealFilePathForFilter with a new buffer), given back by FreeRealFilePath.
class MappedRealPath {
public:
    MappedRealPath() {
        m_ustr.Length = 0;
        m_ustr.MaximumLength = 0;
        m_ustr.Buffer = NULL;
    }
    ~MappedRealPath() { Release(); }
    MappedRealPath(const MappedRealPath&) = delete;
    MappedRealPath& operator=(const MappedRealPath&) = delete;

    // FALSE when no filter directory answers to the mask or no block was had.
    BOOLEAN Map(PCUNICODE_STRING DrivePath, ULONG FilterMask) {
        Release();
        if (FilterMask == 0) {
            // Mask 0 would copy into a buffer that was never taken.
            return FALSE;
        }
        if (!GetRealFilePathForFilter(DrivePath, &m_ustr, FilterMask, TRUE)) {
            Release();
            return FALSE;
        }
        return TRUE;
    }
    VOID Release() {
        if (m_ustr.Buffer != NULL) {
            FreeRealFilePath(&m_ustr);
        }
        m_ustr.Length = 0;
        m_ustr.MaximumLength = 0;
        m_ustr.Buffer = NULL;
    }
    PUNICODE_STRING Get() { return &m_ustr; }

private:
    UNICODE_STRING m_ustr;
};

// A kernel handle closed with ZwClose.
class ScopedHandle {
public:
    ScopedHandle() : m_h(NULL) {}
    ~ScopedHandle() { Close(); }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;

    PHANDLE Out() { return &m_h; }
    HANDLE Get() const { return m_h; }
    VOID Close() {
        if (m_h != NULL) {
            ZwClose(m_h);
            m_h = NULL;
        }
    }

private:
    HANDLE m_h;
};

// A reference to the FILE_OBJECT behind a kernel handle.
class FileObjectReference {
public:
    FileObjectReference() : m_pObject(NULL) {}
    ~FileObjectReference() {
        if (m_pObject != NULL) {
            ObDereferenceObject(m_pObject);
        }
    }
    FileObjectReference(const FileObjectReference&) = delete;
    FileObjectReference& operator=(const FileObjectReference&) = delete;

    NTSTATUS Reference(HANDLE Handle, ACCESS_MASK DesiredAccess) {
        return ObReferenceObjectByHandle(Handle, DesiredAccess, *IoFileObjectType, KernelMode, (PVOID*)&m_pObject,
                                         NULL);
    }
    PFILE_OBJECT Get() const { return m_pObject; }

private:
    PFILE_OBJECT m_pObject;
};

}  // namespace filemgr
