// The tools take a PIN from standard input or a prompt, never from the command line, where
// process listings and shell history keep it.
#pragma once

#include <windows.h>

#include <cstdio>
#include <string>

namespace tools {

// One line of standard input without its line end; false when there is none. On a console
// the prompt goes to the error stream and the typed characters are not echoed.
inline bool readPinLine(bool prompt, std::string& pin) {
    HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    bool console = prompt && GetConsoleMode(input, &mode);
    if (prompt) std::fprintf(stderr, "PIN: ");
    if (console) SetConsoleMode(input, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
    pin.clear();
    bool any = false;
    for (int c = std::fgetc(stdin); c != EOF && c != '\n'; c = std::fgetc(stdin)) {
        any = true;
        if (c != '\r') pin.push_back(static_cast<char>(c));
    }
    if (console) SetConsoleMode(input, mode);
    if (prompt) std::fprintf(stderr, "\n");
    return any && !pin.empty();
}

// What a tool says to --pin.
inline const char* pinOnCommandLineRefusal() {
    return "--pin is not taken: a PIN on the command line stays in process listings and shell history. Give it on "
           "standard input with --pin-stdin, or type it with --ask-pin";
}

}  // namespace tools
