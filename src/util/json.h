// cJSON trees and texts with an owner, and typed reads of their members.
#pragma once

#include <stdint.h>

#include <cjson/cJSON.h>

#include "util/memory.h"

struct json_deleter_t {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};

using json_ptr = std::unique_ptr<cJSON, json_deleter_t>;

// The compact text of `json`; empty when it is NULL or memory is out.
text_ptr json_print(const cJSON* json);

// The member of that name, whatever its letter case; NULL when there is none.
const cJSON* json_get(const cJSON* json, const char* name);

// The member's string, borrowed; NULL when it is missing or no string.
const char* json_get_string(const cJSON* json, const char* name);

// The member's number as cJSON's integer view gives it (truncated, held within 32 bits); 0 when
// it is missing or no number.
int32_t json_get_int(const cJSON* json, const char* name);

// `value` x `factor`, held within 0 .. INT32_MAX.
int32_t json_scale(int32_t value, int32_t factor);

// Adds a member to `json`; false, with nothing added, when memory is out. The number is for
// printing alone: json_get_int doesn't find it.
bool json_add_int(cJSON* json, const char* name, int32_t value);
bool json_add_string(cJSON* json, const char* name, const char* value);

// Adds `member`, which `json` owns from then on; when it fails, `member` is deleted.
bool json_add(cJSON* json, const char* name, json_ptr member);

// Sets the message id, in place of any member of that name.
bool json_set_id(cJSON* json, int32_t id);

// The compact text of {"error_code": code, "msg": msg}.
//   -1 when the object can't be created, -2 when it can't be printed, 0 with `text` set.
int json_error_text(int32_t code, const char* msg, text_ptr* text);
