// A program that does nothing, with and without our libraries. With an argument it shows what of
// them is in memory.
#include <cstdio>
#include <cstring>

int main(int argc, char**) {
  if (argc < 2) return 0;
  std::FILE* const maps = std::fopen("/proc/self/smaps", "re");
  char line[4096];
  bool ours = false;
  long resident = 0;
  while (std::fgets(line, sizeof line, maps) != nullptr) {
    long kilobytes = 0;
    if (std::strstr(line, "/lib") != nullptr) {
      ours = std::strstr(line, "libKivVeltro") != nullptr;
    } else if (ours && std::sscanf(line, "Rss: %ld kB", &kilobytes) == 1) {
      resident += kilobytes;
    } else if (std::strchr(line, '-') != nullptr && std::strchr(line, ':') == nullptr) {
      ours = false;
    }
  }
  std::printf("%ld\n", resident * 1024);
}
