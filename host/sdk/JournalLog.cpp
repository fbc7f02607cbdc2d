#include "sdk/JournalLog.h"

#include <Poco/Message.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace SDK {

int JournalLog::SyslogPriority(int pocoPriority) {
    // Poco: fatal 1 .. trace 8; syslog: emerg 0 .. debug 7.
    if (pocoPriority < Poco::Message::PRIO_FATAL) {
        return 2;
    }
    return pocoPriority > Poco::Message::PRIO_DEBUG ? 7 : pocoPriority;
}

bool JournalLog::StderrIsJournal() {
    // systemd sets JOURNAL_STREAM to "<device>:<inode>" of the stream it connected.
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat info {};
    unsigned long long device = 0;
    unsigned long long inode = 0;
    if (stream == nullptr || std::sscanf(stream, "%llu:%llu", &device, &inode) != 2 ||
        ::fstat(STDERR_FILENO, &info) != 0) {
        return false;
    }
    return static_cast<unsigned long long>(info.st_dev) == device &&
           static_cast<unsigned long long>(info.st_ino) == inode;
}

}  // namespace SDK
