// Scope guards every part of the driver uses: each gives back what it holds
// (a lock, a pool block, a path buffer, a kernel handle, an object reference)
// when its scope ends, on every path.
#pragma once

#include "platform/platform.h"

#include "base/strings.h"

// Holds an executive resource, inside a critical region, for one scope.
class ResourceLock {
public:
    ResourceLock(PERESOURCE Resource, BOOLEAN Exclusive) : m_pResource(Resource) {
        KeEnterCriticalRegion();
        if (Exclusive) {
            ExAcquireResourceExclusiveLite(m_pResource, TRUE);
        } else {
            ExAcquireResourceSharedLite(m_pResource, TRUE);
        }
    }
    ~ResourceLock() {
        ExReleaseResourceLite(m_pResource);
        KeLeaveCriticalRegion();
    }
    ResourceLock(const ResourceLock&) = delete;
    ResourceLock& operator=(const ResourceLock&) = delete;

private:
    PERESOURCE m_pResource;
};

// A non-paged pool block under one tag, freed when the scope ends unless
// Detach() handed it on.
class PoolBlock {
public:
    PoolBlock(SIZE_T Size, ULONG Tag) : m_ulTag(Tag) {
        m_p = ExAllocatePoolWithTag(NonPagedPool, Size, Tag);
    }
    ~PoolBlock() {
        if (m_p != NULL) {
            ExFreePoolWithTag(m_p, m_ulTag);
        }
    }
    PoolBlock(const PoolBlock&) = delete;
    PoolBlock& operator=(const PoolBlock&) = delete;

    PVOID Get() const { return m_p; }
    template <typename T>
    T* As() const {
        return (T*)m_p;
    }
    PVOID Detach() {
        PVOID p = m_p;
        m_p = NULL;
        return p;
    }

private:
    PVOID m_p;
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

// Sets IsFastIoPossible of the file system's common FCB header behind a
// FsContext. The header is the file system's, shared by every open of the
// file: the byte is written under the header's own resource, as the file
// system writes it, so that two opens of one file do not race on it.
inline VOID SetFastIoPossible(PVOID FsContext) {
    PFSRTL_COMMON_FCB_HEADER pHeader = (PFSRTL_COMMON_FCB_HEADER)FsContext;
    if (pHeader == NULL) {
        return;
    }
    if (pHeader->Resource == NULL) {
        pHeader->IsFastIoPossible = FastIoIsPossible;
        return;
    }
    ResourceLock lock(pHeader->Resource, TRUE);
    pHeader->IsFastIoPossible = FastIoIsPossible;
}
