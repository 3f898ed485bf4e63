#pragma once

#include <QStringList>

#include <cstdio>

// Exit statuses of the command.
enum ExitStatus {
    ExitOk = 0,         // every file reported
    ExitFileFailed = 1, // a file could not be opened or read, or the report not written
    ExitUsage = 2,      // unknown option, bad value, no file
    ExitNotTaken = 3,   // no plugin takes a file
    ExitProblems = 4,   // with --check: a file has a problem of severity error; the others win
};

// Runs the command with the arguments that follow the program name: reports go to out,
// messages to err. With several failing files the highest status wins.
int runHost(const QStringList &arguments, FILE *out, FILE *err);
