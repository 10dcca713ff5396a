#pragma once
// JSON helpers shared by every file format of the core: strict typed field access for decoding, and
// the one output form of the system's own files (pretty, sorted keys, slashes unescaped).
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace skeldrin {

using Json = nlohmann::json;

// A JSON document that is valid JSON but not of the expected shape.
class DecodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Pretty-printed with two spaces, keys sorted, "/" unescaped, UTF-8 kept (invalid bytes replaced).
std::string encodePretty(const Json& value);

// Parses text, turning nlohmann's parse errors into DecodingError with a short reason.
Json parseJson(std::string_view text);

namespace json_field {

// A missing key or null gives nothing; a present value of another type throws DecodingError.
std::optional<std::string> optionalString(const Json& object, const char* key);
std::optional<bool> optionalBool(const Json& object, const char* key);
std::optional<std::int64_t> optionalInt64(const Json& object, const char* key);
std::optional<double> optionalDouble(const Json& object, const char* key);
std::optional<std::vector<std::string>> optionalStringArray(const Json& object, const char* key);

// Missing or null throws DecodingError, as does a value of another type.
std::string requiredString(const Json& object, const char* key);
bool requiredBool(const Json& object, const char* key);
std::int64_t requiredInt64(const Json& object, const char* key);
double requiredDouble(const Json& object, const char* key);
const Json& requiredObject(const Json& object, const char* key);

// Throws DecodingError unless value is an object.
void expectObject(const Json& value, const char* what);

} // namespace json_field
} // namespace skeldrin
