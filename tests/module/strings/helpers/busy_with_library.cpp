// Spins on one CPU; only the library it is linked with carries a keyword.
extern "C" const char* StringsKeywordMarker();

int main() {
    const char* volatile marker = StringsKeywordMarker();
    volatile unsigned long spins = 0;
    for (;;) {
        spins = spins + (marker[0] != 0 ? 1 : 0);
    }
}
