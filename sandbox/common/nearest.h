#ifndef COMMON_NEAREST_H
#define COMMON_NEAREST_H

/// @file
/// Guesses what a mistyped name was meant to be.

#include <string>
#include <vector>

namespace sandbox {

/// " (NAME?)" with the name that takes the fewest edits to get from `word`, for the end of an error message;
/// empty when every name takes more than a third of the word's length, or more than 2 for a short word.
std::string nearest(const std::string& word, const std::vector<std::string>& names);

} // namespace sandbox

#endif
