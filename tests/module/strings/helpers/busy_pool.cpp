// Spins on one CPU; its binary carries a mining-pool address.
static const char* volatile kPool = "stratum+tcp://pool.invalid:3333";

int main() {
    volatile unsigned long spins = 0;
    for (;;) {
        spins = spins + (kPool[0] != 0 ? 1 : 0);
    }
}
