#include "figures.h"

#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "lean_host.h"

using kit::die;

void stay_on_one_processor() {
    cpu_set_t processors;
    if (sched_getaffinity(0, sizeof processors, &processors) == 0) {
        for (int processor = CPU_SETSIZE - 1; processor >= 0; --processor) {
            if (CPU_ISSET(processor, &processors)) {
                CPU_ZERO(&processors);
                CPU_SET(processor, &processors);
                break;
            }
        }
        if (sched_setaffinity(0, sizeof processors, &processors) == 0) {
            return;
        }
    }
    die("the process cannot be kept on one processor");
}

long number_in(const std::string& file, const std::string& label) {
    std::ifstream stream(file);
    const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    const std::size_t at = text.find(label);
    if (at == std::string::npos) {
        die(file + " has no '" + label + "'");
    }
    return std::strtol(text.c_str() + at + label.length(), nullptr, 10);
}

long positive_number(const char* argument) {
    char* end = nullptr;
    const long number = std::strtol(argument, &end, 10);
    if (*end != '\0' || number <= 0) {
        die(std::string("'") + argument + "' is not a number above 0");
    }
    return number;
}

void print_result(json_t* result) {
    json_dumpf(result, stdout, JSON_REAL_PRECISION(12));
    std::fputc('\n', stdout);
    json_decref(result);
}
