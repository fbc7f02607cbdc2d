// A library that is not a module: it has no CreateModule.
extern "C" int AgentTestNotAModule() {
    return 42;
}
