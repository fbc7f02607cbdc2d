#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <mutex>
#include <string>
#include <vector>

namespace TestSupport {

// Captures the lines of one logger (e.g. "proc_det_module") in memory at the
// given level for the life of the object; restores the logger afterwards.
class LogCapture {
public:
    struct Line {
        Poco::Message::Priority priority;
        std::string text;
        std::string file;
        int line;
    };

    explicit LogCapture(const std::string& loggerName, int level = Poco::Message::PRIO_DEBUG);
    ~LogCapture();

    std::vector<Line> GetLines() const;
    // Number of captured lines whose text contains `needle`.
    size_t Count(const std::string& needle) const;
    bool Contains(const std::string& needle) const { return Count(needle) > 0; }
    void Clear();

private:
    class Channel;
    std::string name_;
    Poco::AutoPtr<Channel> channel_;
    Poco::AutoPtr<Poco::Channel> previousChannel_;
    int previousLevel_;
};

}  // namespace TestSupport
