#pragma once
#include "Kiv/FileDescriptor.h"
#include "Veltro/Platform.h"

namespace KivVeltro {

/// A descriptor watch on the type system's loop.
class FileDescriptor final : public Veltro::Platform::FdControl {
 public:
  class Notifiee;

  FileDescriptor(Veltro::Platform::FdEventHandler* handler, Kiv::Ptr<Kiv::FileDescriptor> entity);
  ~FileDescriptor() override;

  void setReads(bool on) override;
  void setWrites(bool on) override;
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;

 private:
  Veltro::Platform::FdEventHandler* const handler_;
  Kiv::Ptr<Kiv::FileDescriptor> const entity_;
  Kiv::Ptr<Notifiee> const notifiee_;
};

/// Hears of readiness. May outlive its owner inside one reaction.
class FileDescriptor::Notifiee final : public Kiv::FileDescriptor::Notifiee {
 public:
  Notifiee(FileDescriptor& owner, Kiv::Ptr<Kiv::FileDescriptor> entity);
  void orphan();
  void onReadableCount() override;
  void onWritableCount() override;
  void onNotificationException() override;

 private:
  FileDescriptor* owner_;  // null once it has gone
  int eventFd_ = -1;       // of the latest event: the handler may drop the descriptor, then throw
};

}  // namespace KivVeltro
