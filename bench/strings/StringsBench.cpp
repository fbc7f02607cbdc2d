// Throughput of the strings detector's file scan on ~10 MiB of real ELF binaries
// with 20 keywords that never occur (so the whole file is read) and with the shipped
// policy's keyword list, beside yara (also on an empty file, for its fixed cost), grep -F
// and a bare read-and-classify loop over the same file, all reading from the page
// cache. Times are CPU times (the child's for the external tools), so a loaded
// machine does not skew the comparison.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <json/json.h>

#include "feature_detaction/ProcDetStrings.h"
#include "sdk/InnerCpuCtrlUtils.h"

extern char** environ;

namespace {

constexpr size_t kTargetSize = 10u << 20;
const std::string kDir = "/tmp/corvane-strings-bench";

// One keyword set with its grep pattern file and yara rule.
struct KeywordSet {
    std::set<std::string> keywords;
    std::string keywordFile;
    std::string yaraRules;
};

struct Corpus {
    std::string file;
    std::string emptyFile;  // yara on it costs its start-up and rule compilation alone
    KeywordSet sets[2];     // the 20 absent keywords; the shipped policy's list
    size_t size = 0;
};

const char* const kSetNames[] = {"20 absent keywords", "shipped keyword list"};

KeywordSet WriteKeywordSet(const std::set<std::string>& keywords, const std::string& name) {
    KeywordSet set;
    set.keywords = keywords;
    set.keywordFile = kDir + "/" + name + ".txt";
    std::ofstream words(set.keywordFile);
    std::ostringstream rules;
    rules << "rule keywords {\n  strings:\n";
    int index = 0;
    for (const std::string& keyword : keywords) {
        words << keyword << "\n";
        std::string quoted;
        for (char c : keyword) {
            if (c == '"' || c == '\\') {
                quoted += '\\';
            }
            quoted += c;
        }
        rules << "    $k" << index++ << " = \"" << quoted << "\"\n";
    }
    rules << "  condition:\n    any of them\n}\n";
    set.yaraRules = kDir + "/" + name + ".yar";
    std::ofstream(set.yaraRules) << rules.str();
    return set;
}

// The "strings" list of the shipped behaviour-detection policy.
std::set<std::string> ShippedKeywords() {
    const std::string path =
        std::string(CORVANE_SOURCE_DIR) + "/conf/policies/10001/proc_detaction_feature.json";
    std::ifstream in(path);
    Json::Value root;
    Json::CharReaderBuilder reader;
    std::string errors;
    if (!Json::parseFromStream(reader, in, &root, &errors)) {
        throw std::runtime_error("cannot parse " + path + ": " + errors);
    }
    std::set<std::string> keywords;
    for (const Json::Value& keyword : root["content"]["detaction_full_task"]["strings"]) {
        keywords.insert(keyword.asString());
    }
    if (keywords.empty()) {
        throw std::runtime_error("no \"strings\" list in " + path);
    }
    return keywords;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Concatenated /usr/bin ELF files, in name order, up to kTargetSize bytes.
std::string BuildElfMix() {
    std::vector<std::string> names;
    DIR* bin = opendir("/usr/bin");
    if (bin == nullptr) {
        throw std::runtime_error("cannot list /usr/bin");
    }
    while (dirent* entry = readdir(bin)) {
        names.push_back(entry->d_name);
    }
    closedir(bin);
    std::sort(names.begin(), names.end());
    std::string mix;
    for (const std::string& name : names) {
        const std::string path = "/usr/bin/" + name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > (2 << 20)) {
            continue;
        }
        const std::string content = ReadAll(path);
        if (content.compare(0, 4,
                            "\x7f"
                            "ELF") != 0) {
            continue;
        }
        mix += content;
        if (mix.size() >= kTargetSize) {
            break;
        }
    }
    mix.resize(std::min(mix.size(), kTargetSize));
    return mix;
}

const Corpus& GetCorpus() {
    static const Corpus corpus = [] {
        Corpus c;
        mkdir(kDir.c_str(), 0755);
        const std::string mix = BuildElfMix();
        c.size = mix.size();
        c.file = kDir + "/elf-mix.bin";
        std::ofstream(c.file, std::ios::binary).write(mix.data(), static_cast<std::streamsize>(mix.size()));

        c.emptyFile = kDir + "/empty.bin";
        std::ofstream(c.emptyFile, std::ios::binary | std::ios::trunc);

        // Twenty plausible-looking keywords of 8 to 20 bytes, none in the file.
        const char* stems[] = {"stratum+udp://", "minerd-x",       "xmr-stak-rx",   "nanopool.",
                               "cpuminer-opt",   "--cpu-priority", "hashvault.",    "c3pool-",
                               "pool.minexmr",   "kdevtmpfsi",     "kinsing-",      "--max-cpu-usage",
                               "monerohash",     "xmrpool.",       "dwarfpool",     "--randomx-1gb",
                               "f2pool-",        "herominers",     "--coin=monero", "cryptonight-lite"};
        std::set<std::string> twenty;
        for (const char* stem : stems) {
            std::string keyword = std::string(stem) + "Q";
            while (mix.find(keyword) != std::string::npos) {
                keyword += "Q";
            }
            twenty.insert(keyword);
        }
        c.sets[0] = WriteKeywordSet(twenty, "keywords");
        c.sets[1] = WriteKeywordSet(ShippedKeywords(), "shipped");
        return c;
    }();
    return corpus;
}

// Runs a command with its output discarded; returns the CPU seconds it used
// (user and system), so that the figures do not depend on the machine's load.
double Run(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int error = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error("cannot run " + args[0]);
    }
    int status = 0;
    struct rusage usage;
    wait4(child, &status, 0, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Argument: which keyword set (0: the 20 absent keywords, 1: the shipped list, which
// may occur in the mix; the scan reads on until every keyword is found, so the whole file).
void BM_DetectorStrings(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    const KeywordSet& set = corpus.sets[state.range(0)];
    SDK::InnerCpuCtrlUtils::SetCpuShare(0);  // measure the scan, not the governor's sleeps
    Engine::ProcDetStrings detector;
    detector.Init(set.keywords, 64L << 20, 0x20, nullptr);
    const bool running = true;
    for (auto _ : state) {
        std::set<std::string> matched;
        if (!detector.Strings(corpus.file, running, matched) ||
            (state.range(0) == 0 ? !matched.empty() : matched.size() == set.keywords.size())) {
            state.SkipWithError("unexpected scan result");
            break;
        }
    }
    state.SetLabel(kSetNames[state.range(0)]);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.size));
}

// A warm check of one flagged process (this benchmark itself, with its ~10 mapped
// files): the executable and every library are already cached without a hit, so the
// check is what a HIGHCPU process costs cycle after cycle. Governor off.
void BM_WarmCheckProcess(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    SDK::InnerCpuCtrlUtils::SetCpuShare(0);
    Engine::ProcDetStrings detector;
    detector.Init(corpus.sets[0].keywords, 64L << 20, Engine::HIGHCPU, nullptr);
    auto proc = std::make_shared<Engine::ProcsMessage::procInfo>();
    proc->pid = getpid();
    char exe[4097] = {0};
    if (readlink("/proc/self/exe", exe, sizeof(exe) - 1) <= 0) {
        state.SkipWithError("cannot read /proc/self/exe");
        return;
    }
    proc->exePath = exe;
    Engine::NumDetails numDetails;
    Engine::StrDetails strDetails;
    unsigned int flags = Engine::HIGHCPU;
    detector.CheckProcess(proc, flags, numDetails, strDetails);  // fills the cache
    for (auto _ : state) {
        flags = Engine::HIGHCPU;
        detector.CheckProcess(proc, flags, numDetails, strDetails);
    }
    if (flags != Engine::HIGHCPU || !strDetails.empty()) {
        state.SkipWithError("unexpected hit");
    }
}

void BM_BareReadAndClassify(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    unsigned char graphic[256] = {0};
    for (int byte = 0x21; byte <= 0x7E; ++byte) {
        graphic[byte] = 1;
    }
    for (auto _ : state) {
        FILE* file = fopen(corpus.file.c_str(), "r");
        char chunk[4096];
        size_t n = 0;
        size_t count = 0;
        while ((n = fread(chunk, 1, sizeof(chunk), file)) > 0) {
            for (size_t i = 0; i < n; ++i) {
                count += graphic[static_cast<unsigned char>(chunk[i])];
            }
        }
        fclose(file);
        benchmark::DoNotOptimize(count);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.size));
}

// Arguments: keyword set; 1 to scan the corpus, 0 an empty file (yara's start-up and
// rule compilation, to subtract from the first).
void BM_Yara(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    const KeywordSet& set = corpus.sets[state.range(0)];
    const bool full = state.range(1) != 0;
    for (auto _ : state) {
        state.SetIterationTime(Run({"/usr/bin/yara", set.yaraRules, full ? corpus.file : corpus.emptyFile}));
    }
    if (full) {
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.size));
    }
    state.SetLabel(std::string(kSetNames[state.range(0)]) + (full ? "" : ", empty file"));
}

void BM_GrepF(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    for (auto _ : state) {
        state.SetIterationTime(
            Run({"/usr/bin/grep", "-F", "-a", "-c", "-f", corpus.sets[0].keywordFile, corpus.file}));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.size));
}

}  // namespace

BENCHMARK(BM_DetectorStrings)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_Yara)
    ->ArgsProduct({{0, 1}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->MinTime(2.0);
BENCHMARK(BM_GrepF)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(2.0);
BENCHMARK(BM_WarmCheckProcess)->Unit(benchmark::kMicrosecond)->MinTime(1.0);
BENCHMARK(BM_BareReadAndClassify)->Unit(benchmark::kMillisecond)->MinTime(2.0);

BENCHMARK_MAIN();
