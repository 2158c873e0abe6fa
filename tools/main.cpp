// ruvo_cli: the library from the command line, for operators.
#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  CLI::App app("Redis through libruvo, from the command line", "ruvo_cli");
  app.set_version_flag("--version", "ruvo_cli " RUVO_VERSION);
  CLI11_PARSE(app, argc, argv);
  return 0;
}
