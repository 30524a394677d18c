// The control socket beside a mount.
#include "control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tervane::fuse {
namespace {

bool FillAddress(const std::filesystem::path& path, sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    std::string text = path.string();
    if (text.size() >= sizeof address->sun_path) return false;
    std::memcpy(address->sun_path, text.c_str(), text.size() + 1);
    return true;
}

std::string ReadAll(int fd) {
    std::string data;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        data.append(buffer, static_cast<size_t>(n));
    }
    return data;
}

bool WriteAll(int fd, const std::string& data) {
    size_t at = 0;
    while (at < data.size()) {
        ssize_t n = write(fd, data.data() + at, data.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

int Connect(const std::filesystem::path& path) {
    sockaddr_un address;
    if (!FillAddress(path, &address)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

}  // namespace

std::filesystem::path ControlSocketPath(const std::filesystem::path& mountPoint) {
    std::filesystem::path clean = mountPoint.lexically_normal();
    if (clean.has_filename() == false) clean = clean.parent_path();
    std::string name = ".";
    name += clean.filename().string();
    name += ".tervane";
    return clean.parent_path() / name;
}

ControlSocket::~ControlSocket() { Stop(); }

std::string ControlSocket::Start(const std::filesystem::path& path, Handler handler) {
    sockaddr_un address;
    if (!FillAddress(path, &address)) return "the control socket's path " + path.string() + " is too long";
    int probe = Connect(path);
    if (probe >= 0) {
        close(probe);
        return "another mount serves " + path.string();
    }
    unlink(path.c_str());  // a socket left by a mount that did not end
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0) return std::string("no socket: ") + std::strerror(errno);
    mode_t old = umask(077);
    int bound = bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    int error = errno;
    umask(old);
    if (bound != 0 || listen(listener_, 16) != 0) {
        if (bound == 0) error = errno;
        close(listener_);
        listener_ = -1;
        return "cannot make the control socket " + path.string() + ": " + std::strerror(error);
    }
    path_ = path;
    thread_ = std::thread([this, handler = std::move(handler)] {
        for (;;) {
            int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                return;
            }
            ucred peer{};
            socklen_t length = sizeof peer;
            std::string answer;
            if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
                (peer.uid != 0 && peer.uid != geteuid())) {
                answer = "2\nonly the mount's owner may control it\n";
            } else {
                std::string request = ReadAll(fd);
                std::vector<std::string> words;
                size_t at = 0;
                while (at < request.size()) {
                    size_t end = request.find('\0', at);
                    if (end == std::string::npos) end = request.size();
                    words.push_back(request.substr(at, end - at));
                    at = end + 1;
                }
                int code = 2;
                std::string text = handler(words, &code);
                answer = std::to_string(code) + "\n" + text;
            }
            WriteAll(fd, answer);
            close(fd);
        }
    });
    return "";
}

void ControlSocket::Stop() {
    if (listener_ < 0) return;
    shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    close(listener_);
    listener_ = -1;
    unlink(path_.c_str());
}

int SendControlRequest(const std::filesystem::path& mountPoint, const std::vector<std::string>& words,
                       std::string* text) {
    std::filesystem::path path = ControlSocketPath(mountPoint);
    int fd = Connect(path);
    if (fd < 0) {
        *text = "no mount answers at " + path.string() + " (" + std::strerror(errno) + "); is " +
                mountPoint.string() + " a tervane mount?";
        return -1;
    }
    std::string request;
    for (size_t i = 0; i < words.size(); ++i) request += (i ? std::string(1, '\0') : "") + words[i];
    if (!WriteAll(fd, request)) {
        *text = std::string("the mount did not take the request: ") + std::strerror(errno);
        close(fd);
        return -1;
    }
    shutdown(fd, SHUT_WR);
    std::string answer = ReadAll(fd);
    close(fd);
    size_t newline = answer.find('\n');
    if (newline == std::string::npos || newline == 0) {
        *text = "the mount gave no answer";
        return -1;
    }
    *text = answer.substr(newline + 1);
    return std::atoi(answer.substr(0, newline).c_str());
}

}  // namespace tervane::fuse
