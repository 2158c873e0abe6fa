// The sink and the locks that hosts may use for their logs.
#include <gtest/gtest.h>
#include <ruvo/log_io.h>
#include <sys/stat.h>

#include <array>

#include "host.h"

namespace {

class LogSink : public testing::Test {
 protected:
  std::string content(const std::string& name = "log") {
    sink_.flush();
    return content_of(dir_.path(name));
  }

  TempDir dir_;
  Log_IO_FILE sink_;
  std::string path_ = dir_.path("log");
};

TEST_F(LogSink, EveryModeAppendsAndTheFirstEndsAnOpenLine) {
  const char* expected[] = {"old\nnew", "oldnew", "oldnew", "oldnew"};
  for (int mode = 0; mode < 4; ++mode) {
    dir_.write("log", "old");
    ASSERT_EQ(sink_.open(path_.c_str(), nullptr, mode, 0), 0);
    EXPECT_GE(sink_.write("new"), 0);
    EXPECT_EQ(content(), expected[mode]) << mode;
    auto* const stream = static_cast<FILE*>(sink_.handle());
    std::rewind(stream);
    EXPECT_EQ(std::fgetc(stream), mode < 2 ? 'o' : EOF) << mode;
  }
  dir_.write("log", "old\n");
  ASSERT_EQ(sink_.open(path_.c_str(), nullptr, 0, 0), 0);  // closes the previous file
  EXPECT_EQ(sink_.write("a\0b", std::size_t{3}), 3);
  EXPECT_EQ(sink_.size(), 7);
  EXPECT_EQ(content(), std::string("old\na\0b", 7));
  ASSERT_EQ(std::fseek(static_cast<FILE*>(sink_.handle()), 2, SEEK_SET), 0);
  EXPECT_EQ(sink_.size(), 7);
  EXPECT_EQ(std::ftell(static_cast<FILE*>(sink_.handle())), 2);  // a reader is not disturbed
  umask(0);
  ASSERT_EQ(sink_.open(dir_.path("wide").c_str(), nullptr, 0, 0), 0);
  EXPECT_EQ(sink_.size(), 0);
  struct stat info {};
  EXPECT_EQ(stat(dir_.path("wide").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0664U);
  ASSERT_EQ(sink_.open(dir_.path("wide").c_str(), nullptr, 7, 0), 0);
  EXPECT_GE(sink_.write(L"wide"), 0);
  EXPECT_EQ(content("wide"), "wide");
  EXPECT_EQ(sink_.open(dir_.path("none/log").c_str(), nullptr, 0, 0), ENOENT);
}

TEST_F(LogSink, EmptiesAndBacksUp) {
  ASSERT_EQ(sink_.open(path_.c_str(), nullptr, 0, 0), 0);
  sink_.write("buffered");
  EXPECT_EQ(sink_.empty(), 0);
  EXPECT_EQ(content(), "");
  sink_.write("kept");
  EXPECT_EQ(sink_.backup(dir_.path("LOG").c_str()), 0);  // its own name: unchanged
  EXPECT_EQ(content(), "kept");
  EXPECT_EQ(sink_.backup(dir_.path("copy").c_str()), 0);
  EXPECT_EQ(content("copy") + "|" + content(), "kept|");
  sink_.write("not yet flushed");
  EXPECT_EQ(sink_.backup(dir_.path("copy").c_str()), 0);
  EXPECT_EQ(content("copy") + "|" + content(), "not yet flushed|");
  sink_.write("stays");
  // One byte more than the command's buffer holds.
  EXPECT_EQ(sink_.backup(std::string(512 - path_.size() - 4, 'x').c_str()), -1);
  EXPECT_EQ(sink_.backup(std::string(600, 'x').c_str()), -1);
  EXPECT_EQ(content(), "stays");
}

TEST_F(LogSink, WritesARecordBeforeTheNextOne) {
  ASSERT_EQ(sink_.open(path_.c_str(), nullptr, 0, 0), 0);
  sink_.write("first\n");
  EXPECT_EQ(content_of(path_), "");
  sink_.write("second\n");
  EXPECT_EQ(content_of(path_), "first\n");
  sink_.write("third\n", 6);
  EXPECT_EQ(content_of(path_), "first\nsecond\n");
}

struct Config : Log_Cfg {};

TEST_F(LogSink, KeepsWhatItsUserGivesAndClosesItsFile) {
  Log_Thread_Mutex one;
  Log_Thread_Mutex other;
  Config config;
  const int descriptors = open_descriptors();
  alignas(Log_IO_FILE) std::array<unsigned char, sizeof(Log_IO_FILE)> memory;
  memory.fill(0xFF);
  auto* const sink = new (memory.data()) Log_IO_FILE;
  EXPECT_EQ(sink->mutex(), nullptr);
  EXPECT_EQ(sink->config(), nullptr);
  EXPECT_FALSE(sink->donot_delete());
  for (Log_Thread_Mutex* const lock : {&one, &other}) {
    ASSERT_EQ(sink->open(path_.c_str(), lock, 0, 0), 0);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    EXPECT_EQ(sink->mutex(), lock);
  }
  sink->mutex(&one);
  EXPECT_EQ(sink->mutex(), &one);
  sink->config(&config);
  EXPECT_EQ(sink->config(), &config);
  sink->~Log_IO_FILE();
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(LogSink, RefusesDescriptorZero) {
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  EXPECT_EQ(sink_.open(path_.c_str(), nullptr, 0, 0), EBADF);
  EXPECT_EQ(sink_.handle(), nullptr);
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);  // free again
  dup2(input, STDIN_FILENO);
  close(input);
}

TEST_F(LogSink, AClosedSinkDoesNothing) {
  EXPECT_EQ(sink_.write("x") + sink_.write(L"x") + sink_.write("x", std::size_t{1}), 0);
  EXPECT_EQ(sink_.flush() + sink_.size() + sink_.close(), 0);
  EXPECT_EQ(sink_.empty() + sink_.backup(path_.c_str()), -2);
}

#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // the locks have none, on purpose

class SeenMutex : public Log_Unix_Process_Mutex {
 public:
  bool is_free() const {
    auto* const mutex = static_cast<pthread_mutex_t*>(mutex_);
    return pthread_mutex_trylock(mutex) == 0 && pthread_mutex_unlock(mutex) == 0;
  }
};

TEST(LogMutex, LocksUntilItIsReleased) {
  SeenMutex lock;
  EXPECT_EQ(lock.open("ignored") + lock.open("again"), 0);
  EXPECT_EQ(lock.name(), nullptr);
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(lock.is_free());
    EXPECT_EQ(lock.acquire(0), 0);
    EXPECT_FALSE(lock.is_free());
    EXPECT_EQ(lock.release(), 0);
  }
  EXPECT_EQ(lock.close(true) + lock.close(false), 0);
  Log_Win32_Process_Mutex nothing;
  EXPECT_EQ(nothing.open("x") + nothing.acquire(0) + nothing.release() + nothing.close(false), 0);
  EXPECT_STREQ(nothing.name(), "");
}

}  // namespace
