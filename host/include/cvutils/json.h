#ifndef CVUTILS_JSON_H
#define CVUTILS_JSON_H

/// @file
/// Helpers of the utility library for JSON values of jansson.

#include <string>
#include <vector>

#include <jansson.h>

/// The maker's utility library, `libcvutils`.
namespace cv {

/// Sets the member `key` of `object` to a JSON string. False when it cannot be set.
bool json_attach_value(json_t* object, const char* key, const char* value);

/// As above, for an array of JSON strings in the order of `values`.
bool json_attach_value(json_t* object, const char* key, const std::vector<std::string>& values);

/// The text of a JSON string, borrowed from it; null for any other value.
const char* json_extract_string_value(const json_t* value);

/// The text of the string member `key` of `object`, borrowed from it; null without such a member, or for one
/// of another type.
const char* json_extract_string_value(const json_t* object, const char* key);

/// Follows the keys from `root` through nested objects to a value, borrowed from `root`. Null where a key
/// leads nowhere.
json_t* json_object_get_recursive(const json_t* root, const std::vector<std::string>& keys);

} // namespace cv

#endif
