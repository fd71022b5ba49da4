#pragma once
// Which switches of the command line the running command read.
//
// The driver registers the parameter array of the run and, once found, the command's row. Every
// getter reaches the array through FindParameter, which marks the entries it finds. When the
// command is about to start its runner, each switch it never read gets one line on standard
// error ("qlutil: -x is not an option of -j remove-user; ignored"); a command flagged
// kCommandDestructive in the command table refuses to run instead, so that a misspelt switch
// (say -dryrun for a job that has none) never removes anything.
//
// The array is registered from the main thread before any command thread starts; marking is
// lock-free and may happen on any thread.

#include "qlutil.h"

// Registers the run's parameter array; getters on other arrays mark nothing.
void BeginCommandOptions(const TEST_PARAMETER *pTestParam, int nParameters);
// The row of the command that runs; null while none was found.
void SetCommandRow(const TEST_FUNCTION *row);
const TEST_FUNCTION *GetCommandRow();
// The run's parameter array and its length (null and 0 outside a run).
TEST_PARAMETER *GetCommandOptions(int *count);
// Forgets the array and the row.
void EndCommandOptions();

// Marks every entry named like pTestParam[index] as read, when pTestParam is the run's array.
void MarkOptionRead(const TEST_PARAMETER *pTestParam, int index);

// Prints the line for each unread switch, once per run. True when the command must not run:
// it is destructive and was given a switch it does not know. Called by the runners and the job
// frame before anything reaches the HSM.
bool CheckUnreadOptions();

// One line on standard error about a switch's value ("qlutil: <text>"), once per switch and run:
// for input files that are missing or empty and hex that does not parse. The command then
// decides (usually its help page).
void ReportOptionValue(const char *pszName, const char *pszText);
// "qlutil: the file of <switch>, <file>, <what>" through ReportOptionValue; what is "cannot be
// read" or "is empty".
void ReportInputFile(const char *pszName, const char *pszFile, const char *what);
