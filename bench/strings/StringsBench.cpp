// Throughput of the strings detector's file scan on ~10 MiB of real ELF binaries
// with 20 keywords that never occur (so the whole file is read), beside yara, grep -F
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

#include "feature_detaction/ProcDetStrings.h"
#include "sdk/InnerCpuCtrlUtils.h"

extern char** environ;

namespace {

constexpr size_t kTargetSize = 10u << 20;
const std::string kDir = "/tmp/corvane-strings-bench";

struct Corpus {
    std::string file;
    std::string keywordFile;
    std::string yaraRules;
    std::set<std::string> keywords;
    size_t size = 0;
};

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

        // Twenty plausible-looking keywords of 8 to 20 bytes, none in the file.
        const char* stems[] = {"stratum+udp://", "minerd-x",       "xmr-stak-rx",   "nanopool.",
                               "cpuminer-opt",   "--cpu-priority", "hashvault.",    "c3pool-",
                               "pool.minexmr",   "kdevtmpfsi",     "kinsing-",      "--max-cpu-usage",
                               "monerohash",     "xmrpool.",       "dwarfpool",     "--randomx-1gb",
                               "f2pool-",        "herominers",     "--coin=monero", "cryptonight-lite"};
        for (const char* stem : stems) {
            std::string keyword = std::string(stem) + "Q";
            while (mix.find(keyword) != std::string::npos) {
                keyword += "Q";
            }
            c.keywords.insert(keyword);
        }
        c.keywordFile = kDir + "/keywords.txt";
        std::ofstream words(c.keywordFile);
        std::ostringstream rules;
        rules << "rule keywords {\n  strings:\n";
        int index = 0;
        for (const std::string& keyword : c.keywords) {
            words << keyword << "\n";
            rules << "    $k" << index++ << " = \"" << keyword << "\"\n";
        }
        rules << "  condition:\n    any of them\n}\n";
        c.yaraRules = kDir + "/keywords.yar";
        std::ofstream(c.yaraRules) << rules.str();
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

void BM_DetectorStrings(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    SDK::InnerCpuCtrlUtils::SetCpuShare(0);  // measure the scan, not the governor's sleeps
    Engine::ProcDetStrings detector;
    detector.Init(corpus.keywords, 64L << 20, 0x20, nullptr);
    const bool running = true;
    for (auto _ : state) {
        std::set<std::string> matched;
        if (!detector.Strings(corpus.file, running, matched) || !matched.empty()) {
            state.SkipWithError("unexpected scan result");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.size));
}

// A warm check of one flagged process (this benchmark itself, with its ~10 mapped
// files): the executable and every library are already cached without a hit, so the
// check is what a HIGHCPU process costs cycle after cycle. Governor off.
void BM_WarmCheckProcess(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    SDK::InnerCpuCtrlUtils::SetCpuShare(0);
    Engine::ProcDetStrings detector;
    detector.Init(corpus.keywords, 64L << 20, Engine::HIGHCPU, nullptr);
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

void BM_Yara(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    for (auto _ : state) {
        state.SetIterationTime(Run({"/usr/bin/yara", corpus.yaraRules, corpus.file}));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.size));
}

void BM_GrepF(benchmark::State& state) {
    const Corpus& corpus = GetCorpus();
    for (auto _ : state) {
        state.SetIterationTime(
            Run({"/usr/bin/grep", "-F", "-a", "-c", "-f", corpus.keywordFile, corpus.file}));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * corpus.size));
}

}  // namespace

BENCHMARK(BM_DetectorStrings)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_Yara)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(2.0);
BENCHMARK(BM_GrepF)->Unit(benchmark::kMillisecond)->UseManualTime()->MinTime(2.0);
BENCHMARK(BM_WarmCheckProcess)->Unit(benchmark::kMicrosecond)->MinTime(1.0);
BENCHMARK(BM_BareReadAndClassify)->Unit(benchmark::kMillisecond)->MinTime(2.0);

BENCHMARK_MAIN();
