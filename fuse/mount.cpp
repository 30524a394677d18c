// The commands of the FUSE front end: mount, exec and ctl.
#include "mount.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <set>
#include <sstream>

#include "control_socket.h"
#include "controller.h"
#include "nt_file.h"
#include "operations.h"

namespace tervane::fuse {
namespace {

namespace fs = std::filesystem;

// Why the mount point cannot take a mount, or "".
std::string MountPointProblem(const fs::path& point) {
    struct stat here, parent;
    if (stat(point.c_str(), &here) != 0) {
        if (errno == ENOTCONN)
            return point.string() + " is a mount whose server is gone (fusermount3 -u " + point.string() + ")";
        return point.string() + ": " + std::strerror(errno);
    }
    if (!S_ISDIR(here.st_mode)) return point.string() + " is not a directory";
    if (stat((point / "..").c_str(), &parent) == 0 && (here.st_dev != parent.st_dev || here.st_ino == parent.st_ino))
        return point.string() + " is busy: something is mounted there already";
    return "";
}

// Takes umask=OCTAL out of a -o list (the mount applies it itself, keeping
// read-only files without write bits); the rest goes to libfuse.
bool SplitOptions(const std::string& list, mode_t* umask, std::string* rest, std::string* error) {
    std::stringstream in(list);
    for (std::string item; std::getline(in, item, ',');) {
        if (item.rfind("umask=", 0) == 0) {
            char* end = nullptr;
            unsigned long value = std::strtoul(item.c_str() + 6, &end, 8);
            if (item.size() == 6 || *end || value > 0777) {
                *error = "umask= takes an octal mode such as 022, not " + item.substr(6);
                return false;
            }
            *umask = static_cast<mode_t>(value);
        } else if (!item.empty()) {
            *rest += (rest->empty() ? "" : ",") + item;
        }
    }
    return true;
}

// Reports the outcome of the start, the exit code as a digit, to the waiting
// parent (background mount).
void Tell(int fd, char code) {
    if (fd < 0) return;
    ssize_t ignored = write(fd, &code, 1);
    (void)ignored;
    close(fd);
}

// The monitoring policy of the mount: a process is monitored when the
// driver lists it; a process seen for the first time is added when one of
// its ancestors is listed. Processes the mount added leave the list when
// they end.
class Policy {
public:
    explicit Policy(Controller& controller) : controller_(controller) {}

    void FirstSight(const LinuxProcess& p) {
        std::vector<uint32_t> listed = controller_.MonitoredPids();
        auto isListed = [&](pid_t pid) {
            for (uint32_t l : listed)
                if (l == static_cast<uint32_t>(pid)) return true;
            return false;
        };
        if (listed.empty() || isListed(p.pid)) return;
        pid_t ancestor = p.parent;
        for (int depth = 0; ancestor > 1 && depth < 256; ++depth) {
            if (isListed(ancestor)) {
                Add(p.pid, p.comm);
                return;
            }
            auto up = ReadLinuxProcess(ancestor);
            if (!up) return;
            ancestor = up->parent;
        }
    }

    bool Add(pid_t pid, const std::string& name) {
        if (!controller_.AddMonitored(static_cast<uint32_t>(pid), name)) return false;
        std::lock_guard<std::mutex> guard(lock_);
        added_.insert(pid);
        return true;
    }

    void Ended(pid_t pid) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (!added_.erase(pid)) return;
        }
        controller_.RemoveMonitored(static_cast<uint32_t>(pid));
    }

private:
    Controller& controller_;
    std::mutex lock_;
    std::set<pid_t> added_;
};

int Serve(const MountOptions& o, const fs::path& point, mode_t umask, const std::string& fuseOptions, int readyFd) {
    fs::path script = fs::absolute(o.script);
    Controller controller(script.parent_path());
    if (!controller.RunSetup(script, std::cout, std::cerr)) {
        std::cerr << "tervane mount: the setup script failed; nothing is mounted\n";
        controller.Finish();
        Tell(readyFd, '2');
        return 2;
    }
    emu::Machine& machine = controller.machine();
    // The controller opens the control device now when a driver is loaded,
    // so that the policy can ask for the monitored processes.
    int ignored = 0;
    controller.Ctl({"process-count"}, &ignored);

    Policy policy(controller);
    ProcessRegistry registry(
        machine, [&](const LinuxProcess& p) { policy.FirstSight(p); }, [&](pid_t pid) { policy.Ended(pid); });
    MountState state;
    state.machine = &machine;
    state.registry = &registry;
    state.drive = o.drive;
    state.owner.uid = getuid();
    state.owner.gid = getgid();
    state.owner.umask = umask;

    std::string problem;
    {
        NTSTATUS status = STATUS_SUCCESS;
        ProcessRegistry::Lease own = registry.Enter(getpid());
        std::u16string root = u"\\??\\";
        root += static_cast<char16_t>(o.drive);
        root += u":\\";
        if (own) machine.RunOnCallingThread(own.process(), [&] {
            HANDLE h = nullptr;
            status = OpenName(root, FILE_READ_ATTRIBUTES, FILE_OPEN, FILE_DIRECTORY_FILE, &h);
            if (NT_SUCCESS(status)) NtClose(h);
        });
        if (!own || !NT_SUCCESS(status))
            problem = std::string("drive ") + o.drive + ": is not a volume of the script (volume " + o.drive +
                      ": HOSTDIR)";
    }

    ControlSocket socket;
    if (problem.empty())
        problem = socket.Start(ControlSocketPath(point), [&](const std::vector<std::string>& words, int* code) {
            if (!words.empty() && words[0] == "ctl" && words.size() > 1)
                return controller.Ctl(std::vector<std::string>(words.begin() + 1, words.end()), code);
            if (words.size() == 3 && words[0] == "monitor") {
                pid_t pid = static_cast<pid_t>(std::atoll(words[1].c_str()));
                if (pid <= 0 || !policy.Add(pid, words[2])) {
                    *code = 1;
                    return std::string("the driver did not take process ") + words[1] + " (is it loaded?)\n";
                }
                registry.Enter(pid);  // watched from now on, ended with its Linux process
                *code = 0;
                return std::string();
            }
            *code = 2;
            return std::string("unknown request\n");
        });

    struct fuse* f = nullptr;
    if (problem.empty()) {
        std::vector<std::string> words = {"tervane"};
        if (!fuseOptions.empty()) words.insert(words.end(), {"-o", fuseOptions});
        std::vector<char*> argv;
        for (auto& w : words) argv.push_back(w.data());
        fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());
        f = fuse_new(&args, &Operations(), sizeof(fuse_operations), &state);
        fuse_opt_free_args(&args);
        if (!f) problem = "libfuse refused the options " + fuseOptions;
        else if (fuse_mount(f, point.c_str()) != 0) problem = "cannot mount at " + point.string();
    }
    if (!problem.empty()) {
        std::cerr << "tervane mount: " << problem << "\n";
        if (f) fuse_destroy(f);
        socket.Stop();
        registry.Stop();
        registry.EndAll();
        controller.Finish();
        Tell(readyFd, '1');
        return 1;
    }
    fuse_set_signal_handlers(fuse_get_session(f));
    registry.Start();
    std::cout << "tervane mount: drive " << o.drive << ": at " << point.string() << " (process " << getpid()
              << ", control socket " << ControlSocketPath(point).string() << ")" << std::endl;
    if (readyFd >= 0) {
        int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    Tell(readyFd, '0');

    fuse_loop_config* loop = fuse_loop_cfg_create();
    fuse_loop_cfg_set_max_threads(loop, 16);
    fuse_loop_mt(f, loop);
    fuse_loop_cfg_destroy(loop);
    fuse_remove_signal_handlers(fuse_get_session(f));
    fuse_unmount(f);
    fuse_destroy(f);

    socket.Stop();
    registry.Stop();
    registry.EndAll();
    emu::VerifierReport report = controller.Finish();
    if (report.Clean()) {
        std::cerr << "tervane mount: unmounted " << point.string() << "; verifier: clean\n";
        return 0;
    }
    std::cerr << "tervane mount: unmounted " << point.string() << "; the verifier found something outstanding:\n"
              << report.ToString();
    return 3;
}

}  // namespace

int Mount(const MountOptions& o) {
    if (o.drive < 'A' || o.drive > 'Z') {
        std::cerr << "tervane mount: --drive takes a letter such as D:\n";
        return 2;
    }
    mode_t umask = 022;
    std::string fuseOptions, error;
    if (!SplitOptions(o.fuseOptions, &umask, &fuseOptions, &error)) {
        std::cerr << "tervane mount: -o " << error << "\n";
        return 2;
    }
    std::error_code ec;
    if (!fs::is_regular_file(o.script, ec)) {
        std::cerr << "tervane mount: the script " << o.script << " cannot be read\n";
        return 2;
    }
    int probe = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (probe < 0) {
        std::cerr << "tervane mount: /dev/fuse cannot be opened (" << std::strerror(errno)
                  << "): FUSE is not available here\n";
        return 1;
    }
    close(probe);
    fs::path point = fs::absolute(o.mountPoint, ec).lexically_normal();
    if (std::string problem = MountPointProblem(point); !problem.empty()) {
        std::cerr << "tervane mount: " << problem << "\n";
        return 1;
    }
    if (o.foreground) return Serve(o, point, umask, fuseOptions, -1);

    // The machine's threads do not survive a fork, so the server is forked
    // before anything is made, and the parent waits for its word.
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        std::cerr << "tervane mount: no pipe: " << std::strerror(errno) << "\n";
        return 1;
    }
    std::cout.flush();
    std::cerr.flush();
    pid_t child = fork();
    if (child < 0) {
        std::cerr << "tervane mount: cannot start the server: " << std::strerror(errno) << "\n";
        return 1;
    }
    if (child == 0) {
        close(pipeFds[0]);
        setsid();
        _exit(Serve(o, point, umask, fuseOptions, pipeFds[1]));
    }
    close(pipeFds[1]);
    char code = '1';
    ssize_t n;
    do n = read(pipeFds[0], &code, 1);
    while (n < 0 && errno == EINTR);
    close(pipeFds[0]);
    return n == 1 && code >= '0' && code <= '3' ? code - '0' : 1;  // the server's exit code
}

int Exec(const std::string& mountPoint, const std::vector<std::string>& command) {
    if (command.empty()) {
        std::cerr << "tervane exec: give a command after --\n";
        return 2;
    }
    std::string name = fs::path(command[0]).filename().string().substr(0, 15);  // as /proc/PID/comm keeps it
    std::string text;
    int code = SendControlRequest(mountPoint, {"monitor", std::to_string(getpid()), name}, &text);
    if (code != 0) {
        std::cerr << "tervane exec: " << text << (text.empty() || text.back() == '\n' ? "" : "\n");
        return 125;
    }
    std::vector<char*> argv;
    std::vector<std::string> words = command;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    std::cerr << "tervane exec: cannot run " << command[0] << ": " << std::strerror(errno) << "\n";
    return errno == ENOENT ? 127 : 126;
}

int Ctl(const std::string& mountPoint, const std::vector<std::string>& words) {
    std::vector<std::string> request = {"ctl"};
    request.insert(request.end(), words.begin(), words.end());
    std::string text;
    int code = SendControlRequest(mountPoint, request, &text);
    if (code < 0) {
        std::cerr << "tervane ctl: " << text << "\n";
        return 2;
    }
    std::cout << text;
    return code;
}

}  // namespace tervane::fuse
