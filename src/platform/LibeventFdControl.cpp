#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "Veltro/Exception.h"
#include "diag/FatalCheck.h"
#include "platform/LibeventLoop.h"

namespace Veltro {

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : handler_(handler) {
  LibeventThread& thread = LibeventThread::current();
  event_assign(&readEvent_, thread.ensureBase(), -1, 0, &handleFdRead, this);
  event_assign(&writeEvent_, thread.base, -1, 0, &handleFdWrite, this);
  baseSerial_ = thread.serial;
}

LibeventFdControl::~LibeventFdControl() {
  LibeventFdControl::delFd();
  if (gone_ != nullptr) *gone_ = true;
}

void LibeventFdControl::setFd(int fd) {
  int const flags = ::fcntl(fd, F_GETFL);
  VELTRO_FATAL_CHECK(flags >= 0);
  int const result = ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  VELTRO_FATAL_CHECK(result == 0);
  fd_ = fd;
  try {
    if (reads_) _arm(readEvent_, EV_READ, &handleFdRead);
    if (writes_) _arm(writeEvent_, EV_WRITE, &handleFdWrite);
  } catch (...) {
    LibeventFdControl::delFd();
    throw;
  }
}

void LibeventFdControl::setReads(bool on) {
  reads_ = on;
  if (fd_ < 0) return;
  if (on) {
    _arm(readEvent_, EV_READ, &handleFdRead);
  } else {
    _disarm(readEvent_);
  }
}

void LibeventFdControl::setWrites(bool on) {
  writes_ = on;
  if (fd_ < 0) return;
  if (on) {
    _arm(writeEvent_, EV_WRITE, &handleFdWrite);
  } else {
    _disarm(writeEvent_);
  }
}

// The flags stay as they are, so that a later setFd takes them up.
void LibeventFdControl::clearEvents() {
  _disarm(readEvent_);
  _disarm(writeEvent_);
}

void LibeventFdControl::delFd() {
  LibeventFdControl::clearEvents();
  fd_ = -1;
}

int LibeventFdControl::getFd() const { return fd_; }

void LibeventFdControl::_arm(event& event, short what, event_callback_fn callback) {
  _disarm(event);  // before it is assigned anew: that would corrupt the base
  LibeventThread& thread = LibeventThread::current();
  event_assign(&event, thread.ensureBase(), fd_, static_cast<short>(what | EV_PERSIST), callback,
               this);
  if (background_) event.ev_evcallback.evcb_flags |= EVLIST_INTERNAL;  // not counted as work
  baseSerial_ = thread.serial;
  if (event_add(&event, nullptr) != 0) {
    RuntimeException::throwException("libevent cannot watch descriptor " + std::to_string(fd_) +
                                     ": " + std::strerror(errno));
  }
}

void LibeventFdControl::_disarm(event& event) {
  if (LibeventThread::current().holds(baseSerial_)) event_del(&event);
  event.ev_fd = -1;
}

void LibeventFdControl::handleFdRead(evutil_socket_t, short, void* control) {
  LibeventThread::current().guard(
      [=] { static_cast<LibeventFdControl*>(control)->_call(EV_READ); });
}

void LibeventFdControl::handleFdWrite(evutil_socket_t, short, void* control) {
  LibeventThread::current().guard(
      [=] { static_cast<LibeventFdControl*>(control)->_call(EV_WRITE); });
}

void LibeventFdControl::_call(short what) {
  int const fd = fd_;  // the handler may drop it, and then throw
  HandlerCall const call(gone_);
  catching([=] { what == EV_READ ? handler_->readFdEvent(fd) : handler_->writeFdEvent(fd); },
           [&] {
             if (call.controlGone() || !handler_->handleFdException(fd)) throw;
           });
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return std::make_shared<LibeventFdControl>(handler);
}

}  // namespace Veltro
