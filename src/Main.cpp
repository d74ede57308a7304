// The console program nfsengine. Kept out of the engine library: the test
// executables bring their own main.

#include <cstdio>
#include <cstring>

#include "ConsoleUtilities.h"

int main(int argc, char** argv) {
    // The program name is what follows the last backslash of the path.
    const char* programName = argc > 0 && argv[0] ? argv[0] : "nfsengine";
    if (const char* slash = strrchr(programName, '\\')) programName = slash + 1;

    // The options, each followed by a line feed; what does not fit is left out.
    char arguments[CConsoleUtilities::COMMAND_TEXT_SIZE] = "";
    size_t used = 0;
    for (int i = 1; i < argc; ++i) {
        size_t len = strlen(argv[i]);
        if (used + len + 1 >= sizeof arguments) break;
        memcpy(arguments + used, argv[i], len);
        arguments[used + len] = '\n';
        used += len + 1;
        arguments[used] = '\0';
    }

    // Line-buffered even into a pipe or the journal, so that log lines of
    // the server threads appear as they happen.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CConsoleUtilities console;
    return console.Run(programName, arguments);
}
