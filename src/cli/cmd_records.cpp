#include <iostream>

#include "cli/args.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "production/record_forwarder.h"

namespace palimbo::cli {

namespace {

const char* const kUsage =
    "Usage: palimbo-cli records push FILE --to URL\n"
    "Sends the lines of the record FILE that the table palimbo_uploads of the PostgreSQL\n"
    "database at URL lacks, and says how many it sent and how many were there already; a\n"
    "line goes in once, by its id, however often this runs. URL is a libpq connection URI\n"
    "(postgresql://USER@HOST:PORT/DATABASE?sslmode=verify-full...); the password comes from\n"
    "the URI, PGPASSWORD or the password file, as libpq takes it. The table is made where it\n"
    "is missing.\n\n"
    "Exit status: 0 every line is in the table, 1 the database did not take them, 2 bad\n"
    "arguments or a configuration that cannot work.\n";

}  // namespace

int RunRecords(const std::vector<std::string>& Args) {
  std::string action, file, url;
  CLI::App app;
  app.add_option("ACTION", action)->required()->check(CLI::IsMember({"push"}));
  app.add_option("FILE", file)->required();
  app.add_option("--to", url)->required();
  if (ParseCommand(app, Args)) {
    std::cout << kUsage;
    return kExitOk;
  }
  ForwardCount count;
  std::string error;
  if (!PushRecord(file, url, count, error)) {
    std::cerr << "palimbo-cli records push: " << error << std::endl;
    return count.Sent + count.There > 0 || error == "the database does not answer" ? kExitFailed
                                                                                   : kExitUsage;
  }
  std::cout << "sent " << count.Sent << " lines, " << count.There << " were there already"
            << std::endl;
  return kExitOk;
}

}  // namespace palimbo::cli
