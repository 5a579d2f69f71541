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
#include <string>
#include <vector>

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

struct IndexerTest : testing::Test {
  Veltro::TempDir temp;
  std::string const socket = temp.path("socket");
  std::string const tree = temp.path("tree");

  void SetUp() override {
    fs::create_directories(tree + "/sub/deeper");
    std::ofstream(tree + "/empty");
    std::ofstream(tree + "/sub/a") << "a";
    std::ofstream(tree + "/sub/deeper/another a") << "a";
    fs::create_directory_symlink(tree, tree + "/sub/loop");
    ASSERT_EQ(0, ::mkfifo((tree + "/fifo").c_str(), 0666));
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

}  // namespace
