#include "Veltro/ShmemMan.h"

#include <libgen.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Mem/Shared.h"
#include "ShmemMan.model.h"
#include "Veltro/Debug.h"
#include "diag/FatalCheck.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/ShmemMan";

constexpr unsigned kFailure = 5;
constexpr unsigned kProgress = 9;

Kiv::TraceHandle const& trace() {
  static auto* const handle = new Kiv::TraceHandle("ShmemMan", 0);
  return *handle;
}

bool tracing(unsigned level) {
  auto const* const levels = trace().facility()->levelsEnabledPtr();
  return (__atomic_load_n(levels, __ATOMIC_RELAXED) & (1u << level)) != 0;
}

// Each message begins with the process, for several share the file. `text` is a chain of <<,
// composed only when the level is on.
#define SHMEM_TRACE(level, text)                                                                  \
  do {                                                                                            \
    if (tracing(level)) {                                                                         \
      Platform::DebugStream stream;                                                               \
      stream << "pid:" << ::getpid() << " " << text;                                              \
      Kiv::traceHelper(trace(), level, 1, kSourceFile, __LINE__, __func__, stream.str().c_str()); \
    }                                                                                             \
  } while (0)

constexpr char const* kCounterAddr = "U64 Veltro::ShmemMan::counterAddr(Kiv::String, U32, bool)";
constexpr char const* kShmemGenIdIs = "void Veltro::ShmemMan::shmemGenIdIs(Kiv::String, U32, U32)";
constexpr char const* kMmapFile = "bool Veltro::ShmemMan::mmapFile(const U64&)";

// How much of the file is mapped for a file size: its low 32 bits, and a page at least.
std::size_t mappedBytes(U64 fileSize) { return std::max<U32>(static_cast<U32>(fileSize), 1); }

void* pointer(U64 address) { return reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)); }

/// Makes the file's directory, or says in errno why not. Mem::Shared would make it too, but does
/// not know where the root ends: below it a planted link, or a "..", may lead nowhere else.
bool madeDirectory(Kiv::Ptr<RootPath> const& path) {
  errno = EINVAL;
  if (!path || !path->initialized()) return false;
  std::string dirName = path->dirName();
  return rootPathFactory(::dirname(dirName.data()), true)->initialized();
}

void* attached(std::string directory, std::string file, U64 fileSize) {
  Mem::Shared segment(::dirname(directory.data()), ::basename(file.data()), true,
                      Mem::Shared::SHARED_DEFAULT_FLAGS, true);
  return segment.attach(static_cast<U32>(fileSize), Mem::Mode::shared, true, "");
}

}  // namespace

ShmemMan::ShmemMan(Kiv::Name name, Kiv::String baseName, U32 maxCounters)
    : name_(*this, name), baseName_(*this, baseName), maxCounters_(*this, maxCounters) {
  handleInitialized();
}

ShmemMan::~ShmemMan() { handleDestruction(); }

void ShmemMan::handleInitialized() {
  if (initialized_()) return;
  rootPathIs(_dirName(), false);
  initialized_.is(true);
}

void ShmemMan::handleDestruction() { rootPathDel(); }

void ShmemMan::zeroReferencesIs() {
  if (references() == 0) delete this;
}

Kiv::String ShmemMan::_dirName() const {
  return "counters/" + baseName_().stdString() + "/" + name_().stdString();
}

void ShmemMan::nameIsFromBackup(Kiv::Name name) {
  name_.is(name);
  if (mmapStartAddr_() == 0) rootPathIs(_dirName(), false);
}

// The log may name another file, and give blocks to keys that the free queue, if it is there
// already, still holds.
void ShmemMan::handleRestored() {
  nameIsFromBackup(name_());
  std::set<U32> used;
  for (auto const& entry : counterKeyToMemBlock_.all()) used.insert(entry.second);
  auto const free = memBlocksAvail_.all();
  for (auto const& [index, block] : free) {
    if (used.count(block) > 0) memBlocksAvail_.del(index);
  }
}

Kiv::Ptr<RootPath> ShmemMan::rootPathIs(Kiv::String dirName, bool create) {
  auto const& held = rootPath_();
  if (!held || held->dirName() != dirName || held->create() != create) {
    rootPath_.is(rootPathFactory(dirName, create));
  }
  return rootPath_();
}

Kiv::String ShmemMan::fileName() const {
  return rootPath_() ? rootPath_()->fullPath("") : Kiv::String();
}

U64 ShmemMan::counterAddr(Kiv::String counterKey, U32 counterSize, bool readFlag) {
  bool const quiet = !tracing(kProgress);  // asked once: most calls are for a block that is there
  SHMEM_TRACE(kProgress, kCounterAddr);
  U32 block = counterKeyToMemBlock_(counterKey);
  if (quiet && block != 0 && mmapStartAddr_() != 0) return _blockAddr(block, counterSize);
  SHMEM_TRACE(kProgress,
              kCounterAddr << " lookup block for key: " << counterKey << " block: " << block);
  if (block == 0 && readFlag) return 0;
  SHMEM_TRACE(kProgress, "mmapFile for read/write:");
  mmapFile(counterSize * maxCounters_());
  if (block == 0) {
    VELTRO_FATAL_CHECK(!readFlag);
    block = newCounterBlock(counterKey);
    SHMEM_TRACE(kProgress,
                kCounterAddr << " allocate block for key: " << counterKey << " block: " << block);
    VELTRO_FATAL_CHECK(block);
  }
  return _blockAddr(block, counterSize);
}

// The product of sizes has 32 bits, and restored tables hold any number: a block that does not
// lie in the mapping whole is as good as none.
U64 ShmemMan::_blockAddr(U32 number, U32 counterSize) const {
  bool const block = U64{number} * counterSize <= static_cast<U32>(fileSize_());
  VELTRO_FATAL_CHECK(block);
  return mmapStartAddr_() + U64{number - 1} * counterSize;
}

U32 ShmemMan::newCounterBlock(Kiv::String counterKey) {
  if (newBlockForbidden_()) {
    Platform::DebugStream text;
    text << "creation of new block has been explicitly forbidden";
    debugAndThrowAssertException(nullptr, 0, text, kSourceFile, __func__, __LINE__);
  }
  if (!memBlocksAvailInitialized_()) _setUpMemBlocksAvail();
  SHMEM_TRACE(kProgress, "newCounterBlock - counterKey: " << counterKey);
  // The blanks are part of the message.
  // clang-format off
  VELTRO_FATAL_CHECK(!counterKeyToMemBlock( counterKey ));
  // clang-format on
  U32 const block = memBlocksAvailDeq();
  counterKeyToMemBlockIs(counterKey, block);
  SHMEM_TRACE(kProgress, "newCounterBlock - assign " << counterKey << " to use block# " << block);
  return block;
}

void ShmemMan::_setUpMemBlocksAvail() {
  SHMEM_TRACE(kProgress, "newCounterBlock - setting up memBlocksAvail");
  memBlocksAvailInitialized_.is(true);
  std::map<U32, Kiv::String> users;  // of blocks that several keys share, the first
  for (auto const& [key, block] : counterKeyToMemBlock_.all()) users.emplace(block, key);
  // A number of 64 bits: one of 32 never passes the greatest maxCounters.
  for (U64 number = 1; number <= maxCounters_(); ++number) {
    auto const block = static_cast<U32>(number);
    auto const user = users.find(block);
    if (user == users.end()) {
      memBlocksAvailEnq(block);
    } else {
      SHMEM_TRACE(kProgress, "newCounterBlock setting up memBlocksAvail - block:"
                                 << block << " is inuse by " << user->second << ".");
    }
  }
}

void ShmemMan::counterKeyToMemBlockIs(Kiv::String const& key, U32 block) {
  counterKeyToMemBlock_.is(key, block);
}

void ShmemMan::shmemGenIdIs(Kiv::String counterKey, U32 counterSize, U32 genId) {
  SHMEM_TRACE(kProgress, kShmemGenIdIs << " key:" << counterKey << " genId:" << genId);
  U32 const block = counterKeyToMemBlock_(counterKey);
  VELTRO_FATAL_CHECK(block);
  bool const mapped = mmapStartAddr_() != 0 && !unmapped_;
  VELTRO_FATAL_CHECK(mapped);
  VELTRO_FATAL_CHECK(counterSize >= sizeof genId);
  auto* const bytes = static_cast<char*>(pointer(_blockAddr(block, counterSize)));
  // Readers see generation 0 before any other change, and the new one after all of them: the
  // processor keeps the order of stores, and the fences make the compiler keep it.
  std::memset(bytes, 0, sizeof genId);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  std::memset(bytes + sizeof genId, 0, counterSize - sizeof genId);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  std::memcpy(bytes, &genId, sizeof genId);  // the size of blocks may leave it unaligned
}

bool ShmemMan::mmapFile(U64 const& fileSize) {
  SHMEM_TRACE(kProgress, kMmapFile << " filename: " << fileName());
  if (mmapStartAddr_() != 0) {
    SHMEM_TRACE(kProgress, "filename: " << fileName() << " already mmapped.");
    return true;
  }
  Kiv::String const file = fileName();
  SHMEM_TRACE(kProgress, "need to mmap " << file);
  fileSize_.is(fileSize);
  void* const address = madeDirectory(rootPath_()) ? attached(file, file, fileSize) : nullptr;
  if (address == nullptr) {
    int const reason = errno;
    SHMEM_TRACE(kFailure, "Failed to mmap " << file);
    throw Kiv::ErrnoException("Failed mmap file", reason);
  }
  mmapStartAddr_.is(reinterpret_cast<std::uintptr_t>(address));
  return true;
}

void ShmemMan::munmapFile(bool unlinkFile) {
  if (mmapStartAddr_() == 0) return;
  if (!std::exchange(unmapped_, true) &&
      ::munmap(pointer(mmapStartAddr_()), mappedBytes(fileSize_())) != 0) {
    int const reason = errno;
    SHMEM_TRACE(kFailure, "Failed to munmap " << fileName() << " at address " << mmapStartAddr_()
                                              << ": " << std::strerror(reason));
  }
  if (!unlinkFile || ::unlink(fileName().charPtr()) == 0 || errno == ENOENT) return;
  int const reason = errno;
  SHMEM_TRACE(kFailure, "unlink() error " << fileName() << ": " << std::strerror(reason));
}

}  // namespace Veltro
