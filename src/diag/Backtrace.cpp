#define UNW_LOCAL_ONLY
#include "Veltro/Backtrace.h"

#include <dlfcn.h>
#include <libunwind.h>

#include <cstdint>
#include <sstream>

namespace Veltro {
namespace {

std::ostream& print(std::ostream& text, void* address) {
  Dl_info info;
  if (::dladdr(address, &info) != 0) {
    // Between symbols the object's own start serves as the base.
    void* const base = info.dli_saddr != nullptr ? info.dli_saddr : info.dli_fbase;
    if (info.dli_fname != nullptr) text << info.dli_fname;
    text << "(" << (info.dli_sname != nullptr ? info.dli_sname : "unknown") << "+0x" << std::hex
         << reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(base)
         << std::dec << ")";
  }
  return text << "[" << address << "]";
}

}  // namespace

Backtrace::Backtrace(bool capture) : count_(capture ? unwind(addresses_, kMaxFrames) : 0) {}

// Kept out of line, for the first step must leave this frame and no other.
__attribute__((noinline)) unsigned Backtrace::unwind(void** addresses, unsigned maximum) {
  unw_context_t context;
  unw_cursor_t cursor;
  if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) return 0;
  unsigned count = 0;
  while (count < maximum && unw_step(&cursor) > 0) {
    unw_word_t address = 0;
    unw_get_reg(&cursor, UNW_REG_IP, &address);
    addresses[count++] = reinterpret_cast<void*>(static_cast<std::uintptr_t>(address));
  }
  return count;
}

std::string Backtrace::pretty() const {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  if (count_ == 0) text << "No backtrace available\n";
  for (unsigned i = 0; i < count_; ++i) print(text, addresses_[i]) << "\n";
  return text.str();
}

std::string Backtrace::pretty(void* address) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  print(text, address);
  return text.str();
}

}  // namespace Veltro
