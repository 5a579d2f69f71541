#include "TraceRecord.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "Kiv/Trace.h"

namespace Kiv {
namespace {

// Interned, so that a record needs no lock and a replaced format stays valid for those reading it.
std::atomic<std::string const*> traceFormat{nullptr};

std::string const& format() {
  static auto const& standard = *new std::string("%T %p %n/%l %F: %m");
  std::string const* const asked = traceFormat.load(std::memory_order_acquire);
  return asked == nullptr || asked->empty() ? standard : *asked;
}

void appendTime(std::string& record) {
  timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  ::localtime_r(&now.tv_sec, &local);
  char text[48];
  int const bytes = std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06ld", local.tm_hour,
                                  local.tm_min, local.tm_sec, long(now.tv_nsec / 1000));
  record.append(text, std::size_t(bytes));
}

struct Statement {
  Name name;
  unsigned level;
  char const* file;
  int line;
  char const* function;
  char const* text;
};

char const* orEmpty(char const* text) { return text == nullptr ? "" : text; }

/// Appends what `token` stands for; false when it stands for nothing.
bool appendToken(std::string& record, char token, Statement const& statement) {
  switch (token) {
    case 'T':
      appendTime(record);
      return true;
    case 'p':
      record += std::to_string(::getpid());
      return true;
    case 't':
      record += std::to_string(::gettid());
      return true;
    case 'n':
      record += statement.name.stdString();
      return true;
    case 'l':
      record += std::to_string(statement.level);
      return true;
    case 'f':
      record += orEmpty(statement.file);
      return true;
    case 'L':
      record += std::to_string(statement.line);
      return true;
    case 'F':
      record += orEmpty(statement.function);
      return true;
    case 'm':
      record += orEmpty(statement.text);
      return true;
    case '%':
      record += '%';
      return true;
    default:
      return false;
  }
}

std::string composed(std::string const& form, Statement const& statement) {
  std::string record;
  record.reserve(form.size() + 128);
  for (std::size_t at = 0; at < form.size(); ++at) {
    bool const token = form[at] == '%' && at + 1 < form.size();
    if (token && appendToken(record, form[at + 1], statement)) {
      ++at;
    } else {
      record += form[at];
    }
  }
  return record;
}

/// Whether writing may go on after write(2) failed with `error`.
bool goesOnAfter(int error) {
  if (error == EINTR) return true;
  if (error != EAGAIN) return false;
  // Somebody who shares our standard error made it non-blocking: wait as a blocking one would.
  pollfd room{STDERR_FILENO, POLLOUT, 0};
  return ::poll(&room, 1, -1) >= 0 || errno == EINTR;
}

}  // namespace

void traceFormatIs(std::string const& asked) {
  traceFormat.store(&Name(asked).stdString(), std::memory_order_release);
}

void traceWrite(std::string const& text) {
  int const keptErrno = errno;
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const bytes = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
    if (bytes > 0) {
      done += std::size_t(bytes);
    } else if (bytes == 0 || !goesOnAfter(errno)) {
      break;
    }
  }
  errno = keptErrno;
}

void traceHelper(TraceHandle const& handle, unsigned level, int flag, char const* file, int line,
                 char const* function, char const* text) {
  int const keptErrno = errno;
  std::string record =
      composed(format(), {handle.facility()->name(), level, file, line, function, text});
  bool const complete = !record.empty() && record.back() == '\n';
  if ((flag & 1) != 0 && !complete) record += '\n';
  traceWrite(record);
  errno = keptErrno;
}

}  // namespace Kiv
