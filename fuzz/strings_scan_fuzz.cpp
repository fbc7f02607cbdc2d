// The strings detector's keyword scan, compared with the plain reference scan: a wrong answer
// aborts like a crash.
//
// Input: one byte choosing the read limit, then keywords separated by 0xFD and ended by 0xFE,
// then the file's content.
#include <stdio.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "feature_detaction/ProcDetStrings.h"
#include "module/strings/StringsReferenceScan.h"
#include "sdk/InnerCpuCtrlUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    const size_t headerEnd = input.find('\xFE');
    if (headerEnd == std::string::npos) {
        return 0;
    }
    std::set<std::string> keywords;
    for (size_t start = 0; start <= headerEnd && keywords.size() < 16;) {
        size_t end = input.find('\xFD', start);
        end = end == std::string::npos || end > headerEnd ? headerEnd : end;
        if (end - start <= 64) {  // the detector drops keywords longer than its carry area allows
            keywords.insert(input.substr(start, end - start));
        }
        start = end + 1;
    }
    const std::string content = input.substr(headerEnd + 1);
    if (content.empty()) {
        return 0;
    }
    const long size0 = static_cast<long>(content.size());
    const long limits[] = {0, 1, 4095, 4096, 4097, 8192, 1L << 30, size0 - 1, size0, size0 + 1};
    const long limit = limits[data[0] % (sizeof limits / sizeof limits[0])];

    SDK::InnerCpuCtrlUtils::SetCpuShare(0);  // no pacing between scans
    Engine::ProcDetStrings detector;
    detector.Init(keywords, limit, 0x20, nullptr);
    FILE* file = fmemopen(const_cast<char*>(content.data()), content.size(), "r");
    if (file == nullptr) {
        return 0;
    }
    std::set<std::string> matched;
    std::set<std::string> remaining = keywords;
    detector.CheckFileContent(matched, file, remaining);
    fclose(file);
    if (matched != StringsTest::ReferenceScan(content, keywords, limit)) {
        fprintf(stderr, "strings scan differs from the reference scan (limit %ld)\n", limit);
        std::abort();
    }
    return 0;
}
