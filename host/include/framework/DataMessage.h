#pragma once

#include <string>

#include "framework/Message.h"

namespace Framework {

// A report for the report task: a data type (the modules use "2" for alerts)
// and a body (for alerts, one JSON document).
class DataMessage : public Message {
public:
    DataMessage(const std::string& type, const std::string& body);
    ~DataMessage() override;

    const std::string& GetType() const { return type_; }
    const std::string& GetBody() const { return body_; }

private:
    std::string type_;
    std::string body_;
};

}  // namespace Framework
