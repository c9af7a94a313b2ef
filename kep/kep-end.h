// How the program ends: everything below the command loop throws a `fatal`
// (include/fatal.h); the loop prints it and ends the process with its status.
#pragma once

#include <cstddef>

#include "fatal.h"

// Ends the program with `status` once the command loop gets control back (it
// throws a fatal without text): what has been printed stays as it is.
[[noreturn]] void kep_exit(int status);

// Prints a fatal's text on its stream, as the code that threw it would have.
void print_fatal(const fatal &f);
// The command loop's end: prints the fatal, writes out held output, flushes
// standard output and ends the process with the fatal's status.
[[noreturn]] void end_program(const fatal &f);

// Holds back what is printed on standard output until end_output_capture(),
// which hands it over (heap text, release with free; its length in *size).
// end_program writes held text out first, so an end meanwhile loses nothing.
void begin_output_capture();
char *end_output_capture(size_t *size);
