#include "ntcall.h"

#include <cctype>

#include "commands.h"
#include "lexer.h"

namespace tervane::tool {

OwnedUnicode::OwnedUnicode(std::u16string text) : text_(std::move(text)) {
    string_.Length = static_cast<USHORT>(text_.size() * 2);
    string_.MaximumLength = string_.Length;
    string_.Buffer = reinterpret_cast<PWSTR>(text_.data());
}

bool IsDrivePath(const std::string& path) {
    return path.size() >= 2 && std::isalpha(static_cast<unsigned char>(path[0])) && path[1] == ':';
}

std::u16string ObjectNameFor(const std::string& path) {
    std::u16string name = ToUtf16(path);
    if (IsDrivePath(path)) name = u"\\??\\" + name;
    if (name.size() * 2 > 0xfffe)
        throw ScriptError("the name is longer than a counted string can hold (32767 characters)");
    return name;
}

NTSTATUS CallAndWait(const std::function<NTSTATUS(HANDLE event)>& call, const IO_STATUS_BLOCK& iosb) {
    HANDLE event = nullptr;
    NTSTATUS status = NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE);
    if (!NT_SUCCESS(status)) return status;
    status = call(event);
    if (status == STATUS_PENDING) {
        NtWaitForSingleObject(event, FALSE, nullptr);
        status = iosb.Status;
    }
    NtClose(event);
    return status;
}

NTSTATUS OpenFile(const OpenRequest& request, HANDLE* handle, IO_STATUS_BLOCK* iosb) {
    std::u16string name;
    if (request.fileId) {
        uint64_t id = *request.fileId;
        name.assign(reinterpret_cast<const char16_t*>(&id), 4);
    } else {
        name = request.related ? ToUtf16(request.path) : ObjectNameFor(request.path);
        if (name.size() * 2 > 0xfffe)
            throw ScriptError("the name is longer than a counted string can hold (32767 characters)");
    }
    OwnedUnicode objectName(std::move(name));
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, objectName.get(), OBJ_CASE_INSENSITIVE, request.related, nullptr);
    ULONG options = request.options | (request.fileId ? FILE_OPEN_BY_FILE_ID : 0);
    *iosb = {};
    *handle = nullptr;
    return NtCreateFile(handle, request.access, &oa, iosb, nullptr, request.attributes, request.share,
                        request.disposition, options, nullptr, 0);
}

}  // namespace tervane::tool
