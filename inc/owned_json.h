// An owner of a json-c value, which it releases when it goes out of scope.
#pragma once

#include <memory>

#include <json-c/json.h>

struct PutJson {
    void operator()(json_object* object) const { json_object_put(object); }
};
using OwnedJson = std::unique_ptr<json_object, PutJson>;
