#pragma once

namespace SDK {

// Logging to the systemd journal through standard error.
class JournalLog {
public:
    // The syslog priority ("<3>" is err) of a Poco message priority.
    static int SyslogPriority(int pocoPriority);
    // Whether standard error is connected to the journal (JOURNAL_STREAM names it).
    static bool StderrIsJournal();
};

}  // namespace SDK
