// Concurrency: three monitored processes of four threads and one unmonitored
// process of two run thousands of mixed requests on overlapping and disjoint
// names of the three-layer view while a controller changes the lists and
// switches filtering off and on. The run must end within its time limit
// (a hang prints where every thread is), verifier-clean, with every write to
// a file that one thread owned read back whole and the lower layers intact.
// The ThreadSanitizer build runs it to find data races.
#include "test_dispatch_support.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>

#include "control/control.h"

namespace tervane::test {
namespace {

constexpr int kMonitoredProcesses = 3;
constexpr int kThreadsPerMonitored = 4;
constexpr int kUnmonitoredThreads = 2;
constexpr size_t kRecord = 64;  // an owned file is written in records of this size
constexpr int kSlots = 48;      // records per owned file

int Operations() {
    const char* text = std::getenv("TERVANE_STRESS_OPS");
    return text != nullptr ? std::atoi(text) : 2000;
}

int TimeLimitSeconds() {
    const char* text = std::getenv("TERVANE_STRESS_SECONDS");
    return text != nullptr ? std::atoi(text) : 600;
}

// Where a thread is, for the report of a hang.
struct Position {
    std::atomic<int> op{0};
    std::atomic<const char*> what{"starting"};
};

// Thin NT calls made on the calling thread (the machine's Run would queue
// them on the process's one worker and serialise the threads).
HANDLE OpenPath(const std::u16string& path, ACCESS_MASK access, ULONG disposition, ULONG options = 0,
                NTSTATUS* status = nullptr) {
    std::u16string name = u"\\??\\" + path;
    UNICODE_STRING us = emu::MakeUnicodeString(name);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &us, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb = {};
    HANDLE handle = nullptr;
    NTSTATUS s = NtCreateFile(&handle, access | SYNCHRONIZE, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                              options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (status != nullptr) *status = s;
    return NT_SUCCESS(s) ? handle : nullptr;
}

NTSTATUS WriteAt(HANDLE handle, const std::string& data, LONGLONG offset) {
    IO_STATUS_BLOCK iosb = {};
    LARGE_INTEGER at;
    at.QuadPart = offset;
    std::string buffer = data;
    return NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), ULONG(buffer.size()), &at, nullptr);
}

std::string ReadAll(HANDLE handle) {
    std::string all;
    std::string buffer(4096, '\0');
    LARGE_INTEGER at;
    at.QuadPart = 0;
    for (;;) {
        IO_STATUS_BLOCK iosb = {};
        if (!NT_SUCCESS(NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), ULONG(buffer.size()),
                                   &at, nullptr)) ||
            iosb.Information == 0)
            return all;
        all.append(buffer.data(), iosb.Information);
        at.QuadPart += LONGLONG(iosb.Information);
    }
}

void ListDirectory(const std::u16string& dir) {
    HANDLE handle = OpenPath(dir, FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
    if (handle == nullptr) return;
    std::vector<uint8_t> buffer(1024);
    for (BOOLEAN restart = TRUE;; restart = FALSE) {
        IO_STATUS_BLOCK iosb = {};
        if (!NT_SUCCESS(NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                             ULONG(buffer.size()), FileBothDirectoryInformation, FALSE, nullptr,
                                             restart)))
            break;
    }
    NtClose(handle);
}

void QueryStandard(const std::u16string& path) {
    HANDLE handle = OpenPath(path, FILE_READ_ATTRIBUTES, FILE_OPEN);
    if (handle == nullptr) return;
    FILE_STANDARD_INFORMATION info;
    IO_STATUS_BLOCK iosb = {};
    NtQueryInformationFile(handle, &iosb, &info, sizeof(info), FileStandardInformation);
    NtClose(handle);
}

// Renames the open file to the drive path TARGET.
NTSTATUS RenameTo(HANDLE handle, const std::u16string& target) {
    std::u16string name = u"\\??\\" + target;
    std::vector<uint8_t> buffer(sizeof(FILE_RENAME_INFORMATION) + name.size() * 2);
    auto* info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
    info->ReplaceIfExists = TRUE;
    info->RootDirectory = nullptr;
    info->FileNameLength = ULONG(name.size() * 2);
    memcpy(info->FileName, name.data(), name.size() * 2);
    IO_STATUS_BLOCK iosb = {};
    return NtSetInformationFile(handle, &iosb, info, ULONG(buffer.size()), FileRenameInformation);
}

// ASCII text as UTF-16, with host separators turned into NT ones.
std::u16string U16(const std::string& text) {
    std::u16string wide(text.begin(), text.end());
    for (char16_t& c : wide)
        if (c == u'/') c = u'\\';
    return wide;
}

class StressTest : public DispatchTest {};

TEST_F(StressTest, ProcessesThreadsAndControllerTogether) {
    const int operations = Operations();
    const std::string baseRecord(kRecord, '.');
    for (int i = 0; i < 4; ++i) HostFile(std::string(kBase) + "/dir/s" + std::to_string(i) + ".txt", "base shared");
    HostFile(std::string(kMid) + "/dir/s1.txt", "mid shared");
    HostFile(std::string(kPack) + "/dir/s2.txt", "pack shared");
    HostFile(std::string(kMid) + "/dir/m.txt", "mid only");
    std::string initial;
    for (int s = 0; s < kSlots; ++s) initial += baseRecord;
    std::vector<std::string> owned;  // host path below the base, by worker
    for (int p = 0; p < kMonitoredProcesses; ++p)
        for (int t = 0; t < kThreadsPerMonitored; ++t) {
            owned.push_back("own/p" + std::to_string(p) + "t" + std::to_string(t) + ".txt");
            HostFile(std::string(kBase) + "/" + owned.back(), initial);
        }
    HostDir("plain");
    Configure();
    emu::Process* monitored[kMonitoredProcesses] = {app, machine->CreateProcess(1235, "two.exe"),
                                                    machine->CreateProcess(1236, "three.exe")};
    ASSERT_EQ(Control(IOCTL_ADD_PROCESS, ProcessRecord(1235, u"two.exe")).status, STATUS_SUCCESS);
    ASSERT_EQ(Control(IOCTL_ADD_PROCESS, ProcessRecord(1236, u"three.exe")).status, STATUS_SUCCESS);

    const size_t workers = owned.size() + kUnmonitoredThreads;
    std::vector<Position> positions(workers + 1);  // the controller last
    std::vector<std::string> expected(owned.size());
    std::vector<std::string> problems;
    std::mutex problemsLock;
    auto problem = [&](const std::string& text) {
        std::lock_guard<std::mutex> guard(problemsLock);
        if (problems.size() < 20) problems.push_back(text);
    };
    std::atomic<size_t> running{workers};
    std::atomic<int> ownedWrites{0};  // a run where none succeeded proves nothing
    std::atomic<bool> stop{false};
    std::mutex doneLock;
    std::condition_variable done;

    auto monitoredWorker = [&](size_t index) {
        Position& at = positions[index];
        std::mt19937 random(unsigned(index) + 1);
        const std::u16string mine = u"C:\\" + U16(owned[index]);
        const std::string tag = "w" + std::to_string(index);
        std::string model = initial;
        for (int op = 0; op < operations; ++op) {
            at.op = op;
            const std::u16string shared = u"C:\\dir\\s" + U16(std::to_string(random() % 4)) + u".txt";
            switch (random() % 8) {
            case 0:
            case 1: {  // a record of the owned file (the first one copies it up)
                at.what = "write owned";
                HANDLE h = OpenPath(mine, GENERIC_READ | GENERIC_WRITE, FILE_OPEN);
                if (h == nullptr) break;  // filtering was off for a moment
                const int slot = int(random() % kSlots);
                std::string record = tag + ":" + std::to_string(op) + ":";
                record.resize(kRecord, char('a' + op % 26));
                NTSTATUS s = WriteAt(h, record, LONGLONG(slot) * kRecord);
                if (NT_SUCCESS(s)) {
                    model.replace(size_t(slot) * kRecord, kRecord, record);
                    ++ownedWrites;
                } else
                    problem(tag + " write failed: " + emu::StatusName(s));
                NtClose(h);
                break;
            }
            case 2: {  // the owned file reads back as written so far
                at.what = "read owned";
                HANDLE h = OpenPath(mine, GENERIC_READ, FILE_OPEN);
                if (h == nullptr) break;
                if (ReadAll(h) != model) problem(tag + " read back another content at op " + std::to_string(op));
                NtClose(h);
                break;
            }
            case 3: {  // a shared file, written at a place of this thread (copy-ups race)
                at.what = "write shared";
                HANDLE h = OpenPath(shared, GENERIC_READ | GENERIC_WRITE, FILE_OPEN);
                if (h == nullptr) break;
                WriteAt(h, tag, LONGLONG(index) * 8);
                ReadAll(h);
                NtClose(h);
                break;
            }
            case 4:
                at.what = "list";
                ListDirectory(u"C:\\dir");
                break;
            case 5:
                at.what = "query";
                QueryStandard(random() % 2 ? shared : u"C:\\dir\\m.txt");
                break;
            case 6: {  // a name of this thread: created, renamed, deleted
                at.what = "create rename delete";
                const std::u16string name = u"C:\\dir\\t" + U16(tag) + u".txt";
                HANDLE h = OpenPath(name, GENERIC_WRITE | DELETE, FILE_OVERWRITE_IF);
                if (h == nullptr) break;
                WriteAt(h, tag, 0);
                RenameTo(h, u"C:\\dir\\r" + U16(tag) + u".txt");
                FILE_DISPOSITION_INFORMATION disposition = {TRUE};
                IO_STATUS_BLOCK iosb = {};
                NtSetInformationFile(h, &iosb, &disposition, sizeof(disposition), FileDispositionInformation);
                NtClose(h);
                break;
            }
            default: {  // a name every thread uses: made and deleted at once
                at.what = "overlapping name";
                const std::u16string name = u"C:\\dir\\x" + U16(std::to_string(random() % 3)) + u".txt";
                HANDLE h = OpenPath(name, GENERIC_WRITE | DELETE, FILE_OPEN_IF, FILE_DELETE_ON_CLOSE);
                if (h != nullptr) NtClose(h);
                break;
            }
            }
        }
        expected[index] = model;
        at.what = "finished";
    };
    auto unmonitoredWorker = [&](size_t index) {
        Position& at = positions[index];
        std::mt19937 random(unsigned(index) + 1);
        const std::u16string mine = u"C:\\plain\\u" + U16(std::to_string(index)) + u".txt";
        for (int op = 0; op < operations; ++op) {
            at.op = op;
            switch (random() % 3) {
            case 0: {
                at.what = "write plain";
                HANDLE h = OpenPath(mine, GENERIC_READ | GENERIC_WRITE, FILE_OPEN_IF);
                if (h == nullptr) break;
                WriteAt(h, std::to_string(op), 0);
                NtClose(h);
                break;
            }
            case 1:
                at.what = "list plain";
                ListDirectory(u"C:\\plain");
                break;
            default: {  // the bare volume's view of a lower layer, read only
                at.what = "read lower";
                HANDLE h = OpenPath(u"C:\\layers\\base\\dir\\s0.txt", GENERIC_READ, FILE_OPEN);
                if (h != nullptr) {
                    ReadAll(h);
                    NtClose(h);
                }
                break;
            }
            }
        }
        at.what = "finished";
    };

    std::vector<std::unique_ptr<emu::Machine::Thread>> threads;
    auto finish = [&] {
        if (--running == 0) {
            std::lock_guard<std::mutex> guard(doneLock);
            done.notify_all();
        }
    };
    for (size_t i = 0; i < owned.size(); ++i)
        threads.push_back(machine->StartThread(monitored[i / kThreadsPerMonitored], [&, i] {
            monitoredWorker(i);
            finish();
        }));
    for (size_t i = owned.size(); i < workers; ++i)
        threads.push_back(machine->StartThread(other, [&, i] {
            unmonitoredWorker(i);
            finish();
        }));
    // The controller: a process and an exclusion come and go, the lists are
    // read, and filtering is switched off and at once on again now and then.
    threads.push_back(machine->StartThread(controller_, [&] {
        Position& at = positions[workers];
        std::vector<uint8_t> out(4096);
        auto send = [&](ULONG code, const std::vector<uint8_t>& in) {
            IO_STATUS_BLOCK iosb = {};
            std::vector<uint8_t> input = in;
            return NtDeviceIoControlFile(controlHandle_, nullptr, nullptr, nullptr, &iosb, code, input.data(),
                                         ULONG(input.size()), out.data(), ULONG(out.size()));
        };
        for (int op = 0; !stop; ++op) {
            at.op = op;
            at.what = "control";
            send(IOCTL_ADD_PROCESS, ProcessRecord(5000 + op % 7, u"passing.exe"));
            send(IOCTL_ADD_EXCLUSIONS, Slots({u"C:\\excluded\\e" + U16(std::to_string(op % 5))}));
            send(IOCTL_GET_PROCESS_LIST, {});
            send(IOCTL_GET_EXCLUSION_LIST, {});
            ULONG pid = 5000 + op % 7;
            std::vector<uint8_t> remove(sizeof(pid));
            memcpy(remove.data(), &pid, sizeof(pid));
            send(IOCTL_REMOVE_PROCESS, remove);
            send(IOCTL_REMOVE_EXCLUSIONS, Slots({u"C:\\excluded\\e" + U16(std::to_string(op % 5))}));
            if (op % 50 == 49) {
                at.what = "switch";
                send(IOCTL_STOP_FILTERING, {});
                send(IOCTL_START_FILTERING, {});
            }
        }
        at.what = "finished";
    }));

    {
        std::unique_lock<std::mutex> guard(doneLock);
        if (!done.wait_for(guard, std::chrono::seconds(TimeLimitSeconds()), [&] { return running == 0; })) {
            std::fprintf(stderr, "stress: no end within %d s; where each thread is:\n", TimeLimitSeconds());
            for (size_t i = 0; i < positions.size(); ++i)
                std::fprintf(stderr, "  %s %zu: operation %d, %s\n", i < owned.size() ? "monitored" : "thread", i,
                             positions[i].op.load(), positions[i].what.load());
            std::abort();  // the threads cannot be ended; the run fails as a whole
        }
    }
    stop = true;
    for (auto& thread : threads) thread->Join();

    for (const std::string& p : problems) ADD_FAILURE() << p;
    EXPECT_GT(ownedWrites.load(), operations);
    for (size_t i = 0; i < owned.size(); ++i) {
        SCOPED_TRACE(owned[i]);
        EXPECT_EQ(Cat(monitored[i / kThreadsPerMonitored], u"C:\\" + U16(owned[i])), expected[i])
            << "a write to a file one thread owned was lost or torn";
        EXPECT_EQ(HostContent(std::string(kBase) + "/" + owned[i]), initial) << "the base layer changed";
    }
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(HostContent(std::string(kBase) + "/dir/s" + std::to_string(i) + ".txt"), "base shared");
    EXPECT_EQ(HostContent(std::string(kMid) + "/dir/s1.txt"), "mid shared");
}

}  // namespace
}  // namespace tervane::test
