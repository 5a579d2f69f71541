// docs/promises.md names for each promise the tests that keep it: they exist.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "Veltro/TimerTask.h"
#include "tests/platform/Backends.h"
#include "tests/survive/Outside.h"

namespace {

std::string contents(std::string const& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(PromisesTest, everyLinkLeadsToATest) {
  std::string const root = VELTRO_SOURCE_DIR;
  std::string const promises = contents(root + "/docs/promises.md");
  // [Suite.test](../tests/room/File.cpp)
  std::regex const link(R"(\[(\w+)\.(\w+)\]\(\.\./([\w/.]+)\))");
  unsigned count = 0;
  for (std::sregex_iterator it(promises.begin(), promises.end(), link), end; it != end; ++it) {
    std::string const suite = (*it)[1], test = (*it)[2], path = (*it)[3];
    std::regex const definition("(TEST|TEST_F|TEST_P|TYPED_TEST)\\(" + suite + ", " + test + "\\)");
    EXPECT_TRUE(std::regex_search(contents(root + "/" + path), definition)) << (*it)[0];
    ++count;
  }
  std::regex const promise("\n- \\*\\*");
  auto const promised = std::distance(
      std::sregex_iterator(promises.begin(), promises.end(), promise), std::sregex_iterator());
  EXPECT_LE(14, promised);
  EXPECT_LE(promised, static_cast<std::ptrdiff_t>(count)) << "one without a test";
}

// Using loops, tasks and controls asks the system for nothing unasked.
TEST(PromisesTest, noSignalPortOrThreadUnlessAskedFor) {
  namespace fs = std::filesystem;
  Veltro::Outside const outside;  // the loop's time may be far on from another test
  // Threads, descriptors and what is done about signals; epoll sets and timers are no sockets.
  auto const possessions = [] {
    std::ostringstream text;
    for (auto const& thread : fs::directory_iterator("/proc/self/task")) text << thread << '\n';
    for (auto const& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code gone;  // the walk's own descriptor
      std::string const target = fs::read_symlink(entry.path(), gone).string();
      if (target.find("socket:") != std::string::npos) text << target << '\n';
    }
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      // SigQ counts those of the user's other processes too.
      bool const own = line.compare(0, 3, "Sig") == 0 && line.compare(0, 4, "SigQ") != 0;
      if (own) text << line << '\n';
    }
    return text.str();
  };
  std::string const before = possessions();

  struct Job final : Veltro::TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {}
  };
  auto const job =
      std::make_shared<Job>(Veltro::schedulerRootVeltro(), Veltro::TaskPriority::normal, "job");
  job->scheduleTaskDelay(0.001);
  Veltro::FdEvents events;
  auto const fd = Veltro::Platform::getFdControl(&events);
  fd->setReads(true);
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  fd->setFd(ends[0]);
  fd->delFd();
  for (int const end : ends) ::close(end);
  Veltro::Platform::doEventLoop();
  Veltro::leInit();
  Veltro::doLeEventLoop(0.001);
  EXPECT_EQ(1u, job->taskRunCount());
  EXPECT_EQ(before, possessions());
  Veltro::leFree();
}

}  // namespace
