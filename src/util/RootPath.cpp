#include "Veltro/RootPath.h"

#include "Kiv/ModelOf.h"
#include "Mem/RootPath.h"
#include "Veltro/Debug.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/RootPath";

// Never freed: root paths that go at exit still trace. Function-local: the order of loading does
// not matter.
Platform::DebugHandler& debug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("RootPath");
  return *handler;
}
[[maybe_unused]] Platform::DebugHandler& atLoad = debug();

}  // namespace

Kiv::Model const& RootPathBase::table() {
  static Kiv::Model const& made =
      Kiv::ModelOf<RootPathBase>("Veltro::RootPathBase")
          .attribute("root", &RootPathBase::root_)
          .attribute("prefix", &RootPathBase::prefix_)
          .attribute("dirName", &RootPathBase::dirName_)
          .attribute("create", &RootPathBase::create_)
          .attribute("initialized", &RootPathBase::initialized_)
          .operation("handleInitialized", &RootPathBase::handleInitialized)
          .operation("doCreate", &RootPathBase::doCreate)
          .operation("removeFile", &RootPathBase::removeFile, {"filename"})
          .operation("cleanup", &RootPathBase::cleanup)
          .operation("fullPath", &RootPathBase::fullPath, {"filename"})
          .operation("exists", &RootPathBase::exists)
          .operation("handleDestruction", &RootPathBase::handleDestruction)
          .made();
  return made;
}

Kiv::Model const& RootPath::table() {
  static Kiv::Model const& made =
      Kiv::ModelOf<RootPath>("Veltro::RootPath").base(RootPathBase::table()).made();
  return made;
}

RootPathBase::RootPathBase(Kiv::String root, Kiv::String prefix, Kiv::String dirName, bool create)
    : root_(*this, root), prefix_(*this, prefix), dirName_(*this, dirName), create_(*this, create) {
  handleInitialized();
}

RootPathBase::~RootPathBase() { handleDestruction(); }

void RootPathBase::handleInitialized() {
  if (initialized_()) return;
  platform_ = std::make_unique<Mem::RootPath>(debug(), root_(), prefix_(), dirName_(), create_());
  if (platform_->valid()) initialized_.is(true);
}

void RootPathBase::handleDestruction() { platform_.reset(); }

Mem::RootPath& RootPathBase::_platform() const {
  VELTRO_ASSERT(debug(), platform_ != nullptr, "root path " << dirName_() << " used after its end");
  return *platform_;
}

bool RootPathBase::doCreate() { return _platform().create(); }

bool RootPathBase::removeFile(Kiv::String filename) { return _platform().removeFile(filename); }

bool RootPathBase::cleanup() { return _platform().cleanup(); }

Kiv::String RootPathBase::fullPath(Kiv::String filename) const {
  return _platform().fullPath(filename);
}

bool RootPathBase::exists() const { return _platform().exists(); }

RootPath::RootPath(Kiv::String dirName, bool create)
    : RootPathBase("/var/shmem", "shmem", dirName, create) {}

RootPath::~RootPath() = default;

Kiv::Ptr<RootPathBase> rootPathBaseFactory(Kiv::String root, Kiv::String prefix,
                                           Kiv::String dirName, bool create) {
  return Kiv::allocate<RootPathBase>(root, prefix, dirName, create);
}

Kiv::Ptr<RootPath> rootPathFactory(Kiv::String dirName, bool create) {
  return Kiv::allocate<RootPath>(dirName, create);
}

}  // namespace Veltro
