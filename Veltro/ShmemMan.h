#pragma once
#include <map>

#include "Kiv/Attribute.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "Kiv/Queue.h"
#include "Kiv/String.h"
#include "Veltro/Platform.h"
#include "Veltro/RootPath.h"

namespace Veltro {

/// Hands out fixed-size counter blocks, named by key, in one file that several processes map.
///
///     auto man = Kiv::allocate<Veltro::ShmemMan>("mgr", "indexer", 1024u);
///     U64 const block = man->counterAddr("files", 64, false);
///     man->shmemGenIdIs("files", 64, genId);
///     Veltro::BlockCounter files(block);                      // Veltro/BlockCounter.h
///
/// The file is /var/shmem/shmem/counters/BASENAME/NAME: maxCounters blocks of counterSize bytes,
/// back to back, no header. Block b, from 1, begins at byte (b - 1) * counterSize. Of a block that
/// was (re)started the first 4 bytes are its generation id in native byte order, never 0 by
/// convention; the rest is its owner's, zeroed at the start. 64-bit counters in blocks need
/// alignment and whole stores: see BlockCounter.
///
/// The size of blocks is kept nowhere: all callers for one file pass the same counterSize. Nor
/// does the file say which key has which block: that is counterKeyToMemBlock, kept by the
/// attribute log (Kiv/AttributeLog.h). Save the log when keys were added, load it at the next
/// start, restart each block with a new generation id. Who shares a file must share maxCounters,
/// counterSize and that table; nothing arbitrates between processes.
///
/// Lifecycle: made, then mapped by the first counterAddr() that needs it, then done with after
/// munmapFile(). Destroying it neither unmaps nor removes the file.
///
/// Faults in the program (a second block for a key, more keys than blocks, blocks outside the
/// file) end the process as the standard assert does, in every build.
/// Traces to "ShmemMan": level 9 progress, level 5 failures. One thread's; nothing is locked.
class VELTRO_API ShmemMan final : public Kiv::Entity {
 public:
  /// Reactor to changes; derive from it.
  class VELTRO_API Notifiee : public Kiv::NotifieeOf<ShmemMan> {
   public:
    using NotifieeOf::NotifieeOf;
    /// The key was added, given another block, or removed.
    virtual void onCounterKeyToMemBlock(Kiv::String const& /*key*/) {}
    virtual void onInitialized() {}
  };
  /// Block numbers by key, and the indices of the free queue.
  using Blocks = std::map<Kiv::String, U32>;
  using MemBlocksAvailMetadata = Kiv::Queue<U32>::Metadata;

  /// Nothing is mapped or made yet.
  ShmemMan(Kiv::Name name, Kiv::String baseName, U32 maxCounters);

  /// The last part of the file's path.
  Kiv::Name name() const { return name_(); }
  /// The name that a log holds; the root path follows it unless the file is mapped.
  void nameIsFromBackup(Kiv::Name name);
  /// The directory's name, and how many blocks the file has.
  Kiv::String baseName() const { return baseName_(); }
  U32 maxCounters() const { return maxCounters_(); }

  /// The directory of the file; null without one.
  Kiv::Ptr<RootPath> rootPath() const { return rootPath_(); }
  /// Keeps the root path if it is that one, else makes it. No memory:
  /// Kiv::RangeException("null ValidPtr").
  Kiv::Ptr<RootPath> rootPathIs(Kiv::String dirName, bool create);
  /// Lets it go.
  void rootPathDel() { rootPath_.is(nullptr); }
  /// The counter file's full path; "" without a root path.
  Kiv::String fileName() const;
  /// Bytes asked for by mmapFile().
  U64 fileSize() const { return fileSize_(); }
  /// Where the file is mapped in this process; 0 until it is.
  U64 mmapStartAddr() const { return mmapStartAddr_(); }

  /// The address of the key's block. Maps the file, which is then counterSize * maxCounters bytes
  /// long (a product of 32 bits), and gives an unknown key the next free block. A reader
  /// (`readFlag`) gets 0 for an unknown key, and nothing is mapped or made.
  /// Fails as mmapFile() and newCounterBlock() do; no free block, and a block that does not lie
  /// in the file, end the process.
  U64 counterAddr(Kiv::String counterKey, U32 counterSize, bool readFlag);
  /// Gives the key, which has none yet, the next free block; 0 when all are taken.
  /// AssertException while newBlockForbidden().
  U32 newCounterBlock(Kiv::String counterKey);
  /// Restarts the key's block: generation id, and zeros behind it. Processes that read meanwhile
  /// see generation 0, then the new one with zeros (see BlockCounter::Sample).
  /// The key has a block, the file is mapped, counterSize is at least 4: else the process ends.
  void shmemGenIdIs(Kiv::String counterKey, U32 counterSize, U32 genId);
  /// Maps the file, making it and its directories if missing, and growing it to `fileSize`; true.
  /// Once mapped it stays as it is, whatever size is given. What cannot be mapped, or would be
  /// reached over a link below the root, throws Kiv::ErrnoException("Failed mmap file"), its
  /// errnum() as Mem::Shared::attach and Mem::RootPath::create say.
  bool mmapFile(U64 const& fileSize);
  /// Unmaps, and removes the file if asked. Failures are traced only. The addresses that were
  /// handed out are dead, and this entity is finished with: it keeps its attributes and maps
  /// nothing more.
  void munmapFile(bool unlinkFile);

  /// While true, newCounterBlock() throws.
  bool newBlockForbidden() const { return newBlockForbidden_(); }
  void newBlockForbiddenIs(bool forbidden) { newBlockForbidden_.is(forbidden); }

  /// The key's block, from 1; 0 when it has none.
  U32 counterKeyToMemBlock(Kiv::String const& key) const { return counterKeyToMemBlock_(key); }
  /// All of them, by key.
  Blocks const& counterKeyToMemBlock() const { return counterKeyToMemBlock_.all(); }
  /// Gives the key that block, whoever else may have it.
  void counterKeyToMemBlockIs(Kiv::String const& key, U32 block);
  /// Removes the key and returns its block, 0 if it had none. The block stays out of use: only a
  /// manager that builds its free queue later hands it out again.
  U32 counterKeyToMemBlockDel(Kiv::String const& key) { return counterKeyToMemBlock_.del(key); }
  /// Removes all keys; their blocks stay out of use.
  void counterKeyToMemBlockDelAll() { counterKeyToMemBlock_.delAll(); }

  /// The free blocks, front first: built by the first newCounterBlock(), in ascending order.
  bool memBlocksAvailInitialized() const { return memBlocksAvailInitialized_(); }
  std::size_t memBlocksAvail() const { return memBlocksAvail_.size(); }
  U32 memBlocksAvail(U32 index) const { return memBlocksAvail_(index); }
  MemBlocksAvailMetadata memBlocksAvailMetadata() const { return memBlocksAvail_.metadata(); }
  /// Returns the element's index. Kiv::RangeException("linkqueue index space full") when the last
  /// index has been used.
  U32 memBlocksAvailEnq(U32 block) { return memBlocksAvail_.enq(block); }
  /// 0 from an empty queue.
  U32 memBlocksAvailDeq() { return memBlocksAvail_.deq(); }
  /// As of any queue (Kiv/Queue.h).
  void memBlocksAvailIs(U32 index, U32 block) { memBlocksAvail_.is(index, block); }
  U32 memBlocksAvailDel(U32 index) { return memBlocksAvail_.del(index); }
  void memBlocksAvailDelAll() { memBlocksAvail_.delAll(); }
  void memBlocksAvailMetadataIs(MemBlocksAvailMetadata metadata) {
    memBlocksAvail_.metadataIs(metadata);
  }

  bool initialized() const { return initialized_(); }
  void initializedIs(bool initialized) { initialized_.is(initialized); }
  /// Run by the constructor; sets the root path, once.
  void handleInitialized();
  /// Run by the destructor; lets the root path go.
  void handleDestruction();
  /// What the last Ptr does as it goes: destroys the entity. Nothing while somebody holds it.
  void zeroReferencesIs();

  Kiv::Model const& model() const override { return table(); }
  static Kiv::Model const& table();

 private:
  ~ShmemMan() override;
  void onZeroReferences() override { zeroReferencesIs(); }
  void handleRestored() override;
  Kiv::String _dirName() const;
  void _setUpMemBlocksAvail();
  U64 _blockAddr(U32 number, U32 counterSize) const;

  Kiv::Attribute<Kiv::Name> name_;
  Kiv::Attribute<Kiv::String> baseName_;
  Kiv::Attribute<U32> maxCounters_;
  Kiv::Attribute<Kiv::Ptr<RootPath>> rootPath_{*this};
  Kiv::Attribute<U64> fileSize_{*this};
  Kiv::Collection<Kiv::String, U32> counterKeyToMemBlock_{*this, &Notifiee::onCounterKeyToMemBlock};
  Kiv::Attribute<U64> mmapStartAddr_{*this};
  Kiv::Attribute<bool> newBlockForbidden_{*this};
  Kiv::Attribute<bool> memBlocksAvailInitialized_{*this};
  Kiv::Queue<U32> memBlocksAvail_{*this};
  Kiv::Attribute<bool> initialized_{*this, &Notifiee::onInitialized};
  bool unmapped_ = false;  // munmapFile() was here: what lies at mmapStartAddr is not ours
};

}  // namespace Veltro
