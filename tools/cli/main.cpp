// ruvo_cli: the library from the command line, for operators.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <system_error>

#include "commands.h"
#include "console.h"
#include "library_log.h"
#include "numbers.h"
#include "operations.h"

namespace {

constexpr std::array level_names{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

// The position of a name that the command line has already validated.
template <std::size_t count>
int index_of(const std::array<const char*, count>& names, const std::string& name) {
  return static_cast<int>(std::find(names.begin(), names.end(), name) - names.begin());
}

// The values from the command line.
struct CommandLine {
  Options options;
  LogOptions log;
  Arguments arguments;
  std::optional<std::string> value_file;
  bool no_newline = false;
  WatchOptions watch;
  StatsOptions stats;
  LoadOptions load;
  std::function<ExitStatus()> command;
};

std::string read_value(const std::string& path) {
  const bool is_standard_input = path == "-";
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(
      is_standard_input ? stdin : std::fopen(path.c_str(), "rb"), std::fclose);
  std::string content;
  std::array<char, 65536> part{};
  while (file && std::feof(file.get()) == 0 && std::ferror(file.get()) == 0) {
    content.append(part.data(), std::fread(part.data(), 1, part.size(), file.get()));
  }
  if (!file || std::ferror(file.get()) != 0) {
    throw Failure(unreadable_input, "cannot read " + (is_standard_input ? "standard input" : path) +
                                        ": " + std::generic_category().message(errno));
  }
  return content;
}

// Shows an answer, and the log lines of a failure.
ExitStatus finish(const CommandLine& line, const Operation& operation, const Answer& answer) {
  const ExitStatus status = status_of_operation(answer.result);
  const char* const text = text_of(operation, answer.result);
  if (line.options.json) {
    nlohmann::json json{{"command", operation.name},
                        {"pool", pool_name(line.options.pool)},
                        {"result", answer.result},
                        {"text", text}};
    if (answer.value) {
      json["value"] = to_printable(*answer.value);
    }
    print_json(json);
  } else if (answer.value && (status == succeeded || operation.family == Family::any)) {
    print(to_text(*answer.value) + (line.no_newline ? "" : "\n"));
  }
  if (status >= failed) {
    std::fprintf(stderr, "ruvo_cli: %s: %s (%d)\n", operation.name, text, answer.result);
    show_kept_lines();
  } else if (status != succeeded && !line.options.json) {
    std::fprintf(stderr, "ruvo_cli: %s: %s\n", operation.name, text);
  }
  return status;
}

ExitStatus run_operation(CommandLine& line, const Operation& operation) {
  if (line.value_file) {
    line.arguments.value = read_value(*line.value_file);
  }
  if (operation.family == Family::any) {
    warn_of_mode(line.arguments.words);
  }
  line.arguments.pool = line.options.pool;
  const Library library(line.options.config);
  library.require_ready();
  return finish(line, operation, operation.run(line.arguments));
}

// A value comes from the command line or from a file.
void add_value(CLI::App& command, CommandLine& line) {
  CLI::Option* value = command.add_option("VALUE", line.arguments.value, "The value");
  CLI::Option* file = command.add_option("--value-file", line.value_file,
                                         "File with the value, - for standard input");
  value->excludes(file);
  command.callback([value, file] {
    if (value->empty() && file->empty()) {
      throw CLI::RequiredError("VALUE or --value-file");
    }
  });
}

// A whole number in base 10.
template <typename Number, typename Target>
CLI::Option* add_number(CLI::App& command, const std::string& name, Target& target,
                        const std::string& help, Number least, Number most) {
  return command
      .add_option_function<std::string>(
          name,
          [name, &target, least, most](const std::string& text) {
            const std::optional<Number> number = parse_number(text, least, most);
            if (!number) {
              throw CLI::ValidationError(name, "not a whole number from " + std::to_string(least) +
                                                   " to " + std::to_string(most) + ": " + text);
            }
            target = *number;
          },
          help)
      ->type_name("NUMBER");
}

template <typename Number>
CLI::Option* add_number(CLI::App& command, const std::string& name, Number& target,
                        const std::string& help) {
  return add_number(command, name, target, help, std::numeric_limits<Number>::min(),
                    std::numeric_limits<Number>::max());
}

constexpr const char* raw_usage =
    "The words of the command follow the options and are taken unchanged:\n"
    "  ruvo_cli raw LRANGE key 0 -1\n\n";

// The words are taken unchanged: none of them is an option of this command or of the tool.
void add_words(CLI::App& command, CommandLine& line) {
  command.fallthrough(false)->prefix_command();
  command.callback([&command, &line] {
    line.arguments.words = command.remaining();
    if (line.arguments.words.empty()) {
      throw CLI::RequiredError("WORD");
    }
  });
}

void add_parameter(CLI::App& command, CommandLine& line, Parameter parameter) {
  Arguments& arguments = line.arguments;
  switch (parameter) {
    case Parameter::key:
      command.add_option("KEY", arguments.key, "The key")->required();
      break;
    case Parameter::field:
      command.add_option("FIELD", arguments.field, "The field")->required();
      break;
    case Parameter::value:
      add_value(command, line);
      break;
    case Parameter::ttl:
      add_number(command, "--ttl", arguments.ttl, "Seconds until the key expires", 1,
                 std::numeric_limits<int>::max());
      break;
    case Parameter::seconds:
      add_number(command, "SECONDS", arguments.seconds, "Seconds from now")->required();
      break;
    case Parameter::increment:
      add_number(command, "INCREMENT", arguments.increment, "The amount to add")->required();
      break;
    case Parameter::count:
      add_number(command, "COUNT", arguments.count,
                 "How many elements: from the head; negative: from the tail; 0: all")
          ->required();
      break;
    case Parameter::start:
      add_number(command, "START", arguments.start, "First position; -1 is the last element")
          ->required();
      break;
    case Parameter::end:
      add_number(command, "END", arguments.end, "Last position")->required();
      break;
    case Parameter::words:
      add_words(command, line);
      break;
  }
}

CLI::App& add_command(CLI::App& app, CommandLine& line, const std::string& name,
                      const std::string& help, const std::string& group,
                      std::function<ExitStatus()> run) {
  CLI::App& command = *app.add_subcommand(name, help)->group(group)->fallthrough();
  command.preparse_callback([&line, run = std::move(run)](std::size_t) { line.command = run; });
  return command;
}

StatusTexts statuses_of(const Operation& operation) {
  StatusTexts statuses{{succeeded, "success"},
                       {failed, "no server, or an error reply (-1, 10112)"}};
  if (operation.can_be_absent) {
    statuses[absent] = operation.family == Family::any
                           ? "the reply is nil (10402)"
                           : "the key or field is absent (library results 1, 10402)";
  }
  if (operation.nothing_done != nullptr) {
    statuses[nothing_done] = std::string(operation.nothing_done) + " (-2)";
  }
  if (std::ranges::find(operation.parameters, Parameter::value) != operation.parameters.end()) {
    statuses[unreadable_input] = "the value file cannot be read";
  }
  return statuses;
}

void add_operations(CLI::App& app, CommandLine& line) {
  for (const Operation& operation : all_operations()) {
    CLI::App& command =
        add_command(app, line, operation.name, operation.help, traits_of(operation.family).group,
                    [&line, &operation] { return run_operation(line, operation); });
    for (const Parameter parameter : operation.parameters) {
      add_parameter(command, line, parameter);
    }
    command.add_flag("-n,--no-newline", line.no_newline, "No newline after the value");
    command.footer((operation.family == Family::any ? raw_usage : "") +
                   exit_status_help(statuses_of(operation)));
  }
}

std::string operation_names() {
  std::string names;
  for (const Operation& operation : all_operations()) {
    names += (names.empty() ? "" : " ") + std::string(operation.name);
  }
  return names;
}

void add_stats(CLI::App& app, CommandLine& line, const std::string& group) {
  StatsOptions& wanted = line.stats;
  CLI::App& command = add_command(app, line, "stats", "Show a host's statistics", group,
                                  [&line] { return stats(line.options, line.stats); });
  command.parse_complete_callback([&app] { app.get_option("--config")->required(false); });
  command.add_option("FILE", wanted.file, "The host's stats_file")->required();
  CLI::Option* watching =
      add_number(command, "--watch", wanted.seconds,
                 "Repeat after this many seconds (default 1), with the rates in between", 1, 86400)
          ->expected(0, 1)
          ->default_str("1");
  add_number(command, "--rounds", wanted.rounds, "Number of readings (default 0: without end)", 0,
             std::numeric_limits<int>::max())
      ->needs(watching);
  CLI::Option* prometheus =
      command.add_flag("--prometheus", wanted.prometheus, "Print the text format of Prometheus")
          ->excludes(watching)
          ->excludes(app.get_option("--json"));
  command
      .add_option("--label", wanted.labels, "NAME=VALUE: a label for every series; may be repeated")
      ->needs(prometheus)
      ->allow_extra_args(false)
      ->type_name("NAME=VALUE");
  command.footer(
      exit_status_help({{succeeded, "success"},
                        {unreadable_input, "the file cannot be read, or is not a stats_file"}}));
}

void add_server_commands(CLI::App& app, CommandLine& line) {
  static const char* const group = "Servers";
  add_command(app, line, "check", "Start up, probe every server, review the settings", group,
              [&line] { return check(line.options); })
      .footer(exit_status_help(
          {{succeeded, "every server and connection is up, every setting is read as written"},
           {pools_down, "some pool cannot be used"},
           {connections_down, "every pool can be used, but some servers or connections are not up"},
           {settings_misread, "all is up, but settings are not read as written"}}));
  CLI::App& listing =
      add_command(app, line, "settings", "List every key that a configuration can hold", group,
                  [&line] { return list_settings(line.options); });
  listing.parse_complete_callback([&app] { app.get_option("--config")->required(false); });
  listing.footer(exit_status_help({{succeeded, "success"}}));

  CLI::App& watching = add_command(app, line, "watch", "Show a pool's servers once a second", group,
                                   [&line] { return watch(line.options, line.watch); });
  add_number(watching, "--rounds", line.watch.rounds, "Number of rounds (default 0: without end)",
             0, std::numeric_limits<int>::max());
  watching.add_option("--stats-file", line.watch.stats_file,
                      "A host's stats_file: also show how that host sees each server");
  watching.footer(
      exit_status_help({{succeeded, "in the last round every server was up"},
                        {pools_down, "in the last round no server was up, or the pool has none"},
                        {connections_down, "in the last round some servers were not up"}}));

  add_stats(app, line, group);

  const LoadOptions& standard = line.load;
  const auto or_default = [](const std::string& help, int value) {
    return help + " (default " + std::to_string(value) + ")";
  };
  CLI::App& loading = add_command(app, line, "load", "Load-test a pool", group,
                                  [&line] { return load(line.options, line.load); });
  add_number(loading, "--threads", line.load.threads,
             or_default("Threads that call", standard.threads), 1, 1000);
  add_number(loading, "--seconds", line.load.seconds,
             or_default("Duration in seconds", standard.seconds), 1, 86400);
  loading.add_option("--mix", line.load.mix,
                     "OPERATION=WEIGHT,..., see below (default " + standard.mix + ")");
  loading.add_option(
      "--raw", line.load.raw,
      "The command of raw in the mix; {key} is the key (default " + standard.raw + ")");
  add_number(loading, "--keys", line.load.keys, or_default("Keys to spread over", standard.keys), 1,
             10000000);
  add_number(loading, "--value-size", line.load.value_size,
             or_default("Bytes of a value", standard.value_size), 0, 512 << 20);
  loading.footer(
      "Operations of a mix:\n  " + operation_names() + "\n\n" +
      exit_status_help({{succeeded, "every call succeeded"}, {failed, "some calls failed"}}));
}

int run(int argc, char** argv) {
  CommandLine line;
  std::string pool = "temp";
  std::string level;
  CLI::App app("Redis through libruvo, from the command line", "ruvo_cli");
  app.set_version_flag("--version", "ruvo_cli " RUVO_VERSION);
  app.footer(exit_status_help());
  app.require_subcommand(1);
  app.add_option("--config", line.options.config, "Local configuration file")
      ->envname("RUVO_CONFIG")
      ->required();
  app.add_option("--pool", pool, "The pool of servers (default temp)")
      ->check(CLI::IsMember(std::vector<std::string>(pool_names.begin(), pool_names.end())));
  app.add_option("--log-level", level, "Show the library's log from this level on")
      ->check(CLI::IsMember(std::vector<std::string>(level_names.begin(), level_names.end())));
  app.add_option("--log-file", line.log.file, "Append the library's log to this file");
  app.add_flag("--show-passwords", line.log.show_passwords,
               "Show the passwords in the library's log");
  app.add_flag("--json", line.options.json, "Print JSON");
  add_server_commands(app, line);
  add_operations(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help_or_version) {
    std::ostringstream text;
    app.exit(help_or_version, text, text);
    print(text.str());
    return succeeded;
  } catch (const CLI::ParseError& error) {
    if (line.command == nullptr && !app.remaining().empty()) {
      throw Failure(wrong_usage, "no such command: " + app.remaining().front());
    }
    const std::string text = error.what();
    throw Failure(wrong_usage, text == "--config is required"
                                   ? text + ", or RUVO_CONFIG in the environment"
                                   : text);
  }
  line.options.pool = index_of(pool_names, pool) + 1;
  if (!level.empty()) {
    line.log.level = static_cast<LogLevel>(index_of(level_names, level));
  }
  open_log(line.log);
  take_output();
  const ExitStatus status = line.command();
  require_log_written();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  open_standard_streams();
  setenv("RUVO_NO_STATS_FILE", "1", 1);  // that file belongs to the host with this configuration
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));  // print() handles an output without a reader
  try {
    return run(argc, argv);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "ruvo_cli: %s\n", failure.what());
    if (failure.status() < wrong_usage) {
      show_kept_lines();
    }
    return failure.status();
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "ruvo_cli: out of memory\n");
    return no_memory;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "ruvo_cli: %s\n", failure.what());
    return internal_error;
  }
}
