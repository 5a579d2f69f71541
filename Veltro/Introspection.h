#pragma once
#include <memory>
#include <string>

#include "Veltro/Export.h"

namespace Veltro {

class TaskSchedulerRoot;

/// Lets the scheduler of a thread be seen from outside, by `veltro top` and its like, while the
/// agent runs: the figures of its tasks, its history, the health of its loop, trace levels.
///
/// By one call, or with no call at all by the environment: VELTRO_INTROSPECT=1 does it for every
/// schedulerRootVeltro(), in defaultDirectory(); a path that begins with "/" names the directory.
///
/// Works through two files in that directory, named after program, process and thread:
/// NAME.control, which a reader writes a request into, and NAME.records, where the answer is put
/// (Veltro/IntrospectionFormat.h). There is no port, thread or signal. Nothing is measured or
/// written until a reader asks: until then a task run costs nothing, a pass of the loop a compare;
/// the watch on the control file does not keep the loop running.
/// An answer is given by the thread itself, between two tasks, in about a microsecond for each task
/// or event that it tells of.
///
/// The files belong to the user of the process, and nobody else can read them or ask.
/// For the thread of the root, which must outlive it. A forked child is not seen and disturbs
/// nothing. Destroying it removes both files; those of a killed agent are swept up by the readers.
class VELTRO_API Introspection final {
 public:
  /// Makes the directory (0700) when it is missing. One that is not a directory of this user, or
  /// whatever else is in the way, throws Kiv::ErrnoException.
  explicit Introspection(TaskSchedulerRoot& root,
                         std::string const& directory = defaultDirectory());
  ~Introspection();
  Introspection(Introspection const&) = delete;
  Introspection& operator=(Introspection const&) = delete;

  /// "/tmp/veltro-" and the effective user's number.
  static std::string defaultDirectory();
  /// Path of both files, without their endings.
  std::string const& path() const;

 private:
  class Impl;
  std::unique_ptr<Impl> const impl_;
};

}  // namespace Veltro
