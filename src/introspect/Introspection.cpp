#include "Veltro/Introspection.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Kiv/Exception.h"
#include "Mem/Shared.h"
#include "Requests.h"
#include "Veltro/Debug.h"
#include "Veltro/ThreadCpp.h"
#include "platform/BackgroundFd.h"
#include "util/Descriptor.h"

namespace Veltro {
namespace {

using IntrospectionFormat::Header;
constexpr char const* kSourceFile = "Veltro/Introspection";

Platform::DebugHandler& debug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("Introspection");
  return *handler;
}
[[maybe_unused]] Platform::DebugHandler& atLoad = debug();

[[noreturn]] void fail(std::string const& what, int error) {
  throw Kiv::ErrnoException(what, error);
}

/// Nobody else's, and nobody else may write to it: others must neither ask nor plant files.
void ensureDirectory(std::string const& path) {
  struct stat status;
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) fail(path, errno);
  if (::lstat(path.c_str(), &status) != 0) fail(path, errno);
  if (!S_ISDIR(status.st_mode)) fail(path, ENOTDIR);
  if (status.st_uid != ::geteuid() || (status.st_mode & 022) != 0) fail(path, EPERM);
}

/// Field 22 of the kernel's line on this process. The name before it may hold anything.
U64 processStart() {
  std::ifstream file("/proc/self/stat");
  std::string line;
  std::getline(file, line);
  std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 1)));
  std::string field;
  for (int number = 3; number <= 22; ++number) fields >> field;
  return std::strtoull(field.c_str(), nullptr, 10);
}

std::string programName() { return ::program_invocation_short_name; }

std::string ownName() {
  thread_local unsigned count = 0;  // of the roots that this thread has let be seen
  std::string name =
      programName() + "." + std::to_string(::getpid()) + "." + std::to_string(Veltro::gettid());
  return ++count == 1 ? name : name + "." + std::to_string(count);
}

/// A fresh file, for nobody but this user. What has the name is of a process that had our number.
void makeFile(std::string const& path) {
  ::unlink(path.c_str());
  util::Descriptor const file(
      ::open(path.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_RDWR, 0600));
  if (file.get() < 0) fail(path, errno);
}

std::string readFile(std::string const& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

class Introspection::Impl final : private Platform::FdEventHandler {
 public:
  Impl(TaskSchedulerRoot& root, std::string const& directory)
      : directory_(directory), name_(ownName()), path_(directory + "/" + name_), requests_(root) {
    ensureDirectory(directory);
    makeFile(path_ + ".records");
    _map(sizeof(Header));
    _begin();
    makeFile(path_ + ".control");  // last: readers look for it
    _watch();
    VELTRO_TRACE(debug(), 3, "Seen as " << path_);
  }
  ~Impl() override {
    control_->delFd();
    if (pid_ != ::getpid()) return;
    ::unlink((path_ + ".control").c_str());
    ::unlink((path_ + ".records").c_str());
  }

  std::string const& path() const { return path_; }

 private:
  // A mapping that is too small is replaced; the file itself stays, and what it holds.
  void _map(std::size_t bytes) {
    auto segment = std::make_unique<Mem::Shared>(directory_, name_ + ".records", false,
                                                 Mem::Shared::SHARED_DEFAULT_FLAGS, false);
    void* const address =
        segment->attach(static_cast<U32>(bytes), Mem::Mode::shared, true, "introspection");
    if (address == nullptr) fail(path_ + ".records", errno);
    segment_ = std::move(segment);
    header_ = static_cast<Header*>(address);
    mapped_ = bytes;
  }

  void _begin() {
    std::memcpy(header_->magic, IntrospectionFormat::kMagic, sizeof header_->magic);
    header_->version = IntrospectionFormat::kVersion;
    header_->headerBytes = sizeof(Header);
    header_->processId = static_cast<U32>(pid_);
    header_->threadId = static_cast<U32>(Veltro::gettid());
    header_->processStart = processStart();
    std::strncpy(header_->program, programName().c_str(), sizeof header_->program - 1);
    std::strncpy(header_->thread, threadName(), sizeof header_->thread - 1);
  }

  void _watch() {
    std::string const path = path_ + ".control";
    int const fd = inotify_.get();
    if (fd < 0 || ::inotify_add_watch(fd, path.c_str(), IN_CLOSE_WRITE) < 0) fail(path, errno);
    control_->setWrites(false);
    control_->setFd(fd);
    control_->setReads(true);
  }

  void readFdEvent(int fd) override {
    if (pid_ != ::getpid()) {  // a forked child: to read would rob the parent
      control_->delFd();
      return;
    }
    alignas(inotify_event) char events[4096];
    while (::read(fd, events, sizeof events) > 0) {
    }
    _answer(readFile(path_ + ".control"));
  }
  void writeFdEvent(int /*fd*/) override {}

  // An operator's question never ends the agent.
  bool handleFdException(int /*fd*/) override {
    VELTRO_TRACE(debug(), 1, "No answer, by exception");
    return true;
  }

  /// "NUMBER REQUEST\n". Less than that is a reader that has only begun.
  void _answer(std::string const& control) {
    U64 number = 0;
    std::istringstream line(control);
    line.imbue(std::locale::classic());
    std::string request;
    line >> number >> std::ws;
    if (!std::getline(line, request) || line.eof() || number == 0) return;
    VELTRO_TRACE(debug(), 7, "Request " << number << " " << request);
    Answer answer;
    requests_.answer(request, answer);
    std::string const body = answer.body();
    if (sizeof(Header) + body.size() > mapped_) _map(sizeof(Header) + body.size());
    _write(number, answer.sectionCount(), body);
  }

  void _write(U64 number, U32 sectionCount, std::string const& body) {
    U32 const odd = header_->sequence + 1;
    // An exchange, for no store that follows may be seen before it.
    __atomic_exchange_n(&header_->sequence, odd, __ATOMIC_ACQ_REL);
    header_->answered = number;
    header_->sectionCount = sectionCount;
    header_->bodyBytes = body.size();
    header_->takenAt = static_cast<U64>(std::chrono::steady_clock::now().time_since_epoch() /
                                        std::chrono::nanoseconds(1));
    std::memcpy(reinterpret_cast<char*>(header_) + sizeof(Header), body.data(), body.size());
    __atomic_store_n(&header_->sequence, odd + 1, __ATOMIC_RELEASE);
  }

  pid_t const pid_ = ::getpid();
  std::string const directory_;
  std::string const name_;
  std::string const path_;
  Requests requests_;
  std::unique_ptr<Mem::Shared> segment_;
  Header* header_ = nullptr;
  std::size_t mapped_ = 0;
  util::Descriptor const inotify_{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
  std::shared_ptr<Platform::FdControl> const control_ = getBackgroundFdControl(this);
};

Introspection::Introspection(TaskSchedulerRoot& root, std::string const& directory)
    : impl_(std::make_unique<Impl>(root, directory)) {}
Introspection::~Introspection() = default;

std::string Introspection::defaultDirectory() {
  return "/tmp/veltro-" + std::to_string(::geteuid());
}

std::string const& Introspection::path() const { return impl_->path(); }

}  // namespace Veltro
