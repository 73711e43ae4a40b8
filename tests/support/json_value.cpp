#include "json_value.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>

struct JsonValue::Parsed {
    nlohmann::ordered_json value;
};

JsonValue JsonValue::parse(const std::string& text) {
    return JsonValue(std::make_shared<Parsed>(Parsed{nlohmann::ordered_json::parse(text)}));
}

bool JsonValue::accept(const std::string& text) {
    return nlohmann::ordered_json::accept(text);
}

JsonValue JsonValue::at(const std::string& name) const {
    return JsonValue(std::make_shared<Parsed>(Parsed{parsed_->value.at(name)}));
}

JsonValue JsonValue::without(const std::string& name) const {
    nlohmann::ordered_json rest = parsed_->value;
    if (rest.erase(name) == 0) throw std::out_of_range("no " + name);
    return JsonValue(std::make_shared<Parsed>(Parsed{rest}));
}

std::vector<std::string> JsonValue::names() const {
    std::vector<std::string> names;
    for (const auto& [name, value] : parsed_->value.items()) names.push_back(name);
    return names;
}

bool JsonValue::is_null() const {
    return parsed_->value.is_null();
}

bool JsonValue::is_boolean() const {
    return parsed_->value.is_boolean();
}

bool JsonValue::is_number() const {
    return parsed_->value.is_number();
}

std::string JsonValue::text() const {
    return parsed_->value.get<std::string>();
}

double JsonValue::number() const {
    return parsed_->value.get<double>();
}

bool JsonValue::truth() const {
    return parsed_->value.get<bool>();
}

bool JsonValue::operator==(const JsonValue& other) const {
    return parsed_->value == other.parsed_->value;
}

bool JsonValue::operator==(const std::string& other) const {
    return parsed_->value == other;
}

bool JsonValue::operator==(double other) const {
    return parsed_->value == other;
}

bool JsonValue::operator==(bool other) const {
    return parsed_->value == other;
}

std::ostream& operator<<(std::ostream& out, const JsonValue& value) {
    return out << value.parsed_->value;
}
