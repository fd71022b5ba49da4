#pragma once
// The frame of every help page, one per command kind. A page is "\r\nDESCRIPTION\r\n" and the
// command's lines, "\r\nOPTIONS\r\n" with the options its kind shares, the command's own
// options (printed by the command), and "\r\nEXAMPLE\r\n" with its lines. The closing call
// answers -1 (kResultUsage), the handler's answer.

#include <initializer_list>

// -p
// The help page of a performance test: "DESCRIPTION" with its lines, "OPTIONS" with the global
// performance options; the caller prints its own options, then calls PerfHelpCommandExamples,
// which prints "EXAMPLE" and its lines and returns -1 (kResultUsage), the entry's answer.
void PerfHelpDescription(std::initializer_list<const char *> lines);
// One example line per option text:
// "     qlutil -a 10.10.10.10 -u master -w 24681357 -p <command> <options>\r\n".
int PerfHelpCommandExamples(const char *command, std::initializer_list<const char *> options);

// -f, -s and the access-control tests
// The help page frame: "DESCRIPTION" and its lines, "OPTIONS" and the global options; the
// caller prints its own options, then FuncHelpExample prints "EXAMPLE" and its line and returns
// -1 (kResultUsage), the entry's answer.
void FuncHelpDescription(std::initializer_list<const char *> lines);
int FuncHelpExample(const char *line);

// -j
// Help page pieces, in page order. Description: "\r\nDESCRIPTION\r\n", each line after five
// blanks, "\r\nOPTIONS\r\n" and the connection options (ShowHelpGlobalJobParameters).
void JobHelpHeader(bool is_anonymous, std::initializer_list<const char *> description);
// "\r\nEXAMPLE\r\n" and one line per option text:
// "     qlutil -a 10.10.10.10 -u master -w 24681357 -j <job> <options>\r\n".
void JobHelpExamples(const char *job, std::initializer_list<const char *> options);
// A whole page of a job that logs in, whose options are plain lines: JobHelpHeader, each option
// line after five blanks, JobHelpExamples.
void JobHelpPage(const char *job, std::initializer_list<const char *> description,
                 std::initializer_list<const char *> options,
                 std::initializer_list<const char *> examples);
