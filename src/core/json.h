#pragma once

#include <cstddef>

// Reading JSON that other programs print or the relay sends (json-c). Threads: any; an object
// belongs to whoever parsed it.

struct json_object;

// Parses a terminated text. Null, with a log line, for a null text, a text that is not JSON or
// when memory is short. The caller releases the object with jsonObjectPut. The length is not
// looked at: the text's terminator ends it.
json_object* jsonParseStr(const char* text, size_t length);

// The value of a member as text: a string as it is, JSON null as "null", anything else as its JSON
// text. The last member of that name wins, except that a null ends the search at once. Null when no
// member has the name, with a log line for a null argument. The text lives as long as the object.
const char* getValueFromJsonObj(json_object* object, const char* key);

// Releases what jsonParseStr gave; a null object is only logged.
void jsonObjectPut(json_object* object);
