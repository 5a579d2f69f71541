// The demo agent as its users meet it: a process, its output, its socket, its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

#include "Veltro/UtilCpp.h"
#include "tests/support/Hammer.h"
#include "tests/support/OwnVar.h"
#include "tests/support/Published.h"
#include "tests/support/Shell.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

using testing::HasSubstr;

/// A running indexer; both its outputs are one stream here.
class Process {
 public:
  explicit Process(std::string const& arguments)
      : output_(::popen(("echo $$; exec env LD_LIBRARY_PATH=" INDEXER_PLUGINS " " INDEXER " " +
                         arguments + " 2>&1")
                            .c_str(),
                        "r")),
        pid_(std::stoi(readLine(output_))) {}
  ~Process() {
    if (output_ != nullptr) signal(SIGKILL), end();
  }

  /// Reads up to a line that holds `text`; all that was read so far.
  std::string const& readUntil(std::string const& text) {
    for (std::string line = "\n"; !line.empty() && seen_.find(text) == std::string::npos;) {
      seen_ += line = readLine(output_);
    }
    return seen_;
  }
  pid_t id() const { return pid_; }
  void signal(int number) const { ::kill(pid_, number); }
  Outcome end() { return rest(std::exchange(output_, nullptr)); }

 private:
  std::FILE* output_;
  pid_t const pid_;
  std::string seen_;
};

void write(std::string const& path, std::string const& content) { std::ofstream(path) << content; }

std::string content(std::string const& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

struct IndexerTest : testing::Test {
  void SetUp() override {
    fs::create_directories(tree + "/sub/deeper");
    std::ofstream(tree + "/empty");
    write(tree + "/sub/a b", "123456789");
    fs::create_directory_symlink(tree, tree + "/sub/loop");
    ASSERT_EQ(0, ::mkfifo((tree + "/fifo").c_str(), 0666));
  }

  /// A connection that these lines are sent by; to an asker turned away perhaps not all of them.
  int asker(std::string const& text) const {
    int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(0, ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    return fd;
  }
  static std::string heardBy(int fd) {
    std::string answer;
    char c;
    while (::recv(fd, &c, 1, 0) == 1) answer += c;
    ::close(fd);
    return answer;
  }
  /// What is answered to these lines.
  std::string ask(std::string const& text) const { return heardBy(asker(text)); }
  /// Sooner or later; on the way a file that is read anew is not known for a moment.
  void becomes(std::string const& expected, std::string const& questions) const {
    std::string answer = ask(questions);
    for (int tries = 0; tries < 5000 && answer != expected; ++tries) {
      ::usleep(2000);
      answer = ask(questions);
    }
    EXPECT_EQ(expected, answer);
  }

  TempDir temp;
  std::string const socket = temp.path("socket");
  std::string const tree = temp.path("tree");
  std::string const at = "--socket " + socket + " " + tree;
  std::string const staying = "--stay " + at;
};

TEST_F(IndexerTest, answersQuestionsAndEndsInOrder) {
  struct {
    char const* name;
    std::string text;
    std::string expected;
  } const cases[] = {
      {"state", "stat\n", "state done\n.\n"},
      {"hash of nothing", "find 0\n", tree + "/empty\n.\n"},
      {"unknown hash", "find 1\n", "none\n.\n"},
      {"not a hash", "find x1\n", "error: find needs a hash"},
      {"too large a hash", "find 11111111111111111\n", "error: find needs a hash"},
      {"no hash", "find\n", "error: find needs a hash"},
      {"file", "file " + tree + "/sub/a b\n", "9 bytes, hash 995dc9bbdf1939fa\n.\n"},
      {"unknown file", "file " + tree + "/fifo\n", "none\n"},
      {"unknown word", "sing\n", "error: unknown question 'sing'"},
      {"empty line, and a network's line end", "\nstat\r\n", "state done\n"},
      {"report", "report\n", "TaskName"},
      {"history", "history 2\n", "Truncated due to requested limit"},
      {"no number", "history x\n", "error: history needs a number"},
      {"endless line", std::string(100000, 'x'), "error: a question is a line"},
  };
  for (int const end : {SIGINT, SIGTERM, 0}) {
    Process process("--hash crc64 " + staying + "//");
    process.readUntil("indexed 2 of 2");
    for (auto const& c : cases) EXPECT_THAT(ask(c.text), HasSubstr(c.expected)) << c.name;
    if (end == 0) {
      EXPECT_EQ("bye\n.\n", ask("quit\n"));
    } else {
      process.signal(end);
    }
    Outcome const outcome = process.end();
    EXPECT_EQ(0, outcome.status);
    EXPECT_THAT(outcome.text, HasSubstr("2 files, 9 bytes, "));
    EXPECT_FALSE(fs::exists(socket));
  }
}

TEST_F(IndexerTest, saysHowItWentAndWhatIsWrong) {
  struct {
    std::string arguments;
    int status;
    char const* line;
  } const cases[] = {
      {at, 0, "2 files, 9 bytes, "},
      {"--what", 2, "indexer: unknown option --what"},
      {"--socket", 2, "indexer: --socket needs a value"},
      {"a b", 2, "indexer: one word too many: b"},
      {"--counters a/b", 2, "indexer: --counters cannot be 'a/b'"},
      {"--hash ../x", 2, "indexer: --hash cannot be '../x'"},
      {"--hash none " + tree, 2, "indexer: no hash 'none': cannot load libIndexerHash-none.so"},
      {"''", 2, "indexer: the directory's name is empty"},
      {tree + "/missing", 1, "missing: No such file or directory"},
      {tree + "/empty", 1, "empty: Not a directory"},
      {"--socket " + tree + "/empty " + tree, 0, "cannot listen"},
      {"--socket " + tree + "/no/such " + tree, 0, "cannot listen"},
      {"--socket " + std::string(200, 'x') + " " + tree, 0, "cannot listen"},
  };
  for (auto const& c : cases) {
    Outcome const outcome = Process(c.arguments).end();
    EXPECT_THAT(outcome.text, HasSubstr(c.line));
    EXPECT_EQ(c.status, outcome.status) << c.line;
  }
  EXPECT_TRUE(fs::is_regular_file(tree + "/empty")) << "only sockets are replaced";
}

TEST_F(IndexerTest, aSocketInUseIsLeftAloneAndAnAbandonedOneReplaced) {
  Process first(staying);
  first.readUntil("indexed 2 of 2");
  EXPECT_THAT(Process(at).end().text, HasSubstr("cannot listen"));
  EXPECT_THAT(ask("stat\n"), HasSubstr("files 2"));
  first.signal(SIGKILL);
  first.end();
  EXPECT_TRUE(fs::exists(socket));
  Process second(staying);
  second.readUntil("indexed 2 of 2");
  EXPECT_EQ("bye\n.\n", ask("quit\n"));
}

// Names become files, links, directories and nothing at random, also while it does not look, and
// once more often than the kernel keeps: it always ends up knowing what is there.
TEST_F(IndexerTest, outOfDescriptorsItTurnsAskersAwayAndRecovers) {
  Process process(staying);
  process.readUntil("indexed 2 of 2");
  std::string const open = "/proc/" + std::to_string(process.id()) + "/fd/";
  auto const count = [&] {
    return std::distance(fs::directory_iterator(open), fs::directory_iterator());
  };
  rlimit usual{};
  ::prlimit(process.id(), RLIMIT_NOFILE, nullptr, &usual);
  auto const limitIs = [&](rlim_t most) {
    rlimit const limit{most, usual.rlim_max};
    ::prlimit(process.id(), RLIMIT_NOFILE, &limit, nullptr);
  };
  auto const all = count();
  limitIs(3);
  int const waiting = asker("stat\n");
  while (count() == all) ::usleep(1000);  // until it has lost the one in reserve
  limitIs(usual.rlim_cur);
  EXPECT_THAT(heardBy(waiting), HasSubstr("state done"));
  rlim_t used = 0;
  while (fs::is_symlink(open + std::to_string(used))) ++used;
  limitIs(used);
  for (int i = 0; i < 2; ++i) EXPECT_EQ("", ask("stat\n"));
  limitIs(usual.rlim_cur);
  EXPECT_THAT(ask("stat\n"), HasSubstr("state done"));
}

TEST_F(IndexerTest, followsWhateverHappensToTheTree) {
  Hammer hammer(200);
  std::vector<std::string> names;
  for (char const* const name : {"/a", "/b", "/a/a", "/a/b", "/b/a", "/a/a/a", "/a/b/a", "/b/a/b"})
    names.push_back(tree + name);
  auto const any = [&] { return names[hammer.chance(unsigned(names.size()))]; };
  auto const change = [&, outside = temp.path("outside")] {
    std::error_code refused;
    std::string const path = any();
    switch (hammer.chance(8)) {
      case 0:  // no event tells of the other names of a file
        if (fs::hard_link_count(path, refused) > 1) fs::remove(path, refused);
        return write(path, std::string(hammer.chance(100), 'x'));
      case 1:
        return fs::rename(path, any(), refused);
      case 2:
        return void(fs::create_directories(path, refused));
      case 3:
        if (fs::exists(path, refused)) fs::remove_all(path, refused);
        return;
      case 4:
        return fs::create_hard_link(path, any(), refused);
      case 5:
        return fs::create_symlink(tree + "/empty", path, refused);
      case 6:
        return fs::rename(path, outside, refused);
      default:
        return fs::rename(outside, path, refused);
    }
  };
  auto const isKnown = [&] {
    std::set<std::string> files;
    for (auto const& entry : fs::recursive_directory_iterator(tree)) {
      if (fs::is_regular_file(entry.symlink_status())) files.insert(entry.path());
    }
    std::string questions;
    std::ostringstream answers;
    for (std::string const& name : names) {
      questions += "file " + name + "\n";
      if (files.count(name) == 0) {
        answers << "none\n.\n";
      } else {
        std::string const text = content(name);
        answers << text.size() << " bytes, hash " << std::hex << std::setfill('0') << std::setw(16)
                << Util::hash64(text) << std::dec << "\n.\n";
      }
    }
    becomes(answers.str(), questions);
  };

  Process process(staying);
  process.readUntil("indexed 2 of 2");
  unsigned kept = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> kept;
  for (unsigned round = 0; round <= hammer.rounds() && !HasFailure(); ++round) {
    bool const lost = round == hammer.rounds();
    bool const unseen = lost || hammer.chance(2) == 0;
    if (unseen) process.signal(SIGSTOP);
    for (unsigned renames = 0; lost && renames <= kept / 4; ++renames) {
      fs::rename(tree + "/empty", tree + "/moved");
      fs::rename(tree + "/moved", tree + "/empty");
    }
    for (unsigned changes = hammer.chance(12); changes > 0; --changes) change();
    process.signal(SIGCONT);
    if (lost) process.readUntil("walking the tree again");
    isKnown();
  }
  change();
  isKnown();
  fs::rename(tree, temp.path("elsewhere"));
  becomes("none\n.\n", "file " + tree + "/empty\n");
  EXPECT_THAT(ask("stat\n"), HasSubstr("files 0\nbytes 0\n"));
}

TEST_F(IndexerTest, goesOnWithoutWatchesAndSaysSo) {
  inChild([this] {
    if (::unshare(CLONE_NEWUSER) != 0) return;  // a limit of its own takes a namespace
    write("/proc/self/uid_map", "0 " + std::to_string(::geteuid()) + " 1\n");
    write("/proc/sys/user/max_inotify_watches", "2\n");
    if (content("/proc/sys/user/max_inotify_watches") != "2\n") return;
    Process process(staying);
    EXPECT_THAT(process.readUntil("indexed 2 of 2"), HasSubstr("no watches left"));
    EXPECT_THAT(ask("stat\n"), HasSubstr("watched 2\nunwatched 1\n"));
    fs::remove(tree + "/sub/a b");
    becomes("none\n.\n", "file " + tree + "/sub/a b\n");
  });
}

TEST_F(IndexerTest, publishesCountersThatKeepTheirBlocks) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  std::string const head = "Veltro::ShmemMan attribute log 1\nname = 'test'\n";
  std::string const afresh = "begun afresh";
  struct {
    char const* name;
    std::string log;  // written before the start; empty: as the last agent left it
    std::string said;
    char const* block;  // of "files"
  } const cases[] = {
      {"the first", "", "counting in", "1"},
      {"after a kill", "", "counting in", "1"},
      {"the table counts, not the order of keys", head + "counterKeyToMemBlock['files'] = 7\nend\n",
       "counting in", "7"},
      {"and is kept", "", "counting in", "7"},
      {"damaged", head + "counterKeyToMemBlock['files'] = ", afresh, "1"},
      {"no such block", head + "counterKeyToMemBlock['files'] = 17\nend\n", afresh, "1"},
      {"a block twice",
       head + "counterKeyToMemBlock['files'] = 3\ncounterKeyToMemBlock['bytes'] = 3\nend\n", afresh,
       "1"},
      {"another's", "Veltro::ShmemMan attribute log 1\nname = 'other'\nend\n", afresh, "1"},
  };
  inOwnVar([&] {
    std::string const log = "/var/shmem/shmem/counters/indexer/test.log";
    int aside = 0;
    U32 generation = 0;
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      if (!c.log.empty()) write(log, c.log);
      Process process("--counters test " + staying);
      EXPECT_THAT(process.readUntil("indexed 2 of 2"), HasSubstr(c.said));
      ask("stat\nfile\n");
      EXPECT_THAT(content(log), HasSubstr(std::string("['files'] = ") + c.block + "\n"));
      EXPECT_EQ(++generation, published(log, "files").genId);
      EXPECT_EQ(2u, published(log, "files").value);
      EXPECT_EQ(9u, published(log, "bytes").value);
      EXPECT_EQ(2u, published(log, "queries").value);
      EXPECT_EQ(0u, published(log, "errors").value);
      if (c.said == afresh) {
        EXPECT_EQ(c.log, content(log + ".damaged-" + std::to_string(++aside)));
      }
      Outcome const second = Process("--counters test " + tree).end();
      EXPECT_THAT(second.text, HasSubstr("is held by process"));
      EXPECT_EQ(2, second.status);
    }
  });
}

}  // namespace
}  // namespace Veltro
