#ifndef RUVO_TESTS_NO_COPY_H
#define RUVO_TESTS_NO_COPY_H

struct NoCopy {
  NoCopy() = default;
  NoCopy(const NoCopy&) = delete;
  NoCopy& operator=(const NoCopy&) = delete;
};

#endif
