// Whether the cloud's answer to a request is of use.
#ifndef COMMON_CLOUD_ANSWER_H
#define COMMON_CLOUD_ANSWER_H

#include <string>
#include <string_view>

namespace sandbox {

/// Why the body of an answer holds no result, for a person: the cloud's own message where there is one. Empty
/// for an answer without an error.
std::string problem_of_answer(std::string_view body);

} // namespace sandbox

#endif
