#pragma once

#include <string>
#include <vector>

namespace SDK {

class StrUtils {
public:
    // Splits `text` at every character of `delimiters`, dropping empty pieces,
    // and appends the pieces to `out`.
    static void EasySplit(const std::string& text, std::vector<std::string>& out,
                          const std::string& delimiters);
    // Removes leading and trailing blanks, tabs, CR and LF in place; returns `text`.
    static std::string& Trim(std::string& text);
};

}  // namespace SDK
