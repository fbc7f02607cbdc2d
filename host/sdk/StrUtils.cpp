#include "sdk/StrUtils.h"

namespace SDK {

void StrUtils::EasySplit(const std::string& text, std::vector<std::string>& out,
                         const std::string& delimiters) {
    std::string::size_type start = 0;
    while (start < text.size()) {
        const std::string::size_type end = text.find_first_of(delimiters, start);
        if (end == std::string::npos) {
            out.push_back(text.substr(start));
            return;
        }
        if (end > start) {
            out.push_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
}

std::string& StrUtils::Trim(std::string& text) {
    static const char* const kBlanks = " \t\r\n";
    const std::string::size_type last = text.find_last_not_of(kBlanks);
    if (last == std::string::npos) {
        text.clear();
        return text;
    }
    text.erase(last + 1);
    text.erase(0, text.find_first_not_of(kBlanks));
    return text;
}

}  // namespace SDK
