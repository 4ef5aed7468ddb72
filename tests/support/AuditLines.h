#pragma once
// Realistic audit lines for tests that drive the converter or the service.

#include <cstdint>
#include <string>

namespace testing_support {

// An access-vector line; `decision` is the word after "avc:" ("denied" or
// "detected"), `operation` the contents of the braces.
inline std::string avcLine(int64_t seconds, const std::string& containerId, const std::string& path,
                           const std::string& operation = "write",
                           const std::string& decision = "denied") {
    return "type=QIRN_AVC msg=audit(" + std::to_string(seconds) + ".123:4567): avc:  " + decision +
           "  { " + operation + " } for  pid=1234 comm=\"bash\" name=\"" + path +
           "\" dev=\"sda1\" ino=5678 container_id=" + containerId +
           " scontext=system_u:system_r:container_t tcontext=system_u:object_r:etc_t tclass=file "
           "permissive=0";
}

inline std::string netctlLine(int64_t seconds, const std::string& containerId,
                              const std::string& procPath,
                              const std::string& decision = "detected") {
    return "type=QIRN_NETCTL msg=audit(" + std::to_string(seconds) +
           ".500:4568): avc:  " + decision + "  { connect } for pid=99 proc_path=" + procPath +
           " container_id=" + containerId;
}

inline std::string syscallLine(int64_t seconds) {
    return "type=SYSCALL msg=audit(" + std::to_string(seconds) +
           ".123:4566): arch=c000003e syscall=257 success=no exit=-13 a0=ffffff9c a1=7ffd a2=241 "
           "a3=1b6 items=1 ppid=1000 pid=1234 auid=1000 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 "
           "sgid=0 fsgid=0 tty=pts0 ses=3 comm=\"bash\" exe=\"/usr/bin/bash\" key=(null)";
}

}  // namespace testing_support
