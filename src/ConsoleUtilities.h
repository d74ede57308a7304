#pragma once

#include <cstddef>

class CNfsMain;
class CUtilities;

// The console front end: parses the options, guards the run with a pid
// file, creates the controller of the chosen placement and runs one action
// (shutdown request, status, platform test or the interactive loop).
// Everything of a run lives in Run; the object has no state of its own.
class CConsoleUtilities {
public:
    // Size of the joined argument text and of one command line.
    static constexpr size_t COMMAND_TEXT_SIZE = 4096;
    // Size of the ID, version and description texts.
    static constexpr size_t NAME_TEXT_SIZE = 256;

    CConsoleUtilities() = default;
    virtual ~CConsoleUtilities() = default;

    // arguments: the options, each followed by a line feed. 0 on success,
    // 1 on failure.
    int Run(const char* programName, const char* arguments);

    void PrintUsage(const char* programName);
    void PrintCommandHelp(bool debugMode);
    void PrintStatus(CNfsMain* nfs);
    // The interactive loop: ends on "quit", on an auto-shutdown request or
    // on SIGTERM/SIGINT.
    void ProcessCommand(CNfsMain* nfs);
    // Splits "left=right"; left and right must hold strlen(text) + 1 bytes.
    bool SplitValue(CUtilities* utils, const char* text, char* left, char* right);
    // True when standard input (a terminal, a pipe or a file) has a
    // character waiting; the character stays in standard input.
    bool IsKeyboardHit();
    void MsSleep(int ms);
    // errText holds ERROR_TEXT_SIZE bytes.
    bool CreatePidFile(const char* path, int logControl, char* errText);
    void RemovePidFile(const char* path, int logControl);
};
