// The commands of the FUSE front end: mount, exec and ctl.
#pragma once

#include <string>
#include <vector>

namespace tervane::fuse {

struct MountOptions {
    std::string script;
    std::string mountPoint;
    bool foreground = false;
    char drive = 'C';
    std::string fuseOptions;  // "-o" list, comma-separated
};

// Sets the machine up with the script, serves the drive at the mount point
// until it is unmounted, and prints the verifier's report. Without
// foreground, returns once the mount is ready (0) or failed (1), leaving
// the serving process behind.
int Mount(const MountOptions& options);

// Adds this process to the mount's monitored processes, then becomes CMD.
int Exec(const std::string& mountPoint, const std::vector<std::string>& command);

// Sends a `ctl` verb to a running mount and prints its answer.
int Ctl(const std::string& mountPoint, const std::vector<std::string>& words);

}  // namespace tervane::fuse
