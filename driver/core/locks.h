// Scope guards for the driver's locks and pool blocks.
#pragma once

#include "platform/platform.h"

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

// A non-paged pool block freed when the scope ends unless Detach() was called.
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
    PVOID Detach() {
        PVOID p = m_p;
        m_p = NULL;
        return p;
    }

private:
    PVOID m_p;
    ULONG m_ulTag;
};
