#ifndef FIGURES_H
#define FIGURES_H

#include <string>

#include <jansson.h>

// What the measuring programs read of the process and print.

/// Keeps this thread, and those that it will start, on one processor.
void stay_on_one_processor();

/// The number after `label` in a file of /proc; ends the program when there is none.
long number_in(const std::string& file, const std::string& label);

/// The positive number that a command-line argument holds; ends the program when it holds none.
long positive_number(const char* argument);

/// Prints the object, which is released, as the program's result.
void print_result(json_t* result);

#endif
