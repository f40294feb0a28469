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
class Json {
public:
    Json(std::nullptr_t = nullptr) {}
    Json(std::string_view text);  // as it is when it is UTF-8, else escape()d
    Json(const char* text) : Json(std::string_view(text)) {}
    Json(const std::string& text) : Json(std::string_view(text)) {}
    Json(std::int64_t number);
    template <typename Value>
    Json(const std::optional<Value>& value) : Json(value ? Json(*value) : Json()) {}

    struct Member;
    static Json object();
    static Json object(const std::vector<Member>& members);
    void add(const Member& member);  // to an object, behind the others

    static Json list();
    void append(const Json& value);

    // Prints it on standard output, indented.
    void print() const;

    // It on one line.
    std::string line() const;

private:
    explicit Json(json_object* value);
    json_object* shared() const { return json_object_get(value_.get()); }

    std::shared_ptr<json_object> value_;
};

struct Json::Member {
    std::string name;  // escape()d where it is not UTF-8
    Json value;
};

// The list of what `json_of` makes of each item.
template <typename Items, typename Function>
Json json_list(const Items& items, Function json_of) {
    Json list = Json::list();
    for (const auto& item : items) {
        list.append(json_of(item));
    }
    return list;
}

struct Cell {
    std::string text;
    Colour colour = Colour::PLAIN;
};

// One without members is for people only.
struct Row {
    std::vector<Cell> cells;
    std::vector<Json::Member> members;
};
using Rows = std::vector<Row>;

// Prints the cells in aligned columns; the last one is not padded.
void print_table(const Rows& rows);

// The members of all rows in one object.
Json object_of(const Rows& rows);

// A list with an object for each row.
Json list_of(const Rows& rows);
