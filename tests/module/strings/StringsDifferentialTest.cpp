#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <string>

#include "StringsReferenceScan.h"
#include "StringsTestSupport.h"
#include "sdk/InnerCpuCtrlUtils.h"

// The detector's keyword search against the plain reference scan.
namespace {

using StringsTest::ReferenceScan;

using StringsTest::TempDir;

constexpr size_t kChunk = 4096;
// Thousands of rewrites of one file: kept in memory, off the disk, where there is a tmpfs.
std::string Scratch() {
    return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
}

class Generator {
public:
    explicit Generator(unsigned seed) : random_(seed) {}

    size_t Below(size_t bound) {
        return bound == 0 ? 0 : std::uniform_int_distribution<size_t>(0, bound - 1)(random_);
    }
    bool OneIn(size_t n) { return Below(n) == 0; }

    // Runs of a small alphabet (so keywords recur) between non-graphic bytes, now
    // and then a run longer than the carry area.
    std::string Content(size_t size) {
        static const std::string alphabet = "abcAB+:/.-";
        static const std::string separators = std::string("\0\n \x7f\x80\xff\t", 7);
        std::string data;
        while (data.size() < size) {
            size_t run = OneIn(15) ? 4000 + Below(9000) : Below(24);
            while (run-- > 0 && data.size() < size) {
                data += OneIn(8) ? static_cast<char>(0x21 + Below(94)) : alphabet[Below(alphabet.size())];
            }
            const size_t gap = 1 + Below(3);
            for (size_t i = 0; i < gap && data.size() < size; ++i) {
                data += OneIn(10) ? static_cast<char>(Below(256)) : separators[Below(separators.size())];
            }
        }
        return data;
    }

    // Keywords taken from the content, random ones, and odd ones.
    std::set<std::string> Keywords(const std::string& data) {
        std::set<std::string> keywords;
        const size_t count = Below(8);
        for (size_t i = 0; i < count; ++i) {
            std::string keyword;
            if (!data.empty() && !OneIn(3)) {
                const size_t length = 1 + Below(12);
                keyword = data.substr(Below(data.size()), length);
            } else {
                const size_t length = 1 + Below(6);
                for (size_t k = 0; k < length; ++k) {
                    keyword += "abcAB+:/.-"[Below(10)];
                }
            }
            if (OneIn(25)) {
                keyword.insert(Below(keyword.size() + 1), 1, "\0 \x80"[Below(3)]);
            }
            if (OneIn(60)) {
                keyword.clear();
            }
            keywords.insert(keyword);
        }
        return keywords;
    }

    // The reading limit: around chunk ends, around the file's size, or none.
    long Limit(size_t size) {
        static const long kFixed[] = {0, 1, 4095, 4096, 4097, 5000, 8192, 1L << 30};
        const long around = static_cast<long>(size) - 1 + static_cast<long>(Below(3));
        return OneIn(2)   ? kFixed[Below(std::size(kFixed))]
               : OneIn(2) ? around
                          : static_cast<long>(Below(size + 2));
    }

    // Writes `keyword` over a chunk end, where long runs are cut.
    void PlantAcrossChunkEnd(std::string& data, const std::string& keyword) {
        if (data.size() < kChunk + keyword.size() || keyword.empty()) {
            return;
        }
        const size_t end = kChunk * (1 + Below((data.size() - keyword.size()) / kChunk));
        const size_t at = end - 1 - Below(std::min(keyword.size(), end));
        data.replace(at, keyword.size(), keyword);
    }

private:
    std::mt19937 random_;
};

// The scan is paced by the agent's CPU governor; thousands of scans run unpaced.
class StringsDifferentialTest : public ::testing::Test {
protected:
    void SetUp() override {
        share_ = SDK::InnerCpuCtrlUtils::GetCpuShare();
        SDK::InnerCpuCtrlUtils::SetCpuShare(0);
    }
    void TearDown() override { SDK::InnerCpuCtrlUtils::SetCpuShare(share_); }

private:
    int share_ = 0;
};

// MatchKeywords called directly against a strstr walk: texts with blanks and NULs,
// keywords with blanks, and remaining keywords that the last Init did not give.
TEST_F(StringsDifferentialTest, MatchKeywordsGivesTheStrstrResult) {
    Generator generate(4242);
    for (int round = 0; round < 5000; ++round) {
        const std::string text = generate.Content(generate.Below(80));
        const std::set<std::string> given = generate.Keywords(text);
        std::set<std::string> remaining = generate.Keywords(text);
        remaining.insert(given.begin(), given.end());
        Engine::ProcDetStrings detector;
        detector.Init(given, 1 << 20, 0x20, nullptr);

        size_t shortest = 1024;
        for (const std::string& keyword : given) {
            shortest = std::min(shortest, keyword.size());
        }
        std::set<std::string> expected = remaining;
        int tests = 0;
        for (const std::string& keyword : remaining) {
            const bool tested = text.size() >= shortest && keyword.size() <= text.size();
            tests += tested ? 1 : 0;
            if (!tested || strstr(text.c_str(), keyword.c_str()) == nullptr) {
                expected.erase(keyword);
            }
        }
        std::set<std::string> matched;
        int counter = 0;
        const size_t before = remaining.size();
        detector.MatchKeywords(text.c_str(), text.size(), remaining, matched, counter);
        ASSERT_EQ(matched, expected) << "round " << round;
        ASSERT_EQ(remaining.size(), before - matched.size()) << "round " << round;
        ASSERT_EQ(counter, tests % 11) << "round " << round;
    }
}

// Synthetic files, keywords planted over chunk ends. The content holds every byte value,
// so slices of real binaries add no case of their own.
TEST_F(StringsDifferentialTest, FilesMatchTheReferenceScan) {
    TempDir dir("strings", Scratch());
    Generator generate(20240611);
    for (int round = 0; round < 3400; ++round) {
        std::string data = generate.Content(generate.OneIn(4) ? generate.Below(40000) : generate.Below(9000));
        const std::set<std::string> keywords = generate.Keywords(data);
        for (const std::string& keyword : keywords) {
            if (generate.OneIn(3)) {
                generate.PlantAcrossChunkEnd(data, keyword);
            }
        }
        const long limit = generate.Limit(data.size());
        ASSERT_EQ(StringsTest::ScanContent(dir, data, keywords, limit), ReferenceScan(data, keywords, limit))
            << "round " << round << " size " << data.size() << " limit " << limit;
    }
}

}  // namespace
