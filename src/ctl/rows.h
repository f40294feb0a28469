// What a verb tells, written once for people and for programs: rows of a table whose members make
// the JSON output.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <json-c/json.h>

#include "console.h"

// A JSON value; copies share it.
class JsonValue {
public:
    JsonValue(std::nullptr_t = nullptr) {}
    JsonValue(std::string_view text);  // as it is when it is UTF-8, else escape()d
    JsonValue(const char* text) : JsonValue(std::string_view(text)) {}
    JsonValue(const std::string& text) : JsonValue(std::string_view(text)) {}
    JsonValue(std::int64_t number);
    template <typename Value>
    JsonValue(const std::optional<Value>& value)
        : JsonValue(value ? JsonValue(*value) : JsonValue()) {}

    struct Member;
    static JsonValue object(const std::vector<Member>& members = {});
    void add(const Member& member);  // to an object, behind the others

    static JsonValue list();
    void append(const JsonValue& value);

    // Prints it on standard output, indented.
    void print() const;

private:
    explicit JsonValue(json_object* value);
    json_object* shared() const { return json_object_get(value_.get()); }

    std::shared_ptr<json_object> value_;
};

struct JsonValue::Member {
    std::string name;  // escape()d where it is not UTF-8
    JsonValue value;
};

// The list of what `json_of` makes of each item.
template <typename Items, typename Function>
JsonValue json_list(const Items& items, Function json_of) {
    JsonValue list = JsonValue::list();
    for (const auto& item : items) {
        list.append(json_of(item));
    }
    return list;
}

// One without members is for people only.
struct Row {
    std::vector<Cell> cells;
    std::vector<JsonValue::Member> members;
};
using Rows = std::vector<Row>;

// Prints the cells in aligned columns; the last one is not padded.
void print_table(const Rows& rows);

// The members of all rows in one object.
JsonValue object_of(const Rows& rows);

// A list with an object for each row.
JsonValue list_of(const Rows& rows);
