#include "TrackerCore/Json.h"

#include <cmath>
#include <limits>

namespace skeldrin {

std::string encodePretty(const Json& value)
{
    return value.dump(2, ' ', false, Json::error_handler_t::replace);
}

Json parseJson(std::string_view text)
{
    try {
        return Json::parse(text);
    } catch (const Json::exception& e) {
        // Also a number too large for a double, which nlohmann reports as out of range.
        throw DecodingError(std::string("not valid JSON: ") + e.what());
    }
}

namespace json_field {
namespace {

const Json* present(const Json& object, const char* key)
{
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

[[noreturn]] void wrongType(const char* key, const char* expected)
{
    throw DecodingError(std::string("\"") + key + "\" is not " + expected);
}

[[noreturn]] void missing(const char* key) { throw DecodingError(std::string("\"") + key + "\" is missing"); }

std::int64_t asInt64(const Json& value, const char* key)
{
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() &&
            value.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            wrongType(key, "a 64-bit integer");
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        // A whole number written as 3.0 is still that integer.
        const double d = value.get<double>();
        if (std::isfinite(d) && std::trunc(d) == d && d >= -9.2e18 && d <= 9.2e18)
            return static_cast<std::int64_t>(d);
    }
    wrongType(key, "a 64-bit integer");
}

} // namespace

std::optional<std::string> optionalString(const Json& object, const char* key)
{
    const Json* value = present(object, key);
    if (!value) return std::nullopt;
    if (!value->is_string()) wrongType(key, "a string");
    return value->get<std::string>();
}

std::optional<bool> optionalBool(const Json& object, const char* key)
{
    const Json* value = present(object, key);
    if (!value) return std::nullopt;
    if (!value->is_boolean()) wrongType(key, "a boolean");
    return value->get<bool>();
}

std::optional<std::int64_t> optionalInt64(const Json& object, const char* key)
{
    const Json* value = present(object, key);
    if (!value) return std::nullopt;
    return asInt64(*value, key);
}

std::optional<double> optionalDouble(const Json& object, const char* key)
{
    const Json* value = present(object, key);
    if (!value) return std::nullopt;
    if (!value->is_number()) wrongType(key, "a number");
    return value->get<double>();
}

std::optional<std::vector<std::string>> optionalStringArray(const Json& object, const char* key)
{
    const Json* value = present(object, key);
    if (!value) return std::nullopt;
    if (!value->is_array()) wrongType(key, "an array of strings");
    std::vector<std::string> result;
    result.reserve(value->size());
    for (const Json& element : *value) {
        if (!element.is_string()) wrongType(key, "an array of strings");
        result.push_back(element.get<std::string>());
    }
    return result;
}

std::string requiredString(const Json& object, const char* key)
{
    auto value = optionalString(object, key);
    if (!value) missing(key);
    return std::move(*value);
}

bool requiredBool(const Json& object, const char* key)
{
    const auto value = optionalBool(object, key);
    if (!value) missing(key);
    return *value;
}

std::int64_t requiredInt64(const Json& object, const char* key)
{
    const auto value = optionalInt64(object, key);
    if (!value) missing(key);
    return *value;
}

double requiredDouble(const Json& object, const char* key)
{
    const auto value = optionalDouble(object, key);
    if (!value) missing(key);
    return *value;
}

const Json& requiredObject(const Json& object, const char* key)
{
    const Json* value = present(object, key);
    if (!value) missing(key);
    if (!value->is_object()) wrongType(key, "an object");
    return *value;
}

void expectObject(const Json& value, const char* what)
{
    if (!value.is_object()) throw DecodingError(std::string(what) + " is not a JSON object");
}

} // namespace json_field
} // namespace skeldrin
