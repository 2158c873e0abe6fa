#include <ruvo/ruvo.h>
#include <stdio.h>

int main(void) {
  const int result = RUVO_InsertKey("k", "v", 1, -1, eTempServer, NULL);
  printf("from C: %s\n", ruvo_result_text(result));
  return result == RUVO_ERR_NOT_INITIALIZED ? 0 : 1;
}
