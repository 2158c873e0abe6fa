// Keeps the progress lines of start-up out of the test's output while it lives.
#ifndef RUVO_TESTS_QUIET_CONSOLE_H
#define RUVO_TESTS_QUIET_CONSOLE_H

#include <gtest/gtest.h>

class QuietConsole {
 public:
  QuietConsole() { testing::internal::CaptureStdout(); }
  ~QuietConsole() { testing::internal::GetCapturedStdout(); }
  QuietConsole(const QuietConsole&) = delete;
  QuietConsole& operator=(const QuietConsole&) = delete;
};

#endif
