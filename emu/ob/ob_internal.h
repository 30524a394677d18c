// Object manager internals shared by ob/ and io/: the object header that
// precedes every object body, object types, the namespace walk and the
// helpers the system services use to capture names and switch modes.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "kernel.h"

// An object type. POBJECT_TYPE points at one of these.
struct _OBJECT_TYPE {
    tervane::emu::ObjectTypeInit init;
    std::string name;
    ULONG poolTag;  // first four characters of the name, as NT tags object bodies
};

namespace tervane::emu {

// Precedes every object body in one pool block.
struct ObjectHeader {
    std::atomic<LONG> pointerCount;
    std::atomic<LONG> handleCount;
    POBJECT_TYPE type;
    ULONG bodySize;
    PVOID directory;        // the directory that names the object, or null
    std::u16string name;    // its name in that directory (as given)
    bool temporaryName;     // name goes when the last handle closes
};

// The body follows the header at this offset (16-byte aligned, as pool is).
constexpr size_t kObjectHeaderSize = (sizeof(ObjectHeader) + 15) & ~size_t(15);

inline ObjectHeader* ObpHeader(PVOID object) {
    return reinterpret_cast<ObjectHeader*>(static_cast<char*>(object) - kObjectHeaderSize);
}
inline PVOID ObpBody(ObjectHeader* header) { return reinterpret_cast<char*>(header) + kObjectHeaderSize; }

// A reference the machine itself takes or gives back on an object it holds
// a reference to already (through a handle, a packet, a lookup): the
// verifier's check that the object is alive is for the drivers' calls.
// Both return the count left.
inline LONG ObpReferenceHeld(PVOID object) { return ObpHeader(object)->pointerCount.fetch_add(1) + 1; }
LONG ObpDereferenceHeld(PVOID object);  // deletes the object with its last reference

// Bodies of the object manager's own types.
struct ObpDirectory {
    std::map<std::u16string, PVOID>* entries;  // key: upper-cased name
};
struct ObpSymbolicLink {
    std::u16string* target;
};

// True while OBJECT is a live object body (created, not yet deleted).
bool ObpIsLiveObject(PVOID object);

// Types the object manager itself owns, made once per host process.
extern POBJECT_TYPE ObpDirectoryType;
extern POBJECT_TYPE ObpSymbolicLinkType;
extern POBJECT_TYPE ObpEventType;
void ObpCreateSymbolicLinkType();
void ObpCreateEventType();

// Names OBJECT in the namespace (the namespace takes a reference) and takes
// the name away again (false when it had none).
NTSTATUS ObpInsertName(PVOID object, const std::u16string& name);
bool ObpRemoveName(PVOID object);
// Removes the name NAME from the namespace (the object itself lives on while
// referenced). With TYPE, the name must be an object of that type
// (STATUS_OBJECT_TYPE_MISMATCH otherwise).
NTSTATUS ObpRemoveNamedObject(PCUNICODE_STRING name, POBJECT_TYPE type);

// Upper-cases a name for case-insensitive comparison.
std::u16string ObpUpcase(const std::u16string& s);

// Copies a caller's UNICODE_STRING into host memory; STATUS_OBJECT_NAME_INVALID
// for an odd length, a length beyond the maximum or a null buffer with a length.
NTSTATUS ObpCaptureName(PCUNICODE_STRING name, std::u16string* out);
// The same checks, and the name read in place (empty for a null string).
NTSTATUS ObpNameView(PCUNICODE_STRING name, std::u16string_view* out);

// The full namespace walk. ROOT (referenced by the caller, may be null)
// is where a relative NAME starts. With OPENLINK a symbolic link named by the
// last component is returned itself instead of being followed.
NTSTATUS ObpLookup(PVOID root, std::u16string_view name, bool caseInsensitive, bool openLink,
                   PVOID* object, std::u16string* remaining);

// Resolves OBJECT_ATTRIBUTES (name and optional RootDirectory handle) for the
// given previous mode: the object reached (referenced) and what is left of
// the name for the object to parse.
NTSTATUS ObpLookupByAttributes(POBJECT_ATTRIBUTES attributes, KPROCESSOR_MODE mode, bool openLink,
                               PVOID* object, std::u16string* remaining);

// Opens an object of TYPE by name for a service: reference and handle.
NTSTATUS ObpOpenObjectByName(POBJECT_ATTRIBUTES attributes, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                             ACCESS_MASK desiredAccess, PHANDLE handle);

// Inserts a new unnamed or named object and gives the caller a handle. The
// creation reference is consumed whatever the outcome.
NTSTATUS ObpInsertObject(PVOID object, POBJECT_ATTRIBUTES attributes, KPROCESSOR_MODE mode,
                         ACCESS_MASK desiredAccess, PHANDLE handle);

// Name of a file object as ObQueryNameString gives it (the I/O manager's).
NTSTATUS IopQueryFileObjectName(PVOID fileObject, std::u16string* name);

// Full name of a named object ("\Device\Tervane"), empty when unnamed.
std::u16string ObpFullName(PVOID object);

// Handle reference with the caller's mode, as ObReferenceObjectByHandle.
NTSTATUS ObpReferenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, POBJECT_TYPE type,
                              KPROCESSOR_MODE mode, PVOID* object, POBJECT_HANDLE_INFORMATION info);
NTSTATUS ObpCloseHandle(HANDLE handle, KPROCESSOR_MODE mode);

// Runs a service with the thread's previous mode set as a system call from
// that mode would set it, and restores it afterwards.
class PreviousModeScope {
public:
    explicit PreviousModeScope(KPROCESSOR_MODE mode);
    ~PreviousModeScope();
    PreviousModeScope(const PreviousModeScope&) = delete;
    PreviousModeScope& operator=(const PreviousModeScope&) = delete;

private:
    _ETHREAD* thread_;
    KPROCESSOR_MODE saved_;
};
KPROCESSOR_MODE ObpPreviousMode();

}  // namespace tervane::emu
