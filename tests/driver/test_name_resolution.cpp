// Name resolution: GetFullPathName, HasShortNameComponent, ExpandShortNames.
#include <optional>

#include "test_exists_support.h"

namespace tervane::test {
namespace {

// A device below which metadata opens are resolved: it answers
// FileInternalInformation with a chosen file reference and refuses the rest.
struct ReferenceDevice {
    static inline PDEVICE_OBJECT device = nullptr;
    static inline LONGLONG reference = 0;
    static NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT, PIRP irp) {
        PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
        NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
        ULONG_PTR information = 0;
        if (sp->MajorFunction == IRP_MJ_QUERY_INFORMATION &&
            sp->Parameters.QueryFile.FileInformationClass == FileInternalInformation) {
            static_cast<PFILE_INTERNAL_INFORMATION>(irp->AssociatedIrp.SystemBuffer)->IndexNumber.QuadPart =
                reference;
            status = STATUS_SUCCESS;
            information = sizeof(FILE_INTERNAL_INFORMATION);
        }
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = information;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }
    static NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        for (auto& entry : driver->MajorFunction) entry = Dispatch;
        NTSTATUS status = IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &device);
        if (NT_SUCCESS(status)) device->Flags &= ~DO_DEVICE_INITIALIZING;
        return status;
    }
};

// A FILE_OBJECT of a create on its way down: named, not opened yet.
struct RequestFileObject {
    FILE_OBJECT fo = {};
    DEVICE_OBJECT device = {};
    std::u16string name;
    RequestFileObject(std::optional<std::u16string> fileName, bool network = false) {
        device.DeviceType = network ? FILE_DEVICE_NETWORK_FILE_SYSTEM : FILE_DEVICE_DISK_FILE_SYSTEM;
        fo.DeviceObject = &device;
        if (fileName) {
            name = *fileName;
            fo.FileName.Buffer = reinterpret_cast<PWSTR>(name.data());
            fo.FileName.Length = fo.FileName.MaximumLength = USHORT(name.size() * 2);
        }
    }
};

class NameResolutionTest : public LayersTest {
protected:
    void SetUp() override {
        LayersTest::SetUp();
        extension = *static_cast<PTervaneDeviceExtension>(FilterDevice()->DeviceExtension);
        ASSERT_TRUE(extension.m_bHooked);
    }
    std::u16string Resolve(PFILE_OBJECT fo, bool expand = false, bool noQuery = false,
                           PTervaneDeviceExtension ext = nullptr) {
        std::vector<WCHAR> buffer(PATH_BUFFER_CHARS);
        UNICODE_STRING out = {0, PATH_BUFFER_SIZE, buffer.data()};
        Kernel([&] { GetFullPathName(noQuery, fo, ext ? ext : &extension, &out, expand); });
        return U16(out);
    }
    TervaneDeviceExtension extension;
};

TEST_F(NameResolutionTest, RequestNamesJoinTheRelatedOpenAndTheDriveLetter) {
    Configure();
    extension.m_ulDriveLetter = 'D';
    struct Case {
        std::optional<std::u16string> name;
        std::optional<std::u16string> related;
        bool network;
        std::u16string expected;
    } cases[] = {
        {u"\\dir\\file.txt", std::nullopt, false, u"D:\\dir\\file.txt"},
        {u"file.txt", u"\\dir", false, u"D:\\dir\\file.txt"},
        {u"file.txt", u"\\dir\\", false, u"D:\\dir\\file.txt"},
        {u"file.txt", u"", false, u"D:file.txt"},
        {u"file.txt", u"\\\\srv", false, u"D:\\srv\\file.txt"},
        {u"\\abs.txt", u"\\dir", false, u"D:\\abs.txt"},
        {u"\\srv\\share\\f", std::nullopt, true, u"\\srv\\share\\f"},
        {std::nullopt, std::nullopt, false, u"D:"},
        {u"", std::nullopt, false, u"D:"},
        {u"\\" + std::u16string(1020, u'n'), std::nullopt, false, u"D:\\" + std::u16string(1020, u'n')},
        {u"\\" + std::u16string(1021, u'n'), std::nullopt, false, u"D:<Name Too Long>"},
        {u"f", u"\\" + std::u16string(1018, u'r'), false, u"D:\\" + std::u16string(1018, u'r') + u"\\f"},
        {u"f", u"\\" + std::u16string(1019, u'r'), false, u"D:<Name Too Long>"},
    };
    for (auto& c : cases) {
        RequestFileObject related(c.related);
        RequestFileObject request(c.name, c.network);
        if (c.related) request.fo.RelatedFileObject = &related.fo;
        std::u16string got = Resolve(&request.fo);
        EXPECT_TRUE(got == c.expected) << emu::Utf16ToUtf8(got).substr(0, 80);
    }
}

TEST_F(NameResolutionTest, AnOpenInTheTableIsNamedByItsEntry) {
    Configure();
    RequestFileObject request(u"\\ignored.txt");
    std::u16string path = u"C:\\from\\table.txt";
    Kernel([&] {
        FileHandleEntry entry = {};
        entry.m_pFileObject = &request.fo;
        entry.m_ustrFullPath = {USHORT(path.size() * 2), USHORT(path.size() * 2), (PWSTR)path.data()};
        AddFileHandleEntry(&entry);
    });
    EXPECT_EQ(Resolve(&request.fo), path);
    Kernel([&] { RemoveFileHandleEntry(&request.fo); });
}

TEST_F(NameResolutionTest, AnOpenFileIsNamedByTheFileSystemUnlessQueriesAreForbidden) {
    HostFile("L0/Dir/File.txt", "x");
    Configure();
    HANDLE h;
    ASSERT_EQ(OpenReal(u"C:\\l0\\dir\\file.txt", &h), STATUS_SUCCESS);
    PFILE_OBJECT fo = nullptr;
    Kernel([&] { ASSERT_EQ(ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, (PVOID*)&fo, nullptr), 0); });
    EXPECT_EQ(Resolve(fo), u"C:\\L0\\Dir\\File.txt");
    EXPECT_EQ(Resolve(fo, false, true), u"C:\\l0\\dir\\file.txt");
    Kernel([&] { ObDereferenceObject(fo); });
    Close(h);
}

TEST(ShortNameComponentTest, OnlyComponentsOfAtMostEightCharactersWithATildeCount) {
    struct Case {
        std::u16string path;
        bool expected;
    } cases[] = {
        {u"C:\\PROGRA~1\\App\\x.txt", true}, {u"C:\\Docs\\LETTER~1.TXT", false}, {u"C:\\a~", true},
        {u"C:\\Docs\\AB~1.TXT", true},       {u"C:\\abcdefg~h", false},           {u"C:\\x\\PRO~1\\", true},
        {u"PROGRA~1", false},                {u"C~:\\plain", false},              {u"C:\\plain\\name", false},
    };
    for (auto& c : cases) {
        Path p(c.path);
        EXPECT_EQ(HasShortNameComponent(p.us()), c.expected) << emu::Utf16ToUtf8(c.path);
    }
}

TEST_F(NameResolutionTest, ShortNameComponentsAreSpelledAsTheDirectoriesListThem) {
    HostFile("Program Files/App/x.txt", "x");
    HostFile("Docs/Letter to the editor.txt", "x");
    Configure();
    struct Case {
        std::u16string name;
        std::u16string expected;
    } cases[] = {
        {u"\\PROGRA~1\\App\\x.txt", u"C:\\Program Files\\App\\x.txt"},
        {u"\\progra~1\\app\\NEW.txt", u"C:\\Program Files\\App\\NEW.txt"},  // a file about to be made
        {u"\\PROGRA~1\\", u"C:\\Program Files"},
        {u"\\NOSUCH~1\\x", u"C:\\NOSUCH~1\\x"},
        {u"\\docs\\LETTER~1.TXT", u"C:\\docs\\LETTER~1.TXT"},  // twelve characters: not a short name
        {u"\\docs\\ab~1", u"C:\\Docs\\ab~1"},
    };
    for (auto& c : cases) {
        RequestFileObject request(c.name);
        std::u16string got = Resolve(&request.fo, true);
        EXPECT_EQ(got, c.expected) << emu::Utf16ToUtf8(c.name) << " -> " << emu::Utf16ToUtf8(got);
        EXPECT_EQ(Resolve(&request.fo, false), u"C:" + c.name) << "not expanded unless asked";
    }
}

}  // namespace
}  // namespace tervane::test
