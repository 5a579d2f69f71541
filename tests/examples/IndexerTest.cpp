// The demo agent as its users meet it: a process, its output, its socket, its exit status.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "Kiv/AttributeLog.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/ShmemMan.h"
#include "tests/support/OwnVar.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace {

using testing::HasSubstr;

// A running indexer; both its outputs are one stream here.
class Process {
 public:
  explicit Process(std::vector<std::string> arguments) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ends[1], 1);
      ::dup2(ends[1], 2);
      std::vector<char*> words{const_cast<char*>(INDEXER)};
      for (auto& argument : arguments) words.push_back(&argument[0]);
      words.push_back(nullptr);
      ::setenv("LD_LIBRARY_PATH", INDEXER_PLUGINS, 1);
      ::execv(INDEXER, words.data());
      ::_exit(127);
    }
    ::close(ends[1]);
    output_ = ::fdopen(ends[0], "r");
  }
  ~Process() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
    std::fclose(output_);
  }

  // Reads up to a line that holds `text`; all that was read so far.
  std::string const& readUntil(std::string const& text) {
    char line[4096];
    while (seen_.find(text) == std::string::npos &&
           std::fgets(line, sizeof line, output_) != nullptr) {
      seen_ += line;
    }
    return seen_;
  }
  std::string const& readAll() { return readUntil("\1"); }
  void signal(int number) { ::kill(pid_, number); }
  int wait() {
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t pid_;
  std::FILE* output_;
  std::string seen_;
};

sockaddr_un addressOf(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

// Sends the text as it stands and reads the answers to its questions.
std::string ask(std::string const& path, std::string const& text, int answers) {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un const address = addressOf(path);
  std::string answer;
  if (::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
      ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size())) {
    char c;
    while (answers > 0 && ::recv(fd, &c, 1, 0) == 1) {
      answer += c;
      bool const dot =
          answer == ".\n" || (answer.size() > 2 && answer.substr(answer.size() - 3) == "\n.\n");
      if (dot) --answers;
    }
  }
  ::close(fd);
  return answer;
}

void write(std::string const& path, std::string const& content) { std::ofstream(path) << content; }

struct IndexerTest : testing::Test {
  Veltro::TempDir temp;
  std::string const socket = temp.path("socket");
  std::string const tree = temp.path("tree");

  void SetUp() override {
    fs::create_directories(tree + "/sub/deeper");
    std::ofstream(tree + "/empty");
    write(tree + "/sub/a", "a");
    write(tree + "/sub/deeper/another a", "a");
    fs::create_directory_symlink(tree, tree + "/sub/loop");
    ASSERT_EQ(0, ::mkfifo((tree + "/fifo").c_str(), 0666));
  }

  // Asks until the answer comes; what it was at the end.
  std::string askUntil(std::string const& question, std::string const& expected) const {
    std::string answer;
    for (int tries = 0; tries < 2000 && answer.find(expected) == std::string::npos; ++tries) {
      if (tries > 0) ::usleep(10000);
      answer = ask(socket, question + "\n", 1);
    }
    return answer;
  }
};

TEST_F(IndexerTest, indexesATreeAndSaysSo) {
  Process process({"--socket", socket, tree});
  EXPECT_THAT(process.readAll(), HasSubstr("3 files, 2 bytes, "));
  EXPECT_EQ(0, process.wait());
  EXPECT_FALSE(fs::exists(socket));
}

TEST_F(IndexerTest, answersQuestions) {
  Process process({"--stay", "--socket", socket, tree});
  process.readUntil("indexed 3 of 3");
  struct {
    char const* name;
    std::string text;
    int answers;
    std::string expected;
  } const cases[] = {
      {"state", "stat\n", 1, "state done\n.\n"},
      {"hash of nothing", "find cbf29ce484222325\n", 1, tree + "/empty\n.\n"},
      {"unknown hash", "find 1\n", 1, "none\n.\n"},
      {"not a hash", "find x1\n", 1, "error: find needs a hash"},
      {"too large a hash", "find 11111111111111111\n", 1, "error: find needs a hash"},
      {"no hash", "find\n", 1, "error: find needs a hash"},
      {"file", "file " + tree + "/sub/deeper/another a\n", 1, "1 bytes, hash af63dc4c8601ec8c\n"},
      {"unknown file", "file " + tree + "/fifo\n", 1, "none\n"},
      {"unknown word", "sing\n", 1, "error: unknown question 'sing'"},
      {"empty line, and a network's line end", "\nstat\r\n", 2, "state done\n"},
      {"report", "report\n", 1, "TaskName"},
      {"history", "history 2\n", 1, "Truncated due to requested limit"},
      {"no number", "history x\n", 1, "error: history needs a number"},
      {"endless line", std::string(100000, 'x'), 1, "error: a question is a line"},
  };
  for (auto const& c : cases) {
    EXPECT_THAT(ask(socket, c.text, c.answers), HasSubstr(c.expected)) << c.name;
  }
  EXPECT_EQ("bye\n.\n", ask(socket, "quit\n", 1));
  EXPECT_EQ(0, process.wait());
  EXPECT_FALSE(fs::exists(socket));
}

TEST_F(IndexerTest, endsInOrderOnSignals) {
  for (int const number : {SIGINT, SIGTERM}) {
    Process process({"--stay", "--socket", socket, tree});
    process.readUntil("indexed 3 of 3");
    process.signal(number);
    EXPECT_THAT(process.readAll(), HasSubstr("3 files"));
    EXPECT_EQ(0, process.wait());
    EXPECT_FALSE(fs::exists(socket));
  }
}

TEST_F(IndexerTest, saysWhatIsWrong) {
  struct {
    std::vector<std::string> arguments;
    int status;
    char const* line;
  } const cases[] = {
      {{"--what"}, 2, "indexer: unknown option --what"},
      {{"--socket"}, 2, "indexer: --socket needs a value"},
      {{"a", "b"}, 2, "indexer: one word too many: b"},
      {{"--counters", "a/b"}, 2, "indexer: --counters cannot be 'a/b'"},
      {{"--hash", "../x"}, 2, "indexer: --hash cannot be '../x'"},
      {{"--hash", "none", tree}, 2, "indexer: no hash 'none': cannot load libIndexerHash-none.so"},
      {{""}, 2, "indexer: the directory's name is empty"},
      {{tree + "/missing"}, 1, "missing: No such file or directory"},
      {{tree + "/empty"}, 1, "empty: Not a directory"},
      {{"--socket", tree + "/empty", tree}, 0, "cannot listen"},
      {{"--socket", tree + "/no/such", tree}, 0, "cannot listen"},
      {{"--socket", std::string(200, 'x'), tree}, 0, "cannot listen"},
  };
  for (auto const& c : cases) {
    Process process(c.arguments);
    EXPECT_THAT(process.readAll(), HasSubstr(c.line));
    EXPECT_EQ(c.status, process.wait()) << c.line;
  }
  EXPECT_TRUE(fs::is_regular_file(tree + "/empty")) << "only sockets are replaced";
}

TEST_F(IndexerTest, aSocketInUseIsLeftAloneAndAnAbandonedOneReplaced) {
  Process first({"--stay", "--socket", socket, tree});
  first.readUntil("indexed 3 of 3");
  Process second({"--socket", socket, tree});
  EXPECT_THAT(second.readAll(), HasSubstr("cannot listen"));
  EXPECT_EQ(0, second.wait());
  EXPECT_THAT(ask(socket, "stat\n", 1), HasSubstr("files 3"));
  first.signal(SIGKILL);
  first.wait();
  EXPECT_TRUE(fs::exists(socket));
  Process third({"--stay", "--socket", socket, tree});
  third.readUntil("indexed 3 of 3");
  EXPECT_EQ("bye\n.\n", ask(socket, "quit\n", 1));
  EXPECT_EQ(0, third.wait());
}

TEST_F(IndexerTest, hashesByThePluginThatIsAskedFor) {
  write(tree + "/check", "123456789");
  Process process({"--stay", "--hash", "crc64", "--socket", socket, tree + "//"});
  process.readUntil("indexed 4 of 4");
  EXPECT_EQ("9 bytes, hash 995dc9bbdf1939fa\n.\n", ask(socket, "file " + tree + "/check\n", 1));
}

TEST_F(IndexerTest, followsChanges) {
  Process process({"--stay", "--socket", socket, tree});
  process.readUntil("indexed 3 of 3");
  std::string const outside = temp.path("outside");
  struct {
    char const* name;
    std::function<void()> change;
    std::vector<std::pair<std::string, std::string>> files;  // below the tree, and what is said
  } const cases[] = {
      {"made", [&] { write(tree + "/new", "abc"); }, {{"new", "3 bytes"}}},
      {"written", [&] { write(tree + "/new", "abcd"); }, {{"new", "4 bytes"}}},
      {"replaced",
       [&] {
         write(tree + "/.new", "abcde");
         fs::rename(tree + "/.new", tree + "/new");
       },
       {{"new", "5 bytes"}, {".new", "none"}}},
      {"a second name",
       [&] { fs::create_hard_link(tree + "/new", tree + "/sub/link"); },
       {{"sub/link", "5 bytes"}}},
      {"renamed",
       [&] { fs::rename(tree + "/new", tree + "/sub/old"); },
       {{"sub/old", "5 bytes"}, {"new", "none"}}},
      {"deleted", [&] { fs::remove(tree + "/sub/old"); }, {{"sub/old", "none"}}},
      {"directories made at once, with files",
       [&] {
         fs::create_directories(tree + "/a/b/c");
         write(tree + "/a/b/c/f", "ab");
       },
       {{"a/b/c/f", "2 bytes"}}},
      {"a directory moved",
       [&] { fs::rename(tree + "/a/b", tree + "/sub/b"); },
       {{"sub/b/c/f", "2 bytes"}, {"a/b/c/f", "none"}}},
      {"written below its new name",
       [&] { write(tree + "/sub/b/c/f", "abc"); },
       {{"sub/b/c/f", "3 bytes"}}},
      {"moved out, and another in its place before the agent looks",
       [&] {
         process.signal(SIGSTOP);
         fs::rename(tree + "/sub/b", outside);
         fs::create_directory(tree + "/sub/b");
         write(tree + "/sub/b/g", "a");
         process.signal(SIGCONT);
       },
       {{"sub/b/g", "1 bytes"}, {"sub/b/c/f", "none"}}},
      {"written in that other one",
       [&] { write(tree + "/sub/b/h", "ab"); },
       {{"sub/b/h", "2 bytes"}}},
      {"moved in, over an empty directory",
       [&] {
         write(outside + "/c/f", "abcd");
         fs::create_directory(tree + "/in");
         fs::rename(outside, tree + "/in");
       },
       {{"in/c/f", "4 bytes"}}},
      {"a directory becomes a file",
       [&] {
         fs::remove_all(tree + "/in");
         write(tree + "/in", "a");
       },
       {{"in", "1 bytes"}, {"in/c/f", "none"}}},
      {"a file becomes a directory",
       [&] {
         fs::remove(tree + "/in");
         fs::create_directory(tree + "/in");
         write(tree + "/in/f", "a");
       },
       {{"in/f", "1 bytes"}, {"in", "none"}}},
      {"a file becomes a link",
       [&] {
         fs::remove(tree + "/in/f");
         fs::create_symlink(tree + "/empty", tree + "/in/f");
       },
       {{"in/f", "none"}}},
      {"the whole tree goes",
       [&] { fs::rename(tree, temp.path("elsewhere")); },
       {{"empty", "none"}}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    c.change();
    for (auto const& [path, said] : c.files) {
      EXPECT_THAT(askUntil("file " + tree + "/" + path, said), HasSubstr(said)) << path;
    }
  }
  EXPECT_THAT(askUntil("stat", "state done"), HasSubstr("files 0\nbytes 0\n"));
}

TEST_F(IndexerTest, walksAgainWhenEventsAreLost) {
  Process process({"--stay", "--socket", socket, tree});
  process.readUntil("indexed 3 of 3");
  int limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  process.signal(SIGSTOP);
  for (int renames = 0; renames <= limit / 4; ++renames) {
    fs::rename(tree + "/empty", tree + "/moved");
    fs::rename(tree + "/moved", tree + "/empty");
  }
  write(tree + "/sub/new", "ab");
  fs::remove(tree + "/sub/a");
  process.signal(SIGCONT);
  process.readUntil("walking the tree again");
  EXPECT_THAT(askUntil("file " + tree + "/sub/new", "2 bytes"), HasSubstr("2 bytes"));
  EXPECT_THAT(askUntil("file " + tree + "/sub/a", "none"), HasSubstr("none"));
  write(tree + "/sub/deeper/new", "abc");
  EXPECT_THAT(askUntil("file " + tree + "/sub/deeper/new", "3 bytes"), HasSubstr("3 bytes"));
}

TEST_F(IndexerTest, goesOnWithoutWatchesAndSaysSo) {
  Veltro::inChild([this] {
    if (::unshare(CLONE_NEWUSER) != 0) return;  // a limit of its own takes a namespace
    write("/proc/self/uid_map", "0 " + std::to_string(::geteuid()) + " 1\n");
    write("/proc/sys/user/max_inotify_watches", "2\n");
    std::string limit;
    std::ifstream("/proc/sys/user/max_inotify_watches") >> limit;
    if (limit != "2") return;
    Process process({"--stay", "--socket", socket, tree});
    EXPECT_THAT(process.readUntil("indexed 3 of 3"), HasSubstr("no watches left"));
    EXPECT_THAT(ask(socket, "stat\n", 1), HasSubstr("watched 2\nunwatched 1\n"));
    write(tree + "/sub/a", "abc");
    EXPECT_THAT(askUntil("file " + tree + "/sub/a", "3 bytes"), HasSubstr("3 bytes"));
  });
}

struct Published {
  Veltro::U32 block = 0;
  Veltro::U32 generation = 0;
  Veltro::U64 value = 0;
};

constexpr char const* kCounterFile = "/var/shmem/shmem/counters/indexer/test";

Published published(char const* key) {
  auto const blocks =
      Kiv::allocate<Veltro::ShmemMan>(Kiv::Name("test"), Kiv::String("indexer"), 16u);
  Kiv::AttributeLog::load(Kiv::Ptr<Kiv::Entity>(blocks), std::string(kCounterFile) + ".log");
  Veltro::U64 const address = blocks->counterAddr(key, 64, true);
  if (address == 0) return {};
  auto const sample = Veltro::BlockCounter::sample(
      reinterpret_cast<void const*>(static_cast<std::uintptr_t>(address)));
  Published const now{blocks->counterKeyToMemBlock(key), sample->genId, sample->value};
  blocks->munmapFile(false);
  return now;
}

std::string content(std::string const& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(IndexerTest, publishesCountersThatKeepTheirBlocks) {
  if (!Veltro::mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  std::string const head = "Veltro::ShmemMan attribute log 1\nname = 'test'\n";
  struct {
    char const* name;
    std::string log;  // written before the start; empty: as the last agent left it
    int end;          // the signal that ends the agent
    std::string said;
    Veltro::U32 block;  // of "files"
  } const cases[] = {
      {"the table of an agent that was stopped at its start", "", SIGTERM, "", 1},
      {"after an orderly end", "", SIGKILL, "", 1},
      {"after a kill", "", SIGTERM, "", 1},
      {"the table counts, not the order of keys", head + "counterKeyToMemBlock['files'] = 7\nend\n",
       SIGTERM, "", 7},
      {"and is kept", "", SIGTERM, "", 7},
      {"damaged", head + "counterKeyToMemBlock['files'] = ", SIGTERM, "begun afresh", 1},
      {"empty", "\n", SIGTERM, "begun afresh", 1},
      {"no such block", head + "counterKeyToMemBlock['files'] = 17\nend\n", SIGTERM, "begun afresh",
       1},
      {"a block twice",
       head + "counterKeyToMemBlock['files'] = 3\ncounterKeyToMemBlock['bytes'] = 3\nend\n",
       SIGTERM, "begun afresh", 1},
      {"another's", "Veltro::ShmemMan attribute log 1\nname = 'other'\nend\n", SIGTERM,
       "begun afresh", 1},
      {"after all that", "", SIGTERM, "", 1},
  };
  Veltro::inOwnVar([&] {
    std::string const log = std::string(kCounterFile) + ".log";
    int aside = 0;
    Process interrupted({"--stay", "--counters", "test", "--socket", socket, tree});
    interrupted.readUntil("counting in");
    interrupted.signal(SIGTERM);
    interrupted.wait();
    Veltro::U32 generation = 1;
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      if (!c.log.empty()) write(log, c.log);
      Process process({"--stay", "--counters", "test", "--socket", socket, tree});
      EXPECT_THAT(process.readUntil("indexed 3 of 3"), HasSubstr(c.said));
      ask(socket, "stat\nfile\n", 2);
      Published const files = published("files");
      EXPECT_EQ(c.block, files.block);
      EXPECT_EQ(++generation, files.generation);
      EXPECT_EQ(3u, files.value);
      EXPECT_EQ(2u, published("bytes").value);
      EXPECT_EQ(2u, published("queries").value);
      EXPECT_EQ(0u, published("errors").value);
      if (!c.said.empty()) {
        EXPECT_EQ(c.log, content(log + ".damaged-" + std::to_string(++aside)));
      }
      Process second({"--counters", "test", tree});
      EXPECT_THAT(second.readAll(), HasSubstr("is held by process"));
      EXPECT_EQ(2, second.wait());
      process.signal(c.end);
      process.wait();
    }
  });
}

}  // namespace
