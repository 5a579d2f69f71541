#include "platform/KivFileDescriptor.h"

#include <utility>

#include "platform/OwnDebugHandler.h"

namespace KivVeltro {
namespace {

constexpr char const* kSourceFile = "Veltro/PlatformCpp";

}  // namespace

FileDescriptor::FileDescriptor(Veltro::Platform::FdEventHandler* handler,
                               Kiv::Ptr<Kiv::FileDescriptor> entity)
    : handler_(handler), entity_(entity), notifiee_(new Notifiee(*this, entity)) {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::FileDescriptor::FileDescriptor()");
}

FileDescriptor::~FileDescriptor() {
  notifiee_->orphan();
  FileDescriptor::delFd();
}

void FileDescriptor::setReads(bool on) {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::FileDescriptor::setReads():" << on);
  entity_->notifyOnReadableIs(on);
}

void FileDescriptor::setWrites(bool on) {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::FileDescriptor::setWrites():" << on);
  entity_->notifyOnWritableIs(on);
}

void FileDescriptor::setFd(int fd) {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
               "KivVeltro::FileDescriptor::setFd() registering fd:" << fd);
  entity_->nonBlockingIs(true);
  entity_->descriptorIs(fd);
}

void FileDescriptor::delFd() {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
               "KivVeltro::FileDescriptor::delFd() deleting fd:" << getFd());
  clearEvents();
  entity_->descriptorIs(-1);
}

int FileDescriptor::getFd() const { return entity_->descriptor(); }

void FileDescriptor::clearEvents() {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
               "KivVeltro::FileDescriptor::clearEvents() fd:" << getFd());
  entity_->notifyOnReadableIs(false);
  entity_->notifyOnWritableIs(false);
}

FileDescriptor::Notifiee::Notifiee(FileDescriptor& owner, Kiv::Ptr<Kiv::FileDescriptor> entity)
    : Kiv::FileDescriptor::Notifiee(std::move(entity)), owner_(&owner) {}

void FileDescriptor::Notifiee::orphan() {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
               "KivVeltro::FileDescriptor::Notifiee::orphan() fd:" << notifier().descriptor());
  owner_ = nullptr;
}

void FileDescriptor::Notifiee::onReadableCount() {
  if (owner_ == nullptr) {
    VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
                 "KivVeltro::FileDescriptor::Notifiee::onReadableCount() ignoring orphan");
    return;
  }
  eventFd_ = notifier().descriptor();
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
               "KivVeltro::FileDescriptor::onReadableCount() fd:" << eventFd_ << "readableCount:"
                                                                  << notifier().readableCount());
  owner_->handler_->readFdEvent(eventFd_);
}

void FileDescriptor::Notifiee::onWritableCount() {
  if (owner_ == nullptr) {
    VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
                 "KivVeltro::FileDescriptor::Notifiee::onWritableCount() ignoring orphan");
    return;
  }
  eventFd_ = notifier().descriptor();
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
               "KivVeltro::FileDescriptor::onWritableCount() fd:" << eventFd_ << "writableCount:"
                                                                  << notifier().writableCount());
  owner_->handler_->writeFdEvent(eventFd_);
}

void FileDescriptor::Notifiee::onNotificationException() {
  bool const answered = owner_ != nullptr && owner_->handler_->handleFdException(eventFd_);
  if (!answered) Kiv::PtrInterface::NotifieeConst::onNotificationException();
  VELTRO_TRACE(
      Veltro::ownDebugHandler(), 9,
      "FileDescriptor::Notifiee::onNotificationException: Fd notification exception was handled");
}

}  // namespace KivVeltro
