// Loads the library named by its argument with all symbols bound at once, with none of the others
// in the process, and sees that a throw from there goes to the compiler's unwinder.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  void* const library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
  if (!library) {
    std::fprintf(stderr, "%s\n", argc == 2 ? dlerror() : "usage: install_loadalone LIBRARY");
    return 1;
  }
  Dl_info unwinder{};
  void* const raise = dlsym(library, "_Unwind_RaiseException");
  if (raise && dladdr(raise, &unwinder) && std::strstr(unwinder.dli_fname, "libunwind")) {
    std::fprintf(stderr, "a throw would be unwound by %s\n", unwinder.dli_fname);
    return 1;
  }
  return 0;
}
