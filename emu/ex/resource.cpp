// Executive resources: many shared owners or one exclusive owner, both
// recursive for their owner. A shared request by the exclusive owner is
// granted as a further exclusive acquire, as on NT. A shared request waits
// while exclusive waiters queue (unless the thread already owns the resource
// shared). When the exclusive owner lets go, the shared waiters are granted
// first; when the last shared owner lets go, the first exclusive waiter is.
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <vector>
#include <mutex>

#include "machine/adaptive_mutex.h"
#include "machine/machine_impl.h"
#include "machine/sharded_set.h"
#include "machine/services.h"
#include "ps/process.h"

namespace tervane::emu {

namespace {

constexpr USHORT kResourceOwnedExclusive = 0x80;

struct Waiter {
    _ETHREAD* thread;
    bool exclusive;
    std::atomic<bool> granted{false};  // set under the state's lock, read by the spin without it
};

// How long a waiter looks for its grant before it sleeps: an owner of the
// open-file table or a list lets go within a microsecond or so, and a grant
// seen while spinning spares a sleep and a wake-up.
constexpr int kGrantSpins = 64;

struct ResourceState {
    std::mutex lock;
    std::condition_variable granted;
    _ETHREAD* exclusiveOwner = nullptr;
    ULONG exclusiveCount = 0;
    std::vector<std::pair<_ETHREAD*, ULONG>> shared;  // owner, recursion count
    std::vector<Waiter*> waiters;  // oldest first (a vector: no allocation until someone waits)
};

ShardedPointerSet<ResourceState> g_resources;

ResourceState* StateOf(PERESOURCE resource, const char* service) {
    auto* state = reinterpret_cast<ResourceState*>(resource->OwnerTable);
    if (!state || !g_resources.Contains(state)) {
        VerifierViolation(std::string(service) + " on a resource that is not initialised");
        return nullptr;
    }
    return state;
}

std::pair<_ETHREAD*, ULONG>* SharedEntry(ResourceState* s, _ETHREAD* thread) {
    for (auto& entry : s->shared)
        if (entry.first == thread) return &entry;
    return nullptr;
}

// Mirrors the state into the fields of the record that drivers may look at.
void Publish(PERESOURCE resource, ResourceState* s) {
    resource->ActiveCount = static_cast<SHORT>(s->exclusiveOwner ? 1 : s->shared.size());
    resource->Flag = s->exclusiveOwner ? kResourceOwnedExclusive : 0;
    ULONG sharedWaiters = 0, exclusiveWaiters = 0;
    for (Waiter* w : s->waiters) (w->exclusive ? exclusiveWaiters : sharedWaiters)++;
    resource->NumberOfSharedWaiters = sharedWaiters;
    resource->NumberOfExclusiveWaiters = exclusiveWaiters;
}

bool HasExclusiveWaiter(ResourceState* s) {
    for (Waiter* w : s->waiters)
        if (w->exclusive) return true;
    return false;
}

// The resource has just become free: hand it to the waiters whose turn it is.
void GrantWaiters(ResourceState* s, bool afterExclusive) {
    if (s->waiters.empty()) return;  // nobody to hand it to, nobody to wake
    bool anyShared = false;
    for (Waiter* w : s->waiters) anyShared |= !w->exclusive;
    if (anyShared && (afterExclusive || !HasExclusiveWaiter(s))) {
        for (auto it = s->waiters.begin(); it != s->waiters.end();) {
            if ((*it)->exclusive) {
                ++it;
                continue;
            }
            (*it)->granted.store(true, std::memory_order_release);
            s->shared.emplace_back((*it)->thread, 1);
            it = s->waiters.erase(it);
        }
    } else {
        for (auto it = s->waiters.begin(); it != s->waiters.end(); ++it) {
            if (!(*it)->exclusive) continue;
            (*it)->granted.store(true, std::memory_order_release);
            s->exclusiveOwner = (*it)->thread;
            s->exclusiveCount = 1;
            s->waiters.erase(it);
            break;
        }
    }
    s->granted.notify_all();
}

BOOLEAN WaitForGrant(PERESOURCE resource, ResourceState* s, std::unique_lock<std::mutex>& guard, _ETHREAD* self,
                     bool exclusive) {
    Waiter waiter{self, exclusive};
    s->waiters.push_back(&waiter);
    Publish(resource, s);
    guard.unlock();
    for (int spin = 0; spin < kGrantSpins && !waiter.granted.load(std::memory_order_acquire); ++spin) CpuRelax();
    guard.lock();
    s->granted.wait(guard, [&] { return waiter.granted.load(std::memory_order_relaxed); });
    Publish(resource, s);
    return TRUE;
}

bool Release(PERESOURCE resource, _ETHREAD* thread) {
    ResourceState* s = StateOf(resource, "ExReleaseResourceLite");
    if (!s) return true;
    std::lock_guard<std::mutex> guard(s->lock);
    VerifierLockReleased(resource, thread);
    if (s->exclusiveOwner == thread && thread) {
        if (--s->exclusiveCount == 0) {
            s->exclusiveOwner = nullptr;
            GrantWaiters(s, true);
        }
    } else if (auto* entry = SharedEntry(s, thread)) {
        if (--entry->second == 0) {
            s->shared.erase(s->shared.begin() + (entry - s->shared.data()));
            if (s->shared.empty()) GrantWaiters(s, false);
        }
    } else {
        return false;
    }
    Publish(resource, s);
    return true;
}

BOOLEAN AcquireExclusive(PERESOURCE resource, ResourceState* s, _ETHREAD* self, BOOLEAN wait) {
    std::unique_lock<std::mutex> guard(s->lock);
    if (s->exclusiveOwner == self) {
        s->exclusiveCount++;
        return TRUE;
    }
    if (!s->exclusiveOwner && s->shared.empty()) {
        s->exclusiveOwner = self;
        s->exclusiveCount = 1;
        Publish(resource, s);
        return TRUE;
    }
    if (SharedEntry(s, self)) {
        // On NT this thread would wait for itself forever.
        guard.unlock();
        VerifierViolation("ExAcquireResourceExclusiveLite by a thread that owns the resource shared (deadlock)");
        return FALSE;
    }
    if (!wait) return FALSE;
    return WaitForGrant(resource, s, guard, self, true);
}

BOOLEAN AcquireShared(PERESOURCE resource, ResourceState* s, _ETHREAD* self, BOOLEAN wait) {
    std::unique_lock<std::mutex> guard(s->lock);
    if (s->exclusiveOwner == self) {
        s->exclusiveCount++;
        return TRUE;
    }
    if (auto* entry = SharedEntry(s, self)) {
        entry->second++;
        return TRUE;
    }
    if (!s->exclusiveOwner && !HasExclusiveWaiter(s)) {
        s->shared.emplace_back(self, 1);
        Publish(resource, s);
        return TRUE;
    }
    if (!wait) return FALSE;
    return WaitForGrant(resource, s, guard, self, false);
}

}  // namespace

void ResourceFreeAll() {
    for (ResourceState* s : g_resources.TakeAll()) delete s;
}

}  // namespace tervane::emu

using namespace tervane::emu;

extern "C" NTSTATUS ExInitializeResourceLite(PERESOURCE Resource) {
    auto* old = reinterpret_cast<ResourceState*>(Resource->OwnerTable);
    if (old && g_resources.Erase(old)) delete old;  // initialised again: the old state goes
    VerifierLockForget(Resource);
    std::memset(Resource, 0, sizeof(*Resource));
    auto* state = new ResourceState();
    // The machine's state sits where NT keeps its table of shared owners.
    Resource->OwnerTable = reinterpret_cast<POWNER_ENTRY>(state);
    Resource->Address = Resource;
    InitializeListHead(&Resource->SystemResourcesList);
    g_resources.Insert(state);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ExDeleteResourceLite(PERESOURCE Resource) {
    // Taken out of the live set first (one lookup instead of two), and put
    // back when it turns out busy.
    auto* s = reinterpret_cast<ResourceState*>(Resource->OwnerTable);
    if (!s || !g_resources.Erase(s)) {
        VerifierViolation("ExDeleteResourceLite on a resource that is not initialised");
        return STATUS_SUCCESS;
    }
    bool busy;
    {
        std::lock_guard<std::mutex> guard(s->lock);
        busy = s->exclusiveOwner || !s->shared.empty() || !s->waiters.empty();
    }
    if (busy) {
        g_resources.Insert(s);
        VerifierViolation("ExDeleteResourceLite on a resource that is owned or waited for");
        return STATUS_SUCCESS;  // its state stays until the machine goes
    }
    delete s;
    Resource->OwnerTable = nullptr;
    VerifierLockForget(Resource);
    return STATUS_SUCCESS;
}

extern "C" BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) {
    _ETHREAD* self = RequireCurrentThread("ExAcquireResourceExclusiveLite");
    ResourceState* s = StateOf(Resource, "ExAcquireResourceExclusiveLite");
    if (!s) return FALSE;
    VerifierLockAcquiring(Resource, "resource", Wait);
    if (!AcquireExclusive(Resource, s, self, Wait)) return FALSE;
    VerifierLockAcquired(Resource);
    return TRUE;
}

extern "C" BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) {
    _ETHREAD* self = RequireCurrentThread("ExAcquireResourceSharedLite");
    ResourceState* s = StateOf(Resource, "ExAcquireResourceSharedLite");
    if (!s) return FALSE;
    VerifierLockAcquiring(Resource, "resource", Wait);
    if (!AcquireShared(Resource, s, self, Wait)) return FALSE;
    VerifierLockAcquired(Resource);
    return TRUE;
}

extern "C" VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource) {
    _ETHREAD* self = RequireCurrentThread("ExReleaseResourceLite");
    if (!Release(Resource, self))
        VerifierViolation("ExReleaseResourceLite: resource released by a thread that does not own it");
}

extern "C" VOID ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId) {
    if (!Release(Resource, reinterpret_cast<_ETHREAD*>(ResourceThreadId)))
        VerifierViolation("ExReleaseResourceForThreadLite: resource released for a thread that does not own it");
}

extern "C" BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) {
    ResourceState* s = StateOf(Resource, "ExIsResourceAcquiredExclusiveLite");
    if (!s) return FALSE;
    std::lock_guard<std::mutex> guard(s->lock);
    return s->exclusiveOwner && s->exclusiveOwner == CurrentThread();
}

// How many times the current thread holds the resource, shared or exclusive.
extern "C" ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource) {
    ResourceState* s = StateOf(Resource, "ExIsResourceAcquiredSharedLite");
    if (!s) return 0;
    _ETHREAD* self = CurrentThread();
    std::lock_guard<std::mutex> guard(s->lock);
    if (self && s->exclusiveOwner == self) return s->exclusiveCount;
    auto* entry = SharedEntry(s, self);
    return entry ? entry->second : 0;
}

extern "C" ULONG ExGetExclusiveWaiterCount(PERESOURCE Resource) {
    ResourceState* s = StateOf(Resource, "ExGetExclusiveWaiterCount");
    if (!s) return 0;
    std::lock_guard<std::mutex> guard(s->lock);
    return Resource->NumberOfExclusiveWaiters;
}

extern "C" ULONG ExGetSharedWaiterCount(PERESOURCE Resource) {
    ResourceState* s = StateOf(Resource, "ExGetSharedWaiterCount");
    if (!s) return 0;
    std::lock_guard<std::mutex> guard(s->lock);
    return Resource->NumberOfSharedWaiters;
}
