#include "Kiv/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>
#include <string>

#include "Kiv/Exception.h"
#include "Loop.h"

namespace Kiv {

FileDescriptor::FileDescriptor(Name name) : name_(name) {}
FileDescriptor::~FileDescriptor() { Loop::instance().poller().unwatch(*this); }

void FileDescriptor::descriptorIs(int descriptor) {
  Poller& poller = Loop::instance().poller();
  poller.unwatch(*this);
  if (descriptor == -1) return;
  if (nonBlocking_) _makeNonBlocking(descriptor);
  poller.watch(*this, descriptor);
}

void FileDescriptor::nonBlockingIs(bool on) {
  if (nonBlocking_ == on) return;  // the present one may have been closed since
  if (on && descriptor_ >= 0) _makeNonBlocking(descriptor_);
  nonBlocking_ = on;
}

void FileDescriptor::notifyOnReadableIs(bool on) {
  _interestIs(&FileDescriptor::notifyOnReadable_, on);
}
void FileDescriptor::notifyOnWritableIs(bool on) {
  _interestIs(&FileDescriptor::notifyOnWritable_, on);
}

void FileDescriptor::_interestIs(bool FileDescriptor::*interest, bool on) {
  if (this->*interest == on) return;
  this->*interest = on;
  if (descriptor_ < 0) return;
  int const error = Loop::instance().poller().interestsChanged(descriptor_);
  if (!on || error == 0) return;
  this->*interest = false;
  throw ErrnoException("descriptor " + std::to_string(descriptor_), error);
}

void FileDescriptor::_makeNonBlocking(int descriptor) const {
  int const flags = ::fcntl(descriptor, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK) != 0) return;
  if (flags < 0 || ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != 0) {
    throw ErrnoException("descriptor " + std::to_string(descriptor), errno);
  }
}

U32 FileDescriptor::_interests() const {
  return (notifyOnReadable_ ? U32{EPOLLIN} : 0) | (notifyOnWritable_ ? U32{EPOLLOUT} : 0);
}

FileDescriptor::Notifiee::Notifiee(Ptr<FileDescriptor> entity) : notifier_(std::move(entity)) {
  if (!notifier_) throwNullValidPtr();
  if (notifier_->notifiee_ != nullptr) {
    throw RangeException("FileDescriptor " + notifier_->name().stdString() + " has a notifiee");
  }
  notifier_->notifiee_ = this;
}

FileDescriptor::Notifiee::~Notifiee() {
  notifier_->notifiee_ = nullptr;
  Loop::instance().reaction().forget(*this);
}

void FileDescriptor::Notifiee::onZeroReferences() {
  if (!Loop::instance().reaction().takesOver(*this)) NotifieeConst::onZeroReferences();
}

}  // namespace Kiv
