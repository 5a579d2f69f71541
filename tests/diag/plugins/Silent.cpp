// A shared object that is no plugin.
extern "C" __attribute__((visibility("default"))) int nothing() { return 0; }
