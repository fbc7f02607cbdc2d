// Timed runs of the collect modules. Usage (as root):
//   collect_bench [snapshot] [storm] [net] [fresh]      (all when none is named)
#include <cstdio>
#include <cstring>
#include <string>

#include "BenchUtil.h"

int main(int argc, char** argv) {
    auto wanted = [&](const char* name) {
        if (argc < 2) {
            return true;
        }
        for (int i = 1; i < argc; ++i) {
            if (std::strcmp(argv[i], name) == 0) {
                return true;
            }
        }
        return false;
    };
    if (wanted("snapshot")) {
        RunSnapshotBench(2000, 15);
    }
    if (wanted("storm")) {
        RunBareConnectorBench(20000);
        RunStormBench(20000, false);
        RunStormBench(20000, true);
    }
    if (wanted("net")) {
        RunNetBench(1000, 50);
    }
    if (wanted("fresh")) {
        RunFreshBench(8000, 11, 500);
    }
    return 0;
}
