#include "tslibs/dictionary.h"

#include <map>
#include <string>
#include <string_view>
#include <variant>

struct Dictionary {
    std::map<std::string, std::variant<std::string, bool>, std::less<>> values;
};

namespace {

template <typename Value>
const Value* Find(const Dictionary* dictionary, std::string_view key) {
    const auto found = dictionary->values.find(key);
    return found == dictionary->values.end() ? nullptr : std::get_if<Value>(&found->second);
}

}  // namespace

Dictionary* Dictionary_Create() {
    return new Dictionary;
}

void Dictionary_Clear(Dictionary* dictionary) {
    dictionary->values.clear();
}

void Dictionary_Free(Dictionary* dictionary) {
    delete dictionary;
}

void Dict_SetString(Dictionary* dictionary, const char* key, const char* value) {
    dictionary->values.insert_or_assign(key, std::string(value));
}

void Dict_SetBool(Dictionary* dictionary, const char* key, bool value) {
    dictionary->values.insert_or_assign(key, value);
}

const char* Dict_GetString(const Dictionary* dictionary, const char* key, const char* fallback) {
    const auto* value = Find<std::string>(dictionary, key);
    return value == nullptr ? fallback : value->c_str();
}

bool Dict_GetBool(const Dictionary* dictionary, const char* key, bool fallback) {
    const auto* value = Find<bool>(dictionary, key);
    return value == nullptr ? fallback : *value;
}
