// The help page frame of each command kind.
#include "harness/help_frame.h"

#include "Output.h"
#include "qlutil.h"

void PerfHelpDescription(std::initializer_list<const char *> lines) {
  ScreenOutput("\r\nDESCRIPTION\r\n");
  for (const char *line : lines) ScreenOutput("     %s\r\n", line);
  ScreenOutput("\r\nOPTIONS\r\n");
  ShowHelpGlobalPerfParameters();
}

int PerfHelpCommandExamples(const char *command, std::initializer_list<const char *> options) {
  ScreenOutput("\r\nEXAMPLE\r\n");
  for (const char *opts : options) {
    ScreenOutput("     qlutil -a 10.10.10.10 -u master -w 24681357 -p %s %s\r\n", command, opts);
  }
  return kResultUsage;
}

void FuncHelpDescription(std::initializer_list<const char *> lines) {
  ScreenOutput("\r\nDESCRIPTION\r\n");
  for (const char *line : lines) ScreenOutput("%s", line);
  ScreenOutput("\r\nOPTIONS\r\n");
  ShowHelpGlobalParameters();
}

int FuncHelpExample(const char *line) {
  ScreenOutput("\r\nEXAMPLE\r\n");
  ScreenOutput("%s", line);
  return kResultUsage;
}

void JobHelpHeader(bool is_anonymous, std::initializer_list<const char *> description) {
  ScreenOutput("\r\nDESCRIPTION\r\n");
  for (const char *line : description) ScreenOutput("     %s\r\n", line);
  ScreenOutput("\r\nOPTIONS\r\n");
  ShowHelpGlobalJobParameters(is_anonymous);
}

void JobHelpExamples(const char *job, std::initializer_list<const char *> options) {
  ScreenOutput("\r\nEXAMPLE\r\n");
  for (const char *opts : options) {
    ScreenOutput("     qlutil -a 10.10.10.10 -u master -w 24681357 -j %s%s%s\r\n", job,
                 *opts ? " " : "", opts);
  }
}

void JobHelpPage(const char *job, std::initializer_list<const char *> description,
                 std::initializer_list<const char *> options,
                 std::initializer_list<const char *> examples) {
  JobHelpHeader(false, description);
  for (const char *line : options) ScreenOutput("     %s\r\n", line);
  JobHelpExamples(job, examples);
}
