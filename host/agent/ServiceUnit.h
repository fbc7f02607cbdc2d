#pragma once

#include <string>
#include <vector>

namespace Agent {

// The systemd unit that runs the agent, as far as --check needs it: where its sandbox
// lets the agent write (ProtectSystem=strict and ReadWritePaths=, from the unit file
// and its drop-ins, each read up to 64 KiB).
class ServiceUnit {
public:
    static constexpr const char* kName = "corvane-agent.service";

    // The installed unit, from the first of /etc, /run, /lib and /usr/lib systemd/system
    // that has it, when its ExecStart= runs `executable` (the unit that would run this
    // very binary). False otherwise: none installed, one that runs another binary, or one
    // whose file or a drop-in cannot be read (then `error` says why).
    static bool FindInstalled(const std::string& executable, ServiceUnit& out, std::string& error);
    // The unit in `file`, with the drop-ins in `file`.d/. False with the reason.
    static bool Load(const std::string& file, ServiceUnit& out, std::string& error);

    // Whether the agent may write at `path` under this unit: anywhere without
    // ProtectSystem=strict, else only within one of its ReadWritePaths= (symbolic links
    // resolved on both sides).
    bool MayWrite(const std::string& path) const;

    const std::string& GetFile() const { return file_; }
    // "ReadWritePaths=/var/log/corvane /var/spool/corvane"
    std::string DescribeWritable() const;

private:
    // `file`, then the drop-ins of `dropInDirs` over it, as systemd layers them.
    static bool ReadLayered(const std::string& file, const std::vector<std::string>& dropInDirs,
                            ServiceUnit& out, std::string& error);
    bool Read(const std::string& file, std::string& error);

    std::string file_;
    std::string program_;  // what ExecStart= runs
    bool strict_ = false;
    std::vector<std::string> writable_;
};

}  // namespace Agent
