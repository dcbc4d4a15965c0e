#ifndef ORVANE_TESTS_LOG_CAPTURE_H
#define ORVANE_TESTS_LOG_CAPTURE_H

// Switches one diagnostic channel on into a string while the object lives.

#include <sstream>
#include <string>

#include "orvane/log_channel.h"

namespace ovtest {

class LogCapture {
public:
    explicit LogCapture(ovLogChannel& channel) : channel_(channel), saved_(channel) {
        channel_.enabled = true;
        channel_.stream = &out_;
    }
    ~LogCapture() { channel_ = saved_; }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string text() const { return out_.str(); }
    bool contains(const std::string& s) const { return text().find(s) != std::string::npos; }

private:
    ovLogChannel& channel_;
    ovLogChannel saved_;
    std::ostringstream out_;
};

}  // namespace ovtest

#endif
