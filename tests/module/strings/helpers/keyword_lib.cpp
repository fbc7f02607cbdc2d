// A library whose only job is to carry a keyword in its read-only data, for the
// tests that look for keywords in the files a process maps.
extern "C" const char* StringsKeywordMarker() {
    return "corvane-so-marker-a7b3";
}
