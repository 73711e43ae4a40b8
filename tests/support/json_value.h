// JSON as the commands print it, read by tests. A thin face: the library behind it takes the compiler longer than most
// tests, and so is included in one file.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// A value within a text. What does not fit it (another type, a name that is not there, no JSON) throws std::exception.
class JsonValue {
  public:
    static JsonValue parse(const std::string& text);
    static bool accept(const std::string& text);  // whether it is JSON

    JsonValue at(const std::string& name) const;
    JsonValue without(const std::string& name) const;
    std::vector<std::string> names() const;  // of an object, in the order of the text

    bool is_null() const;
    bool is_boolean() const;
    bool is_number() const;
    std::string text() const;
    double number() const;
    bool truth() const;

    operator std::string() const { return text(); }
    operator double() const { return number(); }

    bool operator==(const JsonValue& other) const;
    bool operator==(const std::string& other) const;
    bool operator==(const char* other) const { return *this == std::string(other); }
    bool operator==(double other) const;
    bool operator==(bool other) const;

    friend std::ostream& operator<<(std::ostream& out, const JsonValue& value);

  private:
    struct Parsed;
    explicit JsonValue(std::shared_ptr<const Parsed> parsed) : parsed_(std::move(parsed)) {}

    std::shared_ptr<const Parsed> parsed_;
};
