#include "rows.h"

#include <algorithm>

namespace {

// Not every byte may stand in JSON.
std::string json_text(std::string_view text) {
    return is_utf8(text) ? std::string(text) : escape(text);
}

std::vector<std::size_t> widths_of(const Rows& rows) {
    std::vector<std::size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.cells.size()));
        for (std::size_t n = 0; n < row.cells.size(); ++n) {
            widths[n] = std::max(widths[n], columns_of(row.cells[n].text));
        }
    }
    return widths;
}

}  // namespace

Json::Json(json_object* value)
    : value_(value, [](json_object* object) { json_object_put(object); }) {}

Json::Json(std::string_view text) : Json(json_object_new_string(json_text(text).c_str())) {}

Json::Json(std::int64_t number) : Json(json_object_new_int64(number)) {}

Json Json::object() {
    return Json(json_object_new_object());
}

Json Json::object(const std::vector<Member>& members) {
    Json object = Json::object();
    for (const Member& member : members) {
        object.add(member);
    }
    return object;
}

void Json::add(const Member& member) {
    json_object_object_add(value_.get(), json_text(member.name).c_str(), member.value.shared());
}

Json Json::list() {
    return Json(json_object_new_array());
}

void Json::append(const Json& value) {
    json_object_array_add(value_.get(), value.shared());
}

void Json::print() const {
    constexpr int FLAGS =
        JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
    print_line(json_object_to_json_string_ext(value_.get(), FLAGS));
}

std::string Json::line() const {
    return json_object_to_json_string_ext(value_.get(),
                                          JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

void print_table(const Rows& rows) {
    const std::vector<std::size_t> widths = widths_of(rows);
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t n = 0; n < row.cells.size(); ++n) {
            const Cell& cell = row.cells[n];
            line += paint(cell.colour, cell.text);
            if (n + 1 < row.cells.size()) {
                line.append(widths[n] - columns_of(cell.text) + 2, ' ');
            }
        }
        line.erase(line.find_last_not_of(' ') + 1);  // of empty cells at the end
        print_line(line);
    }
}

Json object_of(const Rows& rows) {
    Json object = Json::object();
    for (const Row& row : rows) {
        for (const Json::Member& member : row.members) {
            object.add(member);
        }
    }
    return object;
}

Json list_of(const Rows& rows) {
    return json_list(rows, [](const Row& row) { return Json::object(row.members); });
}
