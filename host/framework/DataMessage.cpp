#include "framework/DataMessage.h"

namespace Framework {

DataMessage::DataMessage(const std::string& type, const std::string& body)
    : Message("data_message"), type_(type), body_(body) {}

DataMessage::~DataMessage() = default;

}  // namespace Framework
