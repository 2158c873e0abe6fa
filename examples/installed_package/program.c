/* cc -std=c99 program.c $(pkg-config --cflags --libs ruvo stream_log) */
#include <ruvo/ruvo.h>
#include <stdio.h>
#include <stream_log/logger.h>

static void to_standard_output(int level, const char* line, size_t length) {
  fwrite(level >= STREAM_LOG_ERROR ? "! " : "  ", 1, 2, stdout);
  fwrite(line, 1, length, stdout);
}

int main(void) {
  stream_log_set_output(to_standard_output);
  stream_log_set_level(STREAM_LOG_WARN);
  const int result = RUVO_InsertKey("k", "v", 1, -1, eTempServer, NULL);
  printf("from C: %s\n", ruvo_result_text(result));
  return result == RUVO_ERR_NOT_INITIALIZED ? 0 : 1;
}
