#include "core/json.h"

#include <cstring>
#include <json-c/json.h>

#include "core/log.h"

json_object* jsonParseStr(const char* text, size_t /*length*/) {
    if (text == nullptr) {
        LOG_ERROR("Buf is NULL!\n");
        return nullptr;
    }
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) {
        LOG_ERROR("Create tokener failed.\n");
        return nullptr;
    }
    json_object* object = json_tokener_parse_ex(tokener, text, -1);
    json_tokener_error error = json_tokener_get_error(tokener);
    json_tokener_free(tokener);
    if (error != json_tokener_success) {
        LOG_ERROR("Parse buf failed,%s.\n", text);
        json_object_put(object);
        return nullptr;
    }
    return object;
}

const char* getValueFromJsonObj(json_object* object, const char* key) {
    if (object == nullptr || key == nullptr) {
        LOG_ERROR("jsonObj or name is NULL!\n");
        return nullptr;
    }
    if (!json_object_is_type(object, json_type_object)) {
        return nullptr; // a number or an array is good JSON, but has no members
    }
    const char* value = nullptr;
    json_object_object_foreach(object, name, member) {
        if (strcmp(name, key) != 0) {
            continue;
        }
        if (member == nullptr) {
            return "null";
        }
        value = json_object_is_type(member, json_type_string) ? json_object_get_string(member)
                                                              : json_object_to_json_string(member);
    }
    return value;
}

void jsonObjectPut(json_object* object) {
    if (object == nullptr) {
        LOG_ERROR("Free null obj\n");
        return;
    }
    json_object_put(object);
}
