// The one program the policy corpora run in their many disguises: copied under
// other names and places, run from a memfd, deleting itself, holding a connection.
// Built by the corpus scripts with the system compiler; with -DCORPUS_KEYWORD it
// carries a miner's keyword, without it nothing a keyword search could match.
//
//   corpus_prog sleep SECONDS
//   corpus_prog spin SECONDS [BUSY_PERCENT]       busy loop; below 100 it sleeps the rest of each 100 ms
//   corpus_prog selfdelete MODE ARGS...           removes its own file, then runs MODE
//   corpus_prog memfd NAME FILE ARGS...           copies FILE into memfd NAME and executes it with ARGS
//   corpus_prog listen ADDRESS PORT_FILE SECONDS  accepts and holds TCP connections; writes its port
//   corpus_prog connect ADDRESS PORT SECONDS      holds one TCP connection
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

#ifdef CORPUS_KEYWORD
// Read in the busy loop so that no optimisation drops it.
static const char kPool[] = CORPUS_KEYWORD;
#define POOL_BYTE(i) (kPool[(i) % (sizeof kPool - 1)])
#else
#define POOL_BYTE(i) ((char)(i))
#endif

static int Fail(const char* what) {
    fprintf(stderr, "corpus_prog: %s: %s\n", what, strerror(errno));
    return 1;
}

static double Now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static int Sleep(double seconds) {
    const double end = Now() + seconds;
    for (double left = seconds; left > 0; left = end - Now()) {
        struct timespec ts = {(time_t)left, (long)((left - (double)(time_t)left) * 1e9)};
        nanosleep(&ts, NULL);
    }
    return 0;
}

static int Spin(double seconds, int busyPercent) {
    volatile unsigned long sum = 0;
    const double end = Now() + seconds;
    while (Now() < end) {
        const double sliceEnd = Now() + 0.1 * busyPercent / 100.0;
        while (Now() < sliceEnd) {
            for (unsigned long i = 0; i < 100000; ++i) {
                sum += (unsigned long)POOL_BYTE(i);
            }
        }
        if (busyPercent < 100) {
            Sleep(0.1 * (100 - busyPercent) / 100.0);
        }
    }
    return sum == 42 ? 2 : 0;
}

static int Run(int argc, char** argv);

static int SelfDelete(int argc, char** argv) {
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) {
        return Fail("readlink /proc/self/exe");
    }
    self[n] = '\0';
    if (unlink(self) != 0) {
        return Fail(self);
    }
    return Run(argc, argv);
}

static int MemfdExec(const char* name, const char* file, char** args) {
    const int in = open(file, O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        return Fail(file);
    }
    struct stat st;
    if (fstat(in, &st) != 0) {
        return Fail(file);
    }
    const int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd < 0) {
        return Fail("memfd_create");
    }
    for (off_t done = 0; done < st.st_size;) {
        const ssize_t copied = sendfile(fd, in, NULL, (size_t)(st.st_size - done));
        if (copied <= 0) {
            return Fail("copy into memfd");
        }
        done += copied;
    }
    close(in);
    fexecve(fd, args, environ);
    return Fail("fexecve");
}

static int Listen(const char* address, const char* portFile, double seconds) {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in sa = {.sin_family = AF_INET};
    if (s < 0 || inet_pton(AF_INET, address, &sa.sin_addr) != 1 ||
        bind(s, (struct sockaddr*)&sa, sizeof sa) != 0 || listen(s, 16) != 0) {
        return Fail("listen");
    }
    socklen_t len = sizeof sa;
    getsockname(s, (struct sockaddr*)&sa, &len);
    FILE* out = fopen(portFile, "w");
    if (out == NULL) {
        return Fail(portFile);
    }
    fprintf(out, "%d\n", ntohs(sa.sin_port));
    fclose(out);
    // Accepted connections stay open until the end, so the peer's stays established.
    const double end = Now() + seconds;
    for (double left = seconds; left > 0; left = end - Now()) {
        struct pollfd p = {.fd = s, .events = POLLIN};
        if (poll(&p, 1, (int)(left * 1000) + 1) > 0) {
            accept4(s, NULL, NULL, SOCK_CLOEXEC);
        }
    }
    return 0;
}

static int Connect(const char* address, int port, double seconds) {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in sa = {.sin_family = AF_INET, .sin_port = htons((unsigned short)port)};
    if (s < 0 || inet_pton(AF_INET, address, &sa.sin_addr) != 1 ||
        connect(s, (struct sockaddr*)&sa, sizeof sa) != 0) {
        return Fail("connect");
    }
    return Sleep(seconds);
}

static int Run(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[0], "sleep") == 0) {
        return Sleep(atof(argv[1]));
    }
    if (argc >= 2 && strcmp(argv[0], "spin") == 0) {
        const int busy = argc >= 3 ? atoi(argv[2]) : 100;
        return Spin(atof(argv[1]), busy < 1 ? 1 : busy > 100 ? 100 : busy);
    }
    if (argc >= 2 && strcmp(argv[0], "selfdelete") == 0) {
        return SelfDelete(argc - 1, argv + 1);
    }
    if (argc >= 4 && strcmp(argv[0], "memfd") == 0) {
        return MemfdExec(argv[1], argv[2], argv + 3);
    }
    if (argc >= 4 && strcmp(argv[0], "listen") == 0) {
        return Listen(argv[1], argv[2], atof(argv[3]));
    }
    if (argc >= 4 && strcmp(argv[0], "connect") == 0) {
        return Connect(argv[1], atoi(argv[2]), atof(argv[3]));
    }
    fprintf(stderr, "corpus_prog: unknown or incomplete mode\n");
    return 2;
}

int main(int argc, char** argv) {
    return Run(argc - 1, argv + 1);
}
