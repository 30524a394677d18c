// The control socket beside a mount (".NAME.tervane" next to the mount point
// NAME, mode 0600, only the mount's owner and root may connect): one request
// a connection, its words separated by NUL bytes; the answer is an exit code
// digit, a newline, and the text to print.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tervane::fuse {

// Where the socket of the mount at MOUNTPOINT lies.
std::filesystem::path ControlSocketPath(const std::filesystem::path& mountPoint);

class ControlSocket {
public:
    using Handler = std::function<std::string(const std::vector<std::string>& words, int* exitCode)>;
    ControlSocket() = default;
    ~ControlSocket();
    // Binds PATH (replacing a stale socket, refusing a live one) and serves
    // each request with HANDLER on a thread of its own; "" or the reason.
    std::string Start(const std::filesystem::path& path, Handler handler);
    void Stop();

private:
    int listener_ = -1;
    std::filesystem::path path_;
    std::thread thread_;
};

// Sends WORDS to the socket of the mount at MOUNTPOINT; the answer's text in
// *TEXT and its exit code, or -1 with the reason in *TEXT.
int SendControlRequest(const std::filesystem::path& mountPoint, const std::vector<std::string>& words,
                       std::string* text);

}  // namespace tervane::fuse
