#include "cvutils/json.h"

#include <memory>

namespace cv {

bool json_attach_value(json_t* object, const char* key, const char* value) {
    return json_object_set_new(object, key, json_string(value)) == 0;
}

bool json_attach_value(json_t* object, const char* key, const std::vector<std::string>& values) {
    const std::unique_ptr<json_t, void (*)(json_t*)> array(json_array(), &json_decref);
    if (!array) {
        return false;
    }
    for (const std::string& value : values) {
        if (json_array_append_new(array.get(), json_string(value.c_str())) != 0) {
            return false;
        }
    }
    return json_object_set(object, key, array.get()) == 0;
}

const char* json_extract_string_value(const json_t* value) {
    return json_string_value(value);
}

const char* json_extract_string_value(const json_t* object, const char* key) {
    return json_string_value(json_object_get(object, key));
}

json_t* json_object_get_recursive(const json_t* root, const std::vector<std::string>& keys) {
    // jansson's own look-up takes a const object and gives a mutable member; an empty path is the root
    // itself.
    json_t* value = const_cast<json_t*>(root);
    for (const std::string& key : keys) {
        value = json_object_get(value, key.c_str());
    }
    return value;
}

} // namespace cv
