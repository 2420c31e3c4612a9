// A connection to kelvo-helperd as everything beyond the socket knows it: its number for this run
// of the daemon and the credentials of the process at the other end.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace kelvo::helperd {

using ClientId = std::uint64_t;

struct ClientInfo {
    ClientId id = 0;
    pid_t pid = 0;
    uid_t uid = 0;

    // For the log: "client 3 (pid 1234, uid 1000)".
    std::string describe() const {
        return "client " + std::to_string(id) + " (pid " + std::to_string(pid) + ", uid " +
               std::to_string(uid) + ")";
    }
};

}  // namespace kelvo::helperd
