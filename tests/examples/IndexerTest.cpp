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
        id_(std::stoi(readLine(output_))) {}
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
  pid_t id() const { return id_; }
  void signal(int number) const { ::kill(id_, number); }
  Outcome end() { return rest(std::exchange(output_, nullptr)); }

 private:
  std::FILE* output_;
  pid_t const id_;
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
  /// How the answer begins, sooner or later; on the way a file that is read anew is not known for a
  /// moment.
  void becomes(std::string const& expected, std::string const& questions) const {
    std::string answer;
    for (int tries = 0; tries < 5000 && answer != expected; ++tries) {
      if (tries > 0) ::usleep(2000);
      answer = ask(questions).substr(0, expected.size());
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
  std::pair<std::string, std::string> const cases[] = {
      {"stat\n", "state done\n.\n"},
      {"find 0\n", tree + "/empty\n.\n"},
      {"find 1\n", "none\n.\n"},
      {"find x1\n", "error: find needs a hash"},
      {"find 11111111111111111\n", "error: find needs a hash"},
      {"file " + tree + "/sub/a b\n", "9 bytes, hash 995dc9bbdf1939fa\n.\n"},
      {"file " + tree + "/fifo\n", "none\n"},
      {"sing\n", "error: unknown question 'sing'"},
      {"\nstat\r\n", "state done\n"},
      {"report\n", "TaskName"},
      {"history 2\n", "Truncated due to requested limit"},
      {"history x\n", "error: history needs a number"},
      {std::string(100000, 'x'), "error: a question is a line"},
  };
  for (int const end : {SIGINT, SIGTERM, 0}) {
    Process process("--hash crc64 " + staying + "//");
    process.readUntil("indexed 2 of 2");
    for (auto const& [question, expected] : cases) EXPECT_THAT(ask(question), HasSubstr(expected));
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
      {"--hash none " + tree, 2, "indexer: no hash 'none': cannot load libIndexerHash-none.so"},
      {tree + "/missing", 1, "missing: No such file or directory"},
      {"--socket " + tree + "/empty " + tree, 0, "cannot listen"},
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

// Names become files, links, directories and nothing at random, also while it does not look, and
// once more often than the kernel keeps: it always ends up knowing what is there.
TEST_F(IndexerTest, followsWhateverHappensToTheTree) {
  Hammer hammer(200);
  std::vector<std::string> names;
  for (char const* const name : {"/a", "/b", "/a/a", "/a/b", "/b/a", "/a/a/a", "/a/b/a", "/b/a/b"})
    names.push_back(tree + name);
  auto const any = [&] { return names[hammer.chance(unsigned(names.size()))]; };
  auto const change = [&, outside = temp.path("outside")] {
    std::error_code refused;
    std::string const path = any();
    unsigned const act = hammer.chance(8);
    if (act == 0) {  // no event tells of the other names of a file
      if (fs::hard_link_count(path, refused) > 1) fs::remove(path, refused);
      write(path, std::string(hammer.chance(100), 'x'));
    }
    if (act == 1) fs::rename(path, any(), refused);
    if (act == 2) fs::create_directories(path, refused);
    if (act == 3 && fs::exists(path, refused)) fs::remove_all(path, refused);
    if (act == 4) fs::create_hard_link(path, any(), refused);
    if (act == 5) fs::create_symlink(tree + "/empty", path, refused);
    if (act == 6) fs::rename(path, outside, refused);
    if (act == 7) fs::rename(outside, path, refused);
  };
  auto const isKnown = [&] {
    std::string questions;
    std::ostringstream answers;
    answers << std::hex << std::setfill('0');
    for (std::string const& name : names) {
      questions += "file " + name + "\n";
      std::error_code notThere;
      if (fs::symlink_status(name, notThere).type() == fs::file_type::regular) {
        std::string const text = content(name);
        answers << std::to_string(text.size()) << " bytes, hash " << std::setw(16)
                << Util::hash64(text) << "\n.\n";
      } else {
        answers << "none\n.\n";
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
    if (lost || hammer.chance(2) == 0) process.signal(SIGSTOP);
    for (unsigned renames = 0; lost && renames <= kept / 4; ++renames) {
      fs::rename(tree + "/empty", tree + "/moved");
      fs::rename(tree + "/moved", tree + "/empty");
    }
    for (unsigned changes = hammer.chance(12); changes > 0; --changes) change();
    process.signal(SIGCONT);
    if (lost) process.readUntil("walking the tree again");
    isKnown();
  }
  fs::rename(tree, temp.path("elsewhere"));
  becomes("files 0\nbytes 0\n", "stat\n");
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
  std::string const table = head + "counterKeyToMemBlock['files'] = ";
  std::pair<std::string, char const*> const cases[] = {
      // the log before the start, empty where the last agent's stays; the block of "files" then
      {"", "1"},
      {table + "7\nend\n", "7"},
      {"", "7"},  // after a kill
      // No good: set aside, and begun afresh.
      {table, "1"},
      {table + "17\nend\n", "1"},
      {table + "3\ncounterKeyToMemBlock['bytes'] = 3\nend\n", "1"},
      {"Veltro::ShmemMan attribute log 1\nname = 'other'\nend\n", "1"},
  };
  inOwnVar([&] {
    std::string const log = "/var/shmem/shmem/counters/indexer/test.log";
    int aside = 0;
    U32 generation = 0;
    for (auto const& [before, block] : cases) {
      SCOPED_TRACE(before);
      if (!before.empty()) write(log, before);
      Process process("--counters test " + staying);
      std::string const said = process.readUntil("indexed 2 of 2");
      ask("stat\nfile\n");
      EXPECT_THAT(content(log), HasSubstr(std::string("['files'] = ") + block + "\n"));
      EXPECT_EQ(++generation, published(log, "files").genId);
      EXPECT_EQ(2u, published(log, "files").value);
      EXPECT_EQ(9u, published(log, "bytes").value);
      EXPECT_EQ(2u, published(log, "queries").value);
      EXPECT_EQ(0u, published(log, "errors").value);
      if (!before.empty() && *block == '1') {
        EXPECT_EQ(before, content(log + ".damaged-" + std::to_string(++aside)));
        EXPECT_THAT(said, HasSubstr("begun afresh"));
      }
      Outcome const second = Process("--counters test " + tree).end();
      EXPECT_THAT(second.text, HasSubstr("is held by process"));
      EXPECT_EQ(2, second.status);
    }
  });
}

}  // namespace
}  // namespace Veltro
