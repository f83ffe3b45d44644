// String-keyed configuration dictionaries of the host's base utility library. Not thread-safe.
#pragma once

struct Dictionary;

Dictionary* Dictionary_Create();
void Dictionary_Clear(Dictionary* dictionary);
void Dictionary_Free(Dictionary* dictionary);

// Keys and values are copied; a later value replaces an earlier one.
void Dict_SetString(Dictionary* dictionary, const char* key, const char* value);
void Dict_SetBool(Dictionary* dictionary, const char* key, bool value);

// The value, or the fallback when the key is missing or of another type. The text lives until the key is set again or
// the dictionary is cleared.
const char* Dict_GetString(const Dictionary* dictionary, const char* key, const char* fallback);
bool Dict_GetBool(const Dictionary* dictionary, const char* key, bool fallback);
